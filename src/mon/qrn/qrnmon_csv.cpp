// SPDX-License-Identifier: Apache-2.0
/* Comma-separated values. Numbers are written without the locale's help. A field is quoted when it
 * holds a comma, a quote or a blank at either end; control characters become blanks, so that a
 * record is always one line. Weak definitions: a program may put its own in their place. */
#include <charconv>

#include "qrnmon_layer.h"

namespace qrnmon {

namespace {

/* Appends fields to a buffer. What does not fit is left out; the bounds of qrnmon_layer.h see to
 * it that everything does. */
class line {
public:
    explicit line(record_buffer &out) : out_(out) {}

    void raw(char c)
    {
        if (at_ < out_.size())
            out_[at_++] = c;
    }

    void raw(std::string_view text)
    {
        for (char c : text)
            raw(c);
    }

    /* A number, with zeros in front up to `width` digits. */
    void digits(std::uint64_t value, std::size_t width = 1)
    {
        std::array<char, 20> text{};
        char *end = std::to_chars(text.begin(), text.end(), value).ptr;
        auto length = static_cast<std::size_t>(end - text.begin());
        for (std::size_t i = length; i < width; ++i)
            raw('0');
        raw(std::string_view(text.data(), length));
    }

    void field(std::uint64_t value)
    {
        separate();
        if (value != unknown)
            digits(value);
    }

    void field(std::string_view text);
    void seconds(const timespec &time);
    void iso_time(const timespec &time);

    std::string_view finish()
    {
        raw('\n');
        return {out_.data(), at_};
    }

private:
    void separate()
    {
        if (at_ != 0)
            raw(',');
    }

    record_buffer &out_;
    std::size_t at_ = 0;
};

/* Cuts at the bound, and never inside a character of more than one byte. */
std::string_view cut(std::string_view text)
{
    if (text.size() <= max_text)
        return text;
    std::size_t end = max_text;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end;
    return text.substr(0, end);
}

bool is_blank(char c)
{
    auto byte = static_cast<unsigned char>(c);
    return byte <= ' ' || byte == 0x7F;
}

void line::field(std::string_view text)
{
    separate();
    text = cut(text);
    bool quoted = text.find_first_of(",\"") != text.npos ||
                  (!text.empty() && (is_blank(text.front()) || is_blank(text.back())));
    if (quoted)
        raw('"');
    for (char c : text) {
        if (c == '"')
            raw('"');
        raw(is_blank(c) ? ' ' : c);
    }
    if (quoted)
        raw('"');
}

void line::seconds(const timespec &time)
{
    field(static_cast<std::uint64_t>(time.tv_sec));
    raw('.');
    digits(static_cast<std::uint64_t>(time.tv_nsec) / 1000, 6);
}

void line::iso_time(const timespec &time)
{
    tm utc{};
    gmtime_r(&time.tv_sec, &utc);
    const struct {
        int value;
        std::size_t width;
        char after;
    } parts[] = {{utc.tm_year + 1900, 4, '-'}, {utc.tm_mon + 1, 2, '-'}, {utc.tm_mday, 2, 'T'},
                 {utc.tm_hour, 2, ':'},        {utc.tm_min, 2, ':'},     {utc.tm_sec, 2, '.'}};
    separate();
    for (const auto &part : parts) {
        digits(static_cast<std::uint64_t>(part.value), part.width);
        raw(part.after);
    }
    digits(static_cast<std::uint64_t>(time.tv_nsec) / 1'000'000, 3);
    raw('Z');
}

/* Counts that are not kept are unknown, and so are the times of a group without a sample. A count
 * that reads below zero was caught in mid-change. */
std::uint64_t shown(const sample &from, std::size_t figure)
{
    qrn_ulong_t value = from.stats[figure];
    auto time_of_group = [&](std::size_t minimum) {
        return from.stats[minimum] == ~qrn_ulong_t{0} ? unknown : value;
    };
    switch (columns[first_figure + figure].what) {
    case kind::current:
        return !from.counted ? unknown : static_cast<long>(value) < 0 ? 0 : value;
    case kind::minimum:
        return time_of_group(figure);
    case kind::mean:
        return time_of_group(figure - 1);
    case kind::maximum:
        return time_of_group(figure - 2);
    default:
        return from.counted ? value : unknown;
    }
}

} // namespace

std::string_view csv_header(record_buffer &out)
{
    line to(out);
    for (const column &each : columns)
        to.field(each.name);
    return to.finish();
}

std::string_view csv_record(record_buffer &out, const sample &from)
{
    line to(out);
    to.field(std::uint64_t{schema});
    to.seconds(from.real);
    to.iso_time(from.real);
    to.seconds(from.mono);
    to.field(from.seq);
    to.field(static_cast<std::uint64_t>(from.pid));
    to.field(from.app);
    to.field(from.queue);
    for (std::uint64_t value : {from.queue_id, from.interval, from.depth, from.warning,
                                from.size_warnings, from.delay_warnings})
        to.field(value);
    for (std::size_t figure = 0; figure < figure_count; ++figure)
        to.field(shown(from, figure));
    return to.finish();
}

constexpr qrnmon_format_func_t csv_format = {csv_header, csv_record};

} // namespace qrnmon

[[gnu::weak]] const qrnmon_format_func_t *qrnmon_format_csv_module(void)
{
    return &qrnmon::csv_format;
}
