// SPDX-License-Identifier: Apache-2.0
// Options by name: good and bad values, sizes and buffers at their edges, null arguments, on records
// and on running queues. What a call refuses records exactly its message and leaves every option and
// the mask as they were.
#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <strings.h>
#include <thread>
#include <tuple>
#include <vector>

#include "options_common.h"

namespace {

using record = qrn_event_queue_attr_t;

enum kind { threshold, toggle, interval, transport, text };

// The expected table: the text each test starts with, the size of a typed value, and the numbers of the
// messages: typed size, typed value, digits, text value, size of a typed buffer, of a text buffer.
struct row {
    const char *name;
    kind is;
    bool live;
    const char *start;
    size_t size;
    int set_size, set_value, digits, value, get_size, room;
};

constexpr row rows[] = {
    {"queue_size_warning", threshold, true, "7", 8, 314, 0, 315, 316, 317, 318},
    {"queue_delay_warning", threshold, true, "8", 8, 319, 0, 320, 321, 322, 323},
    {"queue_enqueue_notification", toggle, true, "1", 4, 324, 325, 326, 327, 328, 329},
    {"queue_cancellation_callbacks_enabled", toggle, false, "1", 4, 330, 331, 332, 333, 334, 335},
    {"queue_objects_purged_on_close", toggle, false, "0", 4, 336, 337, 338, 339, 340, 341},
    {"queue_service_time_enabled", toggle, true, "1", 4, 342, 343, 344, 345, 346, 347},
    {"queue_age_enabled", toggle, true, "1", 4, 348, 349, 350, 351, 352, 353},
    {"queue_count_enabled", toggle, true, "1", 4, 354, 355, 356, 357, 358, 359},
    {"monitor_interval", interval, false, "0", 8, 360, 0, 361, 0, 362, 363},
    {"monitor_transport", transport, false, "qrnsnmp", 4, 364, 365, 0, 366, 367, 368},
    {"monitor_transport_opts", text, false, "port=1", 0, 0, 0, 0, 0, 0, 0},
    {"monitor_appid", text, false, "app", 0, 0, 0, 0, 0, 0, 0},
    {"event_queue_name", text, false, "start", 0, 0, 0, 0, 0, 0, 0},
    {"application_data", text, true, "bytes", 0, 0, 0, 0, 0, 0, 0},
};

size_t index_of(const char *name)
{
    size_t i = 0;
    while (strcasecmp(rows[i].name, name) != 0)
        ++i;
    return i;
}

// The labels of the messages, and a letter for each message from 314 on.
const std::map<char, const char *> labels = {
    {'S', "optlen incorrect size"},     {'B', "optval must be 0 or 1"},
    {'N', "optval not numeric"},        {'X', "optval not a number"},
    {'R', "optlen too small"},          {'U', "optval not supported"},
    {'K', "optval not understood"},     {'L', "event_queue name too long"},
    {'V', "optval must not be NULL"},   {'C', "name contains invalid character"},
    {'E', "optlen must not be NULL"},   {'G', "optlen must be greater than 1"},
    {'H', "optval is not long enough"}, {'M', "name must not be NULL"}};
constexpr char letters[] = "SNXSRSNXSRSBNBSRSBNBSRSBNBSRSBNBSRSBNBSRSBNBSR" // numbers and switches
                           "SNSRSUKSRSSSSMCLVVLVEGHVEH";

// No number, no message. The two of the leading quote have numbers of their own.
std::string message(int number, const char *label = nullptr)
{
    if (number == 0)
        return "";
    if (number < 3)
        return text_of(
            "CoreApi-8840-%d: event queue monitor transport opts value cannot start with a '\"'",
            number);
    return text_of("CoreApi-5688-%d: %s", number,
                   label != nullptr ? label : labels.at(letters[size_t(number) - 314]));
}

template <class Call>
void expect_message(const std::string &refusal, Call call)
{
    expect_result(refusal.empty() ? nullptr : refusal.c_str(), call);
}

// Every option as text, and the mask.
using state = std::pair<std::array<std::string, 14>, unsigned>;

// A record, or a queue that runs: the same calls lead to either.
class options {
public:
    explicit options(bool live)
    {
        EXPECT_EQ(QRN_OK, qrn_event_queue_attr_create_default(&attr_));
        for (const row &r : rows)
            EXPECT_EQ(QRN_OK, qrn_event_queue_attr_str_setopt(attr_, r.name, r.start)) << r.name;
        EXPECT_EQ(QRN_OK, live ? qrn_event_queue_create(&evq_, nullptr, nullptr, attr_) : QRN_OK);
        memset(raw()->setopt_mask, 0, 2);
    }
    ~options()
    {
        EXPECT_EQ(QRN_OK, evq_ != nullptr ? qrn_event_queue_delete(evq_) : QRN_OK);
        EXPECT_EQ(QRN_OK, qrn_event_queue_attr_delete(attr_));
    }
    options(const options &) = delete;
    options &operator=(const options &) = delete;

    qrn_event_queue_t *evq() { return evq_; }
    record *raw() { return evq_ != nullptr ? evq_->attr : attr_; }
    const void *target() { return evq_ != nullptr ? static_cast<void *>(evq_) : attr_; }

    int set(const char *name, const void *value, size_t size)
    {
        return evq_ != nullptr ? qrn_event_queue_setopt(evq_, name, value, size)
                               : qrn_event_queue_attr_setopt(attr_, name, value, size);
    }
    int set(const char *name, const char *value)
    {
        return evq_ != nullptr ? qrn_event_queue_str_setopt(evq_, name, value)
                               : qrn_event_queue_attr_str_setopt(attr_, name, value);
    }
    int get(const char *name, void *value, size_t *size)
    {
        return evq_ != nullptr ? qrn_event_queue_getopt(evq_, name, value, size)
                               : qrn_event_queue_attr_getopt(attr_, name, value, size);
    }
    int get_text(const char *name, char *value, size_t *size)
    {
        return evq_ != nullptr ? qrn_event_queue_str_getopt(evq_, name, value, size)
                               : qrn_event_queue_attr_str_getopt(attr_, name, value, size);
    }

    state now()
    {
        state all;
        for (size_t i = 0; i < std::size(rows); ++i) {
            char value[512] = "";
            size_t size = sizeof value - 1;
            EXPECT_EQ(QRN_OK, get_text(rows[i].name, value, &size)) << rows[i].name;
            all.first[i] = value;
        }
        const auto *mask = reinterpret_cast<const unsigned char *>(raw()->setopt_mask);
        all.second = mask[0] + mask[1] * 256U;
        return all;
    }

    // Sets an option, from text or typed, and expects the message, or the option's new value and bit.
    template <class... Value>
    void expect(const char *name, int refused, const std::string &result, Value... value)
    {
        SCOPED_TRACE(name);
        const size_t i = index_of(name);
        std::string refusal = message(refused);
        state expected = now();
        if (evq_ != nullptr && !rows[i].live)
            refusal = message(sizeof...(value) == 2 ? 307 : 309,
                              text_of("option %s unknown", name).c_str());
        else if (refused <= 2) // a refused leading quote leaves the option unset
            expected.first[i] = result;
        if (refusal.empty())
            expected.second |= 1U << i;
        expect_message(refusal, [&] { return set(name, value...); });
        EXPECT_EQ(expected, now());
    }

private:
    record *attr_ = nullptr;
    qrn_event_queue_t *evq_ = nullptr;
};

// Each of these tests runs on a record and on a queue that runs.
class options_test : public testing::TestWithParam<bool> {
protected:
    captured_log log_;
    options options_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(each, options_test, testing::Bool(),
                         [](const auto &p) { return p.param ? "live" : "record"; });

std::string upper(std::string name)
{
    for (char &c : name)
        c = static_cast<char>(toupper(c));
    return name;
}

TEST_P(options_test, sizes_are_exact)
{
    for (const row &r : rows) {
        if (r.is == text)
            continue;
        char value[80] = {1};
        for (const size_t size : {size_t{0}, r.size - 1, r.size + 1, 12 - r.size, size_t{80}}) {
            options_.expect(r.name, r.set_size, "", static_cast<void *>(value), size);
            size_t length = size;
            expect_message(message(r.get_size),
                           [&] { return options_.get(r.name, value, &length); });
            EXPECT_EQ(size, length);
        }
        size_t length = 79;
        expect_message(message(r.room), [&] { return options_.get_text(r.name, value, &length); });
        EXPECT_EQ(79U, length);
        EXPECT_EQ('\1', value[0]);
        length = 80;
        expect_message("", [&] { return options_.get_text(r.name, value, &length); });
        EXPECT_STREQ(r.start, value);
        EXPECT_EQ(strlen(r.start), length);
    }
}

TEST_P(options_test, typed_values)
{
    const struct {
        kind of;
        unsigned long value; // its low bytes
        const char *result;  // null: refused
    } cases[] = {
        {threshold, ULONG_MAX, "18446744073709551615"},
        {threshold, 0, "0"},
        {toggle, UINT_MAX, nullptr},
        {toggle, 2, nullptr},
        {toggle, 1UL << 31, nullptr},
        {toggle, 0, "0"},
        {toggle, 1, "1"},
        {interval, (1UL << 32) + 5, "5"},
        {transport, 0, nullptr},
        {transport, 3, nullptr},
        {transport, UINT_MAX, nullptr},
        {transport, 1, "qrn"},
    };
    for (const auto &c : cases) {
        for (const row &r : rows) {
            if (r.is != c.of)
                continue;
            const bool refused = c.result == nullptr;
            options_.expect(r.name, refused ? r.set_value : 0, refused ? "" : c.result,
                            static_cast<const void *>(&c.value), r.size);
            unsigned long value = 0;
            size_t size = r.size;
            expect_message("", [&] { return options_.get(r.name, &value, &size); });
            EXPECT_EQ(r.size, size);
            const bool set = !refused && (r.live || !GetParam());
            EXPECT_TRUE(!set || value == (r.is == interval ? 5 : c.value)) << r.name << value;
        }
    }
}

TEST_P(options_test, texts_of_numbers)
{
    enum outcome { set, bad_digits, bad_value };
    using texts = std::vector<std::pair<const char *, const char *>>; // given, result
    const std::tuple<kind, outcome, texts> cases[] = {
        {threshold, set,
         texts{{"1000 events", "1000"},
               {" 12", "12"},
               {"007", "7"},
               {"99999999999999999999", "18446744073709551615"}}},
        {threshold, bad_digits,
         texts{{"12x", ""}, {"-1", ""}, {"+1", ""}, {"0x1", ""}, {"\xB2", ""}}},
        {threshold, bad_value, texts{{"", ""}, {" \t", ""}, {" x", ""}}},
        {toggle, set, texts{{"", "0"}, {"1 and more", "1"}, {" x", "0"}, {"01", "1"}}},
        {toggle, bad_digits, texts{{"y", ""}, {"-1", ""}}},
        {toggle, bad_value, texts{{"2", ""}, {" -1", ""}, {"4294967297", ""}}},
        {interval, set,
         texts{{"4294967301", "5"},
               {" -1", "4294967295"},
               {"9223372036854775813", "4294967295"},
               {"", "0"}}},
        {interval, bad_digits, texts{{"1s", ""}}},
        {transport, set, texts{{"QRN", "qrn"}, {"QrnSnmp", "qrnsnmp"}}},
        {transport, bad_value, texts{{"qrn ", ""}, {"", ""}}},
    };
    for (const auto &[of, is, values] : cases) {
        for (const row &r : rows) {
            const int refusal[] = {0, r.digits, r.value};
            for (const auto &[given, result] : values) {
                SCOPED_TRACE(given);
                if (r.is == of)
                    options_.expect(r.name, refusal[is], result, given);
            }
        }
    }
}

TEST_P(options_test, texts)
{
    constexpr size_t as_text = SIZE_MAX;
    const std::string longest(128, 'n'), any(300, 'a');
    const struct {
        const char *name;
        std::string given;
        size_t size; // of the typed form
        int refused;
        std::string result;
    } cases[] = {
        {"monitor_transport_opts", "%s%n \"quoted\"", as_text, 0, "%s%n \"quoted\""},
        {"monitor_transport_opts", any, as_text, 0, any},
        {"monitor_transport_opts", "\"x", as_text, 2, ""},
        {"monitor_transport_opts", "ttl=2", 0, 0, "ttl=2"},
        {"monitor_transport_opts", "\"", 1, 1, ""},
        {"monitor_transport_opts", "", as_text, 0, ""},
        {"monitor_appid", "\"any text", as_text, 0, "\"any text"},
        {"monitor_appid", "", as_text, 0, ""},
        {"monitor_appid", "other", 1, 0, "other"},
        {"event_queue_name", "a-B_9", as_text, 0, "a-B_9"},
        {"event_queue_name", longest, as_text, 0, longest},
        {"event_queue_name", longest + "n", as_text, 378, ""},
        {"event_queue_name", "a.b", as_text, 374, ""},
        {"event_queue_name", "\xE9", as_text, 374, ""},
        {"event_queue_name", "n.n", 129, 375, ""},
        {"event_queue_name", "n.n", 128, 374, ""},
        {"event_queue_name", any, 0, 0, any}, // only the length that is given is judged
        {"event_queue_name", "", as_text, 0, ""},
        {"application_data", "ab", as_text, 0, "ab"},
        {"application_data", std::string("a\0b", 4), 4, 0, "a"},
        {"application_data", "", as_text, 0, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.given);
        if (c.size == as_text)
            options_.expect(c.name, c.refused, c.result, c.given.c_str());
        else
            options_.expect(c.name, c.refused, c.result, static_cast<const void *>(c.given.data()),
                            c.size);
    }
}

TEST_P(options_test, names_match_ignoring_case_and_nothing_else)
{
    char value[512];
    size_t size = sizeof value;
    for (const row &r : rows)
        options_.expect(upper(r.name).c_str(), 0, r.start, r.start);
    const state before = options_.now();
    const int first = GetParam() ? 307 : 299;
    for (const char *name : {"", "queue_size_warning ", "queue_size_warnin", "%s%n%p"}) {
        const auto expect = [&](int number, auto call) {
            expect_message(message(number, text_of("option %s unknown", name).c_str()), call);
        };
        expect(first, [&] { return options_.set(name, value, 4); });
        expect(first + 2, [&] { return options_.set(name, "1"); });
        expect(first + 4, [&] { return options_.get(name, value, &size); });
        expect(first + 6, [&] { return options_.get_text(name, value, &size); });
    }
    EXPECT_EQ(sizeof value, size);
    EXPECT_EQ(before, options_.now());
}

// A call is traced before its arguments are checked, the option after.
TEST_P(options_test, traces_show_the_arguments)
{
    const char *const name = "monitor_appid";
    char value[128];
    size_t size = 0;
    const std::string kind = GetParam() ? "evq" : "attr";
    const std::string prefix = GetParam() ? "qrn_event_queue_" : "qrn_event_queue_attr_";
    const std::string target = text_of("%p", options_.target());
    const std::string at = text_of("optval[%p]", static_cast<void *>(value));
    const auto expect = [&](const std::string &operation, const std::string &call,
                            const std::string &option) {
        std::string expected = "[" + prefix + operation + "] " + kind + "[" + target +
                               "] optname[monitor_appid] " + call + "\n";
        if (!option.empty())
            expected += kind + " " + target + " " + prefix + operation + " [monitor_appid] " +
                        option + "\n";
        EXPECT_EQ(expected, log_.take());
    };
    log_.take();
    log_state.dmask = KFX_DBG_API | KFX_DBG_OPTION;
    options_.set(name, strcpy(value, "x"), 5);
    expect("setopt", at + " optlen[5]", "optlen[5]");
    options_.set(name, "%s");
    expect("str_setopt", "optval[%s]", GetParam() ? "optval[%s]" : "opt val[%s]");
    options_.get(name, value, &(size = 128));
    expect("getopt", at + " optlen[128]", "optlen[128]");
    options_.get_text(name, value, &(size = 127));
    expect("str_getopt", at + " optlen[127]", "optlen[127]");
    options_.get_text(name, value, nullptr);
    expect("str_getopt", at + " optlen[0]", "");
    options_.set(name, nullptr);
    expect("str_setopt", "optval[(null)]", "");
    options_.set(nullptr, value, 1);
    EXPECT_NE(std::string::npos, log_.take().find("] optname[(null)] optval["));
    log_state.dmask = 0;
}

TEST_P(options_test, a_record_without_a_mask_marks_nothing)
{
    free(std::exchange(options_.raw()->setopt_mask, nullptr));
    expect_message("", [&] { return options_.set("queue_size_warning", "12"); });
    EXPECT_EQ(12U, options_.raw()->q_sz_warn);
}

// Makes the call with each of its pointer arguments null in turn.
template <class... Args>
void expect_null_refused(int number, const char *names, int (*call)(Args...), Args... args)
{
    for (unsigned which = 0; which < sizeof...(args); ++which) {
        unsigned i = 0;
        const auto nulled = [&](auto argument) {
            if constexpr (std::is_pointer_v<decltype(argument)>)
                return i++ == which ? nullptr : argument;
            else
                return argument;
        };
        const std::tuple<Args...> given{nulled(args)...};
        if (given != std::tuple<Args...>{args...})
            expect_message(message(number, names), [&] { return std::apply(call, given); });
    }
}

TEST(options_arguments, null_is_refused)
{
    captured_log log;
    options target(true);
    record *attr = target.raw();
    qrn_event_queue_t *evq = target.evq();
    char value[128] = "1";
    void *bytes = value;
    size_t size = sizeof value;
    const char *name = "monitor_appid";
    const state before = target.now();
    const char *set = "attr, optname, and optval must not be NULL";
    const char *get = "attr, optname, optval, and optlen must not be NULL";
    expect_null_refused<record *, const char *, const void *, size_t>(
        298, set, qrn_event_queue_attr_setopt, attr, name, value, 4);
    expect_null_refused<record *, const char *, const char *>(
        300, set, qrn_event_queue_attr_str_setopt, attr, name, value);
    expect_null_refused(302, get, qrn_event_queue_attr_getopt, attr, name, bytes, &size);
    expect_null_refused(304, get, qrn_event_queue_attr_str_getopt, attr, name, +value, &size);
    set = "evq, optname, and optval must not be NULL";
    get = "evq, optname, optval, and optlen must not be NULL";
    expect_null_refused<qrn_event_queue_t *, const char *, const void *, size_t>(
        306, set, qrn_event_queue_setopt, evq, name, value, 4);
    expect_null_refused<qrn_event_queue_t *, const char *, const char *>(
        308, set, qrn_event_queue_str_setopt, evq, name, value);
    expect_null_refused(310, get, qrn_event_queue_getopt, evq, name, bytes, &size);
    expect_null_refused(312, get, qrn_event_queue_str_getopt, evq, name, +value, &size);
    EXPECT_EQ(before, target.now());
}

TEST(options_arguments, handlers_judge_those_that_may_be_null)
{
    captured_log log;
    options target(false);
    record *attr = target.raw();
    char buffer[64];
    size_t size = 1;
    const auto &name = qrn_event_queue_attr_opt_table[index_of("event_queue_name")];
    const auto &data = qrn_event_queue_attr_opt_table[index_of("application_data")];
    const state before = target.now();
    const auto expect = [](int number, auto call) { expect_message(message(number), call); };
    expect(375, [&] { return name.set(attr, nullptr, 129); });
    expect(376, [&] { return name.set(attr, nullptr, 128); });
    expect(377, [&] { return name.sset(attr, nullptr); });
    for (const bool typed : {true, false}) {
        const auto get = [&](char *value, size_t *length) {
            return typed ? name.get(attr, value, length) : name.sget(attr, value, length);
        };
        expect(379, [&] { return get(nullptr, nullptr); });
        expect(380, [&] { return get(buffer, nullptr); });
        expect(381, [&] { return get(buffer, &size); });
    }
    expect(383, [&] { return data.get(attr, nullptr, nullptr); });
    expect(384, [&] { return data.sget(attr, buffer, nullptr); });
    expect(373, [] { return qrn_event_queue_validate_name(nullptr); });
    expect(374, [] { return qrn_event_queue_validate_name("a b"); });
    for (const size_t length : {size_t{0}, size_t{500}})
        expect(0, [&] { return qrn_event_queue_validate_name(std::string(length, '_').c_str()); });
    EXPECT_EQ(1U, size);
    EXPECT_EQ(before, target.now());
}

TEST(options_texts, buffers_at_the_edge)
{
    captured_log log;
    options target(false);
    constexpr size_t keep = SIZE_MAX; // the length is left as it was
    const struct {
        const char *name, *value; // null: unset
        size_t size;
        int typed, text; // messages; 0: accepted
        size_t length;
    } cases[] = {
        {"monitor_transport_opts", "0123456789", 10, 369, 370, keep},
        {"monitor_transport_opts", "0123456789", 11, 0, 0, 10},
        {"monitor_transport_opts", "", 0, 369, 370, keep},
        {"monitor_transport_opts", nullptr, 0, 0, 0, keep},
        {"monitor_appid", "abc", 3, 371, 372, keep},
        {"monitor_appid", "abc", 4, 0, 0, 3},
        {"monitor_appid", nullptr, 50, 0, 0, keep},
        {"event_queue_name", "abc", 3, 382, 382, 4},
        {"event_queue_name", "abc", 9, 0, 0, 3},
        {"event_queue_name", "", 2, 0, 0, 0},
        {"application_data", "ab", 2, 385, 385, 3},
        {"application_data", "ab", 3, 0, 0, 3},
        {"application_data", nullptr, 0, 0, 0, 0},
        {"application_data", nullptr, 5, 0, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(text_of("%s[%zu]", c.name, c.size));
        const auto &entry = qrn_event_queue_attr_opt_table[index_of(c.name)];
        EXPECT_EQ(QRN_OK, entry.sset(target.raw(), c.value));
        for (const bool typed : {true, false}) {
            const auto buffer = std::make_unique<char[]>(c.size); // a sanitizer watches its end
            std::fill_n(buffer.get(), c.size, 'x');
            size_t length = c.size;
            expect_message(message(typed ? c.typed : c.text), [&] {
                return typed ? entry.get(target.raw(), buffer.get(), &length)
                             : entry.sget(target.raw(), buffer.get(), &length);
            });
            EXPECT_EQ(c.length == keep ? c.size : c.length, length);
            std::string expected(c.size, 'x');
            if (c.typed == 0 && c.size > 0)
                expected = c.value == nullptr ? "" : c.value;
            EXPECT_EQ(expected, std::string(buffer.get(), strnlen(buffer.get(), c.size)));
        }
    }
}

TEST(options_texts, values_that_no_setter_leaves)
{
    captured_log log;
    options target(false);
    char value[100];
    const auto expect = [&](const char *name, const char *text_of_it) {
        memset(value, 'x', sizeof value);
        size_t length = sizeof value - 1;
        expect_message("", [&] { return target.get_text(name, value, &length); });
        EXPECT_STREQ(text_of_it, value);
        EXPECT_EQ(strlen(text_of_it), length);
    };
    free(std::exchange(target.raw()->evq_name, nullptr)); // as a new record has it
    expect("event_queue_name", "");
    target.raw()->mon_transport_module = -7;
    expect("monitor_transport", "unknown[-7]");
    target.raw()->mon_transport_module = 1;
    expect("monitor_transport", "qrn");
    EXPECT_EQ(std::string(96, '\0') + 'x', std::string(value + 3, 97)); // zeros fill the buffer
}

TEST(options_texts, application_data_is_any_bytes_and_deprecated)
{
    captured_log log;
    options target(false);
    record *attr = target.raw();
    const auto &data = qrn_event_queue_attr_opt_table[index_of("application_data")];
    const std::string deprecated = "warning Core-10668-05: The event_queue application_data "
                                   "configuration option is deprecated "
                                   "and may have no effect in the future.\n";
    EXPECT_EQ(deprecated, log.take());
    EXPECT_EQ(QRN_OK, data.set(attr, "\0\1\0", 3));
    char bytes[4] = "xxx";
    size_t length = 3;
    EXPECT_EQ(QRN_OK, data.sget(attr, bytes, &length));
    EXPECT_EQ(0, memcmp("\0\1\0", bytes, 4));
    EXPECT_EQ(QRN_OK, data.set(attr, nullptr, 3));
    EXPECT_EQ(nullptr, attr->app_data);
    EXPECT_EQ(0U, attr->app_data_len);
    EXPECT_EQ(QRN_OK, data.sset(attr, nullptr));
    EXPECT_EQ(deprecated + deprecated + deprecated, log.take());
}

TEST(options_tables, hold_every_option_and_the_live_ones)
{
    constexpr int classes[] = {10, 6, 10, 2, 2};
    const auto *live = qrn_event_queue_opt_table;
    const auto *entry = qrn_event_queue_attr_opt_table;
    for (const row &r : rows) {
        EXPECT_STREQ(r.name, entry->oname);
        EXPECT_EQ(classes[r.is], entry->otype);
        EXPECT_TRUE(!r.live || memcmp(entry, live++, sizeof *entry) == 0) << r.name;
        ++entry;
    }
    const qrn_event_queue_attr_entry_t end{};
    EXPECT_EQ(0, memcmp(&end, entry, sizeof end));
    EXPECT_EQ(0, memcmp(&end, live, sizeof end));
}

TEST(options_dump, gives_every_option_that_fits)
{
    captured_log log;
    options target(false);
    std::vector<qrn_config_option_t> entries(20);
    memset(entries.data(), 'x', entries.size() * sizeof entries[0]);
    int size = 19;
    const auto dump = [&] {
        return qrn_event_queue_attr_dump(target.raw(), &size, entries.data());
    };
    expect_message("", dump);
    ASSERT_EQ(14, size);
    for (size_t i = 0; i < 14; ++i) {
        EXPECT_STREQ("event_queue", entries[i].type);
        EXPECT_STREQ(rows[i].name, entries[i].oname);
        EXPECT_STREQ(rows[i].start, entries[i].val);
    }
    const std::vector<char> zeros(5 * sizeof entries[0]);
    EXPECT_EQ(0, memcmp(zeros.data(), &entries[14], zeros.size()));
    EXPECT_EQ('x', entries[19].type[0]);

    // What does not fit is left out, and the last such error stays recorded.
    const std::string fits(126, 'n'), too_long(127, 'n');
    target.expect("monitor_transport_opts", 0, fits, fits.c_str());
    target.expect("monitor_appid", 0, too_long, too_long.c_str());
    target.expect("event_queue_name", 0, too_long, too_long.c_str());
    size = 15;
    EXPECT_EQ(QRN_OK, dump());
    ASSERT_EQ(12, size);
    EXPECT_EQ(fits, entries[10].val);
    EXPECT_STREQ("application_data", entries[11].oname);
    EXPECT_EQ(message(382), qrn_errmsg());
    size = 12; // as many rows as there is room for are looked at
    EXPECT_EQ(QRN_OK, dump());
    EXPECT_EQ(11, size);
}

TEST(options_dump, checks_and_traces_its_arguments)
{
    captured_log log;
    options target(true);
    qrn_config_option_t entry;
    int size = 0;
    const auto expect = [](int number, const char *refusal, auto call) {
        expect_message(number == 0 ? "" : message(number, refusal), call);
    };
    log.take();
    log_state.dmask = KFX_DBG_API;
    expect(297, "value at size must be greater than 0",
           [&] { return qrn_event_queue_dump(target.evq(), &size, &entry); });
    EXPECT_EQ(text_of("[qrn_event_queue_attr_dump] eattr[%p] size[0] opts[%p]\n",
                      static_cast<void *>(target.raw()), static_cast<void *>(&entry)),
              log.take());
    expect(294, "evq must be valid", [&] { return qrn_event_queue_dump(nullptr, &size, &entry); });
    expect(295, "eattr must be valid",
           [&] { return qrn_event_queue_attr_dump(nullptr, &size, nullptr); });
    expect(296, "opts must be valid",
           [&] { return qrn_event_queue_attr_dump(target.raw(), &size, nullptr); });
    size = 1;
    expect(0, "", [&] { return qrn_event_queue_dump(target.evq(), &size, &entry); });
    EXPECT_STREQ("7", entry.val);
}

// One thread an option sets it, typed and from text, to values whose every bit differs, while others
// dump, enqueue and dispatch. Every value read was set as a whole, and no mark of a neighbour is lost.
TEST(options_live, are_set_and_read_while_the_queue_runs)
{
    constexpr int rounds = 2000, posts = 4000;
    constexpr size_t set_live[] = {0, 1, 2, 5, 6, 7};
    captured_log log;
    options target(true);
    const std::atomic_ref<char> marks(target.raw()->setopt_mask[0]);
    std::vector<std::jthread> threads;
    for (const size_t i : set_live) {
        threads.emplace_back([&, &r = rows[i], mark = 1 << i] {
            for (int n = 0; n < rounds; ++n) {
                const unsigned long value = n % 2 == 0 ? 0 : r.size == 8 ? ULONG_MAX : 1;
                const std::string digits = std::to_string(value);
                marks &= static_cast<char>(~mark);
                EXPECT_EQ(QRN_OK, n % 3 == 0 ? target.set(r.name, digits.c_str())
                                             : target.set(r.name, &value, r.size));
                EXPECT_EQ(mark, marks & mark);
            }
        });
    }
    threads.emplace_back([&] {
        qrn_config_option_t entries[14];
        for (int n = 0; n < rounds / 10; ++n) {
            int size = 14;
            EXPECT_EQ(QRN_OK, qrn_event_queue_dump(target.evq(), &size, entries));
            for (const size_t i : set_live) {
                const std::string most = rows[i].size == 8 ? "18446744073709551615" : "1",
                                  value = entries[i].val;
                EXPECT_TRUE(value == "0" || value == most || value == rows[i].start) << value;
            }
        }
    });
    std::atomic<int> delivered = 0;
    threads.emplace_back([&] {
        const auto count = [](qrn_event_queue_t *, void *sum) {
            ++*static_cast<std::atomic<int> *>(sum);
        };
        for (int n = 0; n < posts; ++n)
            EXPECT_EQ(QRN_OK, qrn_evq_enq_callback(target.evq(), count, nullptr, &delivered));
    });
    while (delivered < posts)
        EXPECT_LE(0, qrn_event_dispatch(target.evq(), QRN_EVQ_DISPATCH_POLL));
}

TEST(options_death, exhausted_memory_is_reported)
{
    options target(false);
    EXPECT_DEATH(qrn_event_queue_attr_app_data_set(target.raw(), "", SIZE_MAX / 2),
                 "Core-5688-13: could not allocate 9223372036854775807 bytes "
                 ".*qrnev_handlers.cpp:|allocation-size-too-big");
}

} // namespace
