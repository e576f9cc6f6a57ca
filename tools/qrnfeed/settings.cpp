// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace feeder {

namespace {

constexpr std::string_view intro =
    R"(usage: qrnfeed [FLAG]... [FILE]

Feeds lines "topic TAB payload" through an event queue to receivers, and prints what became of them.
The lines come from FILE, from standard input (no FILE, or -), or from UDP datagrams.

)";

constexpr std::string_view notes = R"(
Input ends where FILE or standard input does, with an empty datagram, after --for, or on SIGINT or
SIGTERM. What is queued by then is delivered before the program ends, unless a second signal comes.

A second queue, "control", which the main thread dispatches, takes the input, the timers and the
signals. The messages wait in the queue "feed", at most about 10,000 at a time: then reading pauses,
and UDP datagrams that find no room in their socket are dropped and counted.

Progress goes to standard error each second, the tables to standard output at the end. The sum there
counts deliveries: a line that is for several receivers is sent once to each of them. A line is
malformed when its tab or its topic is missing, or when it is longer than 65,536 bytes.

Exit status: 0; 1 when the input could not be read to its end or the counts do not add up; 2, with one
line that says why, when nothing was begun.
)";

// A flag and what it does; a refusal it throws holds the reason only.
struct flag {
    std::string_view name;
    std::string_view value; // empty: it takes none
    void (*apply)(settings &into, std::string_view text);
    std::string_view help;
};

unsigned number(std::string_view text, unsigned least, unsigned most)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), value);
    if (error != std::errc() || end != text.end() || value < least || value > most)
        throw refusal{"expected a number from " + std::to_string(least) + " to " +
                      std::to_string(most)};
    return value;
}

void add_unique(std::vector<std::string> &names, std::string_view name)
{
    if (name.empty())
        throw refusal{"it is empty"};
    if (std::find(names.begin(), names.end(), name) != names.end())
        throw refusal{"it is given twice"};
    names.emplace_back(name);
}

void add_option(settings &into, std::string_view text)
{
    const size_t equals = text.find('=');
    if (equals == text.npos)
        throw refusal{"expected NAME=VALUE"};
    into.options.emplace_back(text.substr(0, equals), text.substr(equals + 1));
}

void add_deletion(settings &into, std::string_view text)
{
    const size_t at = text.rfind('@');
    if (at == text.npos)
        throw refusal{"expected TOPIC@COUNT"};
    const std::string topic(text.substr(0, at));
    for (const deletion_wish &other : into.deletions)
        if (other.topic == topic)
            throw refusal{"the topic is given twice"};
    into.deletions.push_back(
        {topic, number(text.substr(at + 1), 1, std::numeric_limits<unsigned>::max())});
}

constexpr flag flags[] = {
    {"--udp", "ADDRESS:PORT", [](settings &into, std::string_view text) { into.udp = text; },
     "read datagrams of one or several lines; port 0: any free one"},
    {"--receive", "TOPIC",
     [](settings &into, std::string_view text) { add_unique(into.topics, text); },
     "make a receiver for this topic (repeatable)"},
    {"--match", "PATTERN",
     [](settings &into, std::string_view text) { add_unique(into.patterns, text); },
     "make a receiver for topics that match, as in a shell (repeatable)"},
    {"--dispatchers", "N",
     [](settings &into, std::string_view text) { into.dispatchers = number(text, 1, 256); },
     "threads that dispatch the messages, 1 to 256 (1)"},
    {"--batch", "", [](settings &into, std::string_view) { into.batch = true; },
     "deliver messages in bundles"},
    {"--option", "NAME=VALUE", add_option, "set an option of the queue (repeatable)"},
    {"--options", "", [](settings &into, std::string_view) { into.show_options = true; },
     "print the options of the queue, and end"},
    {"--work", "USEC",
     [](settings &into, std::string_view text) { into.work_usec = number(text, 0, 10000000); },
     "keep each message callback busy for so many microseconds (0)"},
    {"--delete", "TOPIC@COUNT", add_deletion,
     "delete the receiver of TOPIC when COUNT messages were handed to it"},
    {"--for", "SECONDS",
     [](settings &into, std::string_view text) { into.seconds = number(text, 1, 1000000); },
     "end the input after so long"},
    {"--help", "", [](settings &into, std::string_view) { into.show_help = true; },
     "print this, and end"},
};

void set_file(settings &into, std::string_view name)
{
    if (!into.file.empty())
        throw refusal{"'" + std::string(name) + "': a file is given already"};
    if (name.empty())
        throw refusal{"the name of the file is empty"};
    into.file = name;
}

// Applies the flag at `argv[i]` and returns the index of the last argument it took.
int apply_flag(settings &into, int i, int argc, char **argv)
{
    const std::string_view given = argv[i];
    const size_t equals = given.find('=');
    const std::string name(given.substr(0, equals));
    const flag *found = std::find_if(std::begin(flags), std::end(flags),
                                     [&](const flag &row) { return row.name == name; });
    if (found == std::end(flags) || (found->value.empty() && equals != given.npos))
        throw refusal{"unknown flag '" + std::string(given) + "' (see --help)"};
    std::string_view text;
    if (equals != given.npos)
        text = given.substr(equals + 1);
    else if (!found->value.empty() && ++i == argc)
        throw refusal{name + ": " + std::string(found->value) + " is missing"};
    else if (!found->value.empty())
        text = argv[i];
    try {
        found->apply(into, text);
    } catch (const refusal &refused) {
        throw refusal{name + " '" + std::string(text) + "': " + refused.why};
    }
    return i;
}

void check_together(const settings &wanted)
{
    if (!wanted.udp.empty() && !wanted.file.empty())
        throw refusal{"--udp and the file '" + wanted.file + "': only one can be read"};
    for (const deletion_wish &wish : wanted.deletions)
        if (std::find(wanted.topics.begin(), wanted.topics.end(), wish.topic) ==
            wanted.topics.end())
            throw refusal{"--delete '" + wish.topic + "': no --receive has this topic"};
}

} // namespace

settings parse(int argc, char **argv)
{
    settings wanted;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument.starts_with('-') && argument != "-")
            i = apply_flag(wanted, i, argc, argv);
        else
            set_file(wanted, argument);
    }
    check_together(wanted);
    return wanted;
}

std::string help()
{
    std::string text(intro);
    for (const flag &row : flags) {
        std::string left = "  " + std::string(row.name) + " " + std::string(row.value);
        left.resize(std::max<size_t>(left.size() + 1, 25), ' ');
        text += left + std::string(row.help) + "\n";
    }
    return text + std::string(notes);
}

} // namespace feeder
