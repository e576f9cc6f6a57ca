// SPDX-License-Identifier: Apache-2.0
//
// Purges: a template event names the object, a compare function recognises its events, a pass over the
// blocking queue removes them.
//
// Messages of receivers may also sit in bundles, which are thinned in place: an entry without a context
// is empty. So receivers are purged by a filter, which releases what it takes out of an event; the purge
// ends the records of the events that it empties. The other objects are purged by removal.
//
// A pass excludes takers, so an event is either removed here or delivered, never both. What the passes
// run - releases, delete procedures, resumed descriptors - may enqueue.

#include "qrnev_purge.h"

#include <cstdlib>

#include "kfx.h"
#include "qrnev_account.h"
#include "qrnev_registry.h"
#include "qrnobj.h"
#include "qrnprobe.h"

using namespace qrnev;

// --- Templates -----------------------------------------------------------------------------------

namespace qrnev {

namespace {

qrn_event_t blank(int type, qrn_context_t *ctx)
{
    qrn_event_t key{};
    key.type = type;
    key.ctx = ctx;
    return key;
}

} // namespace

qrn_event_t rcv_template(qrn_rcv_t *rcv)
{
    qrn_event_t key = blank(QRN_EVQ_MSG_TYPE, rcv->ctx);
    key.info.msg = {rcv, nullptr, rcv->clientd, rcv->proc};
    return key;
}

qrn_event_t wrcv_template(qrn_wildcard_rcv_t *wrcv)
{
    qrn_event_t key = blank(QRN_EVQ_WRCV_MSG_TYPE, wrcv->ctx);
    key.info.wrcv_msg = {wrcv, nullptr, wrcv->cd, wrcv->rcvproc};
    return key;
}

qrn_event_t timer_template(qrn_context_t *ctx, int id)
{
    qrn_event_t key = blank(QRN_EVQ_TIMER_TYPE, ctx);
    key.info.timer.id = id;
    return key;
}

qrn_event_t io_template(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev)
{
    qrn_event_t key = blank(QRN_EVQ_IO_TYPE, ctx);
    key.info.io.handle = handle;
    key.info.io.ev = ev;
    return key;
}

qrn_event_t src_template(qrn_src_t *src)
{
    qrn_event_t key = blank(QRN_EVQ_SRC_TYPE, src->ctx);
    key.info.src = {src, 0, src->clientd, nullptr, 0, src->proc};
    return key;
}

qrn_event_t ctx_src_template(qrn_context_t *ctx)
{
    return blank(QRN_EVQ_CTX_SRC_TYPE, ctx);
}

qrn_event_t req_template(qrn_request_t *req)
{
    qrn_event_t key = blank(QRN_EVQ_REQUEST_TYPE, req->ctx);
    key.info.req = {req, nullptr, req->clientd, req->proc};
    return key;
}

} // namespace qrnev

// --- Compare functions ---------------------------------------------------------------------------

namespace {

// 0 when the queued event has the template's type and `same(queued, template)` holds.
template <class Same>
int compare(const void *buff, const void *in, Same same)
{
    const auto *ev_in_q = static_cast<const qrn_event_t *>(buff);
    const auto *ev_in = static_cast<const qrn_event_t *>(in);
    KFX_ASSERT(ev_in_q != nullptr, "ev_in_q!=NULL");
    KFX_ASSERT(ev_in != nullptr, "ev_in!=NULL");
    return ev_in_q->type == ev_in->type && same(*ev_in_q, *ev_in) ? 0 : 1;
}

using event = qrn_event_t;

// Whether a bundle's entry still carries a message of this type for the template's receiver.
bool is_for(const event &entry, int type, const event &key)
{
    bool carries = entry.type == QRN_EVQ_MSG_TYPE || entry.type == QRN_EVQ_WRCV_MSG_TYPE;
    return entry.ctx != nullptr && carries && entry.type == type &&
           entry.info.msg.rcv == key.info.msg.rcv;
}

} // namespace

int qrn_evq_purge_rcv_cmp(const void *buff, const void *in)
{
    return compare(buff, in,
                   [](const event &q, const event &k) { return q.info.msg.rcv == k.info.msg.rcv; });
}

int qrn_evq_purge_wrcv_cmp(const void *buff, const void *in)
{
    return compare(buff, in, [](const event &q, const event &k) {
        return q.info.wrcv_msg.wrcv == k.info.wrcv_msg.wrcv;
    });
}

int qrn_evq_purge_src_cmp(const void *buff, const void *in)
{
    return compare(buff, in,
                   [](const event &q, const event &k) { return q.info.src.src == k.info.src.src; });
}

int qrn_evq_purge_req_cmp(const void *buff, const void *in)
{
    return compare(buff, in,
                   [](const event &q, const event &k) { return q.info.req.req == k.info.req.req; });
}

int qrn_evq_purge_ctx_src_cmp(const void *buff, const void *in)
{
    return compare(buff, in, [](const event &q, const event &k) { return q.ctx == k.ctx; });
}

int qrn_evq_purge_timer_cmp(const void *buff, const void *in)
{
    return compare(buff, in, [](const event &q, const event &k) {
        return q.ctx == k.ctx && q.info.timer.id == k.info.timer.id;
    });
}

int qrn_evq_purge_io_cmp(const void *buff, const void *in)
{
    return compare(buff, in, [](const event &q, const event &k) {
        return q.ctx == k.ctx && q.info.io.handle == k.info.io.handle &&
               (q.info.io.ev & k.info.io.ev) != 0;
    });
}

int qrn_evq_purge_msg_bundle_cmp(const void *buff, const void *in)
{
    const auto *ev_in_q = static_cast<const qrn_event_t *>(buff);
    const auto *ev_in = static_cast<const qrn_event_t *>(in);
    KFX_ASSERT(ev_in_q != nullptr, "ev_in_q!=NULL");
    KFX_ASSERT(ev_in != nullptr, "ev_in!=NULL");
    const qrn_event_bundle_t *bundle = ev_in_q->info.msg_bundle;
    KFX_ASSERT(bundle != nullptr, "bundle!=NULL");
    for (int i = 0; i < bundle->num_events; ++i) {
        if (is_for(bundle->events[i], ev_in->type, *ev_in))
            return 0;
    }
    return 1;
}

// --- Removal -------------------------------------------------------------------------------------

int qrn_evq_purge_rem(const void *outbuff)
{
    auto *ev = static_cast<qrn_event_t *>(const_cast<void *>(outbuff));
    qrn_event_queue_t *evq = ev->evq;
    probe::purged(evq, ev, ev->type);
    if (ev->type == QRN_EVQ_MSG_TYPE || ev->type == QRN_EVQ_WRCV_MSG_TYPE)
        release_undelivered(ev);
    if (ev->type != QRN_EVQ_MSG_BUNDLE_TYPE)
        count_out(evq, ev);
    bool sized = was_sized(ev, sizes_events(evq));
    qrn_event_delete_ex(ev, 0);
    if (sized)
        kfx::sub(evq->qsz, 1);
    return 0;
}

namespace {

// The removal of a response releases its message too.
int remove_response(const void *outbuff)
{
    release_undelivered(static_cast<const qrn_event_t *>(outbuff));
    return qrn_evq_purge_rem(outbuff);
}

int remove_all(qrn_event_queue_t *evq, qrn_tl_queue_cmp_proc cmp, event key,
               qrn_tl_queue_rem_proc rem = qrn_evq_purge_rem)
{
    return qrn_tl_queue_remove_all(evq->q, cmp, rem, &key);
}

// --- Filters -------------------------------------------------------------------------------------

// What tells the purge of the one kind of receiver from the other.
struct receiver_kind {
    int type;
    group_id group;
    long qrn_event_bundle_t::*carried;
};

constexpr receiver_kind plain = {QRN_EVQ_MSG_TYPE, data_group, &qrn_event_bundle_t::data_msgs};
constexpr receiver_kind wildcard = {QRN_EVQ_WRCV_MSG_TYPE, wrcv_group,
                                    &qrn_event_bundle_t::wrcv_msgs};

// Takes one message that was released off the figures: of the queued event, or of an entry of its bundle.
void count_purged(const event &ev, const receiver_kind &kind)
{
    qrn_event_queue_t *evq = ev.evq;
    probe::purged(evq, &ev, kind.type);
    if (was_counted(evq, &ev))
        kfx::sub(evq->*groups[kind.group].now, 1);
    if (was_sized(&ev, sizes_events(evq)))
        kfx::sub(evq->qsz, 1);
}

// Empties the bundle's entries for the receiver; whether nothing is left and the bundle is gone.
bool thin(const event &ev, const event &key, const receiver_kind &kind)
{
    qrn_event_bundle_t *bundle = ev.info.msg_bundle;
    if (bundle->*kind.carried == 0 || bundle->num_events < 1)
        return false;
    for (int i = 0; i < bundle->num_events; ++i) {
        event &entry = bundle->events[i];
        if (!is_for(entry, kind.type, key))
            continue;
        entry.ctx = nullptr;
        release_undelivered(&entry);
        --(bundle->*kind.carried);
        count_purged(ev, kind);
    }
    if (bundle->data_msgs != 0 || bundle->wrcv_msgs != 0)
        return false;
    qrn_event_bundle_delete(bundle);
    return true;
}

// Takes the messages for the receiver out of a queued event; whether nothing is left of it.
bool filter(const event &ev, const event &key, const receiver_kind &kind)
{
    if (ev.type == QRN_EVQ_MSG_BUNDLE_TYPE)
        return thin(ev, key, kind);
    if (ev.type != kind.type || ev.info.msg.rcv != key.info.msg.rcv)
        return false;
    release_undelivered(&ev);
    count_purged(ev, kind);
    return true;
}

} // namespace

int qrn_evq_purge_rcv_filter(const void *elem, const void *clientd, int *remove)
{
    const auto *ev_in_q = static_cast<const qrn_event_t *>(elem);
    const auto *ev_in = static_cast<const qrn_event_t *>(clientd);
    KFX_ASSERT(ev_in_q != nullptr, "ev_in_q!=NULL");
    KFX_ASSERT(ev_in != nullptr, "ev_in!=NULL");
    KFX_ASSERT(ev_in->type == QRN_EVQ_MSG_TYPE, "ev_in->type==QRN_EVQ_MSG_TYPE");
    *remove = filter(*ev_in_q, *ev_in, plain) ? 1 : 0;
    return 0;
}

int qrn_evq_purge_wrcv_filter(const void *elem, const void *clientd, int *remove)
{
    const auto *ev_in_q = static_cast<const qrn_event_t *>(elem);
    const auto *ev_in = static_cast<const qrn_event_t *>(clientd);
    KFX_ASSERT(ev_in_q != nullptr, "ev_in_q!=NULL");
    KFX_ASSERT(ev_in != nullptr, "ev_in!=NULL");
    KFX_ASSERT(ev_in->type == QRN_EVQ_WRCV_MSG_TYPE, "ev_in->type==QRN_EVQ_WRCV_MSG_TYPE");
    KFX_ASSERT(remove != nullptr, "remove!=NULL");
    *remove = filter(*ev_in_q, *ev_in, wildcard) ? 1 : 0;
    return 0;
}

namespace {

// The same as a pass over a queue runs it; ends the record of an event that was emptied.
template <qrn_tl_queue_filter_proc filter>
int filter_and_end(const void *elem, const void *clientd, int *remove)
{
    filter(elem, clientd, remove);
    if (*remove != 0)
        qrn_event_delete_ex(static_cast<event *>(const_cast<void *>(elem)), 0);
    return 0;
}

template <qrn_tl_queue_filter_proc filter>
int filter_all(qrn_event_queue_t *evq, event key)
{
    return qrn_tl_queue_filter_all(evq->q, filter_and_end<filter>, &key);
}

} // namespace

// --- Purges --------------------------------------------------------------------------------------

int qrn_evq_purge_rcv(qrn_event_queue_t *evq, qrn_rcv_t *rcv)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(rcv != nullptr, "rcv!=NULL");
    return filter_all<qrn_evq_purge_rcv_filter>(evq, rcv_template(rcv));
}

int qrn_evq_purge_wrcv(qrn_event_queue_t *evq, qrn_wildcard_rcv_t *wrcv)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(wrcv != nullptr, "wrcv!=NULL");
    return filter_all<qrn_evq_purge_wrcv_filter>(evq, wrcv_template(wrcv));
}

int qrn_evq_purge_timer(qrn_event_queue_t *evq, qrn_context_t *ctx, int id)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(ctx != nullptr, "ctx!=NULL");
    return remove_all(evq, qrn_evq_purge_timer_cmp, timer_template(ctx, id));
}

int qrn_evq_purge_io(qrn_event_queue_t *evq, qrn_context_t *ctx, qrn_handle_t handle,
                     qrn_ulong_t ev)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(ctx != nullptr, "ctx!=NULL");
    return remove_all(evq, qrn_evq_purge_io_cmp, io_template(ctx, handle, ev));
}

int qrn_evq_purge_src(qrn_event_queue_t *evq, qrn_src_t *src)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(src != nullptr, "src!=NULL");
    return remove_all(evq, qrn_evq_purge_src_cmp, src_template(src));
}

int qrn_evq_purge_ctx_src(qrn_event_queue_t *evq, qrn_context_t *ctx)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(ctx != nullptr, "ctx!=NULL");
    return remove_all(evq, qrn_evq_purge_ctx_src_cmp, ctx_src_template(ctx));
}

int qrn_evq_purge_req(qrn_event_queue_t *evq, qrn_request_t *req)
{
    KFX_ASSERT(evq != nullptr, "evq!=NULL");
    KFX_ASSERT(req != nullptr, "req!=NULL");
    return remove_all(evq, qrn_evq_purge_req_cmp, req_template(req), remove_response);
}

int qrn_evq_purge_timer_all(qrn_context_t *ctx, int id)
{
    kfx::lock_guard list(evq_list_lock);
    for (qrn_evq_node_t *node = evq_head; node != nullptr; node = node->next) {
        if (node->q->attr->q_purge_on_close != 0)
            qrn_evq_purge_timer(node->q, ctx, id);
    }
    return 0;
}

int qrn_evq_purge_io_all(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev)
{
    kfx::lock_guard list(evq_list_lock);
    for (qrn_evq_node_t *node = evq_head; node != nullptr; node = node->next)
        qrn_evq_purge_io(node->q, ctx, handle, ev);
    return 0;
}
