// SPDX-License-Identifier: Apache-2.0
//
// The option handlers: the table of options, the templates that set and read an option from its
// row, and the four exported handlers of each option.
//
// Threads: options that may change on a running queue are numbers, but for `application_data`. Such
// a number is stored and loaded whole, so a reader sees the old value or the new one. Texts of a
// running queue never change, and whoever sets its `application_data` excludes all other access to
// it. A record outside a queue belongs to one thread.

#include "qrnev.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <string_view>
#include <strings.h>
#include <type_traits>
#include <utility>

#include "kfxlog.h"
#include "qrnerr.h"
#include "qrnev_attr.h"

namespace {

using record = qrn_event_queue_attr_t;

// --- Messages ---

constexpr std::string_view wrong_size = "optlen incorrect size";
constexpr std::string_view not_0_or_1 = "optval must be 0 or 1";
constexpr std::string_view not_numeric = "optval not numeric";
constexpr std::string_view not_a_number = "optval not a number";
constexpr std::string_view too_small = "optlen too small";
constexpr std::string_view unsupported = "optval not supported";
constexpr std::string_view not_understood = "optval not understood";
constexpr std::string_view name_too_long = "event_queue name too long";
constexpr std::string_view null_value = "optval must not be NULL";
constexpr std::string_view bad_character = "name contains invalid character";
constexpr std::string_view null_length = "optlen must not be NULL";
constexpr std::string_view below_two = "optlen must be greater than 1";
constexpr std::string_view too_short = "optval is not long enough";
constexpr std::string_view null_name = "name must not be NULL";
constexpr std::string_view leading_quote =
    "event queue monitor transport opts value cannot start with a '\"'";

// The text of a refusal, formed when the library is compiled. One without a number is never given.
struct message {
    char text[96] = {};

    consteval message() = default;
    consteval message(int number, std::string_view label)
    {
        const char digits[] = {static_cast<char>('0' + number / 100),
                               static_cast<char>('0' + number / 10 % 10),
                               static_cast<char>('0' + number % 10), '\0'};
        join("CoreApi-5688-", digits, label);
    }
    // A message with an identifier of its own.
    consteval message(std::string_view id, std::string_view label) { join(id, "", label); }

    constexpr bool given() const { return text[0] != '\0'; }

private:
    consteval void join(std::string_view id, std::string_view number, std::string_view label)
    {
        char *end = std::copy(id.begin(), id.end(), text);
        end = std::copy(number.begin(), number.end(), end);
        *end++ = ':';
        *end++ = ' ';
        std::copy(label.begin(), label.end(), end);
    }
};

int refuse(const message &why)
{
    qrn_seterr(QRN_ERR_INVALID, why.text);
    return QRN_FAILURE;
}

// --- Text forms of the fixed-size options ---

// What a text is converted to before it is judged: the widest of its kind, so that nothing wraps.
template <class Typed>
using wide = std::conditional_t<std::is_signed_v<Typed>, long, unsigned long>;

// Only the text up to the first space is looked at; what follows, and a text that begins with a
// space, is left to the conversion.
bool has_digits_only(const char *text)
{
    const auto code = [](char c) { return static_cast<unsigned char>(c); };
    while (*text != '\0' && std::isspace(code(*text)) == 0) {
        if (std::isdigit(code(*text++)) == 0)
            return false;
    }
    return true;
}

// What exceeds the range stays at its end; a text without a number is refused.
bool parse_threshold(const char *text, unsigned long &value)
{
    char *end = nullptr;
    value = std::strtoul(text, &end, 10);
    return end != text;
}

// The full number counts: 4294967297 is not 1.
bool parse_switch(const char *text, long &value)
{
    value = std::strtol(text, nullptr, 10);
    return true;
}

// Signed, as ever: a number beyond `long` stays at its limit before the low bits are taken.
bool parse_interval(const char *text, unsigned long &value)
{
    value = static_cast<unsigned long>(std::strtol(text, nullptr, 10));
    return true;
}

bool parse_transport(const char *text, long &value)
{
    const bool qrn = strcasecmp(text, "qrn") == 0;
    value = qrn ? QRN_EVQ_MON_TRANSPORT_QRN : QRN_EVQ_MON_TRANSPORT_QRNSNMP;
    return qrn || strcasecmp(text, "qrnsnmp") == 0;
}

void format_unsigned(unsigned long value, char *text, size_t size)
{
    kfx_snprintf(text, size, "%lu", value);
}

void format_signed(long value, char *text, size_t size)
{
    kfx_snprintf(text, size, "%ld", value);
}

// A name fills the buffer with zeros, as strncpy does.
void format_transport(long value, char *text, size_t size)
{
    if (value == QRN_EVQ_MON_TRANSPORT_QRN)
        std::strncpy(text, "qrn", size);
    else if (value == QRN_EVQ_MON_TRANSPORT_QRNSNMP)
        std::strncpy(text, "qrnsnmp", size);
    else
        kfx_snprintf(text, size, "unknown[%ld]", value);
}

// --- The table of options ---

// What a text getter of a fixed-size option asks for at least.
constexpr size_t text_room = 80;
// Characters of a queue's name.
constexpr size_t name_limit = 128;

// An option of a fixed size. Callers give and get a `Typed`; the record holds a `Field`, which may
// be narrower: then the low bits are kept.
template <class Field, class Typed = Field>
struct fixed_option {
    Field record::*field;
    Typed least;
    Typed most;
    bool (*parse)(const char *text, wide<Typed> &value);
    void (*format)(wide<Typed> value, char *text, size_t size);
    message set_size;
    message set_value;
    message sset_digits; // not given: the text is no number
    message sset_value;
    message get_size;
    message sget_room;
};

// An option that holds a text or nothing.
struct text_option {
    char *record::*field;
    message set_quote; // not given: a leading quote is welcome
    message sset_quote;
    message get_size;
    message sget_size;
};

// The queue's name: a text with rules of its own.
struct name_option {
    message set_long;
    message set_null;
    message sset_null;
    message sset_long;
    message character;
    message get_null;
    message get_null_length;
    message get_below_two;
    message get_short;
};

// Opaque bytes.
struct bytes_option {
    message get_null;
    message get_null_length;
    message get_short;
};

using threshold = fixed_option<unsigned long>;
using toggle = fixed_option<int>;

consteval threshold threshold_row(unsigned long record::*field, int set_size, int digits,
                                  int number, int get_size, int room)
{
    return {.field = field,
            .least = 0,
            .most = ULONG_MAX,
            .parse = parse_threshold,
            .format = format_unsigned,
            .set_size = {set_size, wrong_size},
            .set_value = {},
            .sset_digits = {digits, not_numeric},
            .sset_value = {number, not_a_number},
            .get_size = {get_size, wrong_size},
            .sget_room = {room, too_small}};
}

consteval toggle toggle_row(int record::*field, int set_size, int set_bit, int digits, int sset_bit,
                            int get_size, int room)
{
    return {.field = field,
            .least = 0,
            .most = 1,
            .parse = parse_switch,
            .format = format_signed,
            .set_size = {set_size, wrong_size},
            .set_value = {set_bit, not_0_or_1},
            .sset_digits = {digits, not_numeric},
            .sset_value = {sset_bit, not_0_or_1},
            .get_size = {get_size, wrong_size},
            .sget_room = {room, too_small}};
}

// The rows, named after the handlers. Message numbers stand in the order typed set, text set, typed
// get, text get.
constexpr auto q_sz_warn = threshold_row(&record::q_sz_warn, 314, 315, 316, 317, 318);
constexpr auto q_delay_warn = threshold_row(&record::q_delay_warn, 319, 320, 321, 322, 323);
constexpr auto q_notify = toggle_row(&record::q_notify, 324, 325, 326, 327, 328, 329);
constexpr auto q_cancel_cb = toggle_row(&record::q_cancel_cb, 330, 331, 332, 333, 334, 335);
constexpr auto q_purge_on_close =
    toggle_row(&record::q_purge_on_close, 336, 337, 338, 339, 340, 341);
constexpr auto q_svc_time = toggle_row(&record::q_svc_time, 342, 343, 344, 345, 346, 347);
constexpr auto q_age = toggle_row(&record::q_age, 348, 349, 350, 351, 352, 353);
constexpr auto q_count = toggle_row(&record::q_count, 354, 355, 356, 357, 358, 359);

constexpr fixed_option<qrn_uint_t, unsigned long> monitor_ivl = {
    .field = &record::mon_interval,
    .least = 0,
    .most = ULONG_MAX,
    .parse = parse_interval,
    .format = format_unsigned,
    .set_size = {360, wrong_size},
    .set_value = {},
    .sset_digits = {361, not_numeric},
    .sset_value = {},
    .get_size = {362, wrong_size},
    .sget_room = {363, too_small},
};

constexpr fixed_option<int> monitor_transport = {
    .field = &record::mon_transport_module,
    .least = QRN_EVQ_MON_TRANSPORT_QRN,
    .most = QRN_EVQ_MON_TRANSPORT_QRNSNMP,
    .parse = parse_transport,
    .format = format_transport,
    .set_size = {364, wrong_size},
    .set_value = {365, unsupported},
    .sset_digits = {},
    .sset_value = {366, not_understood},
    .get_size = {367, wrong_size},
    .sget_room = {368, too_small},
};

constexpr text_option monitor_transport_opts = {
    .field = &record::mon_transport_opts,
    .set_quote = {"CoreApi-8840-1", leading_quote},
    .sset_quote = {"CoreApi-8840-2", leading_quote},
    .get_size = {369, wrong_size},
    .sget_size = {370, wrong_size},
};

constexpr text_option monitor_appid = {
    .field = &record::mon_appid,
    .set_quote = {},
    .sset_quote = {},
    .get_size = {371, wrong_size},
    .sget_size = {372, wrong_size},
};

constexpr name_option event_queue_name = {
    .set_long = {375, name_too_long},
    .set_null = {376, null_value},
    .sset_null = {377, null_value},
    .sset_long = {378, name_too_long},
    .character = {374, bad_character},
    .get_null = {379, null_value},
    .get_null_length = {380, null_length},
    .get_below_two = {381, below_two},
    .get_short = {382, too_short},
};

constexpr bytes_option app_data = {
    .get_null = {383, null_value},
    .get_null_length = {384, null_length},
    .get_short = {385, too_short},
};

// --- Fixed-size options ---
//
// The caller's memory need not be aligned for the value.

template <class Field, class Typed>
int set(const fixed_option<Field, Typed> &row, record *attr, const void *optval, size_t optlen)
{
    if (optlen != sizeof(Typed))
        return refuse(row.set_size);
    Typed value{};
    std::memcpy(&value, optval, sizeof value);
    if (value < row.least || value > row.most)
        return refuse(row.set_value);
    kfx::store(attr->*row.field, static_cast<Field>(value));
    return QRN_OK;
}

template <class Field, class Typed>
int sset(const fixed_option<Field, Typed> &row, record *attr, const char *optval)
{
    if (row.sset_digits.given() && !has_digits_only(optval))
        return refuse(row.sset_digits);
    wide<Typed> value{};
    if (!row.parse(optval, value) || value < row.least || value > row.most)
        return refuse(row.sset_value);
    kfx::store(attr->*row.field, static_cast<Field>(value));
    return QRN_OK;
}

template <class Field, class Typed>
int get(const fixed_option<Field, Typed> &row, record *attr, void *optval, size_t *optlen)
{
    if (*optlen != sizeof(Typed))
        return refuse(row.get_size);
    const Typed value = kfx::load(attr->*row.field);
    std::memcpy(optval, &value, sizeof value);
    return QRN_OK;
}

template <class Field, class Typed>
int sget(const fixed_option<Field, Typed> &row, record *attr, char *optval, size_t *optlen)
{
    if (*optlen < text_room)
        return refuse(row.sget_room);
    row.format(kfx::load(attr->*row.field), optval, *optlen);
    *optlen = std::strlen(optval);
    return QRN_OK;
}

// --- Texts ---
//
// The typed form is the text too, so its length is not looked at.

// A refused text leaves the option unset: its old value is gone by then.
int replace(const text_option &row, record *attr, const char *text, const message &quote)
{
    const bool refused = quote.given() && text != nullptr && *text == '"';
    char *copy = refused ? nullptr : qrnev::copy_text(text);
    std::free(std::exchange(attr->*row.field, copy));
    if (!refused)
        return QRN_OK;
    qrn_seterrf(QRN_ERR_INVALID, "%s", quote.text);
    return QRN_FAILURE;
}

int set(const text_option &row, record *attr, const void *optval, size_t)
{
    return replace(row, attr, static_cast<const char *>(optval), row.set_quote);
}

int sset(const text_option &row, record *attr, const char *optval)
{
    return replace(row, attr, optval, row.sset_quote);
}

// An unset text reads as an empty one and leaves the length alone.
int read(const char *text, char *optval, size_t *optlen, const message &size)
{
    if (text == nullptr) {
        if (*optlen > 0)
            *optval = '\0';
        return QRN_OK;
    }
    const size_t length = std::strlen(text);
    if (*optlen <= length)
        return refuse(size);
    std::memcpy(optval, text, length + 1);
    *optlen = length;
    return QRN_OK;
}

int get(const text_option &row, record *attr, void *optval, size_t *optlen)
{
    return read(attr->*row.field, static_cast<char *>(optval), optlen, row.get_size);
}

int sget(const text_option &row, record *attr, char *optval, size_t *optlen)
{
    return read(attr->*row.field, optval, optlen, row.sget_size);
}

// --- The queue's name ---

bool is_name(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '_';
    });
}

// An empty name is a name; nothing unsets it.
int rename(const name_option &row, record *attr, const char *name)
{
    if (!is_name(name))
        return refuse(row.character);
    char *copy = kfx::dup(name);
    std::free(std::exchange(attr->evq_name, copy));
    attr->evq_name_len = std::strlen(copy);
    return QRN_OK;
}

// The limit applies to what the caller says of the length; the text itself is not measured.
int set(const name_option &row, record *attr, const void *optval, size_t optlen)
{
    if (optlen > name_limit)
        return refuse(row.set_long);
    if (optval == nullptr)
        return refuse(row.set_null);
    return rename(row, attr, static_cast<const char *>(optval));
}

int sset(const name_option &row, record *attr, const char *optval)
{
    if (optval == nullptr)
        return refuse(row.sset_null);
    if (std::strlen(optval) > name_limit)
        return refuse(row.sset_long);
    return rename(row, attr, optval);
}

// Unlike other texts, a name tells its length when it is unset, and the room it needs when that is
// missing; and it fills the buffer with zeros.
int sget(const name_option &row, record *attr, char *optval, size_t *optlen)
{
    if (optval == nullptr)
        return refuse(row.get_null);
    if (optlen == nullptr)
        return refuse(row.get_null_length);
    if (*optlen < 2)
        return refuse(row.get_below_two);
    if (attr->evq_name == nullptr) {
        *optval = '\0';
        *optlen = 0;
        return QRN_OK;
    }
    if (*optlen <= attr->evq_name_len) {
        *optlen = attr->evq_name_len + 1;
        return refuse(row.get_short);
    }
    std::strncpy(optval, attr->evq_name, *optlen);
    *optlen = attr->evq_name_len;
    return QRN_OK;
}

int get(const name_option &row, record *attr, void *optval, size_t *optlen)
{
    return sget(row, attr, static_cast<char *>(optval), optlen);
}

// --- Application data ---
//
// The copy is made before the old block ends, so a block may be set from itself. A text is kept
// with its terminator.

int set(const bytes_option &, record *attr, const void *optval, size_t optlen)
{
    kfx_logf(KFX_LOG_WARNING,
             "Core-10668-05: The event_queue application_data configuration option is deprecated "
             "and may have no effect in the future.\n");
    void *copy = qrnev::copy_bytes(optval, optlen);
    std::free(std::exchange(attr->app_data, copy));
    attr->app_data_len = copy == nullptr ? 0 : optlen;
    return QRN_OK;
}

int sset(const bytes_option &row, record *attr, const char *optval)
{
    return set(row, attr, optval, optval == nullptr ? 0 : std::strlen(optval) + 1);
}

// Tells the room it needs when that is missing; adds no terminator.
int get(const bytes_option &row, record *attr, void *optval, size_t *optlen)
{
    if (optval == nullptr)
        return refuse(row.get_null);
    if (optlen == nullptr)
        return refuse(row.get_null_length);
    const bool fits = *optlen >= attr->app_data_len;
    if (attr->app_data != nullptr && fits)
        std::memcpy(optval, attr->app_data, attr->app_data_len);
    else if (attr->app_data == nullptr && *optlen > 0)
        *static_cast<char *>(optval) = '\0';
    *optlen = attr->app_data_len;
    return fits ? QRN_OK : refuse(row.get_short);
}

int sget(const bytes_option &row, record *attr, char *optval, size_t *optlen)
{
    return get(row, attr, optval, optlen);
}

} // namespace

int qrn_event_queue_validate_name(const char *name)
{
    static constexpr message null_argument{373, null_name};
    if (name == nullptr)
        return refuse(null_argument);
    return is_name(name) ? QRN_OK : refuse(event_queue_name.character);
}

// --- The handlers ---
//
// Each names its row; overloading picks the code. The tables of qrnev_options.cpp point to them,
// and other modules of the library call them directly.

int qrn_event_queue_attr_q_sz_warn_set(record *attr, const void *optval, size_t optlen)
{
    return set(q_sz_warn, attr, optval, optlen);
}

int qrn_event_queue_attr_q_sz_warn_sset(record *attr, const char *optval)
{
    return sset(q_sz_warn, attr, optval);
}

int qrn_event_queue_attr_q_sz_warn_get(record *attr, void *optval, size_t *optlen)
{
    return get(q_sz_warn, attr, optval, optlen);
}

int qrn_event_queue_attr_q_sz_warn_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(q_sz_warn, attr, optval, optlen);
}

int qrn_event_queue_attr_q_delay_warn_set(record *attr, const void *optval, size_t optlen)
{
    return set(q_delay_warn, attr, optval, optlen);
}

int qrn_event_queue_attr_q_delay_warn_sset(record *attr, const char *optval)
{
    return sset(q_delay_warn, attr, optval);
}

int qrn_event_queue_attr_q_delay_warn_get(record *attr, void *optval, size_t *optlen)
{
    return get(q_delay_warn, attr, optval, optlen);
}

int qrn_event_queue_attr_q_delay_warn_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(q_delay_warn, attr, optval, optlen);
}

int qrn_event_queue_attr_q_notify_set(record *attr, const void *optval, size_t optlen)
{
    return set(q_notify, attr, optval, optlen);
}

int qrn_event_queue_attr_q_notify_sset(record *attr, const char *optval)
{
    return sset(q_notify, attr, optval);
}

int qrn_event_queue_attr_q_notify_get(record *attr, void *optval, size_t *optlen)
{
    return get(q_notify, attr, optval, optlen);
}

int qrn_event_queue_attr_q_notify_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(q_notify, attr, optval, optlen);
}

int qrn_event_queue_attr_q_cancel_cb_set(record *attr, const void *optval, size_t optlen)
{
    return set(q_cancel_cb, attr, optval, optlen);
}

int qrn_event_queue_attr_q_cancel_cb_sset(record *attr, const char *optval)
{
    return sset(q_cancel_cb, attr, optval);
}

int qrn_event_queue_attr_q_cancel_cb_get(record *attr, void *optval, size_t *optlen)
{
    return get(q_cancel_cb, attr, optval, optlen);
}

int qrn_event_queue_attr_q_cancel_cb_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(q_cancel_cb, attr, optval, optlen);
}

int qrn_event_queue_attr_q_purge_on_close_set(record *attr, const void *optval, size_t optlen)
{
    return set(q_purge_on_close, attr, optval, optlen);
}

int qrn_event_queue_attr_q_purge_on_close_sset(record *attr, const char *optval)
{
    return sset(q_purge_on_close, attr, optval);
}

int qrn_event_queue_attr_q_purge_on_close_get(record *attr, void *optval, size_t *optlen)
{
    return get(q_purge_on_close, attr, optval, optlen);
}

int qrn_event_queue_attr_q_purge_on_close_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(q_purge_on_close, attr, optval, optlen);
}

int qrn_event_queue_attr_q_svc_time_set(record *attr, const void *optval, size_t optlen)
{
    return set(q_svc_time, attr, optval, optlen);
}

int qrn_event_queue_attr_q_svc_time_sset(record *attr, const char *optval)
{
    return sset(q_svc_time, attr, optval);
}

int qrn_event_queue_attr_q_svc_time_get(record *attr, void *optval, size_t *optlen)
{
    return get(q_svc_time, attr, optval, optlen);
}

int qrn_event_queue_attr_q_svc_time_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(q_svc_time, attr, optval, optlen);
}

int qrn_event_queue_attr_q_age_set(record *attr, const void *optval, size_t optlen)
{
    return set(q_age, attr, optval, optlen);
}

int qrn_event_queue_attr_q_age_sset(record *attr, const char *optval)
{
    return sset(q_age, attr, optval);
}

int qrn_event_queue_attr_q_age_get(record *attr, void *optval, size_t *optlen)
{
    return get(q_age, attr, optval, optlen);
}

int qrn_event_queue_attr_q_age_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(q_age, attr, optval, optlen);
}

int qrn_event_queue_attr_q_count_set(record *attr, const void *optval, size_t optlen)
{
    return set(q_count, attr, optval, optlen);
}

int qrn_event_queue_attr_q_count_sset(record *attr, const char *optval)
{
    return sset(q_count, attr, optval);
}

int qrn_event_queue_attr_q_count_get(record *attr, void *optval, size_t *optlen)
{
    return get(q_count, attr, optval, optlen);
}

int qrn_event_queue_attr_q_count_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(q_count, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_ivl_set(record *attr, const void *optval, size_t optlen)
{
    return set(monitor_ivl, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_ivl_sset(record *attr, const char *optval)
{
    return sset(monitor_ivl, attr, optval);
}

int qrn_event_queue_attr_monitor_ivl_get(record *attr, void *optval, size_t *optlen)
{
    return get(monitor_ivl, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_ivl_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(monitor_ivl, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_transport_set(record *attr, const void *optval, size_t optlen)
{
    return set(monitor_transport, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_transport_sset(record *attr, const char *optval)
{
    return sset(monitor_transport, attr, optval);
}

int qrn_event_queue_attr_monitor_transport_get(record *attr, void *optval, size_t *optlen)
{
    return get(monitor_transport, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_transport_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(monitor_transport, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_transport_opts_set(record *attr, const void *optval, size_t optlen)
{
    return set(monitor_transport_opts, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_transport_opts_sset(record *attr, const char *optval)
{
    return sset(monitor_transport_opts, attr, optval);
}

int qrn_event_queue_attr_monitor_transport_opts_get(record *attr, void *optval, size_t *optlen)
{
    return get(monitor_transport_opts, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_transport_opts_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(monitor_transport_opts, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_appid_set(record *attr, const void *optval, size_t optlen)
{
    return set(monitor_appid, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_appid_sset(record *attr, const char *optval)
{
    return sset(monitor_appid, attr, optval);
}

int qrn_event_queue_attr_monitor_appid_get(record *attr, void *optval, size_t *optlen)
{
    return get(monitor_appid, attr, optval, optlen);
}

int qrn_event_queue_attr_monitor_appid_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(monitor_appid, attr, optval, optlen);
}

int qrn_event_queue_attr_event_queue_name_set(record *attr, const void *optval, size_t optlen)
{
    return set(event_queue_name, attr, optval, optlen);
}

int qrn_event_queue_attr_event_queue_name_sset(record *attr, const char *optval)
{
    return sset(event_queue_name, attr, optval);
}

int qrn_event_queue_attr_event_queue_name_get(record *attr, void *optval, size_t *optlen)
{
    return get(event_queue_name, attr, optval, optlen);
}

int qrn_event_queue_attr_event_queue_name_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(event_queue_name, attr, optval, optlen);
}

int qrn_event_queue_attr_app_data_set(record *attr, const void *optval, size_t optlen)
{
    return set(app_data, attr, optval, optlen);
}

int qrn_event_queue_attr_app_data_sset(record *attr, const char *optval)
{
    return sset(app_data, attr, optval);
}

int qrn_event_queue_attr_app_data_get(record *attr, void *optval, size_t *optlen)
{
    return get(app_data, attr, optval, optlen);
}

int qrn_event_queue_attr_app_data_sget(record *attr, char *optval, size_t *optlen)
{
    return sget(app_data, attr, optval, optlen);
}
