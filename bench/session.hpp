// SPDX-License-Identifier: Apache-2.0
// One call of the program: the cells that were asked for, measured, printed, judged and written.
#ifndef BENCH_SESSION_HPP
#define BENCH_SESSION_HPP

#include <functional>
#include <string>

#include "contestants.hpp"
#include "machine.hpp"
#include "report.hpp"

namespace bench {

struct options {
    unsigned rounds = 9;
    std::uint64_t events = 300'000;                        // of a run
    std::uint64_t batch = 1000;                            // of the solo cell
    std::size_t hot_samples = 20'000, cold_samples = 1000; // of a hand-off run
    std::uint64_t purge_total = 1'000'000;
    unsigned idle_seconds = 10;
    bool ours_only = false;
    std::string cells; // separated by commas; empty: all
    std::string out;   // directory for the files; empty: none
};

// Names of all cells, as `options::cells` wants them.
std::vector<std::string> cell_names();

struct throughput_cell;
struct hand_off_cell;

class session {
public:
    explicit session(const options &o);
    void run();

private:
    using names = std::vector<std::string>;

    bool wants(const std::string &cell) const;
    void rounds(std::size_t contestants, const std::function<void(std::size_t, bool)> &measure);
    std::string fastest_peer(const std::string &cell, bool spinning_only = false) const;
    void print_compared(const std::string &cell, const std::string &meaning, const names &who);
    void judge_by_peers(const std::string &cell, double goal, bool spinning_only = false);

    void throughput(const throughput_cell &cell);
    void hand_off(const hand_off_cell &cell);
    void print_percentiles(const std::string &cell, std::vector<std::vector<double>> &pooled);
    void judge_hand_off(const std::string &cell);
    void set_ups();
    void purges();
    void memory();
    void idle();
    void distance_from_floor();
    void finish();
    void write_files() const;

    options o_;
    std::vector<contestant> all_ = ours();
    names everybody_;
    names rivals_;   // everybody without the variants
    names compared_; // cells in which the rivals met
    std::string percentiles_;
    report report_;
    neighbours neighbours_;
};

} // namespace bench

#endif
