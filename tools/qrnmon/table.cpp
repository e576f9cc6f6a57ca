// SPDX-License-Identifier: Apache-2.0
#include "table.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace tool {

// --- Cells ---------------------------------------------------------------------------------------

namespace {

// Columns that a text takes: one a character, bytes that continue one none.
std::size_t width_of(std::string_view text)
{
    return static_cast<std::size_t>(std::ranges::count_if(
        text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

} // namespace

std::string fit(std::string text, std::size_t width, bool right)
{
    if (width == 0)
        return {};
    if (width_of(text) > width) {
        std::size_t end = 0;
        for (std::size_t seen = 0; end < text.size(); ++end)
            if ((static_cast<unsigned char>(text[end]) & 0xC0) != 0x80 && seen++ + 1 == width)
                break;
        text.resize(end);
        text += '~';
    }
    std::string fill(width - std::min(width, width_of(text)), ' ');
    return right ? fill + text : text + fill;
}

std::string short_number(double value)
{
    if (value < 0)
        return "-";
    std::array<char, 32> text{};
    const char *unit = "";
    for (const char *next : {"k", "M", "G", "T", "P", "E"}) {
        if (value < 99999.5 && (*unit == '\0' || value < 999.5))
            break;
        value /= 1000;
        unit = next;
    }
    bool fraction = *unit != '\0' ? value < 99.95 : value < 9.95 && std::round(value) != value;
    std::snprintf(text.data(), text.size(), fraction ? "%.1f%s" : "%.0f%s", value, unit);
    return text.data();
}

std::string short_time(double usec)
{
    static constexpr struct {
        double unit;
        const char *name;
    } units[] = {{1, "us"}, {1e3, "ms"}, {1e6, "s"}, {60e6, "m"}, {3600e6, "h"}, {86400e6, "d"}};
    if (usec < 0)
        return "-";
    std::size_t i = 0;
    while (i + 1 < std::size(units) && usec >= units[i + 1].unit * 0.9995)
        ++i;
    std::array<char, 32> text{};
    double value = usec / units[i].unit;
    std::snprintf(text.data(), text.size(), i > 0 && value < 9.95 ? "%.1f%s" : "%.0f%s", value,
                  units[i].name);
    return text.data();
}

double known(std::uint64_t value)
{
    return value == unknown ? no_value : static_cast<double>(value);
}

// --- Columns -------------------------------------------------------------------------------------

namespace {

struct row {
    const source_key *key;
    const source *of;
    steady::time_point now;

    double size() const { return known(of->last[at::depth]); }
    double age() const { return known(of->last[at::age_mean]); }
    double heard() const { return of->silence(now) * 1e6; }
    std::uint64_t warned() const { return of->last[at::warning]; }
    // Warnings raised in all, as far as the record tells.
    double warnings() const
    {
        std::uint64_t size = of->last[at::size_warnings];
        std::uint64_t delay = of->last[at::delay_warnings];
        return size == unknown || delay == unknown ? no_value : static_cast<double>(size + delay);
    }
};

std::string name_cell(const row &r)
{
    const record &last = r.of->last;
    return last.queue.empty() ? "#" + std::to_string(r.key->queue_id) : printable(last.queue);
}

// What the queue is above now, then how often a warning was raised.
std::string warning_cell(const row &r)
{
    static constexpr std::array<const char *, 4> flags = {"", "S", "D", "SD"};
    std::uint64_t warned = r.warned();
    std::string flag = warned < flags.size() ? flags[warned] : "";
    double raised = r.warnings();
    if (raised > 0)
        return flag + short_number(raised);
    return flag.empty() ? (raised < 0 ? "-" : "0") : flag;
}

struct table_column {
    const char *heading;
    char key;          // sorts by this column; 0: none does
    std::size_t width; // the name gets what is left over
    int rank;          // 0 stays in any width, the highest goes first
    bool right;
    std::string (*cell)(const row &);
    double (*order)(const row &); // null: by the cell's text
};

constexpr std::size_t name_width = 8;
constexpr std::size_t max_name_width = 32;

const std::array<table_column, 12> &table_columns()
{
    using R = const row &;
    static const std::array<table_column, 12> all = {{
        {"QUEUE", 'n', name_width, 0, false, name_cell, nullptr},
        {"APP", 'p', 12, 5, false, [](R r) { return printable(r.of->last.app); }, nullptr},
        {"PID", 0, 7, 6, true, [](R r) { return std::to_string(r.key->pid); }, nullptr},
        {"DEPTH", 'd', 5, 0, true, [](R r) { return short_number(r.size()); },
         [](R r) { return r.size(); }},
        {"IN/s", 'i', 5, 0, true, [](R r) { return short_number(r.of->in); },
         [](R r) { return r.of->in; }},
        {"OUT/s", 'o', 5, 0, true, [](R r) { return short_number(r.of->out); },
         [](R r) { return r.of->out; }},
        {"AGE", 'a', 5, 0, true, [](R r) { return short_time(r.age()); },
         [](R r) { return r.age(); }},
        {"OLDEST", 0, 6, 4, true, [](R r) { return short_time(known(r.of->last[at::age_max])); },
         nullptr},
        {"SVC", 's', 5, 0, true, [](R r) { return short_time(r.of->service); },
         [](R r) { return r.of->service; }},
        {"WARN", 'w', 6, 1, true, warning_cell,
         [](R r) { return static_cast<double>(r.warned()) * 1e18 + r.warnings(); }},
        {"LOST", 'l', 5, 2, true, [](R r) { return short_number(static_cast<double>(r.of->lost)); },
         [](R r) { return static_cast<double>(r.of->lost); }},
        {"HEARD", 'h', 5, 3, true, [](R r) { return short_time(r.heard()); },
         [](R r) { return r.heard(); }},
    }};
    return all;
}

// --- Layout --------------------------------------------------------------------------------------

// The columns that fit, by their positions, with their widths.
struct layout {
    std::vector<std::pair<const table_column *, std::size_t>> columns;
    std::size_t gap = 1;
};

layout lay_out(std::size_t width)
{
    layout out;
    for (int rank = 6; rank >= 0; --rank) {
        out = {};
        std::size_t used = 1; // the mark in front
        for (const table_column &each : table_columns()) {
            if (each.rank > rank)
                continue;
            out.columns.emplace_back(&each, each.width);
            used += each.width;
        }
        std::size_t gaps = out.columns.size() - 1;
        if (used + gaps > width && rank > 0)
            continue;
        std::size_t left = width > used + gaps ? width - used - gaps : 0;
        out.gap = left >= gaps ? 2 : 1;
        left -= out.gap == 2 ? gaps : 0;
        out.columns[0].second += std::min(left, max_name_width - name_width);
        break;
    }
    return out;
}

// '!' above a threshold, '?' silent.
char mark(const row &r)
{
    return r.of->silent ? '?' : r.warned() != 0 && r.warned() != unknown ? '!' : ' ';
}

std::string table_line(const layout &by, const row *r)
{
    std::string text(1, r == nullptr ? ' ' : mark(*r));
    for (const auto &[column, width] : by.columns) {
        if (text.size() > 1)
            text.append(by.gap, ' ');
        text += fit(r == nullptr ? column->heading : column->cell(*r), width, column->right);
    }
    return text;
}

std::vector<row> sorted_rows(const book &of, const view &how, steady::time_point now)
{
    std::vector<row> rows;
    for (const auto &[key, each] : of.sources())
        rows.push_back({&key, &each, now});
    auto by = std::ranges::find(table_columns(), how.sort, &table_column::key);
    // Figures begin with the highest, texts with the first.
    auto before = [&](const row &a, const row &b) {
        return by->order != nullptr ? by->order(a) > by->order(b) : by->cell(a) < by->cell(b);
    };
    if (by != table_columns().end())
        std::ranges::stable_sort(rows, before);
    if (how.reverse)
        std::ranges::reverse(rows);
    return rows;
}

const char *style_of(const row &r)
{
    char m = mark(r);
    return m == '?' ? style::silent : m == '!' ? style::warning : style::plain;
}

} // namespace

bool is_sort_key(char key)
{
    return key != 0 &&
           std::ranges::find(table_columns(), key, &table_column::key) != table_columns().end();
}

std::string heading_line(const book &of, const std::string &time, std::size_t width,
                         steady::time_point now)
{
    std::vector<std::string> parts = {time};
    std::size_t queues = of.sources().size();
    parts.push_back(of.records() == 0
                        ? "no record yet"
                        : "heard " + short_time(seconds(now - of.heard()).count() * 1e6) + " ago");
    parts.push_back(std::to_string(queues) + (queues == 1 ? " queue" : " queues"));
    if (of.lost() != 0)
        parts.push_back(short_number(static_cast<double>(of.lost())) + " lost");
    if (of.silent() != 0)
        parts.push_back(std::to_string(of.silent()) + " silent");
    if (of.bad() != 0)
        parts.push_back(short_number(static_cast<double>(of.bad())) + " malformed");
    std::string text;
    for (const std::string &part : parts)
        if (text.empty() || width_of(text) + 2 + width_of(part) <= width)
            text += (text.empty() ? "" : "  ") + part;
    return fit(text, width);
}

std::vector<screen_line> table_lines(const book &of, const view &how, std::size_t room,
                                     steady::time_point now)
{
    layout by = lay_out(how.width);
    std::vector<screen_line> lines = {{fit(table_line(by, nullptr), how.width), style::heading}};
    std::vector<row> rows = sorted_rows(of, how, now);
    bool cut = room != 0 && rows.size() + 1 > room;
    std::size_t shown = cut ? (room > 2 ? room - 2 : 0) : rows.size();
    for (std::size_t i = 0; i < shown; ++i)
        lines.push_back({fit(table_line(by, &rows[i]), how.width), style_of(rows[i])});
    if (cut)
        lines.push_back({fit(" and " + std::to_string(rows.size() - shown) + " more", how.width),
                         style::plain});
    return lines;
}

} // namespace tool
