// SPDX-License-Identifier: Apache-2.0
//
// What is known about every queue that was heard of: its last record, rates, lost samples, silence.
#ifndef QRNMON_TOOL_SOURCES_H
#define QRNMON_TOOL_SOURCES_H

#include <chrono>
#include <compare>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "record.h"

namespace tool {

using steady = std::chrono::steady_clock;
using seconds = std::chrono::duration<double>;

// A rate or time that is not known.
constexpr double no_value = -1;

// One moment of a queue's history.
struct point {
    double time; // seconds since 1970
    double depth;
    double age; // microseconds; like the rates `no_value` when not known
    double in;  // events a second
    double out;
};

struct source_key {
    std::string host;
    std::uint64_t pid;
    std::uint64_t queue_id;
    auto operator<=>(const source_key &) const = default;
};

struct source {
    record last;
    steady::time_point heard;
    double in = no_value;      // events a second
    double out = no_value;     // events a second
    double service = no_value; // mean service time, microseconds
    std::uint64_t records = 0;
    std::uint64_t lost = 0;
    bool silent = false;
    std::vector<point> history;

    double silence(steady::time_point now) const { return seconds(now - heard).count(); }
};

// What the picture of a long watch is drawn from; beyond that every second point goes.
constexpr std::size_t max_history = 4096;
// Sources are made by whoever sends, so there is an end to them.
constexpr std::size_t max_sources = 10000;
// A source that has been silent so long is forgotten.
constexpr std::chrono::minutes forget_after{10};
constexpr std::size_t max_notices = 1000;

// Makes text from elsewhere fit for a terminal and a line: what is not printable becomes '?'.
std::string printable(std::string_view text);

class book {
public:
    using map = std::map<source_key, source>;

    // Takes a record that came from `host` in.
    void take(const record &rec, const std::string &host, steady::time_point now);
    // Takes note of a datagram that is no record.
    void malformed(const std::string &sender, const std::string &why);
    // Looks who fell silent.
    void tick(steady::time_point now);
    // Adds a line for the operator.
    void note(std::string line);

    const map &sources() const { return sources_; }
    // The lines added since the last call.
    std::vector<std::string> take_notices() { return std::exchange(notices_, {}); }

    std::uint64_t records() const { return records_; }
    std::uint64_t lost() const { return lost_; }
    std::uint64_t bad() const { return bad_; }
    std::size_t silent() const;
    // When the last record came; nothing is meant before the first.
    steady::time_point heard() const { return heard_; }

private:
    bool account(const source_key &key, source &to, const record &rec);
    static void rates(source &to, const record &rec);
    static void remember(source &to);

    map sources_;
    std::vector<std::string> notices_;
    std::uint64_t records_ = 0;
    std::uint64_t lost_ = 0;
    std::uint64_t bad_ = 0;
    std::uint64_t noted_bad_ = 0;
    std::string last_bad_;
    steady::time_point heard_;
    bool full_ = false;
};

std::string queue_name(const source_key &key, const source &of);

std::string process_name(const source_key &key, const source &of);

// How a notice calls a source.
std::string title(const source_key &key, const source &of);

} // namespace tool

#endif
