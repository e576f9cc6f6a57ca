// SPDX-License-Identifier: Apache-2.0
//
// The dispatch loop, unblocking it, and the update rule of the statistics.
//
// A dispatch call goes: register the thread (only on a queue that tracks its threads), then take, age
// and warn, deliver by type, settle, until something ends it, then unregister. Any number of threads
// are in it at once; all they share is the queue object.
//
// An event is taken when this thread is about to deliver it, never ahead, so that whatever has not
// been delivered can still be purged. On a queue that tracks its threads the dequeue hook writes the
// event into the thread's node before a pass over the queue can run: an event is seen either in the
// queue or in exactly one node, until qrn_evq_dispatch_thread_ev_done().
//
// No lock is held while a callback runs. What an event opened is closed by guards, on every way out: a
// callback that throws leaves the call as it was thrown, with the same accounts as a -1.
//
// A deadline is looked at before each take, on the wall clock that steps of the system clock do not
// move; the wait for an event is bounded by the same moment on the monotonic clock.

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <utility>

#include "kfx.h"
#include "kfxlog.h"
#include "qrnerr.h"
#include "qrnev_account.h"
#include "qrnev_append.h"
#include "qrnev_deliver.h"
#include "qrnev_record.h"
#include "qrnev_track.h"
#include "qrnprobe.h"
#include "qrntime.h"

using namespace qrnev;

// --- Statistics ----------------------------------------------------------------------------------

namespace {

// Two threads that add a sample at the same moment may lose one; no figure is ever torn.
void feed(kfx_hrtime_ivl_t sample, kfx_hrtime_ivl_t *min, kfx_hrtime_ivl_t *mean,
          kfx_hrtime_ivl_t *max)
{
    if (sample < kfx::load(*min))
        kfx::store(*min, sample);
    if (sample > kfx::load(*max))
        kfx::store(*max, sample);
    kfx_hrtime_ivl_t old = kfx::load(*mean);
    double weighted = 0.9 * static_cast<double>(old) + 0.1 * static_cast<double>(sample);
    kfx::store(*mean, old == 0 ? sample : static_cast<kfx_hrtime_ivl_t>(weighted));
}

} // namespace

void qrnev::add_sample(qrn_event_queue_t *evq, const triple &t, kfx_hrtime_ivl_t sample)
{
    feed(sample, &(evq->*t.min), &(evq->*t.mean), &(evq->*t.max));
}

void qrn_evq_update_svc_time(const kfx_hrtime_t *start, const kfx_hrtime_t *end,
                             kfx_hrtime_ivl_t *svc_min, kfx_hrtime_ivl_t *svc_mean,
                             kfx_hrtime_ivl_t *svc_max)
{
    kfx_hrtime_ivl_t svctime;
    kfx_hrtime_delta(start, end, &svctime);
    feed(svctime, svc_min, svc_mean, svc_max);
}

// --- Before the delivery -------------------------------------------------------------------------

namespace {

void age(qrn_event_queue_t *evq, const qrn_event_t *ev, const kfx_hrtime_t &taken)
{
    if (was_stamped(ev))
        qrn_evq_update_svc_time(&ev->enqtv, &taken, &(evq->*ages.min), &(evq->*ages.mean),
                                &(evq->*ages.max));
}

// Takes the event off the size counter and returns the size before that.
long leave_size(qrn_event_queue_t *evq, const qrn_event_t *ev)
{
    if (was_sized(ev, sizes_events(evq)))
        return kfx::sub(evq->qsz, size_of(ev));
    return kfx::load(evq->qsz);
}

// How long the event waited, in microseconds; 0 when nobody knows.
qrn_ulong_t waited(const qrn_event_t *ev, const kfx_hrtime_t &taken)
{
    qrn_ulong_t usec = 0;
    if (was_stamped(ev)) {
        kfx_hrtime_ivl_t ivl;
        kfx_hrtime_delta(&ev->enqtv, &taken, &ivl);
        kfx_hrtime_delta_usec(&ivl, &usec);
    }
    return usec;
}

// Tells the monitor callback of a queue that is too long and of an event that waited too long.
void warn(qrn_event_queue_t *evq, const qrn_event_t *ev, const kfx_hrtime_t &taken, long size)
{
    int report = 0;
    size_t sz = 0;
    qrn_ulong_t delay = 0;
    if (size_t limit = kfx::load(evq->attr->q_sz_warn); limit != 0) {
        sz = static_cast<size_t>(size);
        if (sz > limit)
            report |= QRN_EVQ_MON_SIZE_WARNING;
    }
    if (qrn_ulong_t limit = kfx::load(evq->attr->q_delay_warn); limit != 0) {
        delay = waited(ev, taken);
        if (delay > limit)
            report |= QRN_EVQ_MON_DELAY_WARNING;
    }
    if (report == 0 || is_shut_down(evq))
        return;
    if ((report & QRN_EVQ_MON_SIZE_WARNING) != 0)
        kfx::add(evq->size_warnings, 1);
    if ((report & QRN_EVQ_MON_DELAY_WARNING) != 0)
        kfx::add(evq->delay_warnings, 1);
    evq->monproc(evq, report, sz, delay, evq->clientd);
}

// Closes the accounts of an event whose delivery did not begin, because a warning threw.
class [[nodiscard]] undelivered_guard {
public:
    undelivered_guard(qrn_event_queue_t *evq, qrn_event_t *ev) : evq_(evq), ev_(ev) {}
    ~undelivered_guard()
    {
        if (ev_ == nullptr)
            return;
        count_out(evq_, ev_);
        if (ev_->type == QRN_EVQ_MSG_BUNDLE_TYPE)
            release_bundle(ev_);
        else
            release_undelivered(ev_);
    }
    void dismiss() { ev_ = nullptr; }
    undelivered_guard(const undelivered_guard &) = delete;
    undelivered_guard &operator=(const undelivered_guard &) = delete;

private:
    qrn_event_queue_t *evq_;
    qrn_event_t *ev_;
};

// For queues with options that ask for it; apart, so that the loop stays short without them.
[[gnu::noinline]] void age_and_warn(qrn_event_queue_t *evq, qrn_event_t *ev, bool aged)
{
    undelivered_guard guard(evq, ev);
    kfx_hrtime_t taken;
    if (aged || evq->monproc != nullptr)
        kfx_hrtime_timestamp(&taken);
    if (aged)
        age(evq, ev, taken);
    long size = leave_size(evq, ev);
    if (evq->monproc != nullptr)
        warn(evq, ev, taken, size);
    guard.dismiss();
}

void age_and_warn(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    bool aged = kfx::load(evq->attr->q_age) != 0;
    if (aged || evq->monproc != nullptr || was_sized(ev, false)) [[unlikely]]
        age_and_warn(evq, ev, aged);
}

int deliver(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    switch (ev->type) {
    case QRN_EVQ_MSG_TYPE:
        return deliver_msg(evq, ev);
    case QRN_EVQ_TIMER_TYPE:
        return deliver_timer(evq, ev);
    case QRN_EVQ_IO_TYPE:
        return deliver_io(evq, ev);
    case QRN_EVQ_SRC_TYPE:
        return deliver_src(evq, ev);
    case QRN_EVQ_REQUEST_TYPE:
        return deliver_request(evq, ev);
    case QRN_EVQ_UNBLOCK_TYPE:
        return deliver_unblock(evq, ev);
    case QRN_EVQ_IMSG_TYPE:
        return deliver_imsg(evq, ev);
    case QRN_EVQ_WRCV_MSG_TYPE:
        return deliver_wrcv_msg(evq, ev);
    case QRN_EVQ_CANCEL_TYPE:
        return deliver_cancel(evq, ev);
    case QRN_EVQ_CTX_SRC_TYPE:
        return deliver_ctx_src(evq, ev);
    case QRN_EVQ_CALLBACK_TYPE:
        return deliver_callback(evq, ev);
    case QRN_EVQ_MSG_BUNDLE_TYPE:
        return deliver_bundle(evq, ev);
    default:
        return deliver_unknown(ev);
    }
}

// --- The loop ------------------------------------------------------------------------------------

// The registration of this thread; nothing on a queue that does not track its threads.
class [[nodiscard]] registration {
public:
    explicit registration(qrn_event_queue_t *evq)
        : evq_(evq), node_(tracks_threads(evq) ? qrn_evq_add_dispatch_thread(evq) : nullptr),
          info_{evq, node_}, hook_{qrn_evq_dequeue_cb_func, &info_}
    {
    }
    ~registration() { end(); }
    registration(const registration &) = delete;
    registration &operator=(const registration &) = delete;

    int end()
    {
        qrn_evq_dispatch_thrd_node_t *node = std::exchange(node_, nullptr);
        return node != nullptr ? qrn_evq_rem_dispatch_thread(evq_, node) : 0;
    }

    qrn_evq_dispatch_thrd_node_t *node() const { return node_; }
    qrn_tl_queue_dequeue_cb_info_t *hook() { return node_ != nullptr ? &hook_ : nullptr; }

private:
    qrn_event_queue_t *evq_;
    qrn_evq_dispatch_thrd_node_t *node_;
    qrn_evq_cb_info_t info_;
    qrn_tl_queue_dequeue_cb_info_t hook_;
};

// Ends an event that was taken: its share in the registry first, then its record.
class [[nodiscard]] settle_guard {
public:
    settle_guard(qrn_event_queue_t *evq, qrn_evq_dispatch_thrd_node_t *node, qrn_event_t *ev)
        : evq_(evq), node_(node), ev_(ev)
    {
    }
    // The way out with an exception: one from a cancellation callback does not replace it.
    ~settle_guard()
    {
        if (ev_ == nullptr)
            return;
        try {
            finish();
        } catch (...) { // NOLINT(bugprone-empty-catch)
        }
        free_released_bundle(ev_);
        qrn_event_delete(ev_);
    }
    settle_guard(const settle_guard &) = delete;
    settle_guard &operator=(const settle_guard &) = delete;

    // The way on: the result of the registry's part. In full flow the record is used again.
    int settle(bool in_flow)
    {
        int result = finish();
        qrn_event_t *ev = std::exchange(ev_, nullptr);
        free_released_bundle(ev);
        if (in_flow) {
            release_owned(ev, 0);
            put_record(ev);
        } else {
            qrn_event_delete(ev);
        }
        return result;
    }

private:
    int finish()
    {
        qrn_evq_dispatch_thrd_node_t *node = std::exchange(node_, nullptr);
        return node != nullptr ? qrn_evq_dispatch_thread_ev_done(evq_, node) : 0;
    }

    qrn_event_queue_t *evq_;
    qrn_evq_dispatch_thrd_node_t *node_;
    qrn_event_t *ev_;
};

// When a dispatch call ends.
class deadline {
public:
    deadline(const qrn_event_queue_t *evq, qrn_ulong_t tmo)
    {
        kfx_current_tv(&end_);
        clock_gettime(CLOCK_MONOTONIC, &wait_end_);
        end_.tv_sec += static_cast<time_t>(tmo / 1000);
        end_.tv_usec += static_cast<suseconds_t>(tmo % 1000 * 1000);
        qrn_timer_normalize_tv(&end_);
        KFX_TRACE(KFX_DBG_EVENT, "event_dispatch %p tmo @c %u -> endtv %u %u\n",
                  static_cast<const void *>(evq), static_cast<unsigned>(tmo),
                  static_cast<unsigned>(end_.tv_sec), static_cast<unsigned>(end_.tv_usec));
        set_wait_end(tmo);
    }

    bool has_passed() const
    {
        struct timeval now;
        kfx_current_tv(&now);
        return now.tv_sec > end_.tv_sec ||
               (now.tv_sec == end_.tv_sec && now.tv_usec > end_.tv_usec);
    }

    // A moment later than the deadline by the clock's grain, so that a wait that ended is the last.
    const struct timespec *wait_end() const { return &wait_end_; }

private:
    void set_wait_end(qrn_ulong_t tmo)
    {
        wait_end_.tv_sec += static_cast<time_t>(tmo / 1000);
        wait_end_.tv_nsec += static_cast<long>(tmo % 1000 * 1000000 + 1000);
        if (wait_end_.tv_nsec >= 1000000000) {
            wait_end_.tv_nsec -= 1000000000;
            ++wait_end_.tv_sec;
        }
    }

    struct timeval end_;
    struct timespec wait_end_;
};

// What a dispatch call is made of: the ways to take the next event differ, all else does not.
class dispatcher {
public:
    explicit dispatcher(qrn_event_queue_t *evq) : evq_(evq), thread_(evq) {}

    // Processes at most one event.
    int poll()
    {
        void *ev = nullptr;
        while (qrn_tl_queue_dequeue_ex(evq_->q, &ev, 0, thread_.hook()) == -1)
            ;
        if (ev != nullptr)
            process_one(ev);
        return leave();
    }

    int run()
    {
        while (!ended_) {
            void *ev = nullptr;
            if (qrn_tl_queue_dequeue_ex(evq_->q, &ev, 1, thread_.hook()) != -1)
                process_one(ev);
        }
        return leave();
    }

    int run_until(const deadline &end)
    {
        while (!ended_ && !end.has_passed()) {
            void *ev = nullptr;
            if (qrn_tl_queue_dequeue_timed(evq_->q, &ev, thread_.hook(), end.wait_end()) != -1)
                process_one(ev);
        }
        return leave();
    }

private:
    void process_one(void *value)
    {
        KFX_CHECK(value != nullptr, "ev!=NULL");
        if (value == nullptr)
            return;
        auto *ev = static_cast<qrn_event_t *>(value);
        settle_guard event(evq_, thread_.node(), ev);
        probe::take(evq_, ev, ev->type);
        age_and_warn(evq_, ev);
        int result = deliver(evq_, ev);
        probe::delivered(evq_, ev, ev->type, result);
        failed_ = result == -1;
        ended_ = failed_ || ev->type == QRN_EVQ_UNBLOCK_TYPE;
        if (event.settle(events_ >= full_flow) == -1) [[unlikely]]
            failed_ = ended_ = true;
        ++events_;
    }

    // A call that has processed so many events is in full flow.
    static constexpr long full_flow = 32;
    static constexpr long most = INT_MAX;

    // Ends the registration, then the call: its result.
    int leave()
    {
        failed_ = thread_.end() == -1 || failed_;
        return failed_ ? -1 : static_cast<int>(std::min(events_, most));
    }

    qrn_event_queue_t *evq_;
    registration thread_;
    long events_ = 0;     // more than an int in a call that goes on for long
    bool failed_ = false; // a callback or the registry returned -1
    bool ended_ = false;
};

} // namespace

int qrn_event_dispatch(qrn_event_queue_t *evq, qrn_ulong_t tmo)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_dispatch] evq[%p] tmo[%lu]\n", static_cast<void *>(evq),
              tmo);
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-389: evq must be valid");
        return -1;
    }
    dispatcher call(evq);
    if (tmo == QRN_EVQ_DISPATCH_POLL)
        return call.poll();
    if (tmo == QRN_EVQ_DISPATCH_BLOCK)
        return call.run();
    return call.run_until(deadline(evq, tmo));
}

int qrn_event_dispatch_unblock(qrn_event_queue_t *evq)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_dispatch_unblock] evq[%p]\n", static_cast<void *>(evq));
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-398: evq must be valid");
        return -1;
    }
    qrn_event_t *ev = make_event(evq, QRN_EVQ_UNBLOCK_TYPE, nullptr);
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq UNBLOCK\n", static_cast<void *>(evq));
    return append(ev);
}
