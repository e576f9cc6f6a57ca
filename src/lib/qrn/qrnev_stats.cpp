// SPDX-License-Identifier: Apache-2.0
//
// The public snapshot of a queue's statistics, and its reset. Every figure is read and written as a
// whole and without a lock; a reset that races with a dispatching thread may leave one figure from
// before it.

#include "qrnev_stats.h"

#include "kfxlog.h"
#include "qrnerr.h"

namespace qrnev {

namespace {

qrn_ulong_t usec(kfx_hrtime_ivl_t ivl)
{
    qrn_ulong_t result = 0;
    kfx_hrtime_delta_usec(&ivl, &result);
    return result;
}

void copy_times(const queue *evq, const triple &t, snapshot *stats)
{
    kfx_hrtime_ivl_t min = kfx::load(evq->*t.min);
    stats->*t.out_min = min == no_sample ? no_sample : usec(min);
    stats->*t.out_mean = usec(kfx::load(evq->*t.mean));
    stats->*t.out_max = usec(kfx::load(evq->*t.max));
}

} // namespace

void reset_stats(queue *evq)
{
    for (const group &g : groups) {
        kfx::store(evq->*g.tot, 0);
        if (g.svc.min == nullptr)
            continue;
        kfx::store(evq->*g.svc.min, no_sample);
        kfx::store(evq->*g.svc.mean, 0);
        kfx::store(evq->*g.svc.max, 0);
    }
}

} // namespace qrnev

using namespace qrnev;

int qrn_event_queue_retrieve_stats(qrn_event_queue_t *evq, qrn_event_queue_stats_t *stats)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_retrieve_stats] evq[%p] stats[%p]\n",
              static_cast<void *>(evq), static_cast<void *>(stats));
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-393: evq must be valid");
        return -1;
    }
    if (stats == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-394: stats must be valid");
        return -1;
    }
    qrn_ulong_t now = 0;
    qrn_ulong_t tot = 0;
    for (const group &g : groups) {
        now += stats->*g.out_now = static_cast<qrn_ulong_t>(kfx::load(evq->*g.now));
        tot += stats->*g.out_tot = static_cast<qrn_ulong_t>(kfx::load(evq->*g.tot));
        if (g.svc.min != nullptr)
            copy_times(evq, g.svc, stats);
    }
    stats->events = now - stats->events; // of the other groups
    stats->events_tot = tot - stats->events_tot;
    return 0;
}

int qrn_event_queue_reset_stats(qrn_event_queue_t *evq)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_reset_stats] evq[%p]\n", static_cast<void *>(evq));
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-395: evq must be valid");
        return -1;
    }
    reset_stats(evq);
    return 0;
}
