/* SPDX-License-Identifier: Apache-2.0 */
/* Timers.
 *
 * Life of an id: free, then owned by a timer, then free again once three things hold: the timer is
 * cancelled or was a one-shot timer that fired; no expiry of it is in flight; no cancellation is under
 * way. An id that only waits for the last two is in limbo. So whoever may still name an id, a queued
 * event, a dispatching thread or a purge, names the timer it knew: the next owner gets the id only
 * after them, with its mark cleared.
 *
 * In flight: every expiry is enqueued as a one-shot event, that of a recurring timer too. The queue then
 * gives the id back after each delivery, skipped ones included, and that call is how a timer learns that
 * its expiry has ended. (Were it told only of cancelled ones, a cancellation could not know whether a
 * dispatching thread that is just leaving the callback has seen the mark or not, and would give the id
 * back twice or never.) An expiry that is purged is ended by the one who purged it. One that is
 * discarded by the shutdown of its queue never ends; its id stays in limbo until the timers are deleted.
 *
 * The marks are written under the lock and read without it, a word at a time. A dispatching thread that
 * misses one has taken the event before the cancellation, which is as if it had started the delivery
 * before.
 *
 * The operations are weak: a program may put its own in their place at link time. */
#include "qrntime.h"

#include <algorithm>
#include <climits>
#include <ctime>

#include "kfx.h"
#include "qrnerr.h"

namespace {

constexpr qrn_uint_t nowhere = UINT_MAX;
constexpr long usec_per_sec = 1'000'000;
constexpr qrn_ulong_t retry_msec = 1;

timeval monotonic_now()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec, now.tv_nsec / 1000};
}

timeval after_msec(timeval tv, qrn_ulong_t msec)
{
    tv.tv_sec += static_cast<time_t>(msec / 1000);
    tv.tv_usec += static_cast<suseconds_t>(msec % 1000 * 1000);
    qrn_timer_normalize_tv(&tv);
    return tv;
}

bool before(const timeval &a, const timeval &b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_usec < b.tv_usec;
}

/* --- The heap: `map` in heap order, the soonest first ------------------------------------------ */

bool sooner(const qrn_timer_heap_t &hp, qrn_uint_t a, qrn_uint_t b)
{
    const qrn_timer_node_t &x = *hp.timers[a];
    const qrn_timer_node_t &y = *hp.timers[b];
    if (before(x.tv, y.tv) || before(y.tv, x.tv))
        return before(x.tv, y.tv);
    return x.seq < y.seq;
}

void place(qrn_timer_heap_t &hp, qrn_uint_t at, qrn_uint_t id)
{
    hp.map[at] = id;
    hp.invmap[id] = at;
}

void sift_up(qrn_timer_heap_t &hp, qrn_uint_t at)
{
    const qrn_uint_t id = hp.map[at];
    while (at > 0 && sooner(hp, id, hp.map[(at - 1) / 2])) {
        place(hp, at, hp.map[(at - 1) / 2]);
        at = (at - 1) / 2;
    }
    place(hp, at, id);
}

void sift_down(qrn_timer_heap_t &hp, qrn_uint_t at)
{
    const qrn_uint_t id = hp.map[at];
    const auto size = static_cast<qrn_uint_t>(hp.sz);
    for (qrn_uint_t child = 2 * at + 1; child < size; child = 2 * at + 1) {
        if (child + 1 < size && sooner(hp, hp.map[child + 1], hp.map[child]))
            ++child;
        if (!sooner(hp, hp.map[child], id))
            break;
        place(hp, at, hp.map[child]);
        at = child;
    }
    place(hp, at, id);
}

void insert(qrn_timer_heap_t &hp, int id)
{
    const auto at = static_cast<qrn_uint_t>(hp.sz++);
    place(hp, at, static_cast<qrn_uint_t>(id));
    sift_up(hp, at);
}

void remove(qrn_timer_heap_t &hp, int id)
{
    const qrn_uint_t at = hp.invmap[id];
    if (at == nowhere)
        return;
    hp.invmap[id] = nowhere;
    const qrn_uint_t last = hp.map[--hp.sz];
    if (last == static_cast<qrn_uint_t>(id))
        return;
    place(hp, at, last);
    sift_up(hp, at);
    sift_down(hp, hp.invmap[last]);
}

/* --- Ids --------------------------------------------------------------------------------------- */

template <class T>
void regrow(T *&array, int used, int room)
{
    T *grown = kfx::alloc<T>(static_cast<size_t>(room));
    std::copy_n(array, used, grown);
    std::free(array);
    array = grown;
}

void grow(qrn_timer_heap_t &hp)
{
    const int room = std::max(64, hp.allocnumidxs * 2);
    regrow(hp.map, hp.sz, room);
    regrow(hp.invmap, hp.maxnumidxs, room);
    regrow(hp.freeidxs, hp.numfreeidxs, room);
    regrow(hp.timers, hp.maxnumidxs, room);
    regrow(hp.free_timers, hp.numfreeidxs, room);
    hp.allocnumidxs = room;
}

/* A blank node with an id of its own; null when there is none. */
qrn_timer_node_t *take_id(qrn_timer_heap_t &hp)
{
    qrn_timer_node_t *node;
    int id;
    if (hp.numfreeidxs > 0) {
        id = static_cast<int>(hp.freeidxs[--hp.numfreeidxs]);
        node = hp.free_timers[hp.numfreeidxs];
    } else {
        if (hp.maxnumidxs == QRN_TIMER_MAX_IDS)
            return nullptr;
        if (hp.maxnumidxs == hp.allocnumidxs)
            grow(hp);
        id = hp.maxnumidxs++;
        node = kfx::alloc<qrn_timer_node_t>();
    }
    *node = {};
    node->id = id;
    hp.timers[id] = node;
    hp.invmap[id] = nowhere;
    return node;
}

void set_mark(qrn_timer_heap_t &hp, int id, bool marked)
{
    uint32_t &word = hp.xmap[QRN_TIMER_XMAP_WORD(id)];
    const uint32_t bit = uint32_t{1} << (id % 32);
    kfx::store(word, marked ? kfx::load(word) | bit : kfx::load(word) & ~bit,
               std::memory_order_release);
}

void free_id(qrn_timer_heap_t &hp, qrn_timer_node_t *node)
{
    set_mark(hp, node->id, false);
    hp.timers[node->id] = nullptr;
    hp.freeidxs[hp.numfreeidxs] = static_cast<qrn_uint_t>(node->id);
    hp.free_timers[hp.numfreeidxs++] = node;
}

qrn_timer_node_t *find(const qrn_timer_t *timer, int id)
{
    if (timer == nullptr || timer->hp == nullptr || timer->hp->timers == nullptr || id < 0 ||
        id >= timer->hp->maxnumidxs)
        return nullptr;
    return timer->hp->timers[id];
}

qrn_timer_node_t *find_live(const qrn_timer_t *timer, int id)
{
    qrn_timer_node_t *node = find(timer, id);
    if (node != nullptr && node->defunct == 0)
        return node;
    qrn_seterrf(QRN_ERR_INVALID, "there is no timer with id %d", id);
    return nullptr;
}

bool in_limbo(const qrn_timer_node_t &node)
{
    return node.defunct != 0 && (node.in_flight != 0 || node.held != 0);
}

/* Changes a node and then does what follows for its id. */
template <class Change>
void settle(qrn_timer_t &timer, qrn_timer_node_t &node, Change change)
{
    timer.in_limbo_ref_cnt -= in_limbo(node);
    change();
    timer.in_limbo_ref_cnt += in_limbo(node);
    if (node.defunct != 0 && !in_limbo(node))
        free_id(*timer.hp, &node);
}

/* --- Expiry ------------------------------------------------------------------------------------ */

qrn_ulong_t msec_between(const timeval &from, const timeval &to)
{
    const long usec = (to.tv_sec - from.tv_sec) * usec_per_sec + (to.tv_usec - from.tv_usec);
    return static_cast<qrn_ulong_t>(usec) / 1000;
}

/* Puts a recurring timer at its next beat after `now`, any other one out of the heap. */
void advance(qrn_timer_heap_t &hp, qrn_timer_node_t &node, const timeval &now)
{
    remove(hp, node.id);
    if (node.period_msec == 0)
        return;
    const qrn_ulong_t missed = msec_between(node.tv, now) / node.period_msec;
    node.tv = after_msec(node.tv, (missed + 1) * node.period_msec);
    insert(hp, node.id);
}

/* The next due timer whose expiry is to be enqueued, already marked as in flight; null: none. */
qrn_timer_node_t *take_due(qrn_timer_t &timer, const timeval &now)
{
    qrn_timer_heap_t &hp = *timer.hp;
    while (hp.sz > 0) {
        qrn_timer_node_t &node = *hp.timers[hp.map[0]];
        if (before(now, node.tv))
            return nullptr;
        advance(hp, node, now);
        if (node.in_flight == 0) {
            node.in_flight = 1;
            timer.last_cb = node.proc;
            timer.last_clientd = node.clientd;
            return &node;
        }
    }
    return nullptr;
}

/* The expiry was not enqueued. */
void take_back(qrn_timer_t &timer, qrn_timer_node_t &node, bool again, const timeval &now)
{
    node.in_flight = 0;
    if (!again) {
        remove(*timer.hp, node.id);
    } else if (node.period_msec == 0) {
        node.tv = after_msec(now, retry_msec);
        insert(*timer.hp, node.id);
    }
}

bool expire_one(qrn_timer_t &timer, const timeval &now, qrn_timer_enq_proc enqueue, int &expired)
{
    qrn_timer_node_t *node;
    qrn_timer_node_t due;
    {
        kfx::lock_guard guard(timer.lock);
        node = take_due(timer, now);
        if (node == nullptr)
            return false;
        due = *node;
    }
    // Once it is enqueued the node may belong to another timer: it is not looked at again.
    const int result = enqueue(due.evq, timer.ctx, due.id, due.clientd, due.proc, 0);
    if (result == 0) {
        ++expired;
    } else {
        kfx::lock_guard guard(timer.lock);
        take_back(timer, *node, result < 0, now);
    }
    return true;
}

} // namespace

extern "C" {

[[gnu::weak]] void qrn_timer_normalize_tv(struct timeval *tv)
{
    tv->tv_sec += tv->tv_usec / usec_per_sec;
    tv->tv_usec %= usec_per_sec;
    if (tv->tv_usec < 0) {
        tv->tv_usec += usec_per_sec;
        --tv->tv_sec;
    }
}

[[gnu::weak]] qrn_timer_t *qrn_timer_create(qrn_context_t *ctx)
{
    auto *timer = kfx::alloc_zeroed<qrn_timer_t>();
    timer->ctx = ctx;
    timer->hp = kfx::alloc_zeroed<qrn_timer_heap_t>();
    timer->hp->xmap = kfx::alloc_zeroed<uint32_t>(QRN_TIMER_XMAP_WORDS);
    pthread_mutex_init(&timer->lock, nullptr);
    return timer;
}

[[gnu::weak]] void qrn_timer_delete(qrn_timer_t *timer)
{
    qrn_timer_heap_t *hp = timer->hp;
    for (int id = 0; id < hp->maxnumidxs; ++id)
        std::free(hp->timers[id]);
    for (int i = 0; i < hp->numfreeidxs; ++i)
        std::free(hp->free_timers[i]);
    for (void *block : {static_cast<void *>(hp->map), static_cast<void *>(hp->invmap),
                        static_cast<void *>(hp->freeidxs), static_cast<void *>(hp->xmap),
                        static_cast<void *>(hp->timers), static_cast<void *>(hp->free_timers)})
        std::free(block);
    pthread_mutex_destroy(&timer->lock);
    std::free(hp);
    std::free(timer);
}

[[gnu::weak]] int qrn_timer_schedule(qrn_timer_t *timer, qrn_event_queue_t *evq,
                                     qrn_timer_cb_proc proc, void *clientd, qrn_ulong_t delay_msec,
                                     qrn_ulong_t period_msec, int *first)
{
    const timeval due = after_msec(monotonic_now(), delay_msec);
    kfx::lock_guard guard(timer->lock);
    qrn_timer_node_t *node = take_id(*timer->hp);
    if (node == nullptr) {
        qrn_seterrf(QRN_ERR_INVALID, "all %d timer ids are in use", QRN_TIMER_MAX_IDS);
        return QRN_FAILURE;
    }
    node->proc = proc;
    node->clientd = clientd;
    node->evq = evq;
    node->tv = due;
    node->period_msec = period_msec;
    node->seq = timer->next_seq++;
    insert(*timer->hp, node->id);
    if (first != nullptr)
        *first = timer->hp->map[0] == static_cast<qrn_uint_t>(node->id);
    return node->id;
}

[[gnu::weak]] int qrn_timer_next_msec(qrn_timer_t *timer)
{
    kfx::lock_guard guard(timer->lock);
    if (timer->hp->sz == 0)
        return -1;
    const timeval now = monotonic_now();
    const timeval &due = timer->hp->timers[timer->hp->map[0]]->tv;
    if (!before(now, due))
        return 0;
    if (due.tv_sec - now.tv_sec >= INT_MAX / 1000)
        return INT_MAX;
    return static_cast<int>(msec_between(now, due)) + 1;
}

[[gnu::weak]] int qrn_timer_next_id(qrn_timer_t *timer, int from)
{
    kfx::lock_guard guard(timer->lock);
    for (int id = from; id < timer->hp->maxnumidxs; ++id)
        if (const qrn_timer_node_t *node = timer->hp->timers[id]; node && node->defunct == 0)
            return id;
    return -1;
}

[[gnu::weak]] int qrn_timer_expire(qrn_timer_t *timer, qrn_timer_enq_proc enqueue)
{
    const timeval now = monotonic_now();
    int expired = 0;
    while (expire_one(*timer, now, enqueue, expired)) {
    }
    return expired;
}

[[gnu::weak]] qrn_event_queue_t *qrn_timer_queue_of(qrn_timer_t *timer, int id)
{
    kfx::lock_guard guard(timer->lock);
    const qrn_timer_node_t *node = find_live(timer, id);
    return node == nullptr ? nullptr : node->evq;
}

[[gnu::weak]] int qrn_timer_cancel(qrn_timer_t *timer, int id)
{
    kfx::lock_guard guard(timer->lock);
    qrn_timer_node_t *node = find_live(timer, id);
    if (node == nullptr)
        return QRN_FAILURE;
    remove(*timer->hp, id);
    if (node->in_flight != 0)
        set_mark(*timer->hp, id, true);
    settle(*timer, *node, [&] { node->defunct = node->held = 1; });
    return QRN_OK;
}

[[gnu::weak]] void qrn_timer_release(qrn_timer_t *timer, int id, int purged)
{
    kfx::lock_guard guard(timer->lock);
    qrn_timer_node_t *node = find(timer, id);
    if (node == nullptr || node->held == 0)
        return;
    settle(*timer, *node, [&] {
        node->held = 0;
        if (purged != 0)
            node->in_flight = 0;
    });
}

[[gnu::weak]] int qrn_timer_push_free_id(qrn_timer_t *timer, int id)
{
    if (timer == nullptr)
        return QRN_FAILURE;
    kfx::lock_guard guard(timer->lock);
    qrn_timer_node_t *node = find(timer, id);
    if (node == nullptr || node->in_flight == 0)
        return QRN_FAILURE;
    settle(*timer, *node, [&] {
        node->in_flight = 0;
        if (node->period_msec == 0)
            node->defunct = 1;
    });
    return QRN_OK;
}

} // extern "C"
