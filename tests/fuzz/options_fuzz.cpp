// SPDX-License-Identifier: Apache-2.0
// Fuzz target of option names and values. An input is a list of settings, closed by the byte 0x1E:
// a letter (s: from text, t: typed, capital: on a queue), the name, a new line, the value.
//
// A setting that is refused must leave every option and the mask alone. One that is accepted must
// change its own option only, mark it, and read back as text that sets it again.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
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
constexpr size_t opts = 10; // the row; from here on values are texts or bytes

void require(bool holds, const char *property)
{
    if (holds)
        return;
    std::fprintf(stderr, "property violated: %s (last error: %s)\n", property, qrn_errmsg());
    std::abort();
}

// Every option as text, and the mask behind them.
std::vector<std::string> state_of(record *attr)
{
    std::vector<std::string> now(option_count);
    for (size_t row = 0; row < option_count; ++row) {
        static char buffer[1 << 14]; // an input is shorter
        size_t length = sizeof buffer;
        const char *const option = qrn_event_queue_attr_opt_table[row].oname;
        require(qrn_event_queue_attr_str_getopt(attr, option, buffer, &length) == QRN_OK &&
                    length <= sizeof buffer,
                "each option reads, in its buffer");
        if (length < sizeof buffer) // else it is unset
            now[row].assign(buffer, length);
    }
    now.emplace_back(attr->setopt_mask, qrn_event_queue_attr_setopt_mask_size());
    return now;
}

void check_setting(record *attr, bool typed, bool live, const std::string &option,
                   const std::string &value)
{
    const auto &table = qrn_event_queue_attr_opt_table;
    const auto has_name = [&](const auto &entry) {
        return entry.oname != nullptr && strcasecmp(entry.oname, option.c_str()) == 0;
    };
    const auto row = static_cast<size_t>(std::ranges::find_if(table, has_name) - table);
    std::vector<std::string> expected = state_of(attr);
    qrn_seterr(0, "");
    qrn_event_queue_t evq{};
    evq.attr = attr;
    const int result =
        typed && live ? qrn_event_queue_setopt(&evq, option.c_str(), value.data(), value.size())
        : typed ? qrn_event_queue_attr_setopt(attr, option.c_str(), value.data(), value.size())
        : live  ? qrn_event_queue_str_setopt(&evq, option.c_str(), value.c_str())
                : qrn_event_queue_attr_str_setopt(attr, option.c_str(), value.c_str());
    const std::vector<std::string> after = state_of(attr);
    if (result != QRN_OK) {
        require(qrn_errnum() == QRN_ERR_INVALID && strncmp(qrn_errmsg(), "CoreApi-", 8) == 0,
                "a refusal is recorded");
        if (row == opts && !live && value[0] == '"')
            expected[opts].clear();
        require(after == expected, "a refused setting changes nothing");
        return;
    }
    require(live ? std::ranges::any_of(qrn_event_queue_opt_table, has_name) : row < option_count,
            "only known names are accepted");
    expected[row] = after[row];
    expected.back()[row / 8] |= static_cast<char>(1 << row % 8);
    require(after == expected, "the option is marked, others stay");
    require(row < opts || strcmp(after[row].c_str(), value.c_str()) == 0,
            "a text reads back as it was set");
    require(row >= opts ||
                (table[row].sset(attr, after[row].c_str()) == QRN_OK && state_of(attr) == after),
            "what is read back is accepted and kept");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *bytes, size_t size)
{
    kfx_set_log_sink([](int, const char *) {});
    record *attr = nullptr;
    require(qrn_event_queue_attr_create_default(&attr) == QRN_OK, "records are made");
    std::string_view rest(reinterpret_cast<const char *>(bytes), size);
    while (!rest.empty()) {
        const std::string_view one = rest.substr(0, rest.find('\x1E'));
        rest.remove_prefix(std::min(rest.size(), one.size() + 1));
        if (one.empty())
            continue;
        const size_t line = std::min(one.find('\n', 1), one.size());
        check_setting(attr, (one[0] | 0x20) == 't', (one[0] & 0x20) == 0,
                      std::string(one.substr(1, line - 1)),
                      std::string(one.substr(std::min(line + 1, one.size()))));
    }
    qrn_event_queue_attr_delete(attr);
    return 0;
}
