// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <cstdio>
#include <string_view>

namespace feeder {

namespace {

// --- Options -------------------------------------------------------------------------------------

using dump = std::vector<qrn_config_option_t>;

dump dump_of(qrn_event_queue_attr_t *attr)
{
    int size = qrn_event_queue_attr_option_size();
    dump options(static_cast<size_t>(size));
    if (qrn_event_queue_attr_dump(attr, &size, options.data()) != QRN_OK)
        size = 0;
    options.resize(static_cast<size_t>(size));
    return options;
}

// A value that is too long for a dump is left out of it.
const char *value_in(const dump &options, std::string_view name)
{
    for (const qrn_config_option_t &option : options)
        if (option.oname == name)
            return option.val;
    return "(too long)";
}

bool is_live(std::string_view name)
{
    for (const auto *row = qrn_event_queue_opt_table; row->oname != nullptr; ++row)
        if (row->oname == name)
            return true;
    return false;
}

// --- Statistics ----------------------------------------------------------------------------------

using figure = qrn_ulong_t qrn_event_queue_stats_t::*;
using stats = qrn_event_queue_stats_t;

struct group {
    const char *name;
    figure queued, total;
    figure min, mean, max; // null: not measured
};

constexpr group groups[] = {
    {"message", &stats::data_msgs, &stats::data_msgs_tot, &stats::data_msgs_svc_min,
     &stats::data_msgs_svc_mean, &stats::data_msgs_svc_max},
    {"wildcard message", &stats::wrcv_msgs, &stats::wrcv_msgs_tot, &stats::wrcv_msgs_svc_min,
     &stats::wrcv_msgs_svc_mean, &stats::wrcv_msgs_svc_max},
    {"response", &stats::resp_msgs, &stats::resp_msgs_tot, &stats::resp_msgs_svc_min,
     &stats::resp_msgs_svc_mean, &stats::resp_msgs_svc_max},
    {"immediate message", &stats::topicless_im_msgs, &stats::topicless_im_msgs_tot,
     &stats::topicless_im_msgs_svc_min, &stats::topicless_im_msgs_svc_mean,
     &stats::topicless_im_msgs_svc_max},
    {"descriptor", &stats::io_events, &stats::io_events_tot, &stats::io_events_svc_min,
     &stats::io_events_svc_mean, &stats::io_events_svc_max},
    {"timer", &stats::timer_events, &stats::timer_events_tot, &stats::timer_events_svc_min,
     &stats::timer_events_svc_mean, &stats::timer_events_svc_max},
    {"source", &stats::source_events, &stats::source_events_tot, &stats::source_events_svc_min,
     &stats::source_events_svc_mean, &stats::source_events_svc_max},
    {"context source", &stats::context_source_events, &stats::context_source_events_tot,
     &stats::context_source_events_svc_min, &stats::context_source_events_svc_mean,
     &stats::context_source_events_svc_max},
    {"callback", &stats::callback_events, &stats::callback_events_tot,
     &stats::callback_events_svc_min, &stats::callback_events_svc_mean,
     &stats::callback_events_svc_max},
    {"cancel", &stats::cancel_events, &stats::cancel_events_tot, &stats::cancel_events_svc_min,
     &stats::cancel_events_svc_mean, &stats::cancel_events_svc_max},
    {"unblock", &stats::unblock_events, &stats::unblock_events_tot, nullptr, nullptr, nullptr},
    {"all, and their age", &stats::events, &stats::events_tot, &stats::age_min, &stats::age_mean,
     &stats::age_max},
};

// A minimum of all ones means that there is no sample.
bool has_times(const stats &figures, const group &row)
{
    return row.min != nullptr && ~(figures.*row.min) != 0;
}

void print_row(const char *queue, const stats &figures, const group &row)
{
    std::printf("%-8s %-18s %9lu %9lu", queue, row.name, figures.*row.queued, figures.*row.total);
    if (has_times(figures, row))
        std::printf(" %9lu %9lu %9lu\n", figures.*row.min, figures.*row.mean, figures.*row.max);
    else
        std::printf(" %9s %9s %9s\n", "-", "-", "-");
}

void print_queue(const char *name, qrn_event_queue_t *evq)
{
    stats figures{};
    if (qrn_event_queue_retrieve_stats(evq, &figures) != QRN_OK)
        return;
    for (const group &row : groups)
        if (figures.*row.total != 0 || has_times(figures, row))
            print_row(name, figures, row);
}

// --- Receivers -----------------------------------------------------------------------------------

void print_cancellation(const deletion_result &end)
{
    if (!end.has_callback)
        std::puts("; no cancellation callback");
    else if (end.callbacks != 1)
        std::printf("; %u cancellation callbacks\n", end.callbacks);
    else
        std::printf("; cancellation callback after %ld us on %s\n",
                    static_cast<long>(end.callback_after.count()),
                    end.by_dispatcher ? "a dispatching thread" : "the deleting thread");
}

void print_deletion(const receiver &to)
{
    const deletion_result end = to.end->result();
    if (!end.done) {
        std::printf("not deleted: '%s' was handed %u of %u messages\n", to.name.c_str(), end.handed,
                    to.end->after());
        return;
    }
    std::printf(
        "deleted '%s' after %u messages: %lu delivered, %lu purged, %lu taken but not begun",
        to.name.c_str(), end.handed, to.delivered.load(), end.purged, end.skipped);
    print_cancellation(end);
}

bool print_receivers(const std::deque<receiver> &receivers, unsigned long &purged)
{
    bool as_asked = true;
    for (const receiver &to : receivers)
        std::printf("%-8s %-18s %9lu delivered\n", to.kind, to.name.c_str(), to.delivered.load());
    for (const receiver &to : receivers) {
        if (to.end == nullptr)
            continue;
        print_deletion(to);
        const deletion_result end = to.end->result();
        purged += end.purged + end.skipped;
        as_asked = as_asked && end.callbacks == (end.has_callback ? 1 : 0);
    }
    return as_asked;
}

void print_lines(const tally &counts, const input &from)
{
    std::printf("lines: %lu read, %lu unmatched, %lu malformed", counts.lines, counts.unmatched,
                counts.malformed);
    if (counts.malformed != 0)
        std::printf(" (the first is line %lu)", counts.first_malformed);
    if (!from.address().empty())
        std::printf("; %lu datagrams dropped", from.dropped());
    std::puts("");
}

bool print_sum(const feed &done, unsigned long purged)
{
    const tally &counts = done.counts();
    const unsigned long delivered = done.delivered();
    const unsigned long sent = counts.lines + counts.copies;
    const unsigned long sum = delivered + purged + counts.unmatched + counts.malformed;
    std::printf("sum: delivered %lu + purged %lu + unmatched %lu + malformed %lu = ", delivered,
                purged, counts.unmatched, counts.malformed);
    if (sum != sent)
        std::printf("%lu, but ", sum);
    std::printf("%lu sent (%lu lines, %lu further copies)\n", sent, counts.lines, counts.copies);
    return sum == sent;
}

void print_warnings(const warnings &reports)
{
    if (reports.size + reports.delay + reports.enqueued != 0)
        std::printf("monitor: %lu size warnings, %lu delay warnings, %lu enqueue notifications\n",
                    reports.size.load(), reports.delay.load(), reports.enqueued.load());
}

} // namespace

void print_options(const attr_ptr &attr)
{
    qrn_event_queue_attr_t *made = nullptr;
    qrn_event_queue_attr_create_default(&made);
    const attr_ptr defaults(made);
    const dump values = dump_of(attr.get()), plain = dump_of(defaults.get());
    std::printf("%-38s %-20s %-20s %s\n", "option", "value", "default", "live");
    for (const auto *row = qrn_event_queue_attr_opt_table; row->oname != nullptr; ++row)
        std::printf("%-38s %-20s %-20s %s\n", row->oname, value_in(values, row->oname),
                    value_in(plain, row->oname), is_live(row->oname) ? "yes" : "no");
}

bool print_report(const feed &done, const input &from)
{
    std::printf("%-8s %-18s %9s %9s %9s %9s %9s\n", "queue", "event", "queued", "total", "min us",
                "mean us", "max us");
    print_queue("feed", done.messages());
    print_queue("control", done.control());
    std::puts("");
    unsigned long purged = 0;
    const bool as_asked = print_receivers(done.receivers(), purged);
    if (done.bundles() != 0)
        std::printf("bundles: %lu\n", done.bundles());
    print_warnings(done.reports());
    print_lines(done.counts(), from);
    return print_sum(done, purged) && as_asked;
}

} // namespace feeder
