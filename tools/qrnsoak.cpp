// SPDX-License-Identifier: Apache-2.0
//
// Checks the library on the machine it is to run on: random operations of every kind from many threads
// on many queues, for a number of seconds. A round makes queues and contexts, runs producers,
// dispatchers and deleting threads on them with options switched live, shuts some of the queues down on
// the way, and ends with everything deleted. Then each event must have ended once, every count must
// be exact, and memory and descriptors must be as before.
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "qrnsoak/station.h"

namespace {

using namespace soak;
using steady = std::chrono::steady_clock;

constexpr const char *usage = "usage: qrnsoak SECONDS [SEED]   random operations on many queues, "
                              "with everything counted\n";
constexpr int queues = 6;

struct settings {
    unsigned seconds;
    unsigned long seed = std::random_device{}();
};

template <class T>
bool parse_number(const char *text, T &number)
{
    const char *text_end = text + std::strlen(text);
    const auto [end, error] = std::from_chars(text, text_end, number);
    return error == std::errc() && end == text_end;
}

std::optional<settings> parse(int argc, char **argv)
{
    settings wanted{};
    if (argc < 2 || argc > 3 || !parse_number(argv[1], wanted.seconds) || wanted.seconds == 0)
        return std::nullopt;
    if (argc == 3 && !parse_number(argv[2], wanted.seed))
        return std::nullopt;
    return wanted;
}

using stations = std::vector<std::unique_ptr<station>>;
using operation = void (station::*)(random_source &);

// Does it on random stations until the end.
void act(const stations &all, operation op, random_source random, steady::time_point end)
{
    while (steady::now() < end)
        for (int i = 0; i < 32; ++i)
            (*all[random.below(all.size())].*op)(random);
}

void play(unsigned long seed, steady::time_point end)
{
    static constexpr struct {
        operation op;
        int threads;
    } crew[] = {{&station::produce, 3}, {&station::dispatch, 5}, {&station::disturb, 2}};
    random_source random(seed);
    stations all;
    for (int i = 0; i < queues; ++i)
        all.push_back(std::make_unique<station>(random, i % 2 == 0));
    std::vector<std::jthread> threads;
    for (const auto &[op, n] : crew)
        for (int i = 0; i < n; ++i)
            threads.emplace_back(act, std::cref(all), op, random_source(++seed * 7919), end);
    threads.clear(); // waits for them
    for (auto &s : all)
        s->finish();
}

long descriptors()
{
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

// Rounds of some seconds.
void run(const settings &wanted)
{
    std::printf("qrnsoak: %u seconds, seed %lu\n", wanted.seconds, wanted.seed);
    const auto start = steady::now();
    const auto end = start + std::chrono::seconds(wanted.seconds);
    const long open = descriptors();
    unsigned rounds = 0;
    for (; steady::now() < end; ++rounds) {
        play(wanted.seed + rounds * 1000UL, std::min(end, steady::now() + std::chrono::seconds(2)));
        check_ledger();
        expect_equal("open descriptors, before", descriptors(), open);
        std::printf("qrnsoak: %5.0f s, %ld events, all ended\n",
                    std::chrono::duration<double>(steady::now() - start).count(),
                    total.enqueued.load());
        std::fflush(stdout);
    }
    std::printf("qrnsoak: enqueued %ld = delivered %ld + purged %ld + discarded %ld\n"
                "qrnsoak: passed: %u queues with exact counts, memory and descriptors as before\n",
                total.enqueued.load(), total.delivered.load(), total.purged.load(),
                total.discarded.load(), rounds * queues);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(usage, stdout);
        return 0;
    }
    const auto wanted = parse(argc, argv);
    if (!wanted) {
        std::fputs(usage, stderr);
        return 2;
    }
    run(*wanted);
    return 0;
}
