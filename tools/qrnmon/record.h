// SPDX-License-Identifier: Apache-2.0
//
// A monitoring record, read from a datagram. Whoever reaches the port can send, so nothing is
// believed before it was checked.
#ifndef QRNMON_TOOL_RECORD_H
#define QRNMON_TOOL_RECORD_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "qrnmon_columns.h"

namespace tool {

using qrnmon::columns;
using qrnmon::kind;

// The value of an empty field.
constexpr std::uint64_t unknown = ~std::uint64_t{0};

// Positions of the columns that the tool looks at one by one.
namespace at {
constexpr std::size_t schema = qrnmon::column_at("schema");
constexpr std::size_t epoch = qrnmon::column_at("epoch_s");
constexpr std::size_t time = qrnmon::column_at("time_utc");
constexpr std::size_t mono = qrnmon::column_at("mono_s");
constexpr std::size_t seq = qrnmon::column_at("seq");
constexpr std::size_t pid = qrnmon::column_at("pid");
constexpr std::size_t app = qrnmon::column_at("app");
constexpr std::size_t queue = qrnmon::column_at("queue");
constexpr std::size_t queue_id = qrnmon::column_at("queue_id");
constexpr std::size_t interval = qrnmon::column_at("interval_s");
constexpr std::size_t depth = qrnmon::column_at("depth");
constexpr std::size_t warning = qrnmon::column_at("warning");
constexpr std::size_t size_warnings = qrnmon::column_at("size_warnings");
constexpr std::size_t delay_warnings = qrnmon::column_at("delay_warnings");
constexpr std::size_t events = qrnmon::column_at("events");
constexpr std::size_t events_tot = qrnmon::column_at("events_tot");
constexpr std::size_t age_mean = qrnmon::column_at("age_mean");
constexpr std::size_t age_max = qrnmon::column_at("age_max");
} // namespace at

struct record {
    std::string line;                                    // as it came, without the newline
    std::array<std::uint64_t, columns.size()> numbers{}; // of clocks the microseconds; of texts 0
    std::string app;
    std::string queue;

    std::uint64_t operator[](std::size_t column) const { return numbers[column]; }
};

enum class content { row, header, bad };

// Reads datagrams into one record, which it keeps from call to call.
class reader {
public:
    // What the datagram is. After `row` see result(), after `bad` see why().
    content read(std::string_view datagram);
    const record &result() const { return record_; }
    const std::string &why() const { return why_; }

private:
    bool split(std::string_view line);
    bool take(std::size_t column);
    bool take_number(std::size_t column, std::uint64_t &value);
    bool take_clock(std::size_t column, std::uint64_t &value);
    bool refuse(std::string text);

    record record_;
    std::array<std::string, columns.size()> fields_;
    std::string why_;
};

} // namespace tool

#endif
