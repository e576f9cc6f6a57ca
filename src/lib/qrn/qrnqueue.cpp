// SPDX-License-Identifier: Apache-2.0
//
// The blocking queue, and the ordered list at the end of the file.
//
// LIST. A singly linked list with a sentinel at its head and a lock at each end. An appender links its
// node behind `tail` with a release store of `next`, which publishes the item; takers and passes, which
// exclude each other by `head_lock`, read `next` with acquire order. A taker makes the first node the
// new sentinel and retires the old one. A pass unlinks in place, and takes `tail_lock` for a moment to
// learn where the list ends, and to unlink the last node. It looks at what was queued when it began, so
// producers cannot keep it going.
//
// NODES are cut from segments, in the order they are linked. The segment whose nodes have all been
// retired goes back to the appenders through `spare`, or to the allocator when one is there already,
// so a queue in steady flow allocates nothing and one that has drained keeps two segments at most.
//
// TOKENS. sem_sz + takers that hold a token and have not looked yet + appends not posted yet = items
// + stale tokens, where stale = owed + offered + credit >= 0. An append adds a token after its item; a
// taker that had to wait has a token and takes an item with it. Whoever takes an item without (a taker
// that found one at once, a poll, a pass) leaves its token stale, and owes it: it takes one while it
// still holds head_lock, when it can. In full flow it offers the stale tokens to the appenders
// instead, many at once, and an append that has the credit of one uses it and posts none: then neither
// end touches the semaphore, whose cache line would go to and fro. A taker whose token finds nothing
// has used up a stale one: -1. It ends the flow: what was lent is taken back and settled. Then it waits
// again. Should nothing be stale, an appender had the credit of this very token, and the item it stands
// for is there. Since stale is never negative, every item has a token that is posted, about to be, or
// held by somebody who will look.
//
// WAITING. A taker that finds the queue empty while nobody else waits looks at the list itself for a
// moment and keeps head_lock meanwhile: the item is in its hands one step earlier than its token could
// be. Then it looks for a token for a while, and parks on `park`. `idle` counts both kinds. An append
// wakes one parked taker, and only when nobody is looking: a looker will see the token. The waker moves
// the sleeper from parked to looking itself, so until that one runs no other append wakes a second. The
// parked have no names: whoever leaves of its own accord while it is counted as parked takes itself off
// the count, or, when a waker chose "it" meanwhile, consumes that waker's post.
//
// No wake-up is lost, by two rules. W1: a taker that parks announces it in `idle`, then tries once
// more for a token; an append sees to its token, then reads `idle`; one of the two sees the other.
// W2: whoever leaves the looking or parked state, by whatever way, wakes one of the parked when
// tokens remain and nobody looks, because an append may have left a token to the one who leaves.
//
// DESCRIPTOR. Once asked for, an event descriptor shows whether anything is queued. Under `fd_lock`,
// `fd_readable` says what it shows. An appender makes it readable after its item is linked; whoever
// empties the queue looks again under that lock, then makes it unreadable: the one of the two that
// comes second sees what the first did. An appender learns under `tail_lock` whether it is in use;
// the first use writes it under both end locks, and shows what is queued by then.

#include "qrnqueue.h"

#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

using node = qrn_tl_queue_node_t;

#ifdef KFX_SCHED_POINTS
constexpr int courtesies = 0; // the schedules decide who waits
#else
constexpr int courtesies = 20;
#endif

void relax()
{
#ifdef __x86_64__
    __builtin_ia32_pause();
#else
    asm volatile("yield");
#endif
}

// Holds the lock of one end. Both are held for a few instructions, so whoever finds one taken for longer
// than a pause most likely waits for a holder that lost its processor. It yields its own a few times
// before it sleeps: that lets the holder go on, and saves it the call that wakes a sleeper.
class [[nodiscard]] end_guard {
public:
    explicit end_guard(kfx_mutex_t &lock) : lock_(lock)
    {
        if (courtesies == 0 || pthread_mutex_trylock(&lock_) != 0)
            wait();
    }
    ~end_guard() { pthread_mutex_unlock(&lock_); }
    end_guard(const end_guard &) = delete;
    end_guard &operator=(const end_guard &) = delete;

private:
    // Not inlined, here and below: what is off the fast path.
    [[gnu::noinline]] void wait()
    {
        for (int i = 1; i < courtesies; ++i) {
            i == 1 ? relax() : static_cast<void>(sched_yield());
            if (pthread_mutex_trylock(&lock_) == 0)
                return;
        }
        pthread_mutex_lock(&lock_);
    }

    kfx_mutex_t &lock_;
};

constexpr std::size_t segment_nodes = 255;

struct segment {
    std::size_t retired; // under head_lock
    std::size_t unused;
    node nodes[segment_nodes];
};

constexpr std::size_t segment_size = sizeof(segment);
static_assert(segment_size == 4096, "a node finds its segment by its address");

segment *segment_of(node *n)
{
    return reinterpret_cast<segment *>(reinterpret_cast<std::uintptr_t>(n) & ~(segment_size - 1));
}

// A segment to cut nodes from; null when memory ran out. Under tail_lock.
segment *get_segment(qrn_tl_queue_t *q)
{
    void *block = nullptr;
    if (kfx::load(q->spare) != nullptr)
        block = kfx::exchange(q->spare, nullptr, std::memory_order_acquire); // from put_segment
    if (block == nullptr)
        block = std::aligned_alloc(segment_size, segment_size);
    if (block == nullptr)
        return nullptr;
    auto *s = static_cast<segment *>(block);
    s->retired = 0;
    return s;
}

void put_segment(qrn_tl_queue_t *q, segment *s)
{
    // Acquire: what an earlier put_segment wrote there is freed here. Release: to get_segment.
    std::free(kfx::exchange(q->spare, static_cast<void *>(s), std::memory_order_acq_rel));
}

// A node that no taker can see yet; null when memory ran out. Under tail_lock.
node *cut_node(qrn_tl_queue_t *q)
{
    if (q->fresh == q->fresh_end) {
        segment *s = get_segment(q);
        if (s == nullptr)
            return nullptr;
        q->fresh = s->nodes;
        q->fresh_end = s->nodes + segment_nodes;
    }
    return q->fresh++;
}

// Gives up a node that is linked no longer. Under head_lock.
void retire(qrn_tl_queue_t *q, node *n)
{
    segment *s = segment_of(n);
    if (++s->retired == segment_nodes)
        put_segment(q, s);
}

// The node behind `n`, with the item that its appender published.
node *after(const node *n)
{
    return kfx::load(n->next, std::memory_order_acquire);
}

// --- Waiting -------------------------------------------------------------------------------------

constexpr qrn_uint_t one_looking = 1;
constexpr qrn_uint_t one_parked = 1U << 16;

constexpr bool somebody_looks(qrn_uint_t idle)
{
    return idle % one_parked != 0;
}

constexpr bool somebody_is_parked(qrn_uint_t idle)
{
    return idle >= one_parked;
}

constexpr bool needs_wake(qrn_uint_t idle)
{
    return somebody_is_parked(idle) && !somebody_looks(idle);
}

// How often a taker looks at the list, and for a token before it parks. And: so many items in a row
// without finding the queue empty are full flow, and so many tokens are then offered at once, up to a
// bound. Small where a test build plays through the schedules, so that they get there.
#ifdef KFX_SCHED_POINTS
constexpr int eager_spins = 2;
constexpr int spins = 2;
constexpr qrn_uint_t full_flow = 2;
constexpr qrn_uint_t most_offered = 4;
#else
constexpr int eager_spins = 500;
constexpr int spins = 300;
constexpr qrn_uint_t full_flow = 32;
constexpr qrn_uint_t most_offered = 1024;
#endif

bool try_token(qrn_tl_queue_t *q)
{
    return sem_trywait(&q->sem_sz) == 0;
}

bool tokens_remain(qrn_tl_queue_t *q)
{
    int tokens = 0;
    sem_getvalue(&q->sem_sz, &tokens);
    return tokens > 0;
}

// Reads `idle` after an append (rule W1). On x86 the unlocking and the post are full barriers; elsewhere
// a read-modify-write puts this read and the announcement of a parking taker into one order.
qrn_uint_t idle_after_append(qrn_tl_queue_t *q)
{
#ifdef __x86_64__
    return kfx::load(q->idle, std::memory_order_seq_cst);
#else
    return kfx::add(q->idle, 0);
#endif
}

// Wakes one of the parked, counting it as looking, unless somebody looks.
void wake_one(qrn_tl_queue_t *q, qrn_uint_t idle)
{
    while (needs_wake(idle)) {
        if (kfx::compare_exchange(q->idle, idle, idle - one_parked + one_looking,
                                  std::memory_order_seq_cst)) {
            sem_post(&q->park);
            return;
        }
    }
}

// Rule W2, after a change of `idle` that left this value.
void pass_on(qrn_tl_queue_t *q, qrn_uint_t idle)
{
    if (needs_wake(idle) && tokens_remain(q))
        wake_one(q, idle);
}

void leave_looking(qrn_tl_queue_t *q)
{
    pass_on(q, kfx::sub(q->idle, one_looking) - one_looking);
}

// Taken off the count of the parked by itself, or by a waker, whose post it then consumes. The post
// that was meant for it may go to another one that parked since; then that one stands in the count.
void leave_parked(qrn_tl_queue_t *q)
{
    for (;;) {
        qrn_uint_t idle = kfx::load(q->idle);
        while (somebody_is_parked(idle)) {
            if (kfx::compare_exchange(q->idle, idle, idle - one_parked, std::memory_order_seq_cst))
                return pass_on(q, idle - one_parked);
        }
        if (sem_trywait(&q->park) == 0)
            return leave_looking(q);
        sched_yield(); // a waker is between the two
    }
}

bool look_for_token(qrn_tl_queue_t *q)
{
    for (int i = 0; i < spins; ++i) {
        if (try_token(q))
            return true;
        relax();
    }
    return false;
}

// Sleeps until a waker chooses this taker; false when the deadline passed first.
bool sleep_parked(qrn_tl_queue_t *q, const struct timespec *deadline)
{
    for (;;) {
        int result = deadline == nullptr ? sem_wait(&q->park)
                                         : sem_clockwait(&q->park, CLOCK_MONOTONIC, deadline);
        if (result == 0)
            return true;
        if (errno != EINTR)
            return false;
    }
}

// Parks with the count of `idle` that is given up for it; whether a waker chose this taker, which then
// counts as looking. Otherwise it is idle no longer, and `*got` tells whether it has a token.
bool park(qrn_tl_queue_t *q, qrn_uint_t instead_of, const struct timespec *deadline, bool *got)
{
    kfx::add(q->idle, one_parked - instead_of);
    *got = try_token(q); // rule W1
    if (!*got && sleep_parked(q, deadline))
        return true;
    leave_parked(q);
    *got = *got || try_token(q);
    return false;
}

// Waits for a token, until the deadline when there is one. One taker looks at a time: a second one could
// only get in its way.
bool wait_for_token(qrn_tl_queue_t *q, const struct timespec *deadline)
{
    bool got = false;
    if (!somebody_looks(kfx::load(q->idle)))
        kfx::add(q->idle, one_looking);
    else if (!park(q, 0, deadline, &got))
        return got;
    for (;;) {
        if (look_for_token(q)) {
            leave_looking(q);
            return true;
        }
        if (!park(q, one_looking, deadline, &got))
            return got;
    }
}

// Takes the tokens that are owed, as far as they are posted. Under head_lock.
void settle_tokens(qrn_tl_queue_t *q)
{
    while (q->owed != 0 && try_token(q))
        --q->owed;
}

// After an item was taken without a token. Under head_lock.
void owe_token(qrn_tl_queue_t *q)
{
    ++q->owed;
    if (q->flow < full_flow) {
        ++q->flow;
        settle_tokens(q);
    } else if (q->owed >= full_flow) {
        if (kfx::load(q->offered) < most_offered)
            kfx::add(q->offered, std::exchange(q->owed, 0));
        else
            settle_tokens(q);
    }
}

// Takes back what was lent to the appenders. Under head_lock.
void call_in_tokens(qrn_tl_queue_t *q)
{
    kfx::lock_guard tail(q->tail_lock);
    q->owed += kfx::exchange(q->offered, 0, std::memory_order_relaxed);
    q->owed += std::exchange(q->credit, 0);
}

// After the queue was found empty. Under head_lock.
void end_flow(qrn_tl_queue_t *q)
{
    if (std::exchange(q->flow, 0) >= full_flow)
        call_in_tokens(q);
}

// Whether a stale token stands for the item that is appended. Under tail_lock.
bool use_credit(qrn_tl_queue_t *q)
{
    if (q->credit == 0) {
        if (kfx::load(q->offered) == 0)
            return false;
        q->credit = kfx::exchange(q->offered, 0, std::memory_order_relaxed);
        if (q->credit == 0)
            return false;
    }
    --q->credit;
    return true;
}

// --- The descriptor ------------------------------------------------------------------------------

// Under head_lock, or with an item that this thread has just linked.
void show_queued(qrn_tl_queue_t *q, int fd)
{
    kfx::lock_guard lock(q->fd_lock);
    if (q->fd_readable == 0)
        q->fd_readable = eventfd_write(fd, 1) == 0 ? 1 : 0;
}

// Shows that the queue is empty, if it is. Under head_lock.
[[gnu::noinline]] void show_empty(qrn_tl_queue_t *q)
{
    kfx::lock_guard lock(q->fd_lock);
    if (q->fd_readable == 0 || after(q->head) != nullptr)
        return;
    eventfd_t count = 0;
    eventfd_read(q->fd, &count);
    q->fd_readable = 0;
}

// After items were taken. Under head_lock.
void update_fd(qrn_tl_queue_t *q)
{
    if (q->fd != -1 && after(q->head) == nullptr)
        show_empty(q);
}

// --- Taking --------------------------------------------------------------------------------------

// Brings the item of a node near, while another one is worked on: three cache lines, over which a record
// of an event may reach.
void prefetch(const node *n)
{
    if (n == nullptr)
        return;
    const auto *item = static_cast<const char *>(n->value);
    for (int at : {0, 64, 95})
        __builtin_prefetch(item + at);
}

// What a taker does when it finds the queue empty: it comes back later, it goes on to wait (also when its
// token turned out to be stale), or it has waited and holds a token.
enum class taker { polls, waits, has_token };

// Looks at the list, which is empty, for an item that comes at once. Under head_lock.
node *look_for_item(qrn_tl_queue_t *q)
{
    node *first = nullptr;
    if (kfx::load(q->idle) == 0)
        for (int i = 0; first == nullptr && i < eager_spins; ++i)
            first = after(q->head);
    return first;
}

// Goes on when the list was found empty: the flow has ended. An item that comes meanwhile, or null. Under
// head_lock.
[[gnu::noinline]] node *find_in_empty(qrn_tl_queue_t *q, taker &who)
{
    end_flow(q);
    if (who == taker::has_token) {
        // With nothing stale left, an appender had this token's credit before it was called in, and the
        // token stands for an item that came meanwhile.
        if (q->owed == 0)
            return after(q->head);
        --q->owed;
        who = taker::waits;
    }
    settle_tokens(q);
    update_fd(q); // a pass that an exception cut short may have left it readable
    node *first = who == taker::waits ? look_for_item(q) : nullptr;
    if (first != nullptr)
        ++q->owed; // settled when there is time: its append may not have come to the token yet
    return first;
}

// The first item, or null; with its token accounted for. Under head_lock.
node *find_first(qrn_tl_queue_t *q, taker &who)
{
    node *first = after(q->head);
    if (first == nullptr)
        return find_in_empty(q, who);
    if (who != taker::has_token)
        owe_token(q);
    return first;
}

// Takes the first item; false when there is none.
bool take_first(qrn_tl_queue_t *q, void **value, qrn_tl_queue_dequeue_cb_info_t *cbinfo, taker &who)
{
    end_guard head(q->head_lock);
    node *first = find_first(q, who);
    if (first == nullptr)
        return false;
    *value = first->value;
    prefetch(after(first));
    retire(q, q->head);
    q->head = first;
    update_fd(q);
    if (cbinfo != nullptr)
        cbinfo->cbproc(*value, cbinfo->clientd);
    return true;
}

int take_now(qrn_tl_queue_t *q, void **value, qrn_tl_queue_dequeue_cb_info_t *cbinfo)
{
    taker who = taker::polls;
    take_first(q, value, cbinfo, who);
    return 0;
}

[[gnu::noinline]] int take_after_wait(qrn_tl_queue_t *q, void **value,
                                      qrn_tl_queue_dequeue_cb_info_t *cbinfo,
                                      const struct timespec *deadline)
{
    taker who;
    do {
        if (!try_token(q) && !wait_for_token(q, deadline))
            return -1;
        who = taker::has_token;
        if (take_first(q, value, cbinfo, who))
            return 0;
    } while (who == taker::waits);
    return -1;
}

int take_waiting(qrn_tl_queue_t *q, void **value, qrn_tl_queue_dequeue_cb_info_t *cbinfo,
                 const struct timespec *deadline)
{
    taker who = taker::waits;
    return take_first(q, value, cbinfo, who) ? 0 : take_after_wait(q, value, cbinfo, deadline);
}

// --- Passes --------------------------------------------------------------------------------------

// Unlinks the node behind `prev`, which is not null. Under head_lock.
void unlink_after(qrn_tl_queue_t *q, node *prev)
{
    node *gone = after(prev);
    node *next = after(gone);
    if (next == nullptr) {
        kfx::lock_guard tail(q->tail_lock); // an appender may be linking behind it
        next = after(gone);
        if (next == nullptr)
            q->tail = prev;
        prev->next = next;
    } else {
        prev->next = next;
    }
    retire(q, gone);
    ++q->owed;
    settle_tokens(q);
}

// The lock is needed: while an append goes on, `tail` may be a node that was unlinked already.
node *last_node(qrn_tl_queue_t *q)
{
    kfx::lock_guard tail(q->tail_lock);
    return q->tail;
}

// Runs a few nodes ahead of a pass, so that it does not wait for the memory of every item.
class lookahead {
public:
    lookahead(const node *from, const node *last) : ahead_(from), last_(last)
    {
        for (int i = 0; i < distance; ++i)
            step();
    }

    void step()
    {
        if (ahead_ == last_)
            return;
        ahead_ = after(ahead_);
        __builtin_prefetch(ahead_->value);
    }

private:
    static constexpr int distance = 16;

    const node *ahead_;
    const node *last_;
};

// Unlinks the items for which `goes(item)` holds and calls `gone(item)` for each after it.
template <class Goes, class Gone>
void pass(qrn_tl_queue_t *q, Goes goes, Gone gone)
{
    kfx::lock_guard head(q->head_lock);
    node *const last = last_node(q);
    node *prev = q->head;
    bool done = prev == last;
    lookahead near(prev, last);
    while (!done) {
        near.step();
        node *n = after(prev);
        done = n == last;
        void *item = n->value;
        if (goes(item)) {
            unlink_after(q, prev);
            gone(item);
        } else {
            prev = n;
        }
    }
    update_fd(q);
}

bool init_locks(qrn_tl_queue_t *q)
{
    return pthread_mutex_init(&q->head_lock, nullptr) == 0 &&
           pthread_mutex_init(&q->tail_lock, nullptr) == 0 &&
           pthread_mutex_init(&q->fd_lock, nullptr) == 0 && sem_init(&q->sem_sz, 0, 0) == 0 &&
           sem_init(&q->park, 0, 0) == 0;
}

} // namespace

// Weak, here and below: a program may put its own operation in the place of any of these.

[[gnu::weak]] qrn_tl_queue_t *qrn_tl_queue_create(void)
{
    void *block = std::aligned_alloc(alignof(qrn_tl_queue_t), sizeof(qrn_tl_queue_t));
    if (block == nullptr)
        return nullptr;
    qrn_tl_queue_t *q = new (block) qrn_tl_queue_t{};
    node *sentinel = init_locks(q) ? cut_node(q) : nullptr;
    if (sentinel == nullptr) {
        std::free(q);
        return nullptr;
    }
    sentinel->next = nullptr;
    q->head = q->tail = sentinel;
    q->fd = -1;
    return q;
}

[[gnu::weak]] void qrn_tl_queue_delete(qrn_tl_queue_t *q)
{
    while (node *first = after(q->head)) {
        retire(q, q->head);
        q->head = first;
    }
    // The nodes cut last may all have been removed, with the sentinel at the end of the segment before.
    if (q->fresh != q->fresh_end && segment_of(q->fresh) != segment_of(q->head))
        std::free(segment_of(q->fresh));
    std::free(segment_of(q->head));
    std::free(q->spare);
    if (q->fd != -1)
        close(q->fd);
    pthread_mutex_destroy(&q->fd_lock);
    sem_destroy(&q->park);
    sem_destroy(&q->sem_sz);
    pthread_mutex_destroy(&q->tail_lock);
    pthread_mutex_destroy(&q->head_lock);
    std::free(q);
}

[[gnu::weak]] int qrn_tl_queue_enqueue(qrn_tl_queue_t *q, void *value)
{
    int fd = -1;
    bool has_credit = false;
    {
        end_guard tail(q->tail_lock);
        node *n = cut_node(q);
        if (n == nullptr)
            return -1;
        n->value = value;
        n->next = nullptr;
        kfx::store(q->tail->next, n, std::memory_order_release); // publishes, to after()
        q->tail = n;
        fd = q->fd;
        has_credit = use_credit(q);
    }
    if (fd != -1) [[unlikely]]
        show_queued(q, fd);
    if (!has_credit)
        sem_post(&q->sem_sz);
    wake_one(q, idle_after_append(q));
    return 0;
}

[[gnu::weak]] int qrn_tl_queue_dequeue(qrn_tl_queue_t *q, void **value, int block)
{
    return qrn_tl_queue_dequeue_ex(q, value, block, nullptr);
}

[[gnu::weak]] int qrn_tl_queue_dequeue_ex(qrn_tl_queue_t *q, void **value, int block,
                                          qrn_tl_queue_dequeue_cb_info_t *cbinfo)
{
    *value = nullptr;
    return block != 0 ? take_waiting(q, value, cbinfo, nullptr) : take_now(q, value, cbinfo);
}

[[gnu::weak]] int qrn_tl_queue_dequeue_timed(qrn_tl_queue_t *q, void **value,
                                             qrn_tl_queue_dequeue_cb_info_t *cbinfo,
                                             const struct timespec *deadline)
{
    *value = nullptr;
    return take_waiting(q, value, cbinfo, deadline);
}

[[gnu::weak]] int qrn_tl_queue_is_empty(qrn_tl_queue_t *q)
{
    kfx::lock_guard head(q->head_lock);
    return after(q->head) == nullptr;
}

[[gnu::weak]] int qrn_tl_queue_fd(qrn_tl_queue_t *q)
{
    kfx::lock_guard head(q->head_lock);
    if (q->fd != -1)
        return q->fd;
    int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd == -1)
        return -1;
    {
        kfx::lock_guard tail(q->tail_lock);
        q->fd = fd;
    }
    if (after(q->head) != nullptr)
        show_queued(q, fd);
    return fd;
}

[[gnu::weak]] int qrn_tl_queue_remove_all(qrn_tl_queue_t *q, qrn_tl_queue_cmp_proc cmp,
                                          qrn_tl_queue_rem_proc rem, void *clientd)
{
    pass(
        q, [&](void *item) { return cmp(item, clientd) == 0; }, [&](void *item) { rem(item); });
    return 0;
}

[[gnu::weak]] int qrn_tl_queue_filter_all(qrn_tl_queue_t *q, qrn_tl_queue_filter_proc filter,
                                          void *clientd)
{
    auto goes = [&](void *item) {
        int remove = 0;
        filter(item, clientd, &remove);
        return remove == 1;
    };
    pass(q, goes, [](void *) {});
    return 0;
}

// --- The ordered list ----------------------------------------------------------------------------

[[gnu::weak]] qrn_queue_t *qrn_queue_create(void)
{
    auto *list = static_cast<qrn_queue_t *>(std::calloc(1, sizeof(qrn_queue_t)));
    if (list != nullptr) {
        list->head.next = &list->tail;
        list->tail.prev = &list->head;
    }
    return list;
}

[[gnu::weak]] int qrn_queue_enqueue(qrn_queue_t *list, const void *buff, qrn_ulong_t pri)
{
    auto *entry = static_cast<qrn_queue_node_t *>(std::malloc(sizeof(qrn_queue_node_t)));
    if (entry == nullptr)
        return -1;
    qrn_queue_node_t *prev = list->tail.prev;
    while (prev != &list->head && prev->pri > pri)
        prev = prev->prev;
    *entry = {pri, buff, prev->next, prev};
    entry->next->prev = entry;
    prev->next = entry;
    ++list->sz;
    return 0;
}

[[gnu::weak]] void *qrn_queue_dequeue(qrn_queue_t *list)
{
    qrn_queue_node_t *first = list->head.next;
    if (first == &list->tail)
        return nullptr;
    const void *buff = first->buff;
    list->head.next = first->next;
    first->next->prev = &list->head;
    --list->sz;
    std::free(first);
    return const_cast<void *>(buff);
}

[[gnu::weak]] void qrn_queue_delete(qrn_queue_t *list)
{
    while (list->sz != 0)
        qrn_queue_dequeue(list);
    std::free(list);
}
