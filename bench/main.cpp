// SPDX-License-Identifier: Apache-2.0
// qrnbench: this library's queue beside the queues that a program would use instead.
//
// Within a cell, each round runs every contestant once, in an order that rotates from round to round;
// figures are medians over the rounds, and each run checks that every event ran exactly once. Threads
// are not pinned. Queues and threads are made anew for every run.
#include <cstring>

#include "session.hpp"

namespace bench {

namespace {

[[noreturn]] void usage()
{
    std::fprintf(stderr,
                 "usage: qrnbench [--rounds N] [--cells LIST] [--events N] [--batch N] [--quick]\n"
                 "                [--ours-only] [--out DIRECTORY]\n"
                 "       qrnbench --alone CONTESTANT [--events N] [--batch N]\n"
                 "cells:");
    for (const std::string &cell : cell_names())
        std::fprintf(stderr, " %s", cell.c_str());
    std::fprintf(stderr, "\n");
    std::exit(1);
}

void shorten(options &o)
{
    o.rounds = 3;
    o.events /= 5;
    o.hot_samples /= 5;
    o.cold_samples /= 5;
    o.idle_seconds = 2;
}

std::uint64_t number(const char *text)
{
    char *end = nullptr;
    const std::uint64_t value = std::strtoul(text, &end, 10);
    if (value == 0 || *end != '\0')
        usage();
    return value;
}

void check_cells(const std::string &list)
{
    const std::vector<std::string> known = cell_names();
    for (std::size_t from = 0; from <= list.size();) {
        const std::size_t to = std::min(list.find(',', from), list.size());
        if (std::ranges::find(known, list.substr(from, to - from)) == known.end())
            usage();
        from = to + 1;
    }
}

// Reads the arguments; gives the contestant that is to run alone, or null.
const char *parse(std::span<char *> arguments, options &o)
{
    const char *alone = nullptr;
    for (std::size_t i = 0; i < arguments.size(); i++) {
        const std::string_view name = arguments[i];
        const auto value = [&]() -> const char * {
            return i + 1 < arguments.size() ? arguments[++i] : (usage(), nullptr);
        };
        if (name == "--quick")
            shorten(o);
        else if (name == "--ours-only")
            o.ours_only = true;
        else if (name == "--rounds")
            o.rounds = static_cast<unsigned>(number(value()));
        else if (name == "--events")
            o.events = number(value());
        else if (name == "--batch")
            o.batch = number(value());
        else if (name == "--cells")
            check_cells(o.cells = value());
        else if (name == "--out")
            o.out = value();
        else if (name == "--alone")
            alone = value();
        else
            usage();
    }
    return alone;
}

// The solo cell of one contestant and nothing else, for counting its instructions.
void run_alone(const char *name, const options &o)
{
    std::vector<contestant> all = ours();
    std::ranges::copy(peers(), std::back_inserter(all));
    const auto chosen = std::ranges::find_if(
        all, [&](const contestant &c) { return std::strcmp(c.name, name) == 0; });
    if (chosen == all.end())
        usage();
    chosen->solo(o.batch, o.events);
}

} // namespace

} // namespace bench

int main(int argc, char **argv)
{
    bench::options o;
    const char *alone = bench::parse(std::span{argv + 1, static_cast<std::size_t>(argc - 1)}, o);
    // A second thread sleeps all the while: no cell may profit from the short cuts that the C library
    // takes in a program of one thread.
    std::binary_semaphore over{0};
    std::jthread sleeper{[&] { over.acquire(); }};
    if (alone != nullptr)
        bench::run_alone(alone, o);
    else
        bench::session{o}.run();
    over.release();
}
