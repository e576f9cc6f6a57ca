// SPDX-License-Identifier: Apache-2.0
//
// A monitoring record, read from a datagram. Whoever reaches the port can send, so nothing is
// believed before it was checked.
#ifndef QRNMON_TOOL_RECORD_H
#define QRNMON_TOOL_RECORD_H

#include <array>
#include <charconv>
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

inline bool reader::refuse(std::string text)
{
    why_ = std::move(text);
    return false;
}

// Takes the fields apart, with quotes undone.
inline bool reader::split(std::string_view line)
{
    std::size_t count = 0;
    std::size_t i = 0;
    for (;;) {
        if (count == fields_.size())
            return refuse("more than " + std::to_string(count) + " fields");
        std::string &field = fields_[count++];
        field.clear();
        bool quoted = i < line.size() && line[i] == '"';
        for (i += quoted ? 1 : 0; i < line.size() && (quoted || line[i] != ','); ++i) {
            if (quoted && line[i] == '"' && line.substr(i + 1, 1) != "\"")
                break;
            i += quoted && line[i] == '"' ? 1 : 0;
            field += line[i];
        }
        if (quoted && i++ >= line.size())
            return refuse("a quote is not closed");
        if (i >= line.size())
            break;
        if (line[i++] != ',')
            return refuse("text after a closing quote");
    }
    return count == fields_.size()
               ? true
               : refuse(std::to_string(count) + " fields, not " + std::to_string(fields_.size()));
}

inline bool reader::take_number(std::size_t column, std::uint64_t &value)
{
    const std::string &text = fields_[column];
    const char *end = text.data() + text.size();
    auto parsed = std::from_chars(text.data(), end, value);
    return parsed.ec == std::errc() && parsed.ptr == end && value != unknown;
}

// Seconds with exactly six digits behind the point.
inline bool reader::take_clock(std::size_t column, std::uint64_t &value)
{
    std::string &text = fields_[column];
    if (text.size() < 8 || text.size() > 19 || text[text.size() - 7] != '.')
        return false;
    text.erase(text.size() - 7, 1);
    return take_number(column, value);
}

inline bool reader::take(std::size_t column)
{
    std::uint64_t &value = record_.numbers[column];
    bool clock = column == at::epoch || column == at::mono;
    bool text = column == at::time || column == at::app || column == at::queue;
    bool required = clock || column == at::seq || columns[column].what == kind::label;
    value = 0;
    if (text)
        return true;
    if (fields_[column].empty() && !required) {
        value = unknown;
        return true;
    }
    if (clock ? take_clock(column, value) : take_number(column, value))
        return true;
    return refuse(std::string(columns[column].name) + " is '" + fields_[column].substr(0, 30) +
                  "'");
}

inline content reader::read(std::string_view datagram)
{
    std::string_view line = datagram;
    if (line.ends_with('\n'))
        line.remove_suffix(1);
    for (char c : line) {
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) {
            refuse("it is not one line of text");
            return content::bad;
        }
    }
    if (line.starts_with("schema,"))
        return content::header;
    if (!line.starts_with(std::to_string(qrnmon::schema) + ",")) {
        refuse("it is no record of schema " + std::to_string(qrnmon::schema));
        return content::bad;
    }
    if (!split(line))
        return content::bad;
    for (std::size_t column = 0; column < columns.size(); ++column)
        if (!take(column))
            return content::bad;
    record_.line = line;
    record_.app = fields_[at::app];
    record_.queue = fields_[at::queue];
    return content::row;
}

} // namespace tool

#endif
