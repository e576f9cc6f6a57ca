// SPDX-License-Identifier: Apache-2.0
//
// One delivery step a type. They run on the dispatching thread, which alone owns the event, with no
// lock held.
//
// Every step is made of the same guards, declared in the order in which they close last: the count
// goes down after the service time was taken, and that after the message was released. Guards close
// on every way out, so a callback that throws leaves the accounts as one that returns -1.

#include "qrnev_deliver.h"

#include <cstdlib>

#include "kfx.h"
#include "kfxlog.h"
#include "qrnev_account.h"
#include "qrnev_track.h"
#include "qrnobj.h"
#include "qrnprobe.h"

namespace qrnev {

namespace {

void *ptr(const void *object)
{
    return const_cast<void *>(object);
}

// Takes the event off the current counts.
class [[nodiscard]] count_guard {
public:
    count_guard(qrn_event_queue_t *evq, const qrn_event_t *ev) : evq_(evq), ev_(ev) {}
    ~count_guard() { count_out(evq_, ev_); }
    count_guard(const count_guard &) = delete;
    count_guard &operator=(const count_guard &) = delete;

private:
    qrn_event_queue_t *evq_;
    const qrn_event_t *ev_;
};

// Measures a service time, when the option is set as it begins.
class service_clock {
public:
    explicit service_clock(const qrn_event_queue_t *evq)
        : runs_(kfx::load(evq->attr->q_svc_time) != 0)
    {
        if (runs_) [[unlikely]]
            kfx_hrtime_timestamp(&start_);
    }

    bool runs() const { return runs_; }
    const kfx_hrtime_t &start() const { return start_; }

private:
    bool runs_;
    kfx_hrtime_t start_;
};

// Measures the service time of one event into its group.
class [[nodiscard]] service_guard {
public:
    service_guard(qrn_event_queue_t *evq, group_id id) : evq_(evq), id_(id), clock_(evq) {}
    ~service_guard()
    {
        if (clock_.runs()) [[unlikely]]
            measure();
    }
    service_guard(const service_guard &) = delete;
    service_guard &operator=(const service_guard &) = delete;

private:
    [[gnu::noinline]] void measure() const
    {
        kfx_hrtime_t end;
        kfx_hrtime_timestamp(&end);
        const triple &t = groups[id_].svc;
        qrn_evq_update_svc_time(&clock_.start(), &end, &(evq_->*t.min), &(evq_->*t.mean),
                                &(evq_->*t.max));
    }

    qrn_event_queue_t *evq_;
    group_id id_;
    service_clock clock_;
};

// Releases the queue's reference to a message.
class [[nodiscard]] message_guard {
public:
    explicit message_guard(qrn_msg_t *msg) : msg_(msg) {}
    ~message_guard() { qrn_msg_delete(msg_); }
    message_guard(const message_guard &) = delete;
    message_guard &operator=(const message_guard &) = delete;

private:
    qrn_msg_t *msg_;
};

// --- Events that carry a message -----------------------------------------------------------------

bool is_sampled(const qrn_msg_t *msg, int one_in)
{
    if (one_in == 0 || msg->sequence_number % static_cast<qrn_uint_t>(one_in) != 0)
        return false;
    return msg->type == 0 || msg->type == 2 || msg->type == 3;
}

// A message may be with several dispatching threads, and its stamps are written by each: in halves, each
// of them whole.
void copy_stamp(const kfx_hrtime_t &from, kfx_hrtime_t &to)
{
    kfx::store(to.tv.tv_sec, kfx::load(from.tv.tv_sec));
    kfx::store(to.tv.tv_usec, kfx::load(from.tv.tv_usec));
}

// Marks the message as one that carries stamps; whether this thread is the first to do so.
bool begin_stamps(qrn_msg_t *msg)
{
    int flags = kfx::load(msg->flags);
    while ((flags & QRN_MSG_TIMESTAMPS_FIELD) == 0) {
        if (kfx::compare_exchange(msg->flags, flags, flags | QRN_MSG_TIMESTAMPS_FIELD,
                                  std::memory_order_relaxed))
            return true;
    }
    return false;
}

// Stamps a sampled message for the measurement of delivery latency.
void stamp_latency(const qrn_context_t *ctx, qrn_msg_t *msg)
{
    constexpr uint64_t stamp_pre_callback = 2;
    if (ctx == nullptr || !is_sampled(msg, ctx->attr.rcv_delivery_latency))
        return;
    bool first = begin_stamps(msg);
    auto *field = static_cast<qrn_msg_timestamps_t *>(
        qrn_msg_retrieve_internal_field_ptr(msg, QRN_MSG_TIMESTAMPS_FIELD));
    if (first)
        copy_stamp(ctx->fdm->fd_wakeup_ts, field->fd_wakeup_ts);
    if ((ctx->attr.timestamp_mask & stamp_pre_callback) != 0) {
        kfx_hrtime_t now{};
        kfx_hrtime_timestamp(&now);
        copy_stamp(now, field->msg_pre_callback_ts);
    }
}

// The frame of the four: `target` holds the defunct flag of what the message is for, if anything.
template <class Call>
int deliver_message(qrn_event_queue_t *evq, qrn_event_t *ev, group_id id, qrn_msg_t *msg,
                    const int *target, Call call)
{
    count_guard count(evq, ev);
    service_guard service(evq, id);
    message_guard message(msg);
    if ((target != nullptr && kfx::load(*target) != 0) || is_shut_down(evq))
        return 0;
    stamp_latency(ev->ctx, msg);
    return call();
}

} // namespace

int deliver_msg(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    const qrn_event_msg_t &m = ev->info.msg;
    KFX_ASSERT(m.proc != nullptr, "ev->info.msg.proc!=NULL");
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch MSG rcv %p msg %p x %d\n", ptr(evq), ptr(m.rcv),
              ptr(m.msg), kfx::load(m.rcv->defunct));
    return deliver_message(evq, ev, data_group, m.msg, &m.rcv->defunct,
                           [&] { return m.proc(m.rcv, m.msg, m.clientd); });
}

int deliver_wrcv_msg(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    const qrn_event_wrcv_msg_t &m = ev->info.wrcv_msg;
    KFX_ASSERT(m.proc != nullptr, "ev->info.wrcv_msg.proc!=NULL");
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch WRCV MSG rcv %p msg %p x %d\n", ptr(evq), ptr(m.wrcv),
              ptr(m.msg), kfx::load(m.wrcv->defunct));
    return deliver_message(evq, ev, wrcv_group, m.msg, &m.wrcv->defunct,
                           [&] { return m.proc(nullptr, m.msg, m.clientd); });
}

int deliver_request(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    const qrn_event_request_t &m = ev->info.req;
    KFX_ASSERT(m.proc != nullptr, "ev->info.req.proc!=NULL");
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch REQUEST req %p msg %p x %d\n", ptr(evq), ptr(m.req),
              ptr(m.msg), kfx::load(m.req->defunct));
    return deliver_message(evq, ev, resp_group, m.msg, &m.req->defunct,
                           [&] { return m.proc(m.req, m.msg, m.clientd); });
}

int deliver_imsg(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    const qrn_event_imsg_t &m = ev->info.imsg;
    KFX_ASSERT(m.proc != nullptr, "ev->info.imsg.proc!=NULL");
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch DIRECTED MSG ctx %p msg %p\n", ptr(evq), ptr(ev->ctx),
              ptr(m.msg));
    return deliver_message(evq, ev, imsg_group, m.msg, nullptr,
                           [&] { return m.proc(ev->ctx, m.msg, m.clientd); });
}

// --- Bundles -------------------------------------------------------------------------------------

namespace {

// Releases, as undelivered, what the batch callback left in the bundle.
class [[nodiscard]] bundle_guard {
public:
    explicit bundle_guard(qrn_event_t *ev) : ev_(ev) {}
    ~bundle_guard() { release_bundle(ev_); }
    bundle_guard(const bundle_guard &) = delete;
    bundle_guard &operator=(const bundle_guard &) = delete;

private:
    qrn_event_t *ev_;
};

// Splits the service time between the two kinds of message, in proportion to their counts.
class [[nodiscard]] bundle_service_guard {
public:
    bundle_service_guard(qrn_event_queue_t *evq, const qrn_event_bundle_t *bundle)
        : evq_(evq), bundle_(bundle), clock_(evq)
    {
    }
    ~bundle_service_guard()
    {
        if (!clock_.runs())
            return;
        kfx_hrtime_t end;
        kfx_hrtime_timestamp(&end);
        kfx_hrtime_ivl_t svctime;
        kfx_hrtime_delta(&clock_.start(), &end, &svctime);
        split(svctime);
    }
    bundle_service_guard(const bundle_service_guard &) = delete;
    bundle_service_guard &operator=(const bundle_service_guard &) = delete;

private:
    void split(kfx_hrtime_ivl_t svctime) const
    {
        auto data = static_cast<kfx_hrtime_ivl_t>(bundle_->data_msgs);
        auto wrcv = static_cast<kfx_hrtime_ivl_t>(bundle_->wrcv_msgs);
        if (data + wrcv == 0)
            return;
        kfx_hrtime_ivl_t data_svctime = data * svctime / (data + wrcv);
        if (data != 0)
            add_sample(evq_, groups[data_group].svc, data_svctime / data);
        if (wrcv != 0)
            add_sample(evq_, groups[wrcv_group].svc, (svctime - data_svctime) / wrcv);
    }

    qrn_event_queue_t *evq_;
    const qrn_event_bundle_t *bundle_;
    service_clock clock_;
};

} // namespace

int deliver_bundle(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    qrn_event_bundle_t *bundle = ev->info.msg_bundle;
    KFX_ASSERT(bundle != nullptr, "bundle!=NULL");
    KFX_ASSERT(ev->ctx != nullptr, "ev->ctx!=NULL");
    KFX_ASSERT(ev->ctx->rcv_delivery_batching_cb != nullptr,
               "ev->ctx->rcv_delivery_batching_cb!=NULL");
    bundle_guard messages(ev);
    count_guard count(evq, ev);
    bundle_service_guard service(evq, bundle);
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch EVENT BUNDLE %p [%d events]\n", ptr(evq), ptr(bundle),
              bundle->num_events);
    ev->ctx->rcv_delivery_batching_cb(bundle, ev->ctx->rcv_delivery_batching_clientd);
    return 0;
}

// --- Events without a message --------------------------------------------------------------------

namespace {

bool is_cancelled(const qrn_timer_t *timer, int id)
{
    if (timer == nullptr || timer->hp == nullptr || timer->hp->xmap == nullptr)
        return false;
    uint32_t word = kfx::load(timer->hp->xmap[QRN_TIMER_XMAP_WORD(id)], std::memory_order_acquire);
    return (word >> (static_cast<unsigned>(id) % 32) & 1) != 0;
}

// Gives the timer's id back, unless the timer goes on.
class [[nodiscard]] timer_id_guard {
public:
    explicit timer_id_guard(const qrn_event_timer_t &timer) : timer_(timer) {}
    ~timer_id_guard()
    {
        KFX_TRACE(KFX_DBG_EVENT, "timer evq %p freeidx %d\n", ptr(timer_.timer), timer_.id);
        if (timer_.recurring == 0 || is_cancelled(timer_.timer, timer_.id))
            qrn_timer_push_free_id(timer_.timer, timer_.id);
    }
    timer_id_guard(const timer_id_guard &) = delete;
    timer_id_guard &operator=(const timer_id_guard &) = delete;

private:
    const qrn_event_timer_t &timer_;
};

} // namespace

int deliver_timer(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    const qrn_event_timer_t &t = ev->info.timer;
    KFX_ASSERT(t.proc != nullptr, "ev->info.timer.proc!=NULL");
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch TIMER id %u x %d\n", ptr(evq),
              static_cast<unsigned>(t.id), is_cancelled(t.timer, t.id) ? 1 : 0);
    count_guard count(evq, ev);
    timer_id_guard id(t);
    service_guard service(evq, timer_group);
    if (is_cancelled(t.timer, t.id) || is_shut_down(evq))
        return 0;
    return t.proc(ev->ctx, t.clientd);
}

int deliver_io(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    const qrn_event_io_t &io = ev->info.io;
    KFX_ASSERT(io.proc != nullptr, "ev->info.io.proc!=NULL");
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch IO handle %d ev 0x%x\n", ptr(evq), io.handle,
              static_cast<unsigned>(io.ev));
    count_guard count(evq, ev);
    service_guard service(evq, io_group);
    return is_shut_down(evq) ? 0 : io.proc(ev->ctx, io.handle, io.ev, io.clientd);
}

int deliver_src(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    const qrn_event_src_t &s = ev->info.src;
    KFX_ASSERT(s.proc != nullptr, "ev->info.src.proc!=NULL");
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch SRC %p event %d ed %p reclaim %d x %d\n", ptr(evq),
              ptr(s.src), s.event, s.eventd, s.reclaim_ed, kfx::load(s.src->defunct) == 0 ? 1 : 0);
    count_guard count(evq, ev);
    service_guard service(evq, source_group);
    if (kfx::load(s.src->defunct) != 0 || is_shut_down(evq))
        return 0;
    return s.proc(s.src, s.event, s.eventd, s.clientd);
}

int deliver_ctx_src(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    const qrn_event_ctx_src_t &s = ev->info.ctx_src;
    KFX_ASSERT(s.proc != nullptr, "ev->info.ctx_src.proc!=NULL");
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch CTX SRC %p event %d ed %p reclaim %d x %d\n",
              ptr(evq), ptr(ev->ctx), s.event, s.eventd, s.reclaim_ed, kfx::load(ev->ctx->defunct));
    count_guard count(evq, ev);
    if (kfx::load(ev->ctx->defunct) != 0 || is_shut_down(evq))
        return 0; // without a sample
    service_guard service(evq, ctx_source_group);
    return s.proc(ev->ctx, s.event, s.eventd, s.clientd);
}

// Frees the deleted object, or leaves it to the last thread that is inside an event of it.
int deliver_cancel(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    qrn_event_cancel_t &cancel = ev->info.cancel;
    KFX_ASSERT(cancel.obj != nullptr, "ev->info.cancel.obj!=NULL");
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch CANCEL obj %p\n", ptr(evq), cancel.obj);
    count_guard count(evq, ev);
    cancel.exec_on_delete = 0;
    service_guard service(evq, cancel_group);
    if (qrn_evq_check_obj(evq, ev) == 0) {
        probe::cancelled(cancel.obj, 0);
        std::free(cancel.obj);
        cancel.obj = nullptr;
    }
    return 0;
}

int deliver_callback(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    qrn_event_callback_t &callback = ev->info.callback;
    KFX_ASSERT(callback.proc != nullptr, "ev->info.callback.proc!=NULL");
    KFX_TRACE(KFX_DBG_EVENT, "evq %p dispatch CALLBACK %p proc %p clientd %p\n", ptr(evq), ptr(ev),
              reinterpret_cast<void *>(callback.proc), callback.clientd);
    count_guard count(evq, ev);
    callback.delproc = nullptr;
    service_guard service(evq, callback_group);
    callback.proc(evq, callback.clientd);
    return 0;
}

// Ends the dispatch call that took it; that is the loop's business.
int deliver_unblock(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    count_out(evq, ev);
    return 0;
}

int deliver_unknown(const qrn_event_t *ev)
{
    kfx_logf(KFX_LOG_WARNING, "Core-5688-390: event dispatch - unknown event type (%d)\n",
             ev->type);
    return 0;
}

} // namespace qrnev
