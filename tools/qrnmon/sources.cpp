// SPDX-License-Identifier: Apache-2.0
#include "sources.h"

#include <algorithm>

namespace tool {

namespace {

// The mean over event types, weighted by what came since the last record; the longest where counts
// say nothing.
double service_time(const record &before, const record &now)
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

} // namespace

std::string printable(std::string_view text)
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

std::string queue_name(const source_key &key, const source &of)
{
    return of.last.queue.empty() ? "queue " + std::to_string(key.queue_id)
                                 : printable(of.last.queue);
}

std::string process_name(const source_key &key, const source &of)
{
    std::string app = of.last.app.empty() ? "" : printable(of.last.app) + ", ";
    return app + "pid " + std::to_string(key.pid);
}

std::string title(const source_key &key, const source &of)
{
    return queue_name(key, of) + " (" + process_name(key, of) + ")";
}

void book::note(std::string line)
{
    if (notices_.size() < max_notices)
        notices_.push_back(std::move(line));
}

void book::rates(source &to, const record &rec)
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

void book::remember(source &to)
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
bool book::account(const source_key &key, source &to, const record &rec)
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

void book::take(const record &rec, const std::string &host, steady::time_point now)
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

void book::malformed(const std::string &sender, const std::string &why)
{
    ++bad_;
    last_bad_ = "malformed datagram from " + sender + ": " + printable(why);
}

std::size_t book::silent() const
{
    auto is_silent = [](const auto &each) { return each.second.silent; };
    return static_cast<std::size_t>(std::ranges::count_if(sources_, is_silent));
}

void book::tick(steady::time_point now)
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
