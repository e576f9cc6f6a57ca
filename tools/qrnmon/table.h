// SPDX-License-Identifier: Apache-2.0
//
// The table: one line a queue, in whatever width there is.
#ifndef QRNMON_TOOL_TABLE_H
#define QRNMON_TOOL_TABLE_H

#include <string>
#include <vector>

#include "sources.h"

namespace tool {

// Cut or filled to a width; figures stand to the right.
std::string fit(std::string text, std::size_t width, bool right = false);

// A number in at most five columns: "12345", "123k", "1.2M".
std::string short_number(double value);

// Microseconds in at most five columns: "123us", "1.2ms", "12s".
std::string short_time(double usec);

double known(std::uint64_t value);

struct view {
    std::size_t width = 80;
    std::size_t height = 0; // 0: no end
    bool colour = false;
    char sort = 'n';
    bool reverse = false;
};

// A line of a screen, and how it is to look.
struct screen_line {
    std::string text;
    const char *style = "";
};

namespace style {
constexpr const char *plain = "";
constexpr const char *heading = "\x1b[7m";
constexpr const char *strong = "\x1b[1m";
constexpr const char *warning = "\x1b[1;33m";
constexpr const char *silent = "\x1b[2m";
} // namespace style

// Whether a key sorts by a column of the table.
bool is_sort_key(char key);

// Appends parts, the most important first, as long as they fit.
std::string heading_line(const book &of, const std::string &time, std::size_t width,
                         steady::time_point now);

// The table: the lines of the queues that `room` lines hold, and one that counts the others.
std::vector<screen_line> table_lines(const book &of, const view &how, std::size_t room,
                                     steady::time_point now);

} // namespace tool

#endif
