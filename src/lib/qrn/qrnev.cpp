// SPDX-License-Identifier: Apache-2.0
//
// Life of a queue: the registry of live queues, creation, shutdown, deletion; the end of an event;
// bundles.
//
// A queue is in the registry from the last step of its creation to the second of its deletion. It runs
// until shutdown sets the flag, which nothing clears. Shutdown may race with enqueues and with
// dispatching threads: every queued event is taken by exactly one of them, through the blocking
// queue. Deletion races with nothing: the caller has ended every other use.
//
// An event is owned by the thread that makes it until the append, by the queue until somebody takes or
// unlinks it, and by that thread until qrn_event_delete_ex(), which ends every event once. Disposal
// does not release messages and bundles, because a delivered event has none left; what is discarded
// undelivered goes through discard() or a purge, which release them first.
//
// Creation makes its parts in owners that release them unless the creation succeeds.

#include "qrnev.h"

#include <cstdlib>
#include <memory>

#include "kfx.h"
#include "kfxlog.h"
#include "qrncfg.h"
#include "qrnerr.h"
#include "qrnev_account.h"
#include "qrnev_record.h"
#include "qrnev_registry.h"
#include "qrnmon.h"
#include "qrnobj.h"

using namespace qrnev;

qrn_evq_node_t *evq_head;
kfx_mutex_t evq_list_lock;

int qrn_evq_init(void)
{
    pthread_mutex_init(&evq_list_lock, nullptr);
    evq_head = nullptr;
    return 0;
}

// --- Events and bundles --------------------------------------------------------------------------

namespace qrnev {

void release_undelivered(qrn_msg_t *msg)
{
    qrn_msg_clr_wqx_cr(msg);
    qrn_msg_delete(msg);
}

void release_undelivered(const qrn_event_t *ev)
{
    if (ev->type == QRN_EVQ_MSG_BUNDLE_TYPE)
        qrn_event_bundle_delete(ev->info.msg_bundle);
    else if (auto message = kind_of(ev->type).message; message != nullptr)
        release_undelivered(message(*ev));
}

namespace {

void release_entries(const qrn_event_bundle_t *bundle)
{
    for (int i = 0; i < bundle->num_events; ++i) {
        const qrn_event_t &entry = bundle->events[i];
        bool carries = entry.type == QRN_EVQ_MSG_TYPE || entry.type == QRN_EVQ_WRCV_MSG_TYPE;
        if (entry.ctx != nullptr && carries)
            release_undelivered(&entry);
    }
}

} // namespace

void free_bundle(qrn_event_bundle_t *bundle)
{
    std::free(bundle->events);
    std::free(bundle);
}

void release_bundle(qrn_event_t *ev)
{
    release_entries(ev->info.msg_bundle);
    ev->marks |= mark_released;
}

} // namespace qrnev

namespace {

struct free_block {
    void operator()(void *block) const { std::free(block); }
};

// Ends an event that nobody will deliver.
void discard(qrn_event_queue_t *evq, qrn_event_t *ev, int in_evq_delete)
{
    count_out(evq, ev);
    release_undelivered(ev);
    qrn_event_delete_ex(ev, in_evq_delete);
}

} // namespace

void qrnev::release_owned(qrn_event_t *ev, int in_evq_delete)
{
    switch (ev->type) {
    case QRN_EVQ_IO_TYPE:
        if (in_evq_delete == 0)
            qrn_fd_resume(ev->ctx->fdm, ev->info.io.handle, ev->info.io.ev);
        break;
    case QRN_EVQ_SRC_TYPE:
        if (ev->info.src.reclaim_ed != 0)
            std::free(ev->info.src.eventd);
        break;
    case QRN_EVQ_CANCEL_TYPE:
        if (ev->info.cancel.exec_on_delete != 0)
            std::free(ev->info.cancel.obj);
        break;
    case QRN_EVQ_CTX_SRC_TYPE:
        if (ev->info.ctx_src.reclaim_ed != 0)
            std::free(ev->info.ctx_src.eventd);
        break;
    case QRN_EVQ_CALLBACK_TYPE:
        if (in_evq_delete == 0 && ev->info.callback.delproc != nullptr)
            ev->info.callback.delproc(ev->evq, ev->info.callback.clientd);
        break;
    default:
        break;
    }
}

int qrn_event_delete_ex(qrn_event_t *ev, int in_evq_delete)
{
    KFX_ASSERT(ev != nullptr, "ev!=NULL");
    std::unique_ptr<qrn_event_t, free_block> record(ev); // also when a delete procedure throws
    release_owned(ev, in_evq_delete);
    return 0;
}

int qrn_event_delete(qrn_event_t *ev)
{
    return qrn_event_delete_ex(ev, 0);
}

qrn_event_bundle_t *qrn_event_bundle_create(qrn_context_t *ctx)
{
    constexpr int capacity = 32;
    auto *bundle = kfx::alloc<qrn_event_bundle_t>();
    *bundle = {kfx::alloc<qrn_event_t>(capacity), 0, capacity, ctx, 0, 0};
    return bundle;
}

int qrn_event_bundle_delete(qrn_event_bundle_t *bundle)
{
    KFX_ASSERT(bundle != nullptr, "bundle!=NULL");
    release_entries(bundle);
    free_bundle(bundle);
    return 0;
}

// --- Creation ------------------------------------------------------------------------------------

namespace {

struct delete_attr {
    void operator()(qrn_event_queue_attr_t *attr) const { qrn_event_queue_attr_delete(attr); }
};

struct delete_tl_queue {
    void operator()(qrn_tl_queue_t *q) const { qrn_tl_queue_delete(q); }
};

using attr_owner = std::unique_ptr<qrn_event_queue_attr_t, delete_attr>;

attr_owner copy_attr(const qrn_event_queue_attr_t *attr)
{
    qrn_event_queue_attr_t *copy = nullptr;
    if (attr != nullptr)
        qrn_event_queue_attr_dup(&copy, attr);
    else
        qrn_event_queue_attr_create(&copy);
    return attr_owner(copy);
}

void init_queue(qrn_event_queue_t *evq)
{
    evq->thrd_tail.next = &evq->thrd_head;
    evq->thrd_head.prev = &evq->thrd_tail;
    reset_stats(evq);
}

// Whether there is a module for the transport.
bool find_transport(int code, const qrnmon_transport_func_t **module)
{
    switch (code) {
    case QRN_EVQ_MON_TRANSPORT_QRN:
        *module = qrnmon_transport_qrn_module();
        return true;
    case QRN_EVQ_MON_TRANSPORT_QRNSNMP:
        *module = qrnmon_transport_qrnsnmp_module();
        return true;
    default:
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-387: monitor_transport is not supported");
        return false;
    }
}

int start_monitoring(qrn_event_queue_t *evq)
{
    const qrn_event_queue_attr_t *attr = evq->attr;
    const qrnmon_format_func_t *format = qrnmon_format_csv_module();
    evq->automonitor = 1;
    const qrnmon_transport_func_t *transport = nullptr;
    if (!find_transport(attr->mon_transport_module, &transport))
        return -1;
    if (qrn_automon_sctl_create(&evq->mon_sctl, format, nullptr, transport,
                                attr->mon_transport_opts) == -1)
        return -1;
    if (qrnmon_evq_monitor(evq->mon_sctl, evq, attr->mon_appid, attr->mon_interval) == -1) {
        qrn_seterrf(QRN_ERR_MONITOR, "CoreApi-5688-388: automatic monitoring failed [%d] [%s]",
                    qrnmon_errnum(), qrnmon_errmsg());
        qrn_automon_sctl_destroy();
        evq->mon_sctl = nullptr;
        return -1;
    }
    return 0;
}

void stop_monitoring(qrn_event_queue_t *evq)
{
    qrnmon_sctl_t *sctl = kfx::load(evq->mon_sctl);
    if (sctl == nullptr)
        return;
    qrnmon_evq_unmonitor(sctl, evq);
    qrn_automon_sctl_destroy();
    kfx::store(evq->mon_sctl, nullptr);
}

} // namespace

int qrn_event_queue_create(qrn_event_queue_t **evqp, qrn_event_queue_monitor_proc proc,
                           void *clientd, const qrn_event_queue_attr_t *attr)
{
    qrn_do_init_once();
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_create] evqp[%p] proc[%p] clientd[%p] attr[%p]\n",
              static_cast<void *>(evqp), reinterpret_cast<void *>(proc), clientd,
              static_cast<const void *>(attr));
    if (evqp == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-386: evqp must be valid");
        return -1;
    }
    attr_owner copy = copy_attr(attr);
    if (copy == nullptr || qrn_xmlcfg_check_event_queue(copy->evq_name, copy.get()) <= 0)
        return -1;
    *evqp = nullptr;
    std::unique_ptr<qrn_evq_node_t, free_block> node(kfx::alloc<qrn_evq_node_t>());
    std::unique_ptr<qrn_event_queue_t, free_block> evq(kfx::alloc_zeroed<qrn_event_queue_t>());
    std::unique_ptr<qrn_tl_queue_t, delete_tl_queue> q(qrn_tl_queue_create());
    if (q == nullptr)
        return -1;
    evq->q = q.get();
    evq->attr = copy.get();
    evq->monproc = proc;
    evq->clientd = clientd;
    init_queue(evq.get());
    if (copy->mon_interval != 0 && start_monitoring(evq.get()) == -1)
        return -1;
    pthread_mutex_init(&evq->cancel_cb_lock, nullptr);
    {
        kfx::lock_guard list(evq_list_lock);
        *node = {evq.get(), evq_head};
        *evqp = evq.get();
        evq_head = node.release();
    }
    copy.release();
    q.release();
    evq.release();
    KFX_TRACE(KFX_DBG_LIFE, "#a#Cob#con qrn_event_queue_t %p\n", static_cast<void *>(*evqp));
    return 0;
}

// --- Shutdown and deletion -----------------------------------------------------------------------

namespace {

// Takes the first event without waiting; null when another thread got it.
qrn_event_t *take_event(qrn_event_queue_t *evq)
{
    void *value = nullptr;
    qrn_tl_queue_dequeue(evq->q, &value, 0);
    return static_cast<qrn_event_t *>(value);
}

void unregister(qrn_event_queue_t *evq)
{
    bool was_last = false;
    {
        kfx::lock_guard list(evq_list_lock);
        for (qrn_evq_node_t **link = &evq_head; *link != nullptr; link = &(*link)->next) {
            if ((*link)->q != evq)
                continue;
            qrn_evq_node_t *node = *link;
            *link = node->next;
            std::free(node);
            break;
        }
        was_last = evq_head == nullptr;
    }
    if (was_last)
        trim_records();
}

} // namespace

int qrn_event_queue_shutdown(qrn_event_queue_t *evq)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_shutdown] evq[%p]\n", static_cast<void *>(evq));
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-391: evq must be valid");
        return -1;
    }
    kfx::store(evq->shutdown, 1);
    while (qrn_tl_queue_is_empty(evq->q) == 0) {
        qrn_event_t *ev = take_event(evq);
        if (ev == nullptr)
            continue;
        if (was_sized(ev, kfx::load(evq->attr->q_sz_warn) != 0))
            kfx::sub(evq->qsz, size_of(ev));
        discard(evq, ev, 0);
    }
    KFX_TRACE(KFX_DBG_LIFE, "evq %p shutdown\n", static_cast<void *>(evq));
    return 0;
}

int qrn_event_queue_delete(qrn_event_queue_t *evq)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_delete] evq[%p]\n", static_cast<void *>(evq));
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-392: evq must be valid");
        return -1;
    }
    stop_monitoring(evq);
    unregister(evq);
    while (qrn_tl_queue_is_empty(evq->q) == 0) {
        if (qrn_event_t *ev = take_event(evq); ev != nullptr)
            discard(evq, ev, 1);
    }
    qrn_tl_queue_delete(evq->q);
    pthread_mutex_destroy(&evq->cancel_cb_lock);
    qrn_event_queue_attr_delete(evq->attr);
    KFX_TRACE(KFX_DBG_LIFE, "#a#Cob#des qrn_event_queue_t %p\n", static_cast<void *>(evq));
    std::free(evq);
    return 0;
}
