// SPDX-License-Identifier: Apache-2.0
/* The columns of a record, schema 1, in their order: what writes records and what reads them share
 * this table. docs/monitoring.md gives each column's meaning. */
#ifndef QRNMON_COLUMNS_H
#define QRNMON_COLUMNS_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace qrnmon {

constexpr int schema = 1;

/* Where the transports send by default. */
constexpr unsigned default_port_qrn = 14390;
constexpr unsigned default_port_qrnsnmp = 14391;

/* What a column holds. A counter never goes back while its queue lives; a gauge does. Of the
 * columns that come from the queue's statistics, the kind also tells which figure of its group it
 * is. */
enum class kind {
    label,     // text or number that says what the row is about
    clock,     // when the sample was taken
    gauge,     // a figure of the moment
    counter,   // a figure that only grows
    current,   // events of one kind queued now: a gauge
    total,     // events of one kind accepted in all: a counter
    total_sum, // the sum of the totals: a counter
    minimum,   // microseconds: gauges; a group's three are empty together
    mean,
    maximum,
};

struct column {
    std::string_view name;
    kind what;
};

constexpr std::array<column, 71> columns = {{
    {"schema", kind::label},
    {"epoch_s", kind::clock},
    {"time_utc", kind::clock},
    {"mono_s", kind::clock},
    {"seq", kind::counter},
    {"pid", kind::label},
    {"app", kind::label},
    {"queue", kind::label},
    {"queue_id", kind::label},
    {"interval_s", kind::label},
    {"depth", kind::gauge},
    {"warning", kind::gauge},
    {"size_warnings", kind::counter},
    {"delay_warnings", kind::counter},
    {"data_msgs", kind::current},
    {"data_msgs_tot", kind::total},
    {"data_msgs_svc_min", kind::minimum},
    {"data_msgs_svc_mean", kind::mean},
    {"data_msgs_svc_max", kind::maximum},
    {"resp_msgs", kind::current},
    {"resp_msgs_tot", kind::total},
    {"resp_msgs_svc_min", kind::minimum},
    {"resp_msgs_svc_mean", kind::mean},
    {"resp_msgs_svc_max", kind::maximum},
    {"topicless_im_msgs", kind::current},
    {"topicless_im_msgs_tot", kind::total},
    {"topicless_im_msgs_svc_min", kind::minimum},
    {"topicless_im_msgs_svc_mean", kind::mean},
    {"topicless_im_msgs_svc_max", kind::maximum},
    {"wrcv_msgs", kind::current},
    {"wrcv_msgs_tot", kind::total},
    {"wrcv_msgs_svc_min", kind::minimum},
    {"wrcv_msgs_svc_mean", kind::mean},
    {"wrcv_msgs_svc_max", kind::maximum},
    {"io_events", kind::current},
    {"io_events_tot", kind::total},
    {"io_events_svc_min", kind::minimum},
    {"io_events_svc_mean", kind::mean},
    {"io_events_svc_max", kind::maximum},
    {"timer_events", kind::current},
    {"timer_events_tot", kind::total},
    {"timer_events_svc_min", kind::minimum},
    {"timer_events_svc_mean", kind::mean},
    {"timer_events_svc_max", kind::maximum},
    {"source_events", kind::current},
    {"source_events_tot", kind::total},
    {"source_events_svc_min", kind::minimum},
    {"source_events_svc_mean", kind::mean},
    {"source_events_svc_max", kind::maximum},
    {"unblock_events", kind::current},
    {"unblock_events_tot", kind::total},
    {"cancel_events", kind::current},
    {"cancel_events_tot", kind::total},
    {"cancel_events_svc_min", kind::minimum},
    {"cancel_events_svc_mean", kind::mean},
    {"cancel_events_svc_max", kind::maximum},
    {"context_source_events", kind::current},
    {"context_source_events_tot", kind::total},
    {"context_source_events_svc_min", kind::minimum},
    {"context_source_events_svc_mean", kind::mean},
    {"context_source_events_svc_max", kind::maximum},
    {"events", kind::current},
    {"events_tot", kind::total_sum},
    {"age_min", kind::minimum},
    {"age_mean", kind::mean},
    {"age_max", kind::maximum},
    {"callback_events", kind::current},
    {"callback_events_tot", kind::total},
    {"callback_events_svc_min", kind::minimum},
    {"callback_events_svc_mean", kind::mean},
    {"callback_events_svc_max", kind::maximum},
}};

/* Position of a column; the name must be one of the table. */
consteval std::size_t column_at(std::string_view name)
{
    auto found = std::ranges::find(columns, name, &column::name);
    if (found == columns.end())
        throw "no such column";
    return static_cast<std::size_t>(found - columns.begin());
}

/* The statistics come last, in the order of their public record. */
constexpr std::size_t first_figure = column_at("data_msgs");
constexpr std::size_t figure_count = columns.size() - first_figure;

} // namespace qrnmon

#endif
