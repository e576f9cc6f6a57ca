// SPDX-License-Identifier: Apache-2.0
#include "session.hpp"

#include <unistd.h>

#include <cmath>
#include <fstream>

#include "costs.hpp"

namespace bench {

// Producers and dispatchers of a cell; none: the solo cell.
struct throughput_cell {
    const char *name;
    shape threads;
    double goal; // of the ratio to the fastest peer
    const char *meaning;
};

struct hand_off_cell {
    const char *name;
    double silence_ns; // from a callback to the next event
    std::size_t options::*samples;
    const char *meaning;
};

namespace {

constexpr throughput_cell throughput_cells[] = {
    {"solo", {0, 0}, 1.0, "one thread enqueues a batch, then dispatches it; ns an event"},
    {"1p1c", {1, 1}, 0.8, "one producer, one dispatcher; ns an event"},
    {"2p1c", {2, 1}, 0.8, "two producers, one dispatcher; ns an event"},
    {"1p2c", {1, 2}, 1.0, "one producer, two dispatchers; ns an event"},
    {"2p2c", {2, 2}, 0.8, "two producers, two dispatchers; ns an event"},
    {"4p4c", {4, 4}, 1.0, "four producers, four dispatchers; ns an event"},
};

constexpr hand_off_cell hand_off_cells[] = {
    {"hot", 0, &options::hot_samples, "one-way hand-off right after the last callback; ns"},
    {"warm", 1000, &options::hot_samples, "one-way hand-off after 1 us of silence; ns"},
    {"cold", 200'000, &options::cold_samples, "one-way hand-off after 200 us of silence; ns"},
};

constexpr double percentiles[] = {0, 10, 25, 50, 75, 90, 95, 99, 99.9, 99.99, 100};

// Bytes that the queue of this name takes, from the program beside this one that counts allocations.
std::array<double, 5> count_memory(const std::string &queue)
{
    char path[4096] = {};
    if (readlink("/proc/self/exe", path, sizeof path - 1) < 0)
        fail("cannot find this program's path");
    std::FILE *child = popen((std::string{path} + "_memory '" + queue + "'").c_str(), "r");
    std::array<double, 5> bytes{};
    for (double &b : bytes)
        if (child == nullptr || std::fscanf(child, "%lf", &b) != 1)
            fail("the program that counts allocations failed");
    if (pclose(child) != 0)
        fail("the program that counts allocations failed");
    return bytes;
}

} // namespace

std::vector<std::string> cell_names()
{
    std::vector<std::string> result;
    for (const throughput_cell &cell : throughput_cells)
        result.push_back(cell.name);
    for (const hand_off_cell &cell : hand_off_cells)
        result.push_back(cell.name);
    for (const char *cell : {"options", "purge", "memory", "idle", "floor"})
        result.push_back(cell);
    return result;
}

session::session(const options &o) : o_(o)
{
    if (!o_.ours_only)
        std::ranges::copy(peers(), std::back_inserter(all_));
    percentiles_ = "cell,percentile,count";
    for (const contestant &c : all_) {
        everybody_.push_back(c.name);
        if (c.as == role::variant)
            continue;
        rivals_.push_back(c.name);
        percentiles_ += std::string{","} + c.name;
    }
    percentiles_ += '\n';
}

bool session::wants(const std::string &cell) const
{
    return o_.cells.empty() || ("," + o_.cells + ",").find("," + cell + ",") != std::string::npos;
}

// The first round warms caches and the allocator up and is not kept.
void session::rounds(std::size_t contestants, const std::function<void(std::size_t, bool)> &measure)
{
    for (unsigned round = 0; round <= o_.rounds; round++)
        for (std::size_t i = 0; i < contestants; i++)
            measure((i + round) % contestants, round > 0);
}

// Empty when there is none.
std::string session::fastest_peer(const std::string &cell, bool spinning_only) const
{
    std::string best;
    for (const contestant &c : all_) {
        const bool fits = c.as == role::spinning_peer || (c.as == role::peer && !spinning_only);
        if (fits &&
            (best.empty() || report_.median_of(cell, c.name) < report_.median_of(cell, best)))
            best = c.name;
    }
    return best;
}

void session::print_compared(const std::string &cell, const std::string &meaning, const names &who)
{
    report_.print(cell, meaning, who, fastest_peer(cell));
    compared_.push_back(cell);
}

void session::judge_by_peers(const std::string &cell, double goal, bool spinning_only)
{
    const std::string best = fastest_peer(cell, spinning_only);
    if (!best.empty())
        report_.judge(cell + ": qrn / " + best,
                      report_.median_of(cell, "qrn") / report_.median_of(cell, best), goal);
}

void session::throughput(const throughput_cell &cell)
{
    rounds(all_.size(), [&](std::size_t i, bool keep) {
        const contestant &c = all_[i];
        const double ns = cell.threads.producers == 0 ? c.solo(o_.batch, o_.events)
                                                      : c.side_by_side(cell.threads, o_.events);
        if (keep)
            report_.add(cell.name, c.name, ns);
    });
    print_compared(cell.name, cell.meaning, everybody_);
    judge_by_peers(cell.name, cell.goal);
}

void session::hand_off(const hand_off_cell &cell)
{
    const std::string p50 = std::string{cell.name} + " p50", p99 = std::string{cell.name} + " p99";
    std::vector<contestant> entered;
    std::ranges::copy_if(all_, std::back_inserter(entered),
                         [](const contestant &c) { return c.as != role::variant; });
    std::vector<std::vector<double>> pooled(entered.size());
    rounds(entered.size(), [&](std::size_t i, bool keep) {
        std::vector<double> ns;
        for (const tick t : entered[i].hand_off(from_ns(cell.silence_ns), o_.*cell.samples))
            ns.push_back(to_ns(t));
        std::ranges::sort(ns);
        if (!keep)
            return;
        report_.add(p50, entered[i].name, quantile(ns, 0.50));
        report_.add(p99, entered[i].name, quantile(ns, 0.99));
        pooled[i].insert(pooled[i].end(), ns.begin(), ns.end());
    });
    print_compared(p50, cell.meaning, rivals_);
    print_compared(p99, cell.meaning, rivals_);
    print_percentiles(cell.name, pooled);
    judge_hand_off(cell.name);
}

// The warm cell has no goal: it shows how long a dispatcher stays awake.
void session::judge_hand_off(const std::string &cell)
{
    if (cell == "hot") {
        judge_by_peers("hot p50", 0.8);
        judge_by_peers("hot p99", 0.8);
    } else if (cell == "cold") {
        judge_by_peers("cold p50", 1.0, true);
    }
}

void session::print_percentiles(const std::string &cell, std::vector<std::vector<double>> &pooled)
{
    std::printf("\n%s hand-off, all rounds: ns that this part of the events stayed within\n"
                "  %10s %9s",
                cell.c_str(), "percentile", "count");
    for (const std::string &name : rivals_)
        std::printf(" %10s", name.c_str());
    for (std::vector<double> &values : pooled)
        std::ranges::sort(values);
    for (const double percent : percentiles) {
        const double part = std::ceil(percent / 100 * static_cast<double>(pooled[0].size()));
        const long count = std::max(1L, std::lround(part));
        std::printf("\n  %10.2f %9ld", percent, count);
        percentiles_ += cell + ',' + std::to_string(percent) + ',' + std::to_string(count);
        for (const std::vector<double> &values : pooled) {
            const double ns = quantile(values, percent / 100);
            std::printf(" %10.0f", ns);
            percentiles_ += ',' + std::to_string(ns);
        }
        percentiles_ += '\n';
    }
    std::printf("\n");
}

void session::set_ups()
{
    const std::vector<contestant> variants = setups();
    names who;
    for (const contestant &v : variants)
        who.push_back(v.name);
    rounds(variants.size(), [&](std::size_t i, bool keep) {
        const double ns = variants[i].side_by_side({1, 1}, o_.events);
        if (keep)
            report_.add("options", who[i], ns);
    });
    report_.print("options", "1p1c under sets of options; ns an event", who, who[0]);
    const auto judge = [&](const std::string &name, double goal) {
        report_.judge("1p1c: " + name + " / " + who[0],
                      report_.median_of("options", name) / report_.median_of("options", who[0]),
                      goal);
    };
    judge("all statistics", 1.6);
    judge("thread tracking", 1.3);
    judge("finite timeout", 1.3);
}

void session::purges()
{
    const std::uint64_t sizes[] = {1000, 100'000, 1'000'000};
    const names queued = {"1 k queued", "100 k queued", "1 M queued"};
    const names kinds = {"purge none", "purge half", "purge all"};
    rounds(std::size(sizes), [&](std::size_t i, bool keep) {
        const purge_cost cost = purge(sizes[i], o_.purge_total);
        if (!keep)
            return;
        report_.add(kinds[0], queued[i], cost.none);
        report_.add(kinds[1], queued[i], cost.half);
        report_.add(kinds[2], queued[i], cost.all);
    });
    report_.print_beside("purge of nothing, every second element, everything; ns a queued element",
                         kinds, queued);
    for (const std::string &kind : kinds)
        report_.judge(kind + ": 1 M / 1 k",
                      report_.median_of(kind, queued[2]) / report_.median_of(kind, queued[0]), 2.0);
}

void session::memory()
{
    const names figures = {"asked", "usable", "with headers", "left", "resident"};
    for (const std::string &name : everybody_) {
        const std::array<double, 5> bytes = count_memory(name);
        for (std::size_t i = 0; i < bytes.size(); i++)
            report_.add(figures[i], name, bytes[i]);
    }
    report_.print_beside(
        "memory: bytes a queued event (its message and bundle included) asked for, "
        "usable, with the\nallocator's headers; bytes left more than before a "
        "burst of a million, resident bytes more",
        figures, everybody_);
    report_.judge("bytes a queued event", report_.median_of("usable", "qrn"), 128);
    report_.judge("bytes left after a burst", report_.median_of("left", "qrn"), 1 << 20);
}

void session::idle()
{
    std::printf("\nidle: processor time of the busiest blocked dispatcher; ms\n");
    for (const unsigned dispatchers : {1U, 4U}) {
        const double ms = idle_processor_time(dispatchers, o_.idle_seconds);
        const std::string who = std::to_string(dispatchers) + " blocked";
        report_.add("idle", who, ms);
        report_.judge("idle " + std::to_string(o_.idle_seconds) + " s, " + who + ": ms", ms, 10);
    }
}

void session::distance_from_floor()
{
    const names parts = {"one allocation", "two lock round trips", "one post, one take",
                         "together"};
    rounds(1, [&](std::size_t, bool keep) {
        const floor_cost cost = measure_floor(o_.batch, o_.events);
        if (!keep)
            return;
        report_.add("floor", parts[0], cost.allocation);
        report_.add("floor", parts[1], cost.locks);
        report_.add("floor", parts[2], cost.semaphore);
        report_.add("floor", parts[3], cost.allocation + cost.locks + cost.semaphore);
    });
    report_.print("floor", "what no event can do without, alone on one thread; ns an event", parts,
                  "");
    for (const char *cell : {"solo", "1p1c"})
        if (report_.has(cell, "qrn"))
            std::printf("  %s: qrn is %.2f times the floor\n", cell,
                        report_.median_of(cell, "qrn") / report_.median_of("floor", parts[3]));
}

void session::run()
{
    print_machine();
    for (const throughput_cell &cell : throughput_cells)
        if (wants(cell.name))
            throughput(cell);
    for (const hand_off_cell &cell : hand_off_cells)
        if (wants(cell.name))
            hand_off(cell);
    const std::pair<const char *, void (session::*)()> others[] = {
        {"options", &session::set_ups},
        {"purge", &session::purges},
        {"memory", &session::memory},
        {"idle", &session::idle},
        {"floor", &session::distance_from_floor}};
    for (const auto &[name, measure] : others)
        if (wants(name))
            (this->*measure)();
    finish();
}

void session::finish()
{
    report_.print_verdicts();
    const double share = neighbours_.share_used();
    std::printf("\n%u rounds; others used %.1f s of processor time, %.1f %% of all\n", o_.rounds,
                neighbours_.seconds_used(), 100 * share);
    if (o_.rounds < 9 || share > 0.03)
        std::printf(
            "NOT A RESULT: fewer than nine rounds, or the machine was not idle otherwise\n");
    if (!o_.out.empty())
        write_files();
}

void session::write_files() const
{
    report_.write(o_.out);
    report_.write_medians(o_.out + "/cells.csv", compared_, rivals_);
    std::ofstream file{o_.out + "/percentiles.csv"};
    if (!(file << percentiles_).flush())
        fail("cannot write the files");
}

} // namespace bench
