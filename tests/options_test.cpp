// SPDX-License-Identifier: Apache-2.0
// Options by name, on a record and on the running queue that owns it: good and bad values, sizes and
// buffers at their edges, null arguments. What a call refuses records exactly its message and leaves
// every option and the mask as they were.
#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <latch>
#include <map>
#include <span>
#include <thread>

#include "options_common.h"

using namespace test;
using namespace std::string_literals;

namespace {

enum kind { threshold, toggle, interval, transport, words };

// The text each test starts with, the size of a typed value, and the numbers of the messages: typed
// size, typed value, digits, text value, size of a typed buffer, of a text buffer.
constexpr struct row {
    const char *name;
    kind is;
    bool live;
    const char *start;
    size_t size;
    int set_size, set_value, digits, value, get_size, room;
} rows[] = {
    {"queue_size_warning", threshold, true, "7", 8, 314, 0, 315, 316, 317, 318},
    {"queue_delay_warning", threshold, true, "8", 8, 319, 0, 320, 321, 322, 323},
    {"queue_enqueue_notification", toggle, true, "1", 4, 324, 325, 326, 327, 328, 329},
    {"queue_cancellation_callbacks_enabled", toggle, false, "1", 4, 330, 331, 332, 333, 334, 335},
    {"queue_objects_purged_on_close", toggle, false, "0", 4, 336, 337, 338, 339, 340, 341},
    {"queue_service_time_enabled", toggle, true, "1", 4, 342, 343, 344, 345, 346, 347},
    {"queue_age_enabled", toggle, true, "1", 4, 348, 349, 350, 351, 352, 353},
    {"queue_count_enabled", toggle, true, "1", 4, 354, 355, 356, 357, 358, 359},
    {"monitor_interval", interval, false, "0", 8, 360, 0, 361, 0, 362, 363},
    {"monitor_transport", transport, false, "qrnsnmp", 4, 364, 365, 0, 366, 367, 368},
    {"monitor_transport_opts", words, false, "port=1", 0, 0, 0, 0, 0, 369, 370},
    {"monitor_appid", words, false, "app", 0, 0, 0, 0, 0, 371, 372},
    {"event_queue_name", words, false, "start", 0, 0, 0, 0, 0, 382, 382},
    {"application_data", words, true, "bytes", 0, 0, 0, 0, 0, 385, 385},
};
enum { opts = 10, appid, queue_name, data }; // rows of texts

// The labels of the messages, and a letter for each message from 314 on.
const std::map<char, const char *> labels = {
    {'S', "optlen incorrect size"},     {'B', "optval must be 0 or 1"},
    {'N', "optval not numeric"},        {'X', "optval not a number"},
    {'R', "optlen too small"},          {'U', "optval not supported"},
    {'K', "optval not understood"},     {'L', "event_queue name too long"},
    {'V', "optval must not be NULL"},   {'C', "name contains invalid character"},
    {'E', "optlen must not be NULL"},   {'G', "optlen must be greater than 1"},
    {'H', "optval is not long enough"}, {'M', "name must not be NULL"}};
constexpr char letters[] = "SNXSRSNXSRSBNBSRSBNBSRSBNBSRSBNBSRSBNBSRSBNBSR" // numbers and switches
                           "SNSRSUKSRSSSSMCLVVLVEGHVEH";

// No number, no message.
std::string message(int number)
{
    return number == 0 ? "" : text("CoreApi-5688-%d: %s", number, labels.at(letters[number - 314]));
}

enum operation { typed_set, text_set, typed_get, text_get };

// Every option as text, and the mask.
using state = std::pair<std::array<std::string, std::size(rows)>, int>;

// Each of these tests reaches the options through the record and through the queue.
class options_test : public Fixture, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        Fixture::SetUp();
        for (const row &r : rows) {
            std::string name = r.name; // in capitals: the case does not matter
            std::ranges::transform(name, name.begin(), toupper);
            EXPECT_EQ(QRN_OK, qrn_event_queue_attr_str_setopt(attr, name.c_str(), r.start));
        }
        memset(attr->setopt_mask, 0, 2);
    }

    // One of the four operations; a setter takes the length that `size` points to.
    int call(operation which, const char *name, void *value, size_t *size)
    {
        const size_t length = size == nullptr ? 0 : *size;
        auto *const chars = static_cast<char *>(value);
        switch (which) {
        case typed_set:
            return live ? qrn_event_queue_setopt(evq, name, value, length)
                        : qrn_event_queue_attr_setopt(attr, name, value, length);
        case text_set:
            return live ? qrn_event_queue_str_setopt(evq, name, chars)
                        : qrn_event_queue_attr_str_setopt(attr, name, chars);
        case typed_get:
            return live ? qrn_event_queue_getopt(evq, name, value, size)
                        : qrn_event_queue_attr_getopt(attr, name, value, size);
        default:
            return live ? qrn_event_queue_str_getopt(evq, name, chars, size)
                        : qrn_event_queue_attr_str_getopt(attr, name, chars, size);
        }
    }

    // Reads everything, numbers in both forms.
    state now()
    {
        state all{{},
                  static_cast<unsigned char>(attr->setopt_mask[0]) + attr->setopt_mask[1] * 256};
        for (size_t i = 0; const row &r : rows) {
            char value[512] = "";
            size_t size = sizeof value - 1;
            EXPECT_EQ(QRN_OK, call(text_get, r.name, value, &size)) << r.name;
            all.first[i++] = value;
            unsigned long number = 0;
            if (r.is == words)
                continue;
            EXPECT_EQ(QRN_OK, call(typed_get, r.name, &number, &(size = r.size))) << r.name;
            const char *const transports[] = {"", "qrn", "qrnsnmp"};
            EXPECT_EQ(value, r.is == transport ? transports[number] : std::to_string(number));
        }
        return all;
    }

    // Sets an option and expects the refusal, or the new text and the mark.
    void expect_set(const row &r, operation which, std::string given, size_t size,
                    std::string refusal, const std::string &result)
    {
        SCOPED_TRACE(what(r.name, given, size));
        const auto i = static_cast<size_t>(&r - rows);
        state expected = now();
        if (live && !r.live)
            refusal = text("CoreApi-5688-%d: option %s unknown", 307 + 2 * which, r.name);
        else if (refusal.empty() || given[0] == '"')
            expected.first[i] = result; // a refused leading quote leaves the option unset
        expected.second |= refusal.empty() ? 1 << i : 0;
        expect_result(refusal, [&] { return call(which, r.name, given.data(), &size); });
        EXPECT_EQ(expected, now());
    }

    // Reads an option into a buffer of this size; what is not written stays 'x'.
    void expect_get(const row &r, operation which, size_t size, int refused, size_t length,
                    const std::string &written)
    {
        SCOPED_TRACE(what(r.name, which, size));
        std::vector<char> buffer(size, 'x'), expected = buffer;
        buffer.reserve(1); // never null
        std::ranges::copy(written, expected.begin());
        expect_result(message(refused), [&] { return call(which, r.name, buffer.data(), &size); });
        EXPECT_EQ(length, size);
        EXPECT_EQ(expected, buffer);
    }

    const bool live = GetParam();
    Queue queue;
    qrn_event_queue_t *evq = queue;
    qrn_event_queue_attr_t *attr = queue->attr;
};

INSTANTIATE_TEST_SUITE_P(each, options_test, testing::Bool(),
                         [](const auto &p) { return p.param ? "live" : "record"; });

TEST_P(options_test, sizes_are_exact_and_buffers_hold_the_text)
{
    for (const row &r : std::span(rows).first(opts)) {
        for (const size_t size : {size_t{0}, r.size - 1, r.size + 1, 12 - r.size, size_t{80}}) {
            expect_set(r, typed_set, std::string(80, 1), size, message(r.set_size), "");
            expect_get(r, typed_get, size, r.get_size, size, "");
        }
        const size_t length = strlen(r.start);
        expect_get(r, text_get, 79, r.room, 79, "");
        const size_t zeros = r.is == transport ? 80 - length : 1;
        expect_get(r, text_get, 80, 0, length, r.start + std::string(zeros, '\0'));
    }
    for (const row &r : std::span(rows).subspan(opts)) {
        const std::string all(r.start, strlen(r.start) + 1);
        const size_t missing = &r < &rows[queue_name] ? all.size() - 1 : all.size();
        expect_get(r, typed_get, all.size() - 1, r.get_size, missing, "");
        expect_get(r, text_get, all.size() - 1, r.room, missing, "");
        for (const operation get : {typed_get, text_get})
            expect_get(r, get, all.size(), 0, all.size() - (&r == &rows[data] ? 0 : 1), all);
    }
    const std::string zeros(45, '\0'); // fill a name's buffer
    expect_get(rows[queue_name], text_get, 50, 0, 5, "start" + zeros);
}

std::string bytes(unsigned long number)
{
    return {reinterpret_cast<const char *>(&number), sizeof number};
}

TEST_P(options_test, values_of_a_fixed_size)
{
    const std::string digits = "digits", value = "value",
                      most = std::to_string(ULONG_MAX); // refused
    const struct {
        operation set;
        std::string given, result[4]; // for each kind
    } cases[] = {
        {typed_set, bytes(0), {"0", "0", "0", value}},
        {typed_set, bytes(1), {"1", "1", "1", "qrn"}},
        {typed_set, bytes(3), {"3", value, "3", value}},
        {typed_set, bytes((1UL << 32) + 2), {"4294967298", value, "2", "qrnsnmp"}},
        {typed_set, bytes(ULONG_MAX), {most, value, "4294967295", value}},
        {text_set, "", {value, "0", "0", value}},
        {text_set, " x", {value, "0", "0", value}},
        {text_set, "01 and more", {"1", "1", "1", value}},
        {text_set, "010", {"10", value, "10", value}},
        {text_set, " -1", {most, value, "4294967295", value}},
        {text_set, "-1", {digits, digits, digits, value}},
        {text_set, "1x", {digits, digits, digits, value}},
        {text_set, "\xB2", {digits, digits, digits, value}},
        {text_set, "4294967297", {"4294967297", value, "1", value}},
        {text_set, std::string(20, '9'), {most, value, "4294967295", value}},
        {text_set, "QRN", {digits, digits, digits, "qrn"}},
        {text_set, "QrnSnmp", {digits, digits, digits, "qrnsnmp"}},
        {text_set, "qrn ", {digits, digits, digits, value}},
    };
    for (const auto &[set, given, result] : cases)
        for (const row &r : std::span(rows).first(opts)) {
            const int bad_value = set == typed_set ? r.set_value : r.value;
            const int refused = result[r.is] == value    ? bad_value
                                : result[r.is] == digits ? r.digits
                                                         : 0;
            expect_set(r, set, given, r.size, message(refused), result[r.is]);
        }
}

TEST_P(options_test, texts)
{
    const std::string longest(128, 'n'), any(300, 'a');
    const char quote[] =
        "CoreApi-8840-%d: event queue monitor transport opts value cannot start with a '\"'";
    const struct {
        int option;
        operation set;
        std::string given;
        size_t size; // of the typed form
        std::string refusal, result;
    } cases[] = {
        {opts, text_set, "%s%n \"quoted\"", 0, "", "%s%n \"quoted\""},
        {opts, text_set, "\"x", 0, text(quote, 2), ""},
        {opts, typed_set, any, 0, "", any},
        {opts, typed_set, "\"", 1, text(quote, 1), ""},
        {appid, text_set, "\"any text", 0, "", "\"any text"},
        {appid, typed_set, "", 1, "", ""},
        {queue_name, text_set, "a-B_9", 0, "", "a-B_9"},
        {queue_name, text_set, longest, 0, "", longest},
        {queue_name, text_set, longest + "n", 0, message(378), ""},
        {queue_name, text_set, "\xE9", 0, message(374), ""},
        {queue_name, typed_set, "n.n", 128, message(374), ""},
        {queue_name, typed_set, "n.n", 129, message(375), ""},
        {queue_name, typed_set, any, 0, "", any}, // only the length that is given is judged
        {queue_name, text_set, "", 0, "", ""},
        {data, text_set, "ab", 0, "", "ab"},
        {data, typed_set, "abc", 2, "", "ab"},
    };
    for (const auto &c : cases)
        expect_set(rows[c.option], c.set, c.given, c.size, c.refusal, c.result);
}

// The call is traced, null is refused, the option is traced and looked up.
TEST_P(options_test, calls_are_traced_and_refuse_null_and_unknown_names)
{
    const char *const names[] = {"setopt", "str_setopt", "getopt", "str_getopt"};
    const char *const target = live ? "evq" : "attr";
    const state before = now();
    log_state.dmask = KFX_DBG_API | KFX_DBG_OPTION;
    for (const operation which : {typed_set, text_set, typed_get, text_get}) {
        char value[] = "%s";
        size_t four = 4;
        const int number = (live ? 306 : 298) + 2 * which;
        const std::string function =
            (live ? "qrn_event_queue_" : "qrn_event_queue_attr_") + std::string(names[which]);
        const std::string null = text("%s, optname, %s must not be NULL", target,
                                      which < typed_get ? "and optval" : "optval, and optlen");
        strings lines;
        logged.take();
        const auto refused = [&](const char *name, char *given, size_t *size,
                                 bool unknown = false) {
            const void *at = live ? static_cast<void *>(evq) : attr;
            lines.push_back(text("[%s] %s[%p] optname[%s] ", function.c_str(), target, at,
                                 name == nullptr ? "(null)" : name));
            lines.back() += which == text_set
                                ? text("optval[%s]\n", given == nullptr ? "(null)" : given)
                                : text("optval[%p] optlen[%d]\n", static_cast<void *>(given),
                                       size == nullptr ? 0 : 4);
            if (unknown) {
                lines.push_back(text("%s %p %s [%s] ", target, at, function.c_str(), name));
                lines.back() += which != text_set ? "optlen[4]\n"
                                : live            ? "optval[%s]\n"
                                                  : "opt val[%s]\n";
            }
            const std::string label = unknown ? text("option %s unknown", name) : null;
            expect_result(text("CoreApi-5688-%d: ", number + (unknown ? 1 : 0)) + label,
                          [&] { return call(which, name, given, size); });
        };
        refused(nullptr, value, &four);
        refused("monitor_appid", nullptr, &four);
        if (which >= typed_get)
            refused("monitor_appid", value, nullptr);
        for (const char *name : {"", "queue_size_warnin", "queue_size_warning ", "%s%n%p"})
            refused(name, value, &four, true);
        const auto of = std::make_pair(std::exchange(evq, nullptr), std::exchange(attr, nullptr));
        refused("monitor_appid", value, &four);
        std::tie(evq, attr) = of;
        EXPECT_EQ(lines, logged.take());
    }
    log_state.dmask = 0;
    EXPECT_EQ(before, now());
}

TEST_P(options_test, a_record_without_texts_reads_as_empty)
{
    qrn_event_queue_attr_cleanup_internal(attr); // the mask goes too
    for (const operation get : {typed_get, text_get}) {
        for (const int option : {opts, appid}) {
            expect_get(rows[option], get, 0, 0, 0, "");
            expect_get(rows[option], get, 50, 0, 50, std::string(1, '\0'));
        }
        expect_get(rows[queue_name], get, 1, 381, 1, "");
        expect_get(rows[queue_name], get, 2, 0, 0, std::string(1, '\0'));
        expect_get(rows[data], get, 0, 0, 0, "");
        expect_get(rows[data], get, 5, 0, 0, std::string(1, '\0'));
    }
    char twelve[] = "12";
    EXPECT_EQ(QRN_OK, call(text_set, "queue_size_warning", twelve, nullptr));
    EXPECT_EQ(12U, attr->q_sz_warn);
}

using options = Fixture;

TEST_F(options, handlers_judge_null_and_data_is_deprecated)
{
    Attr attr("");
    char buffer[4] = "xxx";
    size_t size = 3;
    const auto &name = qrn_event_queue_attr_opt_table[queue_name];
    const auto &bytes_of = qrn_event_queue_attr_opt_table[data];
    const auto refuses = [](int number, auto call) { expect_result(message(number), call); };
    refuses(373, [] { return qrn_event_queue_validate_name(nullptr); });
    refuses(374, [] { return qrn_event_queue_validate_name("a b"); });
    refuses(0, [] { return qrn_event_queue_validate_name(std::string(500, '_').c_str()); });
    refuses(375, [&] { return name.set(attr, nullptr, 129); });
    refuses(376, [&] { return name.set(attr, nullptr, 128); });
    refuses(377, [&] { return name.sset(attr, nullptr); });
    refuses(379, [&] { return name.get(attr, nullptr, nullptr); });
    refuses(380, [&] { return name.sget(attr, buffer, nullptr); });
    refuses(383, [&] { return bytes_of.get(attr, nullptr, nullptr); });
    refuses(384, [&] { return bytes_of.sget(attr, buffer, nullptr); });
    EXPECT_EQ(strings{}, logged.take());

    const std::string deprecated =
        text("%d Core-10668-05: The event_queue application_data configuration option is "
             "deprecated and may have no effect in the future.\n",
             KFX_LOG_WARNING);
    refuses(0, [&] { return bytes_of.set(attr, "\0\1\0", 3); });
    refuses(0, [&] { return bytes_of.get(attr, buffer, &size); });
    EXPECT_EQ(0, memcmp("\0\1\0", buffer, 4));
    refuses(0, [&] { return bytes_of.set(attr, nullptr, 3); });
    EXPECT_EQ(0U, attr.attr->app_data_len);
    refuses(0, [&] { return bytes_of.sset(attr, nullptr); });
    EXPECT_EQ(strings(3, deprecated), logged.take());
}

TEST_F(options, tables_hold_every_option_and_the_live_ones)
{
    constexpr int classes[] = {10, 6, 10, 2, 2};
    const auto *live = qrn_event_queue_opt_table;
    const auto *entry = qrn_event_queue_attr_opt_table;
    for (const row &r : rows) {
        EXPECT_STREQ(r.name, entry->oname);
        EXPECT_EQ(classes[r.is], entry->otype);
        EXPECT_TRUE(!r.live || memcmp(entry, live++, sizeof *entry) == 0) << r.name;
        ++entry;
    }
    const qrn_event_queue_attr_entry_t end{};
    EXPECT_EQ(0, memcmp(&end, entry, sizeof end) + memcmp(&end, live, sizeof end));
}

TEST_F(options, dump_gives_every_option_that_fits)
{
    Queue queue("topts=" + std::string(126, 'n') + " appid=" + std::string(127, 'n') +
                " name=" + std::string(127, 'n'));
    std::array<qrn_config_option_t, 17> entries;
    memset(&entries, 'x', sizeof entries);
    queue->attr->mon_transport_module = -7; // no setter leaves this
    qrn_event_queue_attr_t *attr = queue->attr;
    int size = 0;
    const auto dump = [&] { return qrn_event_queue_dump(queue, &size, entries.data()); };
    log_state.dmask = KFX_DBG_API;
    expect_result(text("CoreApi-5688-297: value at size must be greater than 0"), dump);
    EXPECT_EQ(strings{text("[qrn_event_queue_attr_dump] eattr[%p] size[0] opts[%p]\n",
                           static_cast<void *>(attr), static_cast<void *>(&entries))},
              logged.take());
    expect_result(text("CoreApi-5688-294: evq must be valid"),
                  [&] { return qrn_event_queue_dump(nullptr, &size, nullptr); });
    expect_result(text("CoreApi-5688-295: eattr must be valid"),
                  [&] { return qrn_event_queue_attr_dump(nullptr, &size, nullptr); });
    expect_result(text("CoreApi-5688-296: opts must be valid"),
                  [&] { return qrn_event_queue_attr_dump(attr, &size, nullptr); });
    size = 16;
    EXPECT_EQ(QRN_OK, dump());
    EXPECT_EQ(message(382), qrn_errmsg()); // of the last that was left out
    ASSERT_EQ(12, size);
    for (size_t i = 0;
         const char *value : {"0", "0", "0", "0", "1", "0", "0", "0", "0", "unknown[-7]"}) {
        EXPECT_STREQ("event_queue", entries[i].type);
        EXPECT_STREQ(rows[i].name, entries[i].oname);
        EXPECT_STREQ(value, entries[i++].val);
    }
    EXPECT_EQ(std::string(126, 'n'), entries[10].val);
    EXPECT_STREQ("application_data", entries[11].oname);
    EXPECT_EQ(std::string(4 * sizeof entries[0], '\0') + 'x',
              std::string(entries[12].type, 4 * sizeof entries[0] + 1));
}

// One thread an option sets it, typed and from text, to values whose every bit differs, while the
// queue is dumped and works. Each value read was set as a whole, and no mark of a neighbour is lost.
TEST_F(options, are_set_and_read_while_the_queue_runs)
{
    constexpr int rounds = 20000;
    Queue queue("", [](qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *) { return 0; });
    const std::atomic_ref<char> marks(queue->attr->setopt_mask[0]);
    std::latch together(6);
    std::vector<std::jthread> threads;
    for (const size_t i : {0UL, 1UL, 2UL, 5UL, 6UL, 7UL})
        threads.emplace_back([&, name = rows[i].name, size = rows[i].size, mark = 1 << i] {
            together.arrive_and_wait();
            for (int n = 0; n < rounds; ++n) {
                const unsigned long value = n % 2 == 0 ? 0 : size == 8 ? ULONG_MAX : 1;
                const std::string as_text = std::to_string(value);
                marks &= static_cast<char>(~mark);
                const int result = n % 3 == 0
                                       ? qrn_event_queue_str_setopt(queue, name, as_text.c_str())
                                       : qrn_event_queue_setopt(queue, name, &value, size);
                EXPECT_EQ(QRN_OK | mark, result | (marks & mark));
            }
        });
    for (int n = 0; n < rounds / 10; ++n) {
        qrn_config_option_t entries[8];
        int size = 8;
        EXPECT_EQ(QRN_OK, qrn_event_queue_dump(queue, &size, entries));
        for (const auto &entry : entries)
            EXPECT_TRUE(entry.val == "0"s || entry.val == "1"s ||
                        entry.val == std::to_string(ULONG_MAX))
                << entry.val;
        EXPECT_EQ(QRN_OK, qrn_evq_enq_callback(
                              queue, [](auto *, void *) {}, nullptr, nullptr));
        EXPECT_EQ(1, qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_POLL));
    }
}

} // namespace
