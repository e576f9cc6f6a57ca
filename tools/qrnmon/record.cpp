// SPDX-License-Identifier: Apache-2.0
#include "record.h"

#include <charconv>

namespace tool {

bool reader::refuse(std::string text)
{
    why_ = std::move(text);
    return false;
}

// Takes the fields apart, with quotes undone.
bool reader::split(std::string_view line)
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

bool reader::take_number(std::size_t column, std::uint64_t &value)
{
    const std::string &text = fields_[column];
    const char *end = text.data() + text.size();
    auto parsed = std::from_chars(text.data(), end, value);
    return parsed.ec == std::errc() && parsed.ptr == end && value != unknown;
}

// Seconds with exactly six digits behind the point.
bool reader::take_clock(std::size_t column, std::uint64_t &value)
{
    std::string &text = fields_[column];
    if (text.size() < 8 || text.size() > 19 || text[text.size() - 7] != '.')
        return false;
    text.erase(text.size() - 7, 1);
    return take_number(column, value);
}

bool reader::take(std::size_t column)
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

content reader::read(std::string_view datagram)
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
