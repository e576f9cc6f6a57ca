// SPDX-License-Identifier: Apache-2.0
//
// The twelve enqueue operations. Each checks its arguments, declines when the queue is shut down,
// makes one record and hands it to append(); from the append on a dispatching thread may take,
// deliver and dispose of the record at any moment, so nothing touches it again.

#include <cstdlib>

#include "kfx.h"
#include "kfxlog.h"
#include "qrnev_account.h"
#include "qrnev_append.h"
#include "qrnev_record.h"
#include "qrnev_track.h"
#include "qrnobj.h"
#include "qrnprobe.h"

using namespace qrnev;

namespace qrnev {

qrn_event_t *make_event(qrn_event_queue_t *evq, int type, qrn_context_t *ctx)
{
    qrn_event_t *ev = get_record();
    ev->type = type;
    ev->evq = evq;
    ev->ctx = ctx;
    ev->marks = mark_enqueued;
    return ev;
}

namespace {

// Takes back what append() and a suspension did. The payload stays with the caller.
int undo(qrn_event_t *ev)
{
    qrn_event_queue_t *evq = ev->evq;
    if ((ev->marks & mark_counted) != 0)
        for_each_count(ev, [evq](const group &g, long n) {
            kfx::sub(evq->*g.now, n);
            kfx::sub(evq->*g.tot, n);
        });
    if ((ev->marks & mark_sized) != 0)
        kfx::sub(evq->qsz, entering_size(ev));
    if (ev->type == QRN_EVQ_IO_TYPE)
        qrn_fd_resume(ev->ctx->fdm, ev->info.io.handle, ev->info.io.ev);
    std::free(ev);
    return -1;
}

// Once. Apart, since most queues do not count.
[[gnu::noinline]] void count_in(qrn_event_t *ev)
{
    if ((ev->marks & mark_counted) != 0)
        return;
    qrn_event_queue_t *evq = ev->evq;
    ev->marks |= mark_counted;
    for_each_count(ev, [evq](const group &g, long n) {
        kfx::add(evq->*g.now, n);
        kfx::add(evq->*g.tot, n);
    });
}

} // namespace

int append(qrn_event_t *ev)
{
    qrn_event_queue_t *evq = ev->evq;
    if (evq->monproc != nullptr || kfx::load(evq->attr->q_age) != 0) [[unlikely]]
        size_and_stamp(evq, ev, entering_size(ev));
    if (kfx::load(evq->attr->q_count) != 0) [[unlikely]]
        count_in(ev);
    probe::enqueue(evq, ev, ev->type);
    int result = qrn_tl_queue_enqueue(evq->q, ev);
    if (result == -1) [[unlikely]]
        return undo(ev);
    if (evq->monproc != nullptr) [[unlikely]]
        qrn_evq_post_enq_mon_hook(evq);
    return result;
}

} // namespace qrnev

namespace {

void *ptr(const void *object)
{
    return const_cast<void *>(object);
}

template <class Proc>
void *code(Proc proc)
{
    return reinterpret_cast<void *>(proc);
}

} // namespace

int qrn_evq_enq_msg_with_proc(qrn_event_queue_t *evq, qrn_rcv_t *rcv, qrn_rcv_cb_proc proc,
                              qrn_msg_t *msg, void *clientd)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(rcv != nullptr, "rcv!=NULL");
    KFX_ASSERT(msg != nullptr, "msg!=NULL");
    if (is_shut_down(evq))
        return 0;
    qrn_event_t *ev = make_event(evq, QRN_EVQ_MSG_TYPE, rcv->ctx);
    ev->info.msg = {rcv, msg, clientd, proc};
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq MSG rcv %p msg %p proc %p\n", ptr(evq), ptr(rcv), ptr(msg),
              code(proc));
    return append(ev);
}

int qrn_evq_enq_msg_bundle(qrn_event_queue_t *evq, qrn_event_bundle_t *bundle)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(bundle != nullptr, "bundle!=NULL");
    if (is_shut_down(evq))
        return 0;
    qrn_event_t *ev = make_event(evq, QRN_EVQ_MSG_BUNDLE_TYPE, bundle->ctx);
    ev->info.msg_bundle = bundle;
    if (kfx::load(evq->attr->q_count) != 0)
        count_in(ev); // before the trace, unlike other events
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq MSG BUNDLE ctx %p [%d msgs]\n", ptr(evq), ptr(bundle->ctx),
              bundle->num_events);
    return append(ev);
}

int qrn_evq_enq_wrcv_msg(qrn_event_queue_t *evq, qrn_wildcard_rcv_t *wrcv, qrn_msg_t *msg)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(wrcv != nullptr, "wrcv!=NULL");
    KFX_ASSERT(msg != nullptr, "msg!=NULL");
    if (is_shut_down(evq))
        return 0;
    qrn_event_t *ev = make_event(evq, QRN_EVQ_WRCV_MSG_TYPE, wrcv->ctx);
    ev->info.wrcv_msg = {wrcv, msg, wrcv->cd, wrcv->rcvproc};
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq WRCV MSG rcv %p msg %p\n", ptr(evq), ptr(wrcv), ptr(msg));
    return append(ev);
}

int qrn_evq_enq_wrcv_msg_with_proc(qrn_event_queue_t *evq, qrn_wildcard_rcv_t *wrcv,
                                   qrn_rcv_cb_proc proc, qrn_msg_t *msg, void *clientd)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(wrcv != nullptr, "wrcv!=NULL");
    KFX_ASSERT(msg != nullptr, "msg!=NULL");
    if (is_shut_down(evq))
        return 0;
    qrn_event_t *ev = make_event(evq, QRN_EVQ_WRCV_MSG_TYPE, wrcv->ctx);
    ev->info.wrcv_msg = {wrcv, msg, clientd, proc};
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq WRCV MSG rcv %p msg %p proc %p\n", ptr(evq), ptr(wrcv),
              ptr(msg), code(proc));
    return append(ev);
}

int qrn_evq_enq_timer(qrn_event_queue_t *evq, qrn_context_t *ctx, int id, void *clientd,
                      qrn_timer_cb_proc proc, qrn_ulong_t recurring)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(ctx != nullptr, "ctx!=NULL");
    KFX_ASSERT(proc != nullptr, "proc!=NULL");
    if (is_shut_down(evq))
        return 0;
    qrn_event_t *ev = make_event(evq, QRN_EVQ_TIMER_TYPE, ctx);
    ev->info.timer = {clientd, id, ctx->timer, proc, recurring};
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq TIMER id %u\n", ptr(evq), static_cast<unsigned>(id));
    return append(ev);
}

int qrn_evq_enq_io(qrn_event_queue_t *evq, qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev,
                   void *clientd, qrn_fd_cb_proc proc)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(ctx != nullptr, "ctx!=NULL");
    KFX_ASSERT(proc != nullptr, "proc!=NULL");
    if (is_shut_down(evq))
        return 0;
    qrn_event_t *event = make_event(evq, QRN_EVQ_IO_TYPE, ctx);
    event->info.io = {handle, ev, clientd, proc};
    qrn_fd_suspend(ctx->fdm, handle, ev); // until the event's disposal, so it is not queued twice
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq IO handle %d ev 0x%x\n", ptr(evq), handle,
              static_cast<unsigned>(ev));
    return append(event);
}

int qrn_evq_enq_src(qrn_event_queue_t *evq, qrn_src_t *src, int event, void *clientd, void *eventd,
                    int reclaim_ed, qrn_src_cb_proc proc)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(src != nullptr, "src!=NULL");
    KFX_ASSERT(proc != nullptr, "proc!=NULL");
    if (is_shut_down(evq))
        return 0;
    qrn_event_t *ev = make_event(evq, QRN_EVQ_SRC_TYPE, src->ctx);
    ev->info.src = {src, event, clientd, eventd, reclaim_ed, proc};
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq SRC src %p event %d\n", ptr(evq), ptr(src), event);
    return append(ev);
}

int qrn_evq_enq_ctx_src(qrn_event_queue_t *evq, qrn_context_t *ctx, int event, void *clientd,
                        void *eventd, int reclaim_ed, qrn_context_src_cb_proc proc)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(ctx != nullptr, "ctx!=NULL");
    KFX_ASSERT(proc != nullptr, "proc!=NULL");
    if (is_shut_down(evq))
        return 0;
    qrn_event_t *ev = make_event(evq, QRN_EVQ_CTX_SRC_TYPE, ctx);
    ev->info.ctx_src = {event, clientd, eventd, reclaim_ed, proc};
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq CTX SRC ctx %p event %d\n", ptr(evq), ptr(ctx), event);
    return append(ev);
}

int qrn_evq_enq_req(qrn_event_queue_t *evq, qrn_request_t *req, qrn_msg_t *msg)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(req != nullptr, "req!=NULL");
    KFX_ASSERT(msg != nullptr, "msg!=NULL");
    if (is_shut_down(evq))
        return 0;
    qrn_event_t *ev = make_event(evq, QRN_EVQ_REQUEST_TYPE, req->ctx);
    ev->info.req = {req, msg, req->clientd, req->proc};
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq REQUEST req %p msg %p\n", ptr(evq), ptr(req), ptr(msg));
    return append(ev);
}

int qrn_evq_enq_imsg(qrn_event_queue_t *evq, qrn_context_t *ctx, qrn_msg_t *msg, void *clientd,
                     qrn_immediate_msg_cb_proc proc)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(ctx != nullptr, "ctx!=NULL");
    KFX_ASSERT(msg != nullptr, "msg!=NULL");
    if (is_shut_down(evq))
        return 0;
    qrn_event_t *ev = make_event(evq, QRN_EVQ_IMSG_TYPE, ctx);
    ev->info.imsg = {msg, clientd, proc};
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq DIRECTED MSG ctx %p msg %p\n", ptr(evq), ptr(ctx),
              ptr(msg));
    return append(ev);
}

int qrn_evq_enq_cancel(qrn_event_queue_t *evq, qrn_context_t *ctx, void *obj)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    qrn_event_t *ev = make_event(evq, QRN_EVQ_CANCEL_TYPE, ctx);
    ev->info.cancel = {obj, 1};
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq CANCEL %p\n", ptr(evq), obj);
    return append(ev);
}

int qrn_evq_enq_callback(qrn_event_queue_t *evq, qrn_evq_cb_proc proc, qrn_evq_cb_proc delproc,
                         void *clientd)
{
    KFX_ASSERT(evq != nullptr, "evq != NULL");
    qrn_event_t *ev = make_event(evq, QRN_EVQ_CALLBACK_TYPE, nullptr);
    ev->info.callback = {proc, delproc, clientd};
    KFX_TRACE(KFX_DBG_EVENT, "evq %p enq CALLBACK %p proc %p delproc %p clientd %p\n", ptr(evq),
              ptr(ev), code(proc), code(delproc), clientd);
    return append(ev);
}
