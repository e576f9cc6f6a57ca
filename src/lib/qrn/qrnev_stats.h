// SPDX-License-Identifier: Apache-2.0
//
// Private to the module: the groups of the statistics block, one row each, and the event types that
// are counted in them.
#ifndef QRNEV_STATS_H
#define QRNEV_STATS_H

#include "qrnev.h"

namespace qrnev {

using queue = qrn_event_queue_t;
using snapshot = qrn_event_queue_stats_t;

// A minimum that has no sample yet.
inline constexpr kfx_hrtime_ivl_t no_sample = ~kfx_hrtime_ivl_t{0};

// A minimum, a running mean and a maximum, in a queue and in a snapshot of it.
struct triple {
    kfx_hrtime_ivl_t queue::*min = nullptr;
    kfx_hrtime_ivl_t queue::*mean = nullptr;
    kfx_hrtime_ivl_t queue::*max = nullptr;
    qrn_ulong_t snapshot::*out_min = nullptr;
    qrn_ulong_t snapshot::*out_mean = nullptr;
    qrn_ulong_t snapshot::*out_max = nullptr;
};

struct group {
    long queue::*now;
    long queue::*tot;
    qrn_ulong_t snapshot::*out_now;
    qrn_ulong_t snapshot::*out_tot;
    triple svc = {}; // the row of all events holds the ages here
};

enum group_id {
    data_group,
    resp_group,
    imsg_group,
    wrcv_group,
    io_group,
    timer_group,
    source_group,
    unblock_group,
    cancel_group,
    ctx_source_group,
    all_group, // its counts are summed up when they are asked for
    callback_group,
    group_count
};

// In the order of the block.
inline constexpr group groups[group_count] = {
    {&queue::data_msgs,
     &queue::data_msgs_tot,
     &snapshot::data_msgs,
     &snapshot::data_msgs_tot,
     {&queue::data_msgs_svc_min, &queue::data_msgs_svc_mean, &queue::data_msgs_svc_max,
      &snapshot::data_msgs_svc_min, &snapshot::data_msgs_svc_mean, &snapshot::data_msgs_svc_max}},
    {&queue::resp_msgs,
     &queue::resp_msgs_tot,
     &snapshot::resp_msgs,
     &snapshot::resp_msgs_tot,
     {&queue::resp_msgs_svc_min, &queue::resp_msgs_svc_mean, &queue::resp_msgs_svc_max,
      &snapshot::resp_msgs_svc_min, &snapshot::resp_msgs_svc_mean, &snapshot::resp_msgs_svc_max}},
    {&queue::topicless_im_msgs,
     &queue::topicless_im_msgs_tot,
     &snapshot::topicless_im_msgs,
     &snapshot::topicless_im_msgs_tot,
     {&queue::topicless_im_msgs_svc_min, &queue::topicless_im_msgs_svc_mean,
      &queue::topicless_im_msgs_svc_max, &snapshot::topicless_im_msgs_svc_min,
      &snapshot::topicless_im_msgs_svc_mean, &snapshot::topicless_im_msgs_svc_max}},
    {&queue::wrcv_msgs,
     &queue::wrcv_msgs_tot,
     &snapshot::wrcv_msgs,
     &snapshot::wrcv_msgs_tot,
     {&queue::wrcv_msgs_svc_min, &queue::wrcv_msgs_svc_mean, &queue::wrcv_msgs_svc_max,
      &snapshot::wrcv_msgs_svc_min, &snapshot::wrcv_msgs_svc_mean, &snapshot::wrcv_msgs_svc_max}},
    {&queue::io_events,
     &queue::io_events_tot,
     &snapshot::io_events,
     &snapshot::io_events_tot,
     {&queue::io_events_svc_min, &queue::io_events_svc_mean, &queue::io_events_svc_max,
      &snapshot::io_events_svc_min, &snapshot::io_events_svc_mean, &snapshot::io_events_svc_max}},
    {&queue::timer_events,
     &queue::timer_events_tot,
     &snapshot::timer_events,
     &snapshot::timer_events_tot,
     {&queue::timer_events_svc_min, &queue::timer_events_svc_mean, &queue::timer_events_svc_max,
      &snapshot::timer_events_svc_min, &snapshot::timer_events_svc_mean,
      &snapshot::timer_events_svc_max}},
    {&queue::source_events,
     &queue::source_events_tot,
     &snapshot::source_events,
     &snapshot::source_events_tot,
     {&queue::source_events_svc_min, &queue::source_events_svc_mean, &queue::source_events_svc_max,
      &snapshot::source_events_svc_min, &snapshot::source_events_svc_mean,
      &snapshot::source_events_svc_max}},
    {&queue::unblock_events, &queue::unblock_events_tot, &snapshot::unblock_events,
     &snapshot::unblock_events_tot},
    {&queue::cancel_events,
     &queue::cancel_events_tot,
     &snapshot::cancel_events,
     &snapshot::cancel_events_tot,
     {&queue::cancel_events_svc_min, &queue::cancel_events_svc_mean, &queue::cancel_events_svc_max,
      &snapshot::cancel_events_svc_min, &snapshot::cancel_events_svc_mean,
      &snapshot::cancel_events_svc_max}},
    {&queue::context_source_events,
     &queue::context_source_events_tot,
     &snapshot::context_source_events,
     &snapshot::context_source_events_tot,
     {&queue::context_source_events_svc_min, &queue::context_source_events_svc_mean,
      &queue::context_source_events_svc_max, &snapshot::context_source_events_svc_min,
      &snapshot::context_source_events_svc_mean, &snapshot::context_source_events_svc_max}},
    {&queue::events,
     &queue::events_tot,
     &snapshot::events,
     &snapshot::events_tot,
     {&queue::age_min, &queue::age_mean, &queue::age_max, &snapshot::age_min, &snapshot::age_mean,
      &snapshot::age_max}},
    {&queue::callback_events,
     &queue::callback_events_tot,
     &snapshot::callback_events,
     &snapshot::callback_events_tot,
     {&queue::callback_events_svc_min, &queue::callback_events_svc_mean,
      &queue::callback_events_svc_max, &snapshot::callback_events_svc_min,
      &snapshot::callback_events_svc_mean, &snapshot::callback_events_svc_max}},
};

inline constexpr const triple &ages = groups[all_group].svc;

// What a type code stands for: the group its events are counted in, and where it keeps a message.
struct kind {
    int group =
        -1; // a bundle's messages are counted, not the bundle; an unknown type is not counted
    qrn_msg_t *(*message)(const qrn_event_t &) = nullptr;
};

inline constexpr int last_type = QRN_EVQ_MSG_BUNDLE_TYPE;

inline constexpr kind kinds[last_type + 1] = {
    {}, // 0 is no type
    {data_group, [](const qrn_event_t &ev) { return ev.info.msg.msg; }},
    {timer_group},
    {io_group},
    {source_group},
    {resp_group, [](const qrn_event_t &ev) { return ev.info.req.msg; }},
    {unblock_group},
    {imsg_group, [](const qrn_event_t &ev) { return ev.info.imsg.msg; }},
    {wrcv_group, [](const qrn_event_t &ev) { return ev.info.wrcv_msg.msg; }},
    {cancel_group},
    {ctx_source_group},
    {callback_group},
    {}, // bundle
};

inline constexpr kind no_kind = {};

inline constexpr const kind &kind_of(int type)
{
    return type >= 0 && type <= last_type ? kinds[type] : no_kind;
}

// Sets a queue's statistics to their initial values, except for the current counts.
void reset_stats(queue *evq);

// Feeds one sample into a triple of the queue.
void add_sample(queue *evq, const triple &t, kfx_hrtime_ivl_t sample);

} // namespace qrnev

#endif
