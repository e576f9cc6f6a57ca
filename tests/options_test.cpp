// SPDX-License-Identifier: Apache-2.0
//
// Options by name, on a record and on the running queue that owns it: good and bad values, sizes
// and buffers at their edges, null arguments. What a call refuses records exactly its message and
// leaves every option and the mask as they were. Then attribute records as a whole.
#include <climits>
#include <map>
#include <span>

#include "qrnerr.h"
#include "qrnev.h"
#include "support.h"

using namespace test;
using namespace std::string_literals;
using record = qrn_event_queue_attr_t;

namespace {

// Makes a call that is refused with this message, or succeeds and records nothing when it is empty.
template <class Call>
void expect_result(const std::string &refusal, Call call)
{
    qrn_seterr(0, "");
    EXPECT_EQ(refusal.empty() ? QRN_OK : QRN_FAILURE, call());
    EXPECT_EQ(refusal.empty() ? 0 : QRN_ERR_INVALID, qrn_errnum());
    EXPECT_EQ(refusal, qrn_errmsg());
}

enum kind { threshold, toggle, interval, transport, words };

// The text each test starts with, the size of a typed value, and the numbers of the messages: typed
// size, typed value, digits, text value, size of a typed buffer, of a text buffer.
constexpr struct row {
    const char *name;
    kind is;
    bool live;
    const char *start;
    size_t size;
    int set_size, set_value, digits, value, get_size, room;
} rows[] = {
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
    {"monitor_transport_opts", words, false, "port=1", 0, 0, 0, 0, 0, 369, 370},
    {"monitor_appid", words, false, "app", 0, 0, 0, 0, 0, 371, 372},
    {"event_queue_name", words, false, "start", 0, 0, 0, 0, 0, 382, 382},
    {"application_data", words, true, "bytes", 0, 0, 0, 0, 0, 385, 385},
};
enum { opts = 10, appid, queue_name, data }; // rows of texts

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

// No number, no message.
std::string message(int number)
{
    return number == 0 ? "" : text("CoreApi-5688-%d: %s", number, labels.at(letters[number - 314]));
}

enum operation { typed_set, text_set, typed_get, text_get };

// Each of these tests reaches the options through the record and through the queue.
class options_test : public Fixture, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        Fixture::SetUp();
        for (const row &r : rows)
            EXPECT_EQ(QRN_OK, qrn_event_queue_attr_str_setopt(attr, r.name, r.start));
        attr->setopt_mask[0] = attr->setopt_mask[1] = 0;
        log_state.dmask = KFX_DBG_API | KFX_DBG_OPTION;
    }

    // One of the four operations; a setter takes the length that `size` points to.
    int call(operation which, const char *name, void *value, size_t *size)
    {
        const size_t length = size == nullptr ? 0 : *size;
        auto *const chars = static_cast<char *>(value);
        if (live)
            return which == typed_set   ? qrn_event_queue_setopt(evq, name, value, length)
                   : which == text_set  ? qrn_event_queue_str_setopt(evq, name, chars)
                   : which == typed_get ? qrn_event_queue_getopt(evq, name, value, size)
                                        : qrn_event_queue_str_getopt(evq, name, chars, size);
        return which == typed_set   ? qrn_event_queue_attr_setopt(attr, name, value, length)
               : which == text_set  ? qrn_event_queue_attr_str_setopt(attr, name, chars)
               : which == typed_get ? qrn_event_queue_attr_getopt(attr, name, value, size)
                                    : qrn_event_queue_attr_str_getopt(attr, name, chars, size);
    }

    // Every option as text, numbers read in both forms, and the mask.
    strings now()
    {
        strings all = {what("mask", attr->setopt_mask[0] & 255, attr->setopt_mask[1] & 255)};
        for (const row &r : rows) {
            char value[512] = "";
            size_t size = sizeof value - 1;
            EXPECT_EQ(QRN_OK, call(text_get, r.name, value, &size)) << r.name;
            all.push_back(value);
            unsigned long number = 0;
            if (r.is == words)
                continue;
            EXPECT_EQ(QRN_OK, call(typed_get, r.name, &number, &(size = r.size))) << r.name;
            const char *const transports[] = {"", "qrn", "qrnsnmp"};
            EXPECT_EQ(value, r.is == transport ? transports[number] : std::to_string(number));
        }
        return all;
    }

    // Sets an option and expects the refusal, or the new text and the mark.
    void expect_set(const row &r, operation which, std::string given, size_t size,
                    std::string refusal, const std::string &result)
    {
        SCOPED_TRACE(what(r.name, given, size));
        const auto i = static_cast<size_t>(&r - rows);
        strings expected = now();
        attr->setopt_mask[0] = attr->setopt_mask[1] = 0;
        if (live && !r.live)
            refusal = text("CoreApi-5688-%d: option %s unknown", 307 + 2 * which, r.name);
        else if (refusal.empty() || given[0] == '"')
            expected[i + 1] = result; // a refused leading quote leaves the option unset
        const int mark = refusal.empty() ? 1 << i : 0;
        expected[0] = what("mask", mark & 255, mark >> 8);
        expect_result(refusal, [&] { return call(which, r.name, given.data(), &size); });
        EXPECT_EQ(expected, now());
    }

    // Reads an option into a buffer of this size; what is not written stays 'x'.
    void expect_get(const row &r, operation which, size_t size, int refused, size_t length,
                    const std::string &written)
    {
        SCOPED_TRACE(what(r.name, which, size));
        std::string buffer(size, 'x'), expected = written + buffer.substr(written.size());
        expect_result(message(refused), [&] { return call(which, r.name, buffer.data(), &size); });
        EXPECT_EQ(length, size);
        EXPECT_EQ(expected, buffer);
    }

    const bool live = GetParam();
    Queue queue;
    qrn_event_queue_t *evq = queue;
    record *attr = queue->attr;
};

INSTANTIATE_TEST_SUITE_P(record_and_live, options_test, testing::Bool());

TEST_P(options_test, sizes_are_exact_and_buffers_hold_the_text)
{
    for (const row &r : std::span(rows).first(opts)) {
        for (const size_t size : {size_t{0}, r.size - 1, r.size + 1, 12 - r.size, size_t{80}}) {
            expect_set(r, typed_set, std::string(80, 1), size, message(r.set_size), "");
            expect_get(r, typed_get, size, r.get_size, size, "");
        }
        const size_t length = strlen(r.start);
        expect_get(r, text_get, 79, r.room, 79, "");
        const size_t zeros = r.is == transport ? 80 - length : 1;
        expect_get(r, text_get, 80, 0, length, r.start + std::string(zeros, '\0'));
    }
    for (const row &r : std::span(rows).subspan(opts)) {
        const std::string all(r.start, strlen(r.start) + 1);
        const size_t missing = &r < &rows[queue_name] ? all.size() - 1 : all.size();
        expect_get(r, typed_get, all.size() - 1, r.get_size, missing, "");
        expect_get(r, text_get, all.size() - 1, r.room, missing, "");
        for (const operation get : {typed_get, text_get})
            expect_get(r, get, all.size(), 0, all.size() - (&r == &rows[data] ? 0 : 1), all);
    }
}

TEST_P(options_test, values_of_a_fixed_size)
{
    const auto bytes = [](unsigned long number) {
        return std::string(reinterpret_cast<const char *>(&number), sizeof number);
    };
    const std::string digits = "digits", value = "value"; // refused
    const std::string most = std::to_string(ULONG_MAX);
    const struct {
        operation set;
        std::string given, result[4]; // for each kind
    } cases[] = {
        {typed_set, bytes(0), {"0", "0", "0", value}},
        {typed_set, bytes(1), {"1", "1", "1", "qrn"}},
        {typed_set, bytes(3), {"3", value, "3", value}},
        {typed_set, bytes((1UL << 32) + 2), {"4294967298", value, "2", "qrnsnmp"}},
        {typed_set, bytes(ULONG_MAX), {most, value, "4294967295", value}},
        {text_set, "", {value, "0", "0", value}},
        {text_set, "01 and more", {"1", "1", "1", value}},
        {text_set, "-1", {digits, digits, digits, value}},
        {text_set, "4294967297", {"4294967297", value, "1", value}},
        {text_set, std::string(20, '9'), {most, value, "4294967295", value}},
        {text_set, "QRN", {digits, digits, digits, "qrn"}},
        {text_set, "qrn ", {digits, digits, digits, value}},
    };
    for (const auto &[set, given, result] : cases)
        for (const row &r : std::span(rows).first(opts)) {
            const int refused = result[r.is] == digits  ? r.digits
                                : result[r.is] != value ? 0
                                : set == typed_set      ? r.set_value
                                                        : r.value;
            expect_set(r, set, given, r.size, message(refused), result[r.is]);
        }
}

TEST_P(options_test, texts)
{
    log_state.dmask = 0;
    logged.take();
    const std::string longest(128, 'n'), any(300, 'a');
    const char quote[] =
        "CoreApi-8840-%d: event queue monitor transport opts value cannot start with a '\"'";
    const struct {
        int option;
        operation set;
        std::string given;
        size_t size; // of the typed form
        std::string refusal, result;
    } cases[] = {
        {opts, text_set, "%s%n \"quoted\"", 0, "", "%s%n \"quoted\""},
        {opts, text_set, "\"x", 0, text(quote, 2), ""},
        {opts, typed_set, any, 0, "", any},
        {opts, typed_set, "\"", 1, text(quote, 1), ""},
        {appid, typed_set, "\"any text", 9, "", "\"any text"},
        {queue_name, text_set, longest, 0, "", longest},
        {queue_name, text_set, longest + "n", 0, message(378), ""},
        {queue_name, text_set, "\xE9", 0, message(374), ""},
        {queue_name, text_set, "a-B_9", 0, "", "a-B_9"},
        {queue_name, typed_set, "n.n", 128, message(374), ""},
        {queue_name, typed_set, "a-B_9", 129, message(375), ""},
        {queue_name, typed_set, any, 0, "", any}, // only the length that is given is judged
        {data, text_set, "ab", 0, "", "ab"},
        {data, typed_set, "abc", 2, "", "ab"},
    };
    for (const auto &c : cases)
        expect_set(rows[c.option], c.set, c.given, c.size, c.refusal, c.result);
    EXPECT_EQ(strings(2, text("%d Core-10668-05: The event_queue application_data configuration "
                              "option is deprecated and may have no effect in the future.\n",
                              KFX_LOG_WARNING)),
              logged.take());
}

TEST_P(options_test, null_and_unknown_names_are_refused)
{
    const strings before = now();
    for (const operation which : {typed_set, text_set, typed_get, text_get}) {
        char value[] = "%s";
        size_t four = 4;
        const int number = (live ? 306 : 298) + 2 * which;
        const std::string null =
            text("CoreApi-5688-%d: %s, optname, %s must not be NULL", number, live ? "evq" : "attr",
                 which < typed_get ? "and optval" : "optval, and optlen");
        const auto refused = [&](auto... arguments) {
            expect_result(null, [&] { return call(which, arguments...); });
        };
        refused(nullptr, value, &four);
        refused("monitor_appid", nullptr, &four);
        if (which >= typed_get)
            refused("monitor_appid", value, nullptr);
        for (const char *name : {"", "queue_size_warnin", "queue_size_warning ", "%s%n%p"})
            expect_result(text("CoreApi-5688-%d: option %s unknown", number + 1, name),
                          [&] { return call(which, name, value, &four); });
        evq = nullptr;
        attr = nullptr;
        refused("monitor_appid", value, &four);
        attr = (evq = queue)->attr;
    }
    EXPECT_EQ(before, now());
}

TEST_P(options_test, names_are_in_any_case_and_no_text_reads_as_empty)
{
    EXPECT_EQ(QRN_OK, call(text_set, "Queue_SIZE_Warning", std::string("12").data(), nullptr));
    EXPECT_EQ(12U, attr->q_sz_warn);
    qrn_event_queue_attr_cleanup_internal(attr); // the mask goes too
    for (const operation get : {typed_get, text_get})
        for (const int option : {opts, appid, queue_name, data})
            expect_get(rows[option], get, 5, 0, option < queue_name ? 5 : 0, "\0"s);
    for (const int option : {opts, appid, queue_name, data})
        expect_get(rows[option], typed_get, 0, option == queue_name ? 381 : 0, 0, "");
    EXPECT_EQ(QRN_OK, call(text_set, rows[0].name, std::string("3").data(), nullptr));
}

TEST_P(options_test, copies_are_deep_and_complete)
{
    attr->setopt_mask[1] = 9;
    const strings before = now();
    record *copy = nullptr;
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_dup(&copy, attr));
    qrn_event_queue_attr_cleanup_internal(attr);
    for (int time = 0; time < 2; ++time) // the second releases what the first made
        EXPECT_EQ(QRN_OK, qrn_event_queue_attr_clone(attr, copy));
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_delete(copy));
    EXPECT_EQ(before, now());
}

using options = Fixture;

TEST_F(options, handlers_refuse_null)
{
    Attr attr("");
    char buffer[4];
    const auto &name = qrn_event_queue_attr_opt_table[queue_name];
    const auto &bytes_of = qrn_event_queue_attr_opt_table[data];
    const std::pair<int, std::function<int()>> rows_of[] = {
        {373, [] { return qrn_event_queue_validate_name(nullptr); }},
        {374, [] { return qrn_event_queue_validate_name("n.n"); }},
        {0, [] { return qrn_event_queue_validate_name("n-n"); }},
        {376, [&] { return name.set(attr, nullptr, 128); }},
        {377, [&] { return name.sset(attr, nullptr); }},
        {379, [&] { return name.get(attr, nullptr, nullptr); }},
        {380, [&] { return name.sget(attr, buffer, nullptr); }},
        {383, [&] { return bytes_of.get(attr, nullptr, nullptr); }},
        {384, [&] { return bytes_of.sget(attr, buffer, nullptr); }},
        {0, [&] { return bytes_of.sset(attr, nullptr); }}, // means no bytes
    };
    for (auto &[number, call] : rows_of)
        expect_result(message(number), call);
}

TEST_F(options, dump_gives_every_option_that_fits)
{
    const std::string fits(126, 'n');
    Queue queue("topts=" + fits + " appid=n" + fits + " name=n" + fits);
    queue->attr->mon_transport_module = -7; // no setter leaves this
    const strings values = {"0", "0", "0", "0", "1", "0", "0", "0", "0", "unknown[-7]", fits, ""};
    qrn_config_option_t entries[16];
    int size = 16;
    EXPECT_EQ(QRN_OK, qrn_event_queue_dump(queue, &size, entries));
    EXPECT_EQ(12, size);
    for (size_t i = 0; i < 12; ++i)
        EXPECT_EQ(what("event_queue", rows[i == 11 ? size_t{data} : i].name, values[i]),
                  what(entries[i].type, entries[i].oname, entries[i].val));
    EXPECT_EQ(message(382), qrn_errmsg()); // of the last that was left out
    EXPECT_EQ(QRN_OK, qrn_event_queue_dump(queue, &(size = 3), entries));
    EXPECT_EQ(3, size);
}

// The interval stands first, and what follows it.
TEST_F(options, defaults_and_the_environment_fill_every_field)
{
    const char *const cases[][3] = {
        {"NONE", "", "0 1 0 0 none none"},
        {"INTERVAL", "0x10", "16 1 0 0 none none"},
        {"INTERVAL", "abc", "0 1 0 0 none none"},
        {"TRANSPORT", "QRNSNMP", "0 2 0 0 none none"},
        {"TRANSPORT", "other", "0 1 0 0 none none"},
        {"TRANSPORT_OPTS", "\"quoted\"", "0 1 0 0 \"quoted\" none"},
        {"APPID", "%s", "0 1 0 0 none %s"},
    };
    const auto shown = [](const char *t) { return t == nullptr ? "none" : t; };
    for (const auto &[name, value, fields_of] : cases) {
        const std::string variable = text("QRN_MONITOR_%s", name);
        setenv(variable.c_str(), value, 1);
        record a;
        std::memset(static_cast<void *>(&a), 0xA5, sizeof a);
        EXPECT_EQ(QRN_OK, qrn_event_queue_attr_init_defaults(&a));
        unsetenv(variable.c_str());
        EXPECT_EQ(text(" 1 0 0 0 0 0 0 0 %s none 1 0", fields_of),
                  what("", a.q_purge_on_close, a.q_notify, a.q_cancel_cb, a.q_sz_warn,
                       a.q_delay_warn, a.q_svc_time, a.q_age, a.q_count, a.mon_interval,
                       a.mon_transport_module, a.evq_name_len, a.app_data_len,
                       shown(a.mon_transport_opts), shown(a.mon_appid), shown(a.evq_name),
                       a.app_data == nullptr, a.setopt_mask[0] | a.setopt_mask[1]));
        EXPECT_EQ(QRN_OK, qrn_event_queue_attr_cleanup_internal(&a));
    }
}

} // namespace
