// SPDX-License-Identifier: Apache-2.0
//
// Private to the module: in which figures of its queue an event stands.
//
// The options behind the figures may be switched while events are queued, so an event carries marks of
// what its enqueue did, and is taken out of exactly those figures. A record that went through no
// enqueue has no marks and follows the options as they stand.
#ifndef QRNEV_ACCOUNT_H
#define QRNEV_ACCOUNT_H

#include "qrnev_stats.h"

namespace qrnev {

enum mark : qrn_uint_t {
    mark_enqueued = 1, // the other marks tell
    mark_counted = 2,
    mark_sized = 4,
    mark_stamped = 8,
    mark_released = 16, // the messages of a bundle that was taken
};

inline bool is_marked(const qrn_event_t *ev, mark m, bool otherwise)
{
    return (ev->marks & (mark_enqueued | m)) != 0 ? (ev->marks & m) != 0 : otherwise;
}

inline bool was_counted(const queue *evq, const qrn_event_t *ev)
{
    return is_marked(ev, mark_counted, kfx::load(evq->attr->q_count) != 0);
}

// `otherwise` is for a record without marks.
inline bool was_sized(const qrn_event_t *ev, bool otherwise)
{
    return is_marked(ev, mark_sized, otherwise);
}

inline bool was_stamped(const qrn_event_t *ev)
{
    return is_marked(ev, mark_stamped, true);
}

// Whether the size of a queue counts the records without marks.
inline bool sizes_events(const queue *evq)
{
    return evq->monproc != nullptr && kfx::load(evq->attr->q_sz_warn) != 0;
}

// What an event adds to the size counter when it enters the queue.
inline long entering_size(const qrn_event_t *ev)
{
    return ev->type == QRN_EVQ_MSG_BUNDLE_TYPE ? ev->info.msg_bundle->num_events : 1;
}

// What it takes off when it leaves: purges may have thinned a bundle.
inline long size_of(const qrn_event_t *ev)
{
    if (ev->type != QRN_EVQ_MSG_BUNDLE_TYPE)
        return 1;
    return ev->info.msg_bundle->data_msgs + ev->info.msg_bundle->wrcv_msgs;
}

// Calls `change(group, amount)` for every group that counts the event.
template <class Change>
void for_each_count(const qrn_event_t *ev, Change change)
{
    if (ev->type == QRN_EVQ_MSG_BUNDLE_TYPE) {
        const qrn_event_bundle_t *bundle = ev->info.msg_bundle;
        if (bundle->data_msgs != 0)
            change(groups[data_group], bundle->data_msgs);
        if (bundle->wrcv_msgs != 0)
            change(groups[wrcv_group], bundle->wrcv_msgs);
    } else if (int id = kind_of(ev->type).group; id >= 0) {
        change(groups[id], 1L);
    }
}

// Takes an event that leaves the queue off the current counts, if it stands in them.
inline void count_out(queue *evq, const qrn_event_t *ev)
{
    if (was_counted(evq, ev)) [[unlikely]]
        for_each_count(ev, [evq](const group &g, long n) { kfx::sub(evq->*g.now, n); });
}

// Releases what the event itself owns; the first step of its disposal.
void release_owned(qrn_event_t *ev, int in_evq_delete);

// Releases, as undelivered, the message or bundle that an event carries.
void release_undelivered(const qrn_event_t *ev);
// Releases one message as undelivered.
void release_undelivered(qrn_msg_t *msg);

// The same for what is left in the bundle of an event that was taken; and its end, once the thread is
// done with the event: before, others may look into the bundle for the object of a cancellation.
void release_bundle(qrn_event_t *ev);
void free_bundle(qrn_event_bundle_t *bundle);
inline void free_released_bundle(const qrn_event_t *ev)
{
    if (ev->type == QRN_EVQ_MSG_BUNDLE_TYPE && (ev->marks & mark_released) != 0)
        free_bundle(ev->info.msg_bundle);
}

} // namespace qrnev

#endif
