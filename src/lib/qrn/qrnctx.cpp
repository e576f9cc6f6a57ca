/* SPDX-License-Identifier: Apache-2.0 */
/* Contexts.
 *
 * One lock a context, `state->lock`. Whoever enqueues looks the object up and enqueues under it; whoever
 * deletes takes the object out of the lookup under it. So once a deletion has released the lock nothing
 * more of the object is enqueued, and what it then does sees all of it: purge, cancellation callback, end
 * of the memory, in this order and without the lock. Under the lock are taken the locks of the timers and
 * of the descriptors (leaves) and, by an append, the queue's tail lock (a leaf); the lock may be taken
 * with a queue's `cancel_cb_lock` held, so nothing that takes that one runs under it.
 *
 * End of the memory. After the purge an object can only be named by events that dispatching threads have
 * already taken.
 *
 * - A queue that tracks its threads shows these events in its registry. When there are none the object is
 *   handed to a cancel event at once. Otherwise that is attached to those threads, and the last one
 *   enqueues the cancel event when it is done. So a cancel event is queued only when nobody uses its
 *   object, and the object may end with it wherever it ends: dispatched, or discarded by a shutdown.
 * - Any other queue knows nothing about them. One thread may just have taken a message and be about to
 *   read the receiver's `defunct` while another one dispatches a cancel event that was queued behind it.
 *   So the object is kept on the context's list of the dead, until the context is deleted.
 *
 * Deletion inside the object's own callback is the case that a dispatching thread has taken an event.
 *
 * A queue that is shut down declines silently: what was to be enqueued is neither taken nor released. So
 * `accepts` looks before, and qrn_ctx_detach() closes the gap between the look and the append. */
#include "qrnctx.h"

#include <fnmatch.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "kfx.h"
#include "kfxlog.h"
#include "qrnerr.h"
#include "qrnev.h"

namespace {

/* A queue that the context knows. */
struct known_queue {
    qrn_event_queue_t *evq;
    bool detached;
    qrn_event_bundle_t *bundle; /* begun; null when there is none */
};

constexpr size_t min_buckets = 64;

} // namespace

/* All of it is guarded by `lock`, but for `stop`, which is atomic. */
struct qrn_ctx_state_t_stct {
    kfx_mutex_t lock;
    pthread_t thread;
    int stop;

    qrn_binding_t **rcvs; /* by hash of the topic; each chain in order of creation */
    size_t num_buckets;
    size_t num_rcvs;
    qrn_binding_t *wrcvs; /* in order of creation */
    qrn_binding_t *srcs;
    qrn_binding_t *requests;
    qrn_binding_t *dead; /* by `next` only */

    known_queue *queues;
    size_t num_queues;

    qrn_event_queue_t *imsg_evq; /* null: not bound */
    qrn_immediate_msg_cb_proc imsg_proc;
    void *imsg_clientd;
    qrn_event_queue_t *src_evq; /* null: not bound */
    qrn_context_src_cb_proc src_proc;
    void *src_clientd;
};

namespace {

using state_t = qrn_ctx_state_t_stct;

int refuse(const char *why)
{
    qrn_seterr(QRN_ERR_INVALID, why);
    return QRN_FAILURE;
}

template <class... Pointers>
bool refused_null(Pointers... args)
{
    return ((args == nullptr) || ...) && refuse("an argument is null") != QRN_OK;
}

/* --- Chains of bindings ------------------------------------------------------------------------ */

/* Behind the last one, so that receivers get a message in the order they were made. */
void append(qrn_binding_t **link, qrn_binding_t *binding)
{
    while (*link != nullptr)
        link = &(*link)->next;
    *link = binding;
    binding->link = link;
    binding->next = nullptr;
}

void prepend(qrn_binding_t **head, qrn_binding_t *binding)
{
    binding->next = *head;
    binding->link = head;
    if (*head != nullptr)
        (*head)->link = &binding->next;
    *head = binding;
}

void unlink(qrn_binding_t *binding)
{
    *binding->link = binding->next;
    if (binding->next != nullptr)
        binding->next->link = binding->link;
}

qrn_binding_t **bucket_of(const state_t &state, std::string_view topic)
{
    return &state.rcvs[std::hash<std::string_view>{}(topic) % state.num_buckets];
}

template <class T>
T *owner_of(const qrn_binding_t *binding)
{
    return static_cast<T *>(binding->owner);
}

void rehash(state_t &state, size_t num_buckets)
{
    qrn_binding_t **old = state.rcvs;
    const size_t num_old = state.num_buckets;
    state.rcvs = kfx::alloc_zeroed<qrn_binding_t *>(num_buckets);
    state.num_buckets = num_buckets;
    for (size_t i = 0; i < num_old; ++i)
        for (qrn_binding_t *binding = old[i]; binding != nullptr;) {
            qrn_binding_t *next = binding->next;
            append(bucket_of(state, owner_of<qrn_rcv_t>(binding)->topic), binding);
            binding = next;
        }
    std::free(old);
}

/* --- What is particular to a kind of object ---------------------------------------------------- */

template <class T>
struct kind {
    int (*purge)(qrn_event_queue_t *evq, T *obj);
    int (*cancel_cb)(T *obj, qrn_event_queue_cancel_cb_info_t *cbinfo);
    void (*name)(qrn_event_t &key, T *obj); /* makes `key` match the object's events */
    void (*link)(state_t &state, T *obj);
};

template <class T>
constexpr kind<T> kind_of = {};

template <>
constexpr kind<qrn_rcv_t> kind_of<qrn_rcv_t> = {
    qrn_evq_purge_rcv,
    qrn_evq_cancel_cb_rcv,
    [](qrn_event_t &key, qrn_rcv_t *rcv) {
        key.type = QRN_EVQ_MSG_TYPE;
        key.info.msg.rcv = rcv;
    },
    [](state_t &state, qrn_rcv_t *rcv) {
        if (state.num_rcvs++ == state.num_buckets)
            rehash(state, state.num_buckets * 2);
        append(bucket_of(state, rcv->topic), &rcv->binding);
    },
};

template <>
constexpr kind<qrn_wildcard_rcv_t> kind_of<qrn_wildcard_rcv_t> = {
    qrn_evq_purge_wrcv,
    qrn_evq_cancel_cb_wrcv,
    [](qrn_event_t &key, qrn_wildcard_rcv_t *wrcv) {
        key.type = QRN_EVQ_WRCV_MSG_TYPE;
        key.info.wrcv_msg.wrcv = wrcv;
    },
    [](state_t &state, qrn_wildcard_rcv_t *wrcv) { append(&state.wrcvs, &wrcv->binding); },
};

template <>
constexpr kind<qrn_src_t> kind_of<qrn_src_t> = {
    qrn_evq_purge_src,
    qrn_evq_cancel_cb_src,
    [](qrn_event_t &key, qrn_src_t *src) {
        key.type = QRN_EVQ_SRC_TYPE;
        key.info.src.src = src;
    },
    [](state_t &state, qrn_src_t *src) { prepend(&state.srcs, &src->binding); },
};

template <>
constexpr kind<qrn_request_t> kind_of<qrn_request_t> = {
    qrn_evq_purge_req,
    qrn_evq_cancel_cb_req,
    [](qrn_event_t &key, qrn_request_t *req) {
        key.type = QRN_EVQ_REQUEST_TYPE;
        key.info.req.req = req;
    },
    [](state_t &state, qrn_request_t *req) { prepend(&state.requests, &req->binding); },
};

/* --- Queues ------------------------------------------------------------------------------------ */

known_queue *find_queue(const state_t &state, const qrn_event_queue_t *evq)
{
    known_queue *end = state.queues + state.num_queues;
    known_queue *found = std::find_if(state.queues, end, [&](auto &q) { return q.evq == evq; });
    return found == end ? nullptr : found;
}

known_queue &learn_queue(state_t &state, qrn_event_queue_t *evq)
{
    if (known_queue *known = find_queue(state, evq); known != nullptr)
        return *known;
    auto *grown = kfx::alloc<known_queue>(state.num_queues + 1);
    std::copy_n(state.queues, state.num_queues, grown);
    std::free(state.queues);
    state.queues = grown;
    state.queues[state.num_queues] = {evq, false, nullptr};
    return state.queues[state.num_queues++];
}

void attach(state_t &state, qrn_event_queue_t *evq)
{
    learn_queue(state, evq).detached = false;
}

/* Whether what is enqueued on the queue now is taken, unless a shutdown comes in between. */
bool accepts(const state_t &state, const qrn_event_queue_t *evq)
{
    const known_queue *known = find_queue(state, evq);
    return known != nullptr && !known->detached && kfx::load(evq->shutdown) == 0;
}

/* Neither option can be set on a live queue, so the answer holds for the queue's life. */
bool tracks_threads(const qrn_event_queue_t *evq)
{
    return evq->attr->q_cancel_cb != 0 || evq->attr->q_purge_on_close == 0;
}

/* --- Bundles that were begun ------------------------------------------------------------------- */

long &count_for(qrn_event_bundle_t &bundle, int type)
{
    return type == QRN_EVQ_MSG_TYPE ? bundle.data_msgs : bundle.wrcv_msgs;
}

/* Enqueues the bundle that was begun, or releases what it holds when the queue takes nothing. */
int send_bundle(known_queue &queue)
{
    qrn_event_bundle_t *bundle = std::exchange(queue.bundle, nullptr);
    if (bundle == nullptr)
        return QRN_OK;
    if (!queue.detached && kfx::load(queue.evq->shutdown) == 0) {
        if (qrn_evq_enq_msg_bundle(queue.evq, bundle) == 0)
            return QRN_OK;
        refuse("a bundle could not be enqueued");
    }
    qrn_event_bundle_delete(bundle);
    return QRN_FAILURE;
}

void add_to_bundle(state_t &state, const qrn_event_t &entry)
{
    known_queue &queue = learn_queue(state, entry.evq);
    if (queue.bundle == nullptr)
        queue.bundle = qrn_event_bundle_create(entry.ctx);
    qrn_event_bundle_t &bundle = *queue.bundle;
    bundle.events[bundle.num_events++] = entry;
    ++count_for(bundle, entry.type);
    if (bundle.num_events == bundle.max_num_events)
        send_bundle(queue);
}

/* Takes the entries that `key` matches out. Closing up keeps the number of entries, by which an enqueue
 * counts, equal to that of the messages. */
void drop_from_bundle(known_queue &queue, const qrn_event_t &key)
{
    qrn_event_bundle_t &bundle = *queue.bundle;
    auto compare = key.type == QRN_EVQ_MSG_TYPE ? qrn_evq_purge_rcv_cmp : qrn_evq_purge_wrcv_cmp;
    qrn_event_t *end = bundle.events + bundle.num_events;
    qrn_event_t *kept = std::remove_if(bundle.events, end, [&](const qrn_event_t &entry) {
        if (compare(&entry, &key) != 0)
            return false;
        qrn_msg_clr_wqx_cr(entry.info.msg.msg);
        qrn_msg_delete(entry.info.msg.msg);
        return true;
    });
    count_for(bundle, key.type) -= end - kept;
    bundle.num_events = static_cast<int>(kept - bundle.events);
    if (bundle.num_events == 0)
        qrn_event_bundle_delete(std::exchange(queue.bundle, nullptr));
}

void drop_from_bundles(state_t &state, const qrn_event_t &key)
{
    if (known_queue *queue = find_queue(state, key.evq); queue != nullptr && queue->bundle)
        drop_from_bundle(*queue, key);
}

/* --- Creation and deletion --------------------------------------------------------------------- */

/* A blank object, followed in its block by a copy of `text`. */
template <class T>
T *make(qrn_context_t *ctx, qrn_event_queue_t *evq, const char *text = nullptr,
        const char *T::*copy = nullptr)
{
    const size_t len = text == nullptr ? 0 : std::strlen(text) + 1;
    char *block = kfx::alloc<char>(sizeof(T) + len);
    auto *obj = new (block) T{};
    obj->ctx = ctx;
    obj->binding = {obj, ctx, evq, nullptr, nullptr};
    if (copy != nullptr)
        obj->*copy = static_cast<char *>(std::memcpy(block + sizeof(T), text, len));
    return obj;
}

template <class T>
int enter(T **out, T *obj)
{
    state_t &state = *obj->ctx->state;
    kfx::lock_guard guard(state.lock);
    attach(state, obj->binding.evq);
    kind_of<T>.link(state, obj);
    *out = obj;
    return QRN_OK;
}

/* Checked before anything changes: a cancellation callback that cannot come would be waited for. */
bool refused_cancel(const qrn_event_queue_t *evq, const qrn_cancel_t *cancel)
{
    if (cancel == nullptr)
        return false;
    if (cancel->cbproc == nullptr)
        return refuse("the cancellation callback is null") != QRN_OK;
    if (evq->attr->q_cancel_cb == 0)
        return refuse("the queue has no cancellation callbacks") != QRN_OK;
    return false;
}

qrn_event_queue_cancel_cb_info_t cancel_on(qrn_event_queue_t *evq, const qrn_cancel_t *cancel)
{
    return {evq, cancel->cbproc, cancel->clientd};
}

/* Ends an object that nobody uses any more. May run with the queue's cancellation lock held. */
void enqueue_end(int, void *clientd)
{
    auto *binding = static_cast<qrn_binding_t *>(clientd);
    void *obj = binding->owner;
    if (qrn_evq_enq_cancel(binding->evq, binding->ctx, obj) != 0)
        std::free(obj);
}

/* Dispatching threads may still read the fields of the object, but none reads the binding. */
void bury(qrn_binding_t *binding)
{
    state_t &state = *binding->ctx->state;
    kfx::lock_guard guard(state.lock);
    binding->next = state.dead;
    state.dead = binding;
}

/* A match attaches enqueue_end to the threads that are inside, and the last of them calls it. */
void end_memory(qrn_binding_t *binding, qrn_event_t &key)
{
    if (!tracks_threads(binding->evq)) {
        bury(binding);
        return;
    }
    qrn_event_queue_cancel_cb_info_t info = {binding->evq, enqueue_end, binding};
    if (qrn_evq_cancel_thrd_check(binding->evq, &key, &info) == 0)
        enqueue_end(0, binding);
}

/* The one way in which receivers, sources and requests end. The order matters: see the top. */
template <class T>
int end(T *obj, const qrn_cancel_t *cancel)
{
    qrn_binding_t *binding = &obj->binding;
    qrn_event_queue_t *evq = binding->evq;
    if (refused_cancel(evq, cancel))
        return QRN_FAILURE;
    qrn_event_t key = {};
    key.evq = evq;
    key.ctx = obj->ctx;
    kind_of<T>.name(key, obj);
    {
        state_t &state = *obj->ctx->state;
        kfx::lock_guard guard(state.lock);
        kfx::store(obj->defunct, 1);
        unlink(binding);
        if constexpr (std::is_same_v<T, qrn_rcv_t>)
            --state.num_rcvs;
        drop_from_bundles(state, key);
    }
    kind_of<T>.purge(evq, obj);
    if (cancel != nullptr) {
        qrn_event_queue_cancel_cb_info_t info = cancel_on(evq, cancel);
        kind_of<T>.cancel_cb(obj, &info);
    }
    end_memory(binding, key);
    return QRN_OK;
}

template <class T>
void end_all(qrn_binding_t *const &head)
{
    while (head != nullptr)
        end(owner_of<T>(head), nullptr);
}

/* --- Removal passes that the queue does not offer ---------------------------------------------- */

struct timer_key {
    qrn_event_t ev;
    int found;
};

int count_timer(const void *item, const void *clientd)
{
    auto *key = static_cast<timer_key *>(const_cast<void *>(clientd));
    const int differs = qrn_evq_purge_timer_cmp(item, &key->ev);
    key->found += differs == 0;
    return differs;
}

/* As qrn_evq_purge_timer(), and tells how many expiries it removed: their ends nobody else reports. */
int purge_timer(qrn_event_queue_t *evq, qrn_context_t *ctx, int id)
{
    timer_key key = {};
    key.ev.type = QRN_EVQ_TIMER_TYPE;
    key.ev.ctx = ctx;
    key.ev.info.timer.id = id;
    qrn_tl_queue_remove_all(evq->q, count_timer, qrn_evq_purge_rem, &key);
    return key.found;
}

/* No purge of the queue covers immediate messages, and its removal leaves their messages alone. */
int is_not_imsg(const void *item, const void *ctx)
{
    const auto *ev = static_cast<const qrn_event_t *>(item);
    return ev->type != QRN_EVQ_IMSG_TYPE || ev->ctx != ctx;
}

int remove_imsg(const void *item)
{
    qrn_msg_t *msg = static_cast<const qrn_event_t *>(item)->info.imsg.msg;
    qrn_msg_clr_wqx_cr(msg);
    qrn_msg_delete(msg);
    return qrn_evq_purge_rem(item);
}

/* --- Messages ---------------------------------------------------------------------------------- */

/* Enqueues by `enqueue()` what holds a reference to the message. */
template <class Enqueue>
int give(const state_t &state, const qrn_event_queue_t *evq, qrn_msg_t *msg, Enqueue enqueue)
{
    if (!accepts(state, evq))
        return QRN_FAILURE;
    qrn_msg_retain(msg);
    if (enqueue() == 0)
        return QRN_OK;
    qrn_msg_delete(msg);
    return QRN_FAILURE;
}

int deliver_to(qrn_rcv_t *rcv, qrn_msg_t *msg)
{
    qrn_event_t entry = {};
    entry.type = QRN_EVQ_MSG_TYPE;
    entry.evq = rcv->binding.evq;
    entry.ctx = rcv->ctx;
    entry.info.msg = {rcv, msg, rcv->clientd, rcv->proc};
    return give(*rcv->ctx->state, entry.evq, msg, [&] {
        if (rcv->ctx->rcv_delivery_batching_cb == nullptr)
            return qrn_evq_enq_msg_with_proc(entry.evq, rcv, rcv->proc, msg, rcv->clientd);
        add_to_bundle(*rcv->ctx->state, entry);
        return 0;
    });
}

int deliver_to(qrn_wildcard_rcv_t *wrcv, qrn_msg_t *msg)
{
    qrn_event_t entry = {};
    entry.type = QRN_EVQ_WRCV_MSG_TYPE;
    entry.evq = wrcv->binding.evq;
    entry.ctx = wrcv->ctx;
    entry.info.wrcv_msg = {wrcv, msg, wrcv->cd, wrcv->rcvproc};
    return give(*wrcv->ctx->state, entry.evq, msg, [&] {
        if (wrcv->ctx->rcv_delivery_batching_cb == nullptr)
            return qrn_evq_enq_wrcv_msg(entry.evq, wrcv, msg);
        add_to_bundle(*wrcv->ctx->state, entry);
        return 0;
    });
}

/* Receivers of other topics share the chain, so the topic is compared too. */
int deliver_by_topic(state_t &state, qrn_msg_t *msg, const char *topic)
{
    int taken = 0;
    for (const qrn_binding_t *b = *bucket_of(state, topic); b != nullptr; b = b->next)
        if (auto *rcv = owner_of<qrn_rcv_t>(b); std::strcmp(rcv->topic, topic) == 0)
            taken += deliver_to(rcv, msg) == QRN_OK;
    for (const qrn_binding_t *b = state.wrcvs; b != nullptr; b = b->next)
        if (auto *wrcv = owner_of<qrn_wildcard_rcv_t>(b); fnmatch(wrcv->pattern, topic, 0) == 0)
            taken += deliver_to(wrcv, msg) == QRN_OK;
    return taken;
}

int deliver_immediate(qrn_context_t *ctx, qrn_msg_t *msg)
{
    state_t &state = *ctx->state;
    if (state.imsg_evq == nullptr)
        return 0;
    return give(state, state.imsg_evq, msg, [&] {
               return qrn_evq_enq_imsg(state.imsg_evq, ctx, msg, state.imsg_clientd,
                                       state.imsg_proc);
           }) == QRN_OK;
}

void run_entry(const qrn_event_t &entry)
{
    if (entry.ctx == nullptr)
        return;
    if (entry.type == QRN_EVQ_MSG_TYPE) {
        const qrn_event_msg_t &to = entry.info.msg;
        if (kfx::load(to.rcv->defunct) == 0)
            to.proc(to.rcv, to.msg, to.clientd);
    } else if (entry.type == QRN_EVQ_WRCV_MSG_TYPE) {
        const qrn_event_wrcv_msg_t &to = entry.info.wrcv_msg;
        if (kfx::load(to.wrcv->defunct) == 0)
            to.proc(nullptr, to.msg, to.clientd);
    }
}

/* --- The thread -------------------------------------------------------------------------------- */

/* Both run under the lock, as part of the context's loop. */
int enqueue_timer(qrn_event_queue_t *evq, qrn_context_t *ctx, int id, void *clientd,
                  qrn_timer_cb_proc proc, qrn_ulong_t recurring)
{
    return accepts(*ctx->state, evq) ? qrn_evq_enq_timer(evq, ctx, id, clientd, proc, recurring)
                                     : 1;
}

int enqueue_io(qrn_event_queue_t *evq, qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev,
               void *clientd, qrn_fd_cb_proc proc)
{
    return accepts(*ctx->state, evq) ? qrn_evq_enq_io(evq, ctx, handle, ev, clientd, proc) : 1;
}

void *run(void *arg)
{
    auto *ctx = static_cast<qrn_context_t *>(arg);
    state_t &state = *ctx->state;
    while (kfx::load(state.stop) == 0) {
        if (qrn_fd_wait(ctx->fdm, qrn_timer_next_msec(ctx->timer)) != 0) {
            kfx_logf(KFX_LOG_ERROR, "context %p ends: %s\n", arg, qrn_errmsg());
            break;
        }
        // From the look for what is due to the append nothing is deleted.
        kfx::lock_guard guard(state.lock);
        qrn_fd_report(ctx->fdm, enqueue_io);
        qrn_timer_expire(ctx->timer, enqueue_timer);
    }
    return nullptr;
}

/* Signals go to the application's threads. */
int start_thread(qrn_context_t *ctx)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int result = pthread_create(&ctx->state->thread, nullptr, run, ctx);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result == 0 ? QRN_OK : refuse("the context's thread could not be started");
}

void stop_thread(qrn_context_t *ctx)
{
    kfx::store(ctx->state->stop, 1);
    qrn_fd_wake(ctx->fdm);
    pthread_join(ctx->state->thread, nullptr);
}

/* --- Contexts ---------------------------------------------------------------------------------- */

state_t *make_state()
{
    auto *state = kfx::alloc_zeroed<state_t>();
    pthread_mutex_init(&state->lock, nullptr);
    rehash(*state, min_buckets);
    return state;
}

void free_context(qrn_context_t *ctx)
{
    state_t *state = ctx->state;
    while (state->dead != nullptr)
        std::free(std::exchange(state->dead, state->dead->next)->owner);
    pthread_mutex_destroy(&state->lock);
    std::free(state->rcvs);
    std::free(state->queues);
    std::free(state);
    if (ctx->fdm != nullptr)
        qrn_fd_delete(ctx->fdm);
    qrn_timer_delete(ctx->timer);
    std::free(ctx);
}

/* Whatever the owner left; each goes the way of an ordinary deletion. */
void end_everything(qrn_context_t *ctx)
{
    state_t &state = *ctx->state;
    for (size_t i = 0; i < state.num_buckets; ++i)
        end_all<qrn_rcv_t>(state.rcvs[i]);
    end_all<qrn_wildcard_rcv_t>(state.wrcvs);
    end_all<qrn_src_t>(state.srcs);
    end_all<qrn_request_t>(state.requests);
    for (int id = -1; (id = qrn_timer_next_id(ctx->timer, id + 1)) >= 0;)
        qrn_ctx_cancel_timer(ctx, id, nullptr);
    qrn_handle_t handle;
    qrn_ulong_t ev;
    while (qrn_fd_any_watch(ctx->fdm, &handle, &ev))
        qrn_ctx_unwatch(ctx, handle, ev, nullptr);
    if (state.imsg_evq != nullptr)
        qrn_ctx_unbind_immediate(ctx);
    if (state.src_evq != nullptr)
        qrn_ctx_unbind_src(ctx, nullptr);
}

} // namespace

extern "C" {

int qrn_ctx_create(qrn_context_t **ctx, const qrn_ctx_attr_t *attr)
{
    if (refused_null(ctx))
        return QRN_FAILURE;
    auto *made = kfx::alloc_zeroed<qrn_context_t>();
    if (attr != nullptr) {
        made->attr.timestamp_mask = attr->timestamp_mask;
        made->attr.rcv_delivery_latency = attr->rcv_delivery_latency;
        made->rcv_delivery_batching_cb = attr->rcv_delivery_batching_cb;
        made->rcv_delivery_batching_clientd = attr->rcv_delivery_batching_clientd;
    }
    made->state = make_state();
    made->timer = qrn_timer_create(made);
    made->fdm = qrn_fd_create(made);
    if (made->fdm == nullptr || start_thread(made) != QRN_OK) {
        free_context(made);
        return QRN_FAILURE;
    }
    *ctx = made;
    return QRN_OK;
}

int qrn_ctx_delete(qrn_context_t *ctx)
{
    if (refused_null(ctx))
        return QRN_FAILURE;
    stop_thread(ctx);
    kfx::store(ctx->defunct, 1);
    end_everything(ctx);
    free_context(ctx);
    return QRN_OK;
}

int qrn_ctx_detach(qrn_context_t *ctx, qrn_event_queue_t *evq)
{
    if (refused_null(ctx, evq))
        return QRN_FAILURE;
    kfx::lock_guard guard(ctx->state->lock);
    known_queue &queue = learn_queue(*ctx->state, evq);
    queue.detached = true;
    if (queue.bundle != nullptr)
        qrn_event_bundle_delete(std::exchange(queue.bundle, nullptr));
    return QRN_OK;
}

int qrn_ctx_watch(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev, qrn_event_queue_t *evq,
                  qrn_fd_cb_proc proc, void *clientd)
{
    if (refused_null(ctx, evq, proc))
        return QRN_FAILURE;
    kfx::lock_guard guard(ctx->state->lock);
    attach(*ctx->state, evq);
    return qrn_fd_watch(ctx->fdm, handle, ev, evq, proc, clientd);
}

int qrn_ctx_unwatch(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev,
                    const qrn_cancel_t *cancel)
{
    if (refused_null(ctx))
        return QRN_FAILURE;
    qrn_event_queue_t *evq;
    {
        kfx::lock_guard guard(ctx->state->lock);
        evq = qrn_fd_watched_on(ctx->fdm, handle, ev);
        if (evq == nullptr || refused_cancel(evq, cancel))
            return QRN_FAILURE;
        qrn_fd_unwatch(ctx->fdm, handle, ev);
    }
    qrn_evq_purge_io(evq, ctx, handle, ev);
    if (cancel != nullptr) {
        qrn_event_queue_cancel_cb_info_t info = cancel_on(evq, cancel);
        qrn_evq_cancel_cb_io(ctx, handle, ev, &info);
    }
    return QRN_OK;
}

int qrn_ctx_schedule(qrn_context_t *ctx, qrn_event_queue_t *evq, qrn_timer_cb_proc proc,
                     void *clientd, qrn_ulong_t delay_msec, qrn_ulong_t period_msec)
{
    if (refused_null(ctx, evq, proc))
        return QRN_FAILURE;
    int first = 0;
    kfx::lock_guard guard(ctx->state->lock);
    attach(*ctx->state, evq);
    const int id =
        qrn_timer_schedule(ctx->timer, evq, proc, clientd, delay_msec, period_msec, &first);
    if (first != 0)
        qrn_fd_wake(ctx->fdm); // the thread waits for a later one
    return id;
}

int qrn_ctx_cancel_timer(qrn_context_t *ctx, int id, const qrn_cancel_t *cancel)
{
    if (refused_null(ctx))
        return QRN_FAILURE;
    qrn_event_queue_t *evq;
    {
        kfx::lock_guard guard(ctx->state->lock);
        evq = qrn_timer_queue_of(ctx->timer, id);
        if (evq == nullptr || refused_cancel(evq, cancel) ||
            qrn_timer_cancel(ctx->timer, id) != QRN_OK)
            return QRN_FAILURE;
    }
    const int purged = purge_timer(evq, ctx, id);
    if (cancel != nullptr) {
        qrn_event_queue_cancel_cb_info_t info = cancel_on(evq, cancel);
        qrn_evq_cancel_cb_timer(ctx, id, &info);
    }
    qrn_timer_release(ctx->timer, id, purged);
    return QRN_OK;
}

int qrn_rcv_create(qrn_rcv_t **rcv, qrn_context_t *ctx, const char *topic, qrn_event_queue_t *evq,
                   qrn_rcv_cb_proc proc, void *clientd)
{
    if (refused_null(rcv, ctx, topic, evq, proc))
        return QRN_FAILURE;
    auto *made = make<qrn_rcv_t>(ctx, evq, topic, &qrn_rcv_t::topic);
    made->proc = proc;
    made->clientd = clientd;
    return enter(rcv, made);
}

int qrn_rcv_delete(qrn_rcv_t *rcv, const qrn_cancel_t *cancel)
{
    return refused_null(rcv) ? QRN_FAILURE : end(rcv, cancel);
}

int qrn_wildcard_rcv_create(qrn_wildcard_rcv_t **wrcv, qrn_context_t *ctx, const char *pattern,
                            qrn_event_queue_t *evq, qrn_rcv_cb_proc proc, void *clientd)
{
    if (refused_null(wrcv, ctx, pattern, evq, proc))
        return QRN_FAILURE;
    auto *made = make<qrn_wildcard_rcv_t>(ctx, evq, pattern, &qrn_wildcard_rcv_t::pattern);
    made->rcvproc = proc;
    made->cd = clientd;
    return enter(wrcv, made);
}

int qrn_wildcard_rcv_delete(qrn_wildcard_rcv_t *wrcv, const qrn_cancel_t *cancel)
{
    return refused_null(wrcv) ? QRN_FAILURE : end(wrcv, cancel);
}

int qrn_ctx_bind_immediate(qrn_context_t *ctx, qrn_event_queue_t *evq,
                           qrn_immediate_msg_cb_proc proc, void *clientd)
{
    if (refused_null(ctx, evq, proc))
        return QRN_FAILURE;
    state_t &state = *ctx->state;
    kfx::lock_guard guard(state.lock);
    if (state.imsg_evq != nullptr)
        return refuse("immediate messages are already bound");
    attach(state, evq);
    state.imsg_evq = evq;
    state.imsg_proc = proc;
    state.imsg_clientd = clientd;
    return QRN_OK;
}

int qrn_ctx_unbind_immediate(qrn_context_t *ctx)
{
    if (refused_null(ctx))
        return QRN_FAILURE;
    qrn_event_queue_t *evq;
    {
        kfx::lock_guard guard(ctx->state->lock);
        evq = std::exchange(ctx->state->imsg_evq, nullptr);
    }
    if (evq == nullptr)
        return refuse("immediate messages are not bound");
    qrn_tl_queue_remove_all(evq->q, is_not_imsg, remove_imsg, ctx);
    return QRN_OK;
}

int qrn_ctx_deliver(qrn_context_t *ctx, qrn_msg_t *msg)
{
    if (refused_null(ctx, msg))
        return QRN_FAILURE;
    kfx::lock_guard guard(ctx->state->lock);
    const char *topic = qrn_msg_topic(msg);
    return topic == nullptr ? deliver_immediate(ctx, msg)
                            : deliver_by_topic(*ctx->state, msg, topic);
}

int qrn_ctx_flush(qrn_context_t *ctx)
{
    if (refused_null(ctx))
        return QRN_FAILURE;
    kfx::lock_guard guard(ctx->state->lock);
    int result = QRN_OK;
    for (size_t i = 0; i < ctx->state->num_queues; ++i)
        if (send_bundle(ctx->state->queues[i]) != QRN_OK)
            result = QRN_FAILURE;
    return result;
}

int qrn_ctx_run_bundle(qrn_event_bundle_t *bundle, void *)
{
    for (int i = 0; i < bundle->num_events; ++i)
        run_entry(bundle->events[i]);
    return QRN_OK;
}

int qrn_src_create(qrn_src_t **src, qrn_context_t *ctx, qrn_event_queue_t *evq,
                   qrn_src_cb_proc proc, void *clientd)
{
    if (refused_null(src, ctx, evq, proc))
        return QRN_FAILURE;
    auto *made = make<qrn_src_t>(ctx, evq);
    made->proc = proc;
    made->clientd = clientd;
    return enter(src, made);
}

int qrn_src_delete(qrn_src_t *src, const qrn_cancel_t *cancel)
{
    return refused_null(src) ? QRN_FAILURE : end(src, cancel);
}

int qrn_src_raise(qrn_src_t *src, int event, void *eventd, int reclaim_ed)
{
    if (refused_null(src))
        return QRN_FAILURE;
    state_t &state = *src->ctx->state;
    qrn_event_queue_t *evq = src->binding.evq;
    kfx::lock_guard guard(state.lock);
    if (!accepts(state, evq))
        return refuse("the source's queue takes no more events");
    return qrn_evq_enq_src(evq, src, event, src->clientd, eventd, reclaim_ed, src->proc);
}

int qrn_ctx_bind_src(qrn_context_t *ctx, qrn_event_queue_t *evq, qrn_context_src_cb_proc proc,
                     void *clientd)
{
    if (refused_null(ctx, evq, proc))
        return QRN_FAILURE;
    state_t &state = *ctx->state;
    kfx::lock_guard guard(state.lock);
    if (state.src_evq != nullptr || kfx::load(ctx->defunct) != 0)
        return refuse("the source side was bound before");
    attach(state, evq);
    state.src_evq = evq;
    state.src_proc = proc;
    state.src_clientd = clientd;
    return QRN_OK;
}

int qrn_ctx_unbind_src(qrn_context_t *ctx, const qrn_cancel_t *cancel)
{
    if (refused_null(ctx))
        return QRN_FAILURE;
    qrn_event_queue_t *evq;
    {
        kfx::lock_guard guard(ctx->state->lock);
        evq = ctx->state->src_evq;
        if (evq == nullptr)
            return refuse("the source side is not bound");
        if (refused_cancel(evq, cancel))
            return QRN_FAILURE;
        ctx->state->src_evq = nullptr;
        kfx::store(ctx->defunct, 1);
    }
    qrn_evq_purge_ctx_src(evq, ctx);
    if (cancel != nullptr) {
        qrn_event_queue_cancel_cb_info_t info = cancel_on(evq, cancel);
        qrn_evq_cancel_cb_ctx_src(ctx, &info);
    }
    return QRN_OK;
}

int qrn_ctx_src_raise(qrn_context_t *ctx, int event, void *eventd, int reclaim_ed)
{
    if (refused_null(ctx))
        return QRN_FAILURE;
    state_t &state = *ctx->state;
    kfx::lock_guard guard(state.lock);
    if (state.src_evq == nullptr || !accepts(state, state.src_evq))
        return refuse("the source side's queue takes no more events");
    return qrn_evq_enq_ctx_src(state.src_evq, ctx, event, state.src_clientd, eventd, reclaim_ed,
                               state.src_proc);
}

int qrn_request_create(qrn_request_t **req, qrn_context_t *ctx, qrn_event_queue_t *evq,
                       qrn_request_cb_proc proc, void *clientd)
{
    if (refused_null(req, ctx, evq, proc))
        return QRN_FAILURE;
    auto *made = make<qrn_request_t>(ctx, evq);
    made->proc = proc;
    made->clientd = clientd;
    return enter(req, made);
}

int qrn_request_delete(qrn_request_t *req, const qrn_cancel_t *cancel)
{
    return refused_null(req) ? QRN_FAILURE : end(req, cancel);
}

int qrn_request_respond(qrn_request_t *req, qrn_msg_t *msg)
{
    if (refused_null(req, msg))
        return QRN_FAILURE;
    state_t &state = *req->ctx->state;
    qrn_event_queue_t *evq = req->binding.evq;
    kfx::lock_guard guard(state.lock);
    if (give(state, evq, msg, [&] { return qrn_evq_enq_req(evq, req, msg); }) == QRN_OK)
        return QRN_OK;
    return refuse("the request's queue took no response");
}

} // extern "C"
