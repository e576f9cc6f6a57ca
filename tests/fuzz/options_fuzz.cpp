// SPDX-License-Identifier: Apache-2.0
// Fuzz target of option names and values. An input is a list of settings, closed by the byte 0x1E:
// a letter (s: from text, t: typed, capital: on a queue), the name, a new line, the value.
//
// A setting that is refused must leave every option and the mask alone. One that is accepted must
// change its own option only, mark it, and read back in a canonical form that can be set again from
// text or typed with the same result.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <strings.h>
#include <vector>

#include "kfxlog.h"
#include "qrnerr.h"
#include "qrnev.h"

namespace {

using record = qrn_event_queue_attr_t;

constexpr size_t option_count = std::size(qrn_event_queue_attr_opt_table) - 1;
// Rows that differ from others of their kind; from `opts` on values are texts or bytes.
constexpr size_t transport = 9, opts = 10, name = 12, data = 13;

void require(bool holds, const char *property)
{
    if (holds)
        return;
    std::fprintf(stderr, "property violated: %s (last error: %s)\n", property, qrn_errmsg());
    std::abort();
}

using record_owner = std::unique_ptr<record, decltype(&qrn_event_queue_attr_delete)>;

record_owner make_record()
{
    record *attr = nullptr;
    require(qrn_event_queue_attr_create_default(&attr) == QRN_OK, "records are made");
    return {attr, qrn_event_queue_attr_delete};
}

// An option as text, of any length.
std::string text_of(record *attr, size_t row)
{
    const char *const option = qrn_event_queue_attr_opt_table[row].oname;
    for (size_t size = 80;; size *= 2) {
        const std::unique_ptr<char[]> buffer(new char[size]());
        size_t length = size;
        if (qrn_event_queue_attr_str_getopt(attr, option, buffer.get(), &length) != QRN_OK)
            continue;
        require(length <= size, "a length is within its buffer");
        return length == size && row != data ? "" : std::string(buffer.get(), length);
    }
}

// Every option as text, and the mask behind them.
using state = std::vector<std::string>;

state state_of(record *attr)
{
    state now;
    for (size_t row = 0; row < option_count; ++row)
        now.push_back(text_of(attr, row));
    now.emplace_back(attr->setopt_mask, qrn_event_queue_attr_setopt_mask_size());
    return now;
}

struct setting {
    bool typed, live;
    std::string option, value;
};

int apply(record *attr, const setting &s)
{
    qrn_event_queue_t evq{};
    evq.attr = attr;
    const char *const option = s.option.c_str();
    const char *const value = s.value.c_str();
    if (s.typed)
        return s.live ? qrn_event_queue_setopt(&evq, option, value, s.value.size())
                      : qrn_event_queue_attr_setopt(attr, option, value, s.value.size());
    return s.live ? qrn_event_queue_str_setopt(&evq, option, value)
                  : qrn_event_queue_attr_str_setopt(attr, option, value);
}

bool is_canonical(size_t row, const std::string &text)
{
    const int kind = qrn_event_queue_attr_opt_table[row].otype;
    if (row == name)
        return text.find_first_not_of("0123456789-_abcdefghijklmnopqrstuvwxyz"
                                      "ABCDEFGHIJKLMNOPQRSTUVWXYZ") == text.npos;
    if (kind == 10)
        return text == std::to_string(std::strtoul(text.c_str(), nullptr, 10));
    return kind == 6 ? text == "0" || text == "1"
                     : row != transport || text == "qrn" || text == "qrnsnmp";
}

void check_accepted(record *attr, const setting &s, size_t row, const state &before)
{
    const auto &entry = qrn_event_queue_attr_opt_table[row];
    const state after = state_of(attr);
    const std::string &text = after[row];
    require(is_canonical(row, text), "what is read back is canonical");
    const bool same =
        s.typed && row == data ? text == s.value : strcmp(text.c_str(), s.value.c_str()) == 0;
    require(row < opts || same, "a text reads back as it was set");
    state expected = before;
    expected[row] = text;
    expected.back()[row / 8] |= static_cast<char>(1 << row % 8);
    require(after == expected, "the option is marked, others stay");

    const record_owner other = make_record();
    require(row >= opts || (entry.sset(other.get(), text.c_str()) == QRN_OK &&
                            text_of(other.get(), row) == text),
            "the canonical text is accepted and kept");
    std::string value(text.size() + 80, '\0');
    for (size_t length : {size_t{4}, size_t{8}, value.size()}) {
        if (entry.get(attr, value.data(), &length) != QRN_OK)
            continue;
        require(entry.set(other.get(), value.data(), row == name ? 0 : length) == QRN_OK &&
                    text_of(other.get(), row) == text,
                "a typed value is accepted and kept");
    }
}

void check_setting(record *attr, const setting &s)
{
    const auto *table = s.live ? qrn_event_queue_opt_table : qrn_event_queue_attr_opt_table;
    const auto *found = table;
    while (found->oname != nullptr && strcasecmp(found->oname, s.option.c_str()) != 0)
        ++found;
    size_t row = 0;
    while (found->oname != nullptr && qrn_event_queue_attr_opt_table[row].set != found->set)
        ++row;
    state before = state_of(attr);
    qrn_seterr(0, "");
    if (apply(attr, s) == QRN_OK) {
        require(found->oname != nullptr, "only known names are accepted");
        check_accepted(attr, s, row, before);
        return;
    }
    require(qrn_errnum() == QRN_ERR_INVALID && strncmp(qrn_errmsg(), "CoreApi-", 8) == 0,
            "a refusal is recorded");
    if (found->oname != nullptr && row == opts && s.value[0] == '"')
        before[opts].clear();
    require(state_of(attr) == before, "a refused setting changes nothing");
}

void check_dump(record *attr)
{
    qrn_config_option_t entries[option_count];
    int size = option_count;
    require(qrn_event_queue_attr_dump(attr, &size, entries) == QRN_OK, "a record is dumped");
    for (size_t row = 0; const auto &entry : std::span(entries).first(static_cast<size_t>(size))) {
        while (strcmp(qrn_event_queue_attr_opt_table[row].oname, entry.oname) != 0)
            ++row;
        require(text_of(attr, row).c_str() == std::string(entry.val), "a dumped value is right");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *bytes, size_t size)
{
    static const auto quiet = kfx_set_log_sink([](int, const char *) {});
    static_cast<void>(quiet);
    const record_owner attr = make_record();
    std::string_view rest(reinterpret_cast<const char *>(bytes), size);
    while (!rest.empty()) {
        const std::string_view one = rest.substr(0, rest.find('\x1E'));
        rest.remove_prefix(std::min(rest.size(), one.size() + 1));
        if (one.empty())
            continue;
        const size_t line = std::min(one.find('\n', 1), one.size());
        check_setting(attr.get(),
                      {.typed = (one[0] | 0x20) == 't',
                       .live = (one[0] & 0x20) == 0,
                       .option = std::string(one.substr(1, line - 1)),
                       .value = std::string(one.substr(std::min(line + 1, one.size())))});
    }
    check_dump(attr.get());
    return 0;
}
