// SPDX-License-Identifier: Apache-2.0
//
// Options by name: the two tables, the eight access operations as one sequence, the dump.
//
// Threads: any number of threads read and set the options of one running queue at once, with no
// lock. A value is stored and loaded whole by its handler; the bit that marks the option as set by
// name is added to its byte in one atomic step, so that neighbours set at the same time stay.

#include "qrnev.h"

#include <cstring>
#include <iterator>
#include <string_view>
#include <strings.h>

#include "kfxlog.h"
#include "qrnerr.h"

namespace {

using record = qrn_event_queue_attr_t;
using entry = qrn_event_queue_attr_entry_t;

// Value classes of the tables.
constexpr int text_class = 2;
constexpr int switch_class = 6;
constexpr int number_class = 10;

} // namespace

constexpr entry qrn_event_queue_attr_opt_table[15] = {
    {"queue_size_warning", number_class, qrn_event_queue_attr_q_sz_warn_set,
     qrn_event_queue_attr_q_sz_warn_sset, qrn_event_queue_attr_q_sz_warn_get,
     qrn_event_queue_attr_q_sz_warn_sget},
    {"queue_delay_warning", number_class, qrn_event_queue_attr_q_delay_warn_set,
     qrn_event_queue_attr_q_delay_warn_sset, qrn_event_queue_attr_q_delay_warn_get,
     qrn_event_queue_attr_q_delay_warn_sget},
    {"queue_enqueue_notification", switch_class, qrn_event_queue_attr_q_notify_set,
     qrn_event_queue_attr_q_notify_sset, qrn_event_queue_attr_q_notify_get,
     qrn_event_queue_attr_q_notify_sget},
    {"queue_cancellation_callbacks_enabled", switch_class, qrn_event_queue_attr_q_cancel_cb_set,
     qrn_event_queue_attr_q_cancel_cb_sset, qrn_event_queue_attr_q_cancel_cb_get,
     qrn_event_queue_attr_q_cancel_cb_sget},
    {"queue_objects_purged_on_close", switch_class, qrn_event_queue_attr_q_purge_on_close_set,
     qrn_event_queue_attr_q_purge_on_close_sset, qrn_event_queue_attr_q_purge_on_close_get,
     qrn_event_queue_attr_q_purge_on_close_sget},
    {"queue_service_time_enabled", switch_class, qrn_event_queue_attr_q_svc_time_set,
     qrn_event_queue_attr_q_svc_time_sset, qrn_event_queue_attr_q_svc_time_get,
     qrn_event_queue_attr_q_svc_time_sget},
    {"queue_age_enabled", switch_class, qrn_event_queue_attr_q_age_set,
     qrn_event_queue_attr_q_age_sset, qrn_event_queue_attr_q_age_get,
     qrn_event_queue_attr_q_age_sget},
    {"queue_count_enabled", switch_class, qrn_event_queue_attr_q_count_set,
     qrn_event_queue_attr_q_count_sset, qrn_event_queue_attr_q_count_get,
     qrn_event_queue_attr_q_count_sget},
    {"monitor_interval", number_class, qrn_event_queue_attr_monitor_ivl_set,
     qrn_event_queue_attr_monitor_ivl_sset, qrn_event_queue_attr_monitor_ivl_get,
     qrn_event_queue_attr_monitor_ivl_sget},
    {"monitor_transport", text_class, qrn_event_queue_attr_monitor_transport_set,
     qrn_event_queue_attr_monitor_transport_sset, qrn_event_queue_attr_monitor_transport_get,
     qrn_event_queue_attr_monitor_transport_sget},
    {"monitor_transport_opts", text_class, qrn_event_queue_attr_monitor_transport_opts_set,
     qrn_event_queue_attr_monitor_transport_opts_sset,
     qrn_event_queue_attr_monitor_transport_opts_get,
     qrn_event_queue_attr_monitor_transport_opts_sget},
    {"monitor_appid", text_class, qrn_event_queue_attr_monitor_appid_set,
     qrn_event_queue_attr_monitor_appid_sset, qrn_event_queue_attr_monitor_appid_get,
     qrn_event_queue_attr_monitor_appid_sget},
    {"event_queue_name", text_class, qrn_event_queue_attr_event_queue_name_set,
     qrn_event_queue_attr_event_queue_name_sset, qrn_event_queue_attr_event_queue_name_get,
     qrn_event_queue_attr_event_queue_name_sget},
    {"application_data", text_class, qrn_event_queue_attr_app_data_set,
     qrn_event_queue_attr_app_data_sset, qrn_event_queue_attr_app_data_get,
     qrn_event_queue_attr_app_data_sget},
    {},
};

namespace {

// Rows of the options that may change while a queue runs.
constexpr unsigned char live_rows[] = {0, 1, 2, 5, 6, 7, 13};

constexpr const entry &live(size_t row)
{
    return qrn_event_queue_attr_opt_table[live_rows[row]];
}

} // namespace

constexpr entry qrn_event_queue_opt_table[8] = {
    live(0), live(1), live(2), live(3), live(4), live(5), live(6), {},
};

namespace {

// --- Access by name ---

constexpr unsigned char all_rows[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};

// A table as an operation searches it.
struct table {
    const entry *rows;
    const unsigned char *bits; // each row's bit in the mask; null: the operation marks nothing
};

constexpr table settable = {qrn_event_queue_attr_opt_table, all_rows};
constexpr table readable = {qrn_event_queue_attr_opt_table, nullptr};
constexpr table settable_live = {qrn_event_queue_opt_table, live_rows};

// One of the eight operations.
template <class Handler>
struct operation {
    const char *name;
    const char *target; // what the traces call its first argument
    table options;
    Handler entry::*handler;
    int unknown; // message number of an unknown name
    const char *null_argument;
    const char *text = nullptr; // what the option trace calls a text value
};

using setter = operation<qrn_event_queue_attr_set_proc>;
using text_setter = operation<qrn_event_queue_attr_sets_proc>;
using getter = operation<qrn_event_queue_attr_get_proc>;
using text_getter = operation<qrn_event_queue_attr_gets_proc>;

// clang-format off
constexpr setter attr_setopt = {"qrn_event_queue_attr_setopt", "attr", settable, &entry::set, 299,
    "CoreApi-5688-298: attr, optname, and optval must not be NULL"};
constexpr text_setter attr_str_setopt = {"qrn_event_queue_attr_str_setopt", "attr", settable,
    &entry::sset, 301,
    "CoreApi-5688-300: attr, optname, and optval must not be NULL", "opt val"};
constexpr getter attr_getopt = {"qrn_event_queue_attr_getopt", "attr", readable, &entry::get, 303,
    "CoreApi-5688-302: attr, optname, optval, and optlen must not be NULL"};
constexpr text_getter attr_str_getopt = {"qrn_event_queue_attr_str_getopt", "attr", readable,
    &entry::sget, 305,
    "CoreApi-5688-304: attr, optname, optval, and optlen must not be NULL"};
constexpr setter evq_setopt = {"qrn_event_queue_setopt", "evq", settable_live, &entry::set, 307,
    "CoreApi-5688-306: evq, optname, and optval must not be NULL"};
constexpr text_setter evq_str_setopt = {"qrn_event_queue_str_setopt", "evq", settable_live,
    &entry::sset, 309,
    "CoreApi-5688-308: evq, optname, and optval must not be NULL", "optval"};
constexpr getter evq_getopt = {"qrn_event_queue_getopt", "evq", readable, &entry::get, 311,
    "CoreApi-5688-310: evq, optname, optval, and optlen must not be NULL"};
constexpr text_getter evq_str_getopt = {"qrn_event_queue_str_getopt", "evq", readable,
    &entry::sget, 313,
    "CoreApi-5688-312: evq, optname, optval, and optlen must not be NULL"};
// clang-format on

int refuse(const char *message)
{
    qrn_seterr(QRN_ERR_INVALID, message);
    return QRN_FAILURE;
}

// What a call passes on to its handler is a value with its length, a text, or a buffer with the
// place of its length; the next functions take each of them.

bool is_missing(const void *argument)
{
    return argument == nullptr;
}

bool is_missing(size_t)
{
    return false;
}

size_t length_of(size_t optlen)
{
    return optlen;
}

size_t length_of(const size_t *optlen)
{
    return optlen == nullptr ? 0 : *optlen;
}

const char *shown(const char *text)
{
    return text == nullptr ? "(null)" : text;
}

template <class Handler, class Length>
void trace_call(const operation<Handler> &op, const void *target, const char *optname,
                const void *optval, Length optlen)
{
    KFX_TRACE(KFX_DBG_API, "[%s] %s[%p] optname[%s] optval[%p] optlen[%u]\n", op.name, op.target,
              target, shown(optname), optval, static_cast<unsigned>(length_of(optlen)));
}

void trace_call(const text_setter &op, const void *target, const char *optname, const char *optval)
{
    KFX_TRACE(KFX_DBG_API, "[%s] %s[%p] optname[%s] optval[%s]\n", op.name, op.target, target,
              shown(optname), shown(optval));
}

template <class Handler, class Length>
void trace_option(const operation<Handler> &op, const void *target, const char *optname,
                  const void *, Length optlen)
{
    KFX_TRACE(KFX_DBG_OPTION, "%s %p %s [%s] optlen[%d]\n", op.target, target, op.name, optname,
              static_cast<int>(length_of(optlen)));
}

void trace_option(const text_setter &op, const void *target, const char *optname,
                  const char *optval)
{
    KFX_TRACE(KFX_DBG_OPTION, "%s %p %s [%s] %s[%s]\n", op.target, target, op.name, optname,
              op.text, optval);
}

record *record_of(record *attr)
{
    return attr;
}

record *record_of(qrn_event_queue_t *evq)
{
    return evq->attr;
}

// The row of a name; the terminating row when there is none.
size_t find(const entry *rows, const char *optname)
{
    size_t row = 0;
    while (rows[row].oname != nullptr && strcasecmp(rows[row].oname, optname) != 0)
        ++row;
    return row;
}

// Neighbours in the byte may be marked by other threads meanwhile.
void mark(char *mask, unsigned bit)
{
    char &byte = mask[bit / 8];
    char seen = kfx::load(byte);
    char marked = 0;
    do
        marked = static_cast<char>(seen | (1 << bit % 8));
    while (!kfx::compare_exchange(byte, seen, marked, std::memory_order_relaxed));
}

// The one sequence of all operations: trace, check, find, call, mark.
template <class Handler, class Target, class... Args>
int access(const operation<Handler> &op, Target *target, const char *optname, Args... args)
{
    trace_call(op, target, optname, args...);
    if (target == nullptr || optname == nullptr || (is_missing(args) || ...))
        return refuse(op.null_argument);
    trace_option(op, target, optname, args...);
    const size_t row = find(op.options.rows, optname);
    const entry &option = op.options.rows[row];
    if (option.oname == nullptr) {
        qrn_seterrf(QRN_ERR_INVALID, "CoreApi-5688-%d: option %s unknown", op.unknown, optname);
        return QRN_FAILURE;
    }
    record *attr = record_of(target);
    const int result = (option.*op.handler)(attr, args...);
    if (result == QRN_OK && op.options.bits != nullptr && attr->setopt_mask != nullptr)
        mark(attr->setopt_mask, op.options.bits[row]);
    return result;
}

// --- Dump ---

constexpr size_t entry_room = sizeof qrn_config_option_t::val - 1;

// Whether `word` stands in `name` as a whole part, closed by '_' or the end.
constexpr bool has_part(std::string_view name, std::string_view word)
{
    for (size_t at = name.find(word); at != name.npos; at = name.find(word, at + 1)) {
        const std::string_view rest = name.substr(at + word.size());
        if (rest.empty() || rest.front() == '_')
            return true;
    }
    return false;
}

// An option whose value is a pointer to code has no text form; a hash function is chosen by name.
constexpr bool has_text_form(std::string_view name)
{
    return has_part(name, "_hash_function") ||
           (!has_part(name, "_function") && !has_part(name, "_callback"));
}

static_assert(has_text_form("queue_cancellation_callbacks_enabled"));
static_assert(has_text_form("resolver_hash_function"));
static_assert(!has_text_form("resolver_function") && !has_text_form("state_callback_data"));

bool dump_option(const entry &option, record *attr, qrn_config_option_t &text)
{
    size_t length = entry_room;
    if (option.sget(attr, text.val, &length) != QRN_OK)
        return false;
    std::strncpy(text.oname, option.oname, entry_room);
    std::strncpy(text.type, "event_queue", entry_room);
    return true;
}

} // namespace

int qrn_event_queue_attr_setopt(record *attr, const char *optname, const void *optval,
                                size_t optlen)
{
    return access(attr_setopt, attr, optname, optval, optlen);
}

int qrn_event_queue_attr_str_setopt(record *attr, const char *optname, const char *optval)
{
    return access(attr_str_setopt, attr, optname, optval);
}

int qrn_event_queue_attr_getopt(record *attr, const char *optname, void *optval, size_t *optlen)
{
    return access(attr_getopt, attr, optname, optval, optlen);
}

int qrn_event_queue_attr_str_getopt(record *attr, const char *optname, char *optval, size_t *optlen)
{
    return access(attr_str_getopt, attr, optname, optval, optlen);
}

int qrn_event_queue_setopt(qrn_event_queue_t *evq, const char *optname, const void *optval,
                           size_t optlen)
{
    return access(evq_setopt, evq, optname, optval, optlen);
}

int qrn_event_queue_str_setopt(qrn_event_queue_t *evq, const char *optname, const char *optval)
{
    return access(evq_str_setopt, evq, optname, optval);
}

int qrn_event_queue_getopt(qrn_event_queue_t *evq, const char *optname, void *optval,
                           size_t *optlen)
{
    return access(evq_getopt, evq, optname, optval, optlen);
}

int qrn_event_queue_str_getopt(qrn_event_queue_t *evq, const char *optname, char *optval,
                               size_t *optlen)
{
    return access(evq_str_getopt, evq, optname, optval, optlen);
}

int qrn_event_queue_attr_dump(record *eattr, int *size, qrn_config_option_t *opts)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_attr_dump] eattr[%p] size[%d] opts[%p]\n",
              static_cast<void *>(eattr), *size, static_cast<void *>(opts));
    if (eattr == nullptr)
        return refuse("CoreApi-5688-295: eattr must be valid");
    if (opts == nullptr)
        return refuse("CoreApi-5688-296: opts must be valid");
    if (*size < 1)
        return refuse("CoreApi-5688-297: value at size must be greater than 0");
    std::memset(opts, 0, static_cast<size_t>(*size) * sizeof *opts);
    int filled = 0;
    const entry *option = qrn_event_queue_attr_opt_table;
    for (int i = 0; i < *size && option->oname != nullptr; ++i, ++option) {
        if (has_text_form(option->oname) && dump_option(*option, eattr, opts[filled]))
            ++filled;
    }
    *size = filled;
    return QRN_OK;
}

int qrn_event_queue_dump(qrn_event_queue_t *evq, int *size, qrn_config_option_t *opts)
{
    if (evq == nullptr)
        return refuse("CoreApi-5688-294: evq must be valid");
    return qrn_event_queue_attr_dump(evq->attr, size, opts);
}
