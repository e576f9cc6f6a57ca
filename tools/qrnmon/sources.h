// SPDX-License-Identifier: Apache-2.0
//
// What is known about every queue that was heard of: its last record, rates, lost samples, silence.
#ifndef QRNMON_TOOL_SOURCES_H
#define QRNMON_TOOL_SOURCES_H

#include <algorithm>
#include <chrono>
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
inline std::string printable(std::string_view text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        auto c = static_cast<unsigned char>(text[i]);
        std::size_t length = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : 1;
        bool good = c >= ' ' && c < 0x7F;
        if (length > 1 && i + length <= text.size()) {
            good = !(c == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0) && c >= 0xC2;
            for (std::size_t k = 1; k < length; ++k)
                good = good && (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
        }
        out += good ? std::string(text.substr(i, length)) : "?";
        i += good ? length : 1;
    }
    return out;
}

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

inline std::string queue_name(const source_key &key, const source &of)
{
    return of.last.queue.empty() ? "queue " + std::to_string(key.queue_id)
                                 : printable(of.last.queue);
}

inline std::string process_name(const source_key &key, const source &of)
{
    std::string app = of.last.app.empty() ? "" : printable(of.last.app) + ", ";
    return app + "pid " + std::to_string(key.pid);
}

// How a notice calls a source.
inline std::string title(const source_key &key, const source &of)
{
    return queue_name(key, of) + " (" + process_name(key, of) + ")";
}

inline void book::note(std::string line)
{
    if (notices_.size() < max_notices)
        notices_.push_back(std::move(line));
}

// The mean over event types, weighted by what came since the last record; the longest where counts
// say nothing.
inline double service_time(const record &before, const record &now)
{
    double sum = 0;
    double weight = 0;
    double longest = no_value;
    for (std::size_t i = qrnmon::first_figure; i < columns.size(); ++i) {
        if (columns[i].what != kind::mean || i == at::age_mean || now[i] == unknown)
            continue;
        auto mean = static_cast<double>(now[i]);
        longest = std::max(longest, mean);
        std::size_t total = i - 2; // a group: current, total, minimum, mean, maximum
        if (now[total] == unknown || before[total] == unknown || now[total] <= before[total])
            continue;
        auto more = static_cast<double>(now[total] - before[total]);
        sum += more * mean;
        weight += more;
    }
    return weight > 0 ? sum / weight : longest;
}

inline void book::rates(source &to, const record &rec)
{
    to.in = to.out = no_value;
    to.service = service_time(to.last, rec);
    double time =
        (static_cast<double>(rec[at::mono]) - static_cast<double>(to.last[at::mono])) / 1e6;
    if (to.records == 0 || time <= 0 || rec[at::events_tot] == unknown ||
        to.last[at::events_tot] == unknown)
        return;
    double in =
        static_cast<double>(rec[at::events_tot]) - static_cast<double>(to.last[at::events_tot]);
    double more = static_cast<double>(rec[at::events]) - static_cast<double>(to.last[at::events]);
    to.in = std::max(in / time, 0.0);
    to.out = std::max((in - more) / time, 0.0);
}

inline void book::remember(source &to)
{
    auto known = [&](std::size_t column) {
        return to.last[column] == unknown ? no_value : static_cast<double>(to.last[column]);
    };
    if (to.history.size() >= max_history) {
        std::size_t kept = 0;
        for (std::size_t i = 0; i < to.history.size(); i += 2)
            to.history[kept++] = to.history[i];
        to.history.resize(kept);
    }
    to.history.push_back({static_cast<double>(to.last[at::epoch]) / 1e6, known(at::depth),
                          known(at::age_mean), to.in, to.out});
}

// Compares the sequence number with the last one; false for a record that comes late or twice. A
// number that goes back while the sender's clock goes on is a new queue under an old name.
inline bool book::account(const source_key &key, source &to, const record &rec)
{
    std::uint64_t last = to.last[at::seq];
    if (to.records == 0)
        return true;
    if (rec[at::seq] <= last && rec[at::mono] <= to.last[at::mono])
        return false;
    if (rec[at::seq] <= last) {
        to = source{};
        return true;
    }
    std::uint64_t gap = rec[at::seq] - last - 1;
    if (gap != 0)
        note(title(key, to) + ": " + std::to_string(gap) + " samples lost before sample " +
             std::to_string(rec[at::seq]));
    to.lost += gap;
    lost_ += gap;
    return true;
}

inline void book::take(const record &rec, const std::string &host, steady::time_point now)
{
    source_key key{host, rec[at::pid], rec[at::queue_id]};
    if (sources_.size() >= max_sources && !sources_.contains(key)) {
        if (!std::exchange(full_, true))
            note("more than " + std::to_string(max_sources) + " queues: the others are left out");
        return;
    }
    source &to = sources_[key];
    if (!account(key, to, rec))
        return;
    if (to.silent)
        note(title(key, to) + ": back after " + std::to_string(static_cast<long>(to.silence(now))) +
             " s");
    rates(to, rec);
    to.silent = false;
    to.last = rec;
    to.heard = heard_ = now;
    ++to.records;
    ++records_;
    remember(to);
}

inline void book::malformed(const std::string &sender, const std::string &why)
{
    ++bad_;
    last_bad_ = "malformed datagram from " + sender + ": " + printable(why);
}

inline std::size_t book::silent() const
{
    auto is_silent = [](const auto &each) { return each.second.silent; };
    return static_cast<std::size_t>(std::ranges::count_if(sources_, is_silent));
}

inline void book::tick(steady::time_point now)
{
    if (bad_ != noted_bad_) {
        note(last_bad_ + (bad_ > 1 ? " (" + std::to_string(bad_) + " in all)" : ""));
        noted_bad_ = bad_;
    }
    for (auto it = sources_.begin(); it != sources_.end();) {
        auto &[key, each] = *it;
        // Two intervals and a half, and a second for whatever delays datagrams.
        double patience = 2.5 * static_cast<double>(each.last[at::interval]) + 1;
        if (!each.silent && each.silence(now) > patience) {
            each.silent = true;
            note(title(key, each) + ": silent for " +
                 std::to_string(static_cast<long>(each.silence(now))) + " s");
        }
        bool gone = each.silent && now - each.heard > forget_after;
        it = gone ? sources_.erase(it) : std::next(it);
    }
}

} // namespace tool

#endif
