// SPDX-License-Identifier: Apache-2.0
//
// The registry of dispatching threads, the handshake with a deleting thread, cancellation callbacks.
//
// Each thread inside the dispatch loop has a node that names the event it delivers. A deleting thread
// (or one that dispatches a cancel event) walks the nodes, and where an event refers to the object it
// leaves a record: a callback to make, or an object to free. One record is shared by all the threads
// concerned. Each settles its share when its event is done; the last one acts.
//
// Under `cancel_cb_lock`, always:
//   COUNT  a record's dispatch_thrd_cnt is the number of nodes that hold it; a node holds it once.
//   BUSY   a node holds records only while its `ev` is set.
// The object of a cancel event belongs to the event until it is dispatched, then to the dispatching
// thread, which frees it, or to a record, whose last holder frees it.
//
// The lock is not recursive, and a deferred callback runs under it: with COUNT at 0, the record is out
// of every node, so the callback may enqueue, but not dispatch, purge or cancel on this queue.

#include <cstdlib>
#include <exception>

#include "kfx.h"
#include "kfxlog.h"
#include "qrnev_account.h"
#include "qrnev_purge.h"
#include "qrnobj.h"
#include "qrnprobe.h"

using namespace qrnev;

using node_t = qrn_evq_dispatch_thrd_node_t;

// A further deferred free of a node.
typedef struct qrn_evq_cancel_link_t_stct {
    qrn_evq_cancel_t *info;
    qrn_evq_cancel_link_t_stct *next;
} cancel_link;

// --- Registering ---------------------------------------------------------------------------------

node_t *qrn_evq_add_dispatch_thread(qrn_event_queue_t *evq)
{
    kfx::lock_guard lock(evq->cancel_cb_lock);
    auto *node = kfx::alloc<node_t>();
    *node = {};
    node->next = evq->thrd_tail.next;
    node->prev = &evq->thrd_tail;
    node->next->prev = node;
    evq->thrd_tail.next = node;
    return node;
}

int qrn_evq_rem_dispatch_thread(qrn_event_queue_t *evq, node_t *node)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    kfx::lock_guard lock(evq->cancel_cb_lock);
    KFX_ASSERT(node != nullptr, "node!=NULL");
    KFX_ASSERT(node->next != nullptr, "node->next!=NULL");
    KFX_ASSERT(node->prev != nullptr, "node->prev!=NULL");
    node->prev->next = node->next;
    node->next->prev = node->prev;
    std::free(node);
    return 0;
}

// --- The event of a thread -----------------------------------------------------------------------

void qrn_evq_dequeue_cb_func(void *value, void *clientd)
{
    auto *evq_cb_info = static_cast<qrn_evq_cb_info_t *>(clientd);
    KFX_ASSERT(evq_cb_info != nullptr, "evq_cb_info != NULL");
    KFX_ASSERT(evq_cb_info->evq != nullptr, "evq_cb_info->evq != NULL");
    KFX_ASSERT(evq_cb_info->thrd_node != nullptr, "evq_cb_info->thrd_node != NULL");
    kfx::lock_guard lock(evq_cb_info->evq->cancel_cb_lock);
    evq_cb_info->thrd_node->ev = static_cast<qrn_event_t *>(value);
}

int qrn_evq_dispatch_thread_ev_update(qrn_event_queue_t *evq, node_t *node, qrn_event_t *ev)
{
    KFX_ASSERT(node != nullptr, "node!=NULL");
    node->ev = ev;
    pthread_mutex_unlock(&evq->cancel_cb_lock);
    return 0;
}

namespace {

// Settles a thread's share of a callback record; the last one makes the call.
void settle(qrn_evq_cancel_cb_t *cbinfo)
{
    --cbinfo->dispatch_thrd_cnt;
    KFX_TRACE(KFX_DBG_EVENT, "evq ev_done thrd_cnt %u\n",
              static_cast<unsigned>(cbinfo->dispatch_thrd_cnt));
    if (cbinfo->dispatch_thrd_cnt > 0)
        return;
    qrn_evq_cancel_cb_t call = *cbinfo;
    std::free(cbinfo); // first: what follows may throw
    KFX_ASSERT(call.cbproc != nullptr, "cbinfo->cbproc != NULL");
    KFX_CHECK(call.dispatch_thrd_cnt == 0, "cbinfo->dispatch_thrd_cnt==0");
    probe::cancelled(call.clientd, 1);
    call.cbproc(1, call.clientd);
}

// Settles the callbacks of a node, all of them also when one throws; returns the first exception.
std::exception_ptr settle_callbacks(node_t *node)
{
    std::exception_ptr thrown;
    if (node->cbinfo_queue == nullptr)
        return thrown;
    while (void *record = qrn_queue_dequeue(node->cbinfo_queue)) {
        try {
            settle(static_cast<qrn_evq_cancel_cb_t *>(record));
        } catch (...) {
            if (thrown == nullptr)
                thrown = std::current_exception();
        }
    }
    qrn_queue_delete(node->cbinfo_queue);
    node->cbinfo_queue = nullptr;
    return thrown;
}

// Settles a thread's share of a deferred free, which stands in `node->cancel_info`.
void settle_free(node_t *node)
{
    int left = --node->cancel_info->dispatch_thrd_cnt;
    KFX_TRACE(KFX_DBG_EVENT, "evq cancel ev_done thrd_cnt %u\n", static_cast<unsigned>(left));
    if (left <= 0) {
        KFX_ASSERT(node->cancel_info->obj != nullptr, "node->cancel_info->obj!=NULL");
        KFX_CHECK(left == 0, "node->cancel_info->dispatch_thrd_cnt==0");
        probe::cancelled(node->cancel_info->obj, 1);
        std::free(node->cancel_info->obj);
        std::free(node->cancel_info);
    }
    node->cancel_info = nullptr;
}

void settle_frees(node_t *node)
{
    while (node->cancel_info != nullptr) {
        settle_free(node);
        if (cancel_link *link = node->more_cancels; link != nullptr) {
            node->cancel_info = link->info;
            node->more_cancels = link->next;
            std::free(link);
        }
    }
}

// Settles what is attached to a node, then passes on what a callback threw.
[[gnu::noinline]] void settle_all(node_t *node)
{
    std::exception_ptr thrown = settle_callbacks(node);
    settle_frees(node);
    node->ev = nullptr;
    if (thrown != nullptr)
        std::rethrow_exception(thrown);
}

} // namespace

int qrn_evq_dispatch_thread_ev_done(qrn_event_queue_t *evq, node_t *node)
{
    kfx::lock_guard lock(evq->cancel_cb_lock);
    KFX_ASSERT(node != nullptr, "node!=NULL");
    if (node->cbinfo_queue == nullptr && node->cancel_info == nullptr)
        node->ev = nullptr;
    else
        settle_all(node);
    return 0;
}

// --- Deferred frees ------------------------------------------------------------------------------

namespace {

bool bundle_refers_to(const qrn_event_bundle_t *bundle, const void *obj)
{
    KFX_ASSERT(bundle != nullptr, "bundle!=NULL");
    for (int i = 0; i < bundle->num_events; ++i) {
        const qrn_event_t &entry = bundle->events[i];
        if (entry.ctx == nullptr)
            continue;
        if (entry.type == QRN_EVQ_MSG_TYPE && entry.info.msg.rcv == obj)
            return true;
        if (entry.type == QRN_EVQ_WRCV_MSG_TYPE && entry.info.wrcv_msg.wrcv == obj)
            return true;
    }
    return false;
}

bool refers_to(const qrn_event_t *ev, const void *obj)
{
    switch (ev->type) {
    case QRN_EVQ_MSG_TYPE:
        return ev->info.msg.rcv == obj;
    case QRN_EVQ_WRCV_MSG_TYPE:
        return ev->info.wrcv_msg.wrcv == obj;
    case QRN_EVQ_SRC_TYPE:
        return ev->info.src.src == obj;
    case QRN_EVQ_REQUEST_TYPE:
        return ev->info.req.req == obj;
    case QRN_EVQ_CTX_SRC_TYPE:
        return ev->ctx == obj;
    case QRN_EVQ_MSG_BUNDLE_TYPE:
        return bundle_refers_to(ev->info.msg_bundle, obj);
    default:
        return false;
    }
}

void hold(node_t *node, qrn_evq_cancel_t *record)
{
    if (node->cancel_info == nullptr) {
        node->cancel_info = record;
        return;
    }
    auto *link = kfx::alloc<cancel_link>();
    *link = {record, node->more_cancels};
    node->more_cancels = link;
}

} // namespace

int qrn_evq_check_obj(qrn_event_queue_t *evq, qrn_event_t *ev)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    int matches = 0;
    {
        kfx::lock_guard lock(evq->cancel_cb_lock);
        KFX_ASSERT(ev != nullptr, "ev!=NULL");
        KFX_ASSERT(ev->info.cancel.obj != nullptr, "ev->info.cancel.obj!=NULL");
        qrn_evq_cancel_t *record = nullptr;
        for (node_t *n = evq->thrd_tail.next; n != &evq->thrd_head; n = n->next) {
            if (n->ev == nullptr || !refers_to(n->ev, ev->info.cancel.obj))
                continue;
            if (record == nullptr) {
                record = kfx::alloc<qrn_evq_cancel_t>();
                *record = {0, ev->info.cancel.obj};
            }
            hold(n, record);
            record->dispatch_thrd_cnt = ++matches;
        }
    }
    KFX_TRACE(KFX_DBG_EVENT, "evq_check_obj evq %p ev %p matches %d\n", static_cast<void *>(evq),
              static_cast<void *>(ev), matches);
    return matches;
}

// --- Cancellation callbacks ----------------------------------------------------------------------

namespace {

int hold(node_t *node, qrn_evq_cancel_cb_t *record)
{
    if (node->cbinfo_queue == nullptr)
        node->cbinfo_queue = qrn_queue_create();
    if (node->cbinfo_queue == nullptr || qrn_queue_enqueue(node->cbinfo_queue, record, 0) == -1)
        return -1;
    ++record->dispatch_thrd_cnt;
    return 0;
}

// Attaches the callback to every busy thread for whose event `matches(event)` holds. On failure it
// stays attached to the threads that were reached.
template <class Matches>
int attach(qrn_event_queue_t *evq, const qrn_event_queue_cancel_cb_info_t *info, Matches matches)
{
    qrn_evq_cancel_cb_t *record = nullptr;
    for (node_t *n = evq->thrd_tail.next; n != &evq->thrd_head; n = n->next) {
        if (n->ev == nullptr || !matches(n->ev))
            continue;
        if (record == nullptr) {
            record = kfx::alloc<qrn_evq_cancel_cb_t>();
            *record = {0, info->cbproc, info->clientd};
        }
        if (hold(n, record) == -1) {
            if (record->dispatch_thrd_cnt == 0)
                std::free(record);
            return -1;
        }
    }
    return record != nullptr ? record->dispatch_thrd_cnt : 0;
}

// How the event that a thread delivers is compared with a template; by type code, null is never.
constexpr qrn_tl_queue_cmp_proc compare[last_type + 1] = {
    nullptr,
    qrn_evq_purge_rcv_cmp,
    qrn_evq_purge_timer_cmp,
    qrn_evq_purge_io_cmp,
    qrn_evq_purge_src_cmp,
    qrn_evq_purge_req_cmp,
    nullptr,
    nullptr,
    qrn_evq_purge_wrcv_cmp,
    nullptr,
    qrn_evq_purge_ctx_src_cmp,
    nullptr,
    qrn_evq_purge_msg_bundle_cmp,
};

bool matches_template(const qrn_event_t *ev, const qrn_event_t *key)
{
    bool known = ev->type >= 0 && ev->type <= last_type && compare[ev->type] != nullptr;
    return known && compare[ev->type](ev, key) == 0;
}

} // namespace

int qrn_evq_cancel_thrd_check(qrn_event_queue_t *evq, qrn_event_t *ev,
                              qrn_event_queue_cancel_cb_info_t *incbinfo)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    kfx::lock_guard lock(evq->cancel_cb_lock);
    KFX_ASSERT(ev != nullptr, "ev!=NULL");
    return attach(evq, incbinfo,
                  [ev](const qrn_event_t *now) { return matches_template(now, ev); });
}

int qrn_evq_thrd_enq_all(qrn_event_queue_t *evq, qrn_event_queue_cancel_cb_info_t *cbinfo)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    kfx::lock_guard lock(evq->cancel_cb_lock);
    return attach(evq, cbinfo, [](const qrn_event_t *) { return true; });
}

namespace {

// Makes the callback now, or leaves it to the threads that are busy with the template's object.
int cancel(qrn_event_t key, qrn_event_queue_cancel_cb_info_t *cbinfo)
{
    if (qrn_evq_cancel_thrd_check(cbinfo->event_queue, &key, cbinfo) != 0)
        return 0;
    KFX_ASSERT(cbinfo->cbproc != nullptr, "cbinfo->cbproc!=NULL");
    probe::cancelled(cbinfo->clientd, 0);
    cbinfo->cbproc(0, cbinfo->clientd);
    return 0;
}

void check_enabled(const qrn_event_queue_cancel_cb_info_t *cbinfo)
{
    KFX_CHECK(cbinfo->event_queue->attr->q_cancel_cb != 0,
              "cbinfo->event_queue->attr->q_cancel_cb");
}

} // namespace

int qrn_evq_cancel_cb_rcv(qrn_rcv_t *rcv, qrn_event_queue_cancel_cb_info_t *cbinfo)
{
    KFX_ASSERT(rcv != nullptr, "rcv!=NULL");
    check_enabled(cbinfo);
    return cancel(rcv_template(rcv), cbinfo);
}

int qrn_evq_cancel_cb_wrcv(qrn_wildcard_rcv_t *wrcv, qrn_event_queue_cancel_cb_info_t *cbinfo)
{
    KFX_ASSERT(wrcv != nullptr, "wrcv!=NULL");
    check_enabled(cbinfo);
    return cancel(wrcv_template(wrcv), cbinfo);
}

int qrn_evq_cancel_cb_timer(qrn_context_t *ctx, int id, qrn_event_queue_cancel_cb_info_t *cbinfo)
{
    KFX_ASSERT(ctx != nullptr, "ctx!=NULL");
    check_enabled(cbinfo);
    return cancel(timer_template(ctx, id), cbinfo);
}

int qrn_evq_cancel_cb_io(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev,
                         qrn_event_queue_cancel_cb_info_t *cbinfo)
{
    KFX_ASSERT(ctx != nullptr, "ctx!=NULL");
    check_enabled(cbinfo);
    return cancel(io_template(ctx, handle, ev), cbinfo);
}

int qrn_evq_cancel_cb_src(qrn_src_t *src, qrn_event_queue_cancel_cb_info_t *cbinfo)
{
    KFX_ASSERT(src != nullptr, "src!=NULL");
    check_enabled(cbinfo);
    return cancel(src_template(src), cbinfo);
}

int qrn_evq_cancel_cb_ctx_src(qrn_context_t *ctx, qrn_event_queue_cancel_cb_info_t *cbinfo)
{
    KFX_ASSERT(ctx != nullptr, "ctx!=NULL");
    check_enabled(cbinfo);
    return cancel(ctx_src_template(ctx), cbinfo);
}

int qrn_evq_cancel_cb_req(qrn_request_t *req, qrn_event_queue_cancel_cb_info_t *cbinfo)
{
    KFX_ASSERT(req != nullptr, "req!=NULL");
    check_enabled(cbinfo);
    return cancel(req_template(req), cbinfo);
}
