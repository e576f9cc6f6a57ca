/* SPDX-License-Identifier: Apache-2.0 */
/* Descriptor manager.
 *
 * A kind of readiness is active while it is watched and not suspended. epoll is told lazily: a suspension
 * only counts; should epoll report the kind again before it is resumed, the report is dropped and the
 * kind disarmed, and the resumption arms it. A dispatching thread that keeps up costs no system call that
 * way. A descriptor without an armed kind is not in the epoll set at all, for epoll reports errors and
 * hang-ups even to those who ask for nothing, and the wait would spin.
 *
 * A wait may find readiness that is gone before it is reported: a callback reads all there is and its kind
 * is resumed in between. So what became active after a wait began is not reported from that wait; being
 * armed, it is found by the next one if it is ready indeed.
 *
 * Suspensions belong to the descriptor number and not to the watch. An event that a dispatching thread
 * still holds when its watch ends is resumed later, perhaps after the number was closed, reused and
 * watched again. The new watch starts with what is still suspended, so that pairs stay pairs; it is heard
 * once the old event is gone.
 *
 * The operations are weak: a program may put its own in their place at link time. */
#include "qrnfd.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "kfx.h"
#include "qrnerr.h"

namespace {

constexpr qrn_ulong_t all_kinds = QRN_FD_READ | QRN_FD_WRITE | QRN_FD_EXCEPT;
constexpr uint32_t epoll_bits[QRN_FD_KINDS] = {EPOLLIN | EPOLLRDHUP, EPOLLOUT, EPOLLPRI};

/* Calls `visit(watch, bit)` for each kind in `ev`. */
template <class Visit>
void each_kind(qrn_fd_slot_t &slot, qrn_ulong_t ev, Visit visit)
{
    for (unsigned i = 0; i < QRN_FD_KINDS; ++i)
        if ((ev & 1UL << i) != 0)
            visit(slot.kinds[i], 1UL << i);
}

/* The kinds that are active and were so before the wait of this number began. */
qrn_ulong_t active_kinds(qrn_fd_slot_t &slot, uint64_t before = UINT64_MAX)
{
    qrn_ulong_t active = 0;
    each_kind(slot, all_kinds, [&](const qrn_fd_watch_t &watch, qrn_ulong_t bit) {
        if (watch.ev != 0 && watch.suspended == 0 && watch.since < before)
            active |= bit;
    });
    return active;
}

uint32_t to_epoll(qrn_ulong_t ev)
{
    uint32_t bits = 0;
    for (unsigned i = 0; i < QRN_FD_KINDS; ++i)
        if ((ev & 1UL << i) != 0)
            bits |= epoll_bits[i];
    return bits;
}

qrn_ulong_t from_epoll(uint32_t bits)
{
    if ((bits & (EPOLLERR | EPOLLHUP)) != 0)
        return all_kinds;
    qrn_ulong_t ev = 0;
    for (unsigned i = 0; i < QRN_FD_KINDS; ++i)
        if ((bits & epoll_bits[i]) != 0)
            ev |= 1UL << i;
    return ev;
}

int change(const qrn_fd_t &fdm, int op, int handle, qrn_ulong_t ev)
{
    epoll_event wanted = {};
    wanted.events = to_epoll(ev);
    wanted.data.fd = handle;
    return epoll_ctl(fdm.epoll_fd, op, handle, &wanted);
}

/* Arms exactly `wanted`. A descriptor that was closed has left the epoll set by itself. */
int arm(const qrn_fd_t &fdm, int handle, qrn_fd_slot_t &slot, qrn_ulong_t wanted)
{
    if (wanted == slot.armed)
        return QRN_OK;
    int result = 0;
    if (wanted == 0) {
        change(fdm, EPOLL_CTL_DEL, handle, 0);
    } else {
        result = change(fdm, slot.armed == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, handle, wanted);
        if (result != 0 && errno == ENOENT)
            result = change(fdm, EPOLL_CTL_ADD, handle, wanted);
    }
    slot.armed = result == 0 ? wanted : 0;
    return result;
}

qrn_fd_slot_t *find(qrn_fd_t *fdm, qrn_handle_t handle)
{
    if (fdm == nullptr || handle < 0 || handle >= fdm->num_slots)
        return nullptr;
    return &fdm->slots[handle];
}

qrn_fd_slot_t &find_or_make(qrn_fd_t &fdm, qrn_handle_t handle)
{
    if (handle >= fdm.num_slots) {
        const int room = std::max({64, handle + 1, fdm.num_slots * 2});
        auto *grown = kfx::alloc_zeroed<qrn_fd_slot_t>(static_cast<size_t>(room));
        std::copy_n(fdm.slots, fdm.num_slots, grown);
        std::free(fdm.slots);
        fdm.slots = grown;
        fdm.num_slots = room;
    }
    return fdm.slots[handle];
}

/* Whether each kind in `ev` belongs to the watch of exactly `ev`, or, for 0, to none. */
bool all_watched_as(qrn_fd_slot_t &slot, qrn_ulong_t ev, qrn_ulong_t as)
{
    bool all = true;
    each_kind(slot, ev, [&](const qrn_fd_watch_t &watch, qrn_ulong_t) { all &= watch.ev == as; });
    return all;
}

/* The slot of a watch, named as it was begun. */
qrn_fd_slot_t *find_watched(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev)
{
    qrn_fd_slot_t *slot = find(fdm, handle);
    if (slot != nullptr && (ev & all_kinds) != 0 && all_watched_as(*slot, ev, ev))
        return slot;
    qrn_seterrf(QRN_ERR_INVALID, "descriptor %d is not watched for 0x%lx", handle, ev);
    return nullptr;
}

void set_watch(qrn_fd_slot_t &slot, qrn_ulong_t ev, const qrn_fd_watch_t &wanted)
{
    each_kind(slot, ev, [&](qrn_fd_watch_t &watch, qrn_ulong_t) {
        const int suspended = watch.suspended;
        watch = wanted;
        watch.suspended = suspended;
    });
}

/* Takes out of `ready` the kinds of one watch that are to be reported; the watch, with them in `ev`. */
bool take_report(qrn_fd_t &fdm, int handle, qrn_ulong_t &ready, qrn_fd_watch_t &report)
{
    kfx::lock_guard guard(fdm.lock);
    qrn_fd_slot_t &slot = fdm.slots[handle];
    ready &= active_kinds(slot, fdm.waits);
    if (ready == 0)
        return false;
    report = slot.kinds[std::countr_zero(ready)];
    const qrn_ulong_t kinds = report.ev;
    report.ev = ready & kinds;
    ready &= ~kinds;
    return true;
}

void disarm_inactive(qrn_fd_t &fdm, int handle)
{
    kfx::lock_guard guard(fdm.lock);
    qrn_fd_slot_t &slot = fdm.slots[handle];
    arm(fdm, handle, slot, slot.armed & active_kinds(slot));
}

int report_handle(qrn_fd_t &fdm, int handle, qrn_ulong_t ready, qrn_fd_enq_proc enqueue)
{
    int events = 0;
    qrn_fd_watch_t due;
    while (take_report(fdm, handle, ready, due)) {
        const int result = enqueue(due.evq, fdm.ctx, handle, due.ev, due.clientd, due.proc);
        if (result > 0)
            qrn_fd_suspend(&fdm, handle, due.ev);
        events += result == 0;
    }
    if (events == 0)
        disarm_inactive(fdm, handle);
    return events;
}

void drain(int wake_fd)
{
    uint64_t wakes;
    [[maybe_unused]] const ssize_t got = read(wake_fd, &wakes, sizeof wakes);
}

int fail(const char *what)
{
    qrn_seterrf(QRN_ERR_INVALID, "%s: %s", what, std::strerror(errno));
    return QRN_FAILURE;
}

} // namespace

extern "C" {

[[gnu::weak]] qrn_fd_t *qrn_fd_create(qrn_context_t *ctx)
{
    auto *fdm = kfx::alloc_zeroed<qrn_fd_t>();
    fdm->ctx = ctx;
    pthread_mutex_init(&fdm->lock, nullptr);
    fdm->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    fdm->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fdm->epoll_fd < 0 || fdm->wake_fd < 0 ||
        change(*fdm, EPOLL_CTL_ADD, fdm->wake_fd, QRN_FD_READ) != 0) {
        fail("descriptor manager");
        qrn_fd_delete(fdm);
        return nullptr;
    }
    return fdm;
}

[[gnu::weak]] void qrn_fd_delete(qrn_fd_t *fdm)
{
    for (const int fd : {fdm->epoll_fd, fdm->wake_fd})
        if (fd >= 0)
            close(fd);
    pthread_mutex_destroy(&fdm->lock);
    std::free(fdm->slots);
    std::free(fdm);
}

[[gnu::weak]] int qrn_fd_watch(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev,
                               qrn_event_queue_t *evq, qrn_fd_cb_proc proc, void *clientd)
{
    if (handle < 0 || ev == 0 || (ev & ~all_kinds) != 0) {
        qrn_seterrf(QRN_ERR_INVALID, "cannot watch descriptor %d for 0x%lx", handle, ev);
        return QRN_FAILURE;
    }
    kfx::lock_guard guard(fdm->lock);
    qrn_fd_slot_t &slot = find_or_make(*fdm, handle);
    if (!all_watched_as(slot, ev, 0)) {
        qrn_seterrf(QRN_ERR_INVALID, "descriptor %d is already watched for 0x%lx", handle, ev);
        return QRN_FAILURE;
    }
    set_watch(slot, ev, {evq, proc, clientd, ev, 0, fdm->waits});
    if (arm(*fdm, handle, slot, active_kinds(slot)) == 0)
        return QRN_OK;
    fail("watching a descriptor");
    set_watch(slot, ev, {});
    arm(*fdm, handle, slot, active_kinds(slot));
    return QRN_FAILURE;
}

[[gnu::weak]] qrn_event_queue_t *qrn_fd_watched_on(qrn_fd_t *fdm, qrn_handle_t handle,
                                                   qrn_ulong_t ev)
{
    kfx::lock_guard guard(fdm->lock);
    const qrn_fd_slot_t *slot = find_watched(fdm, handle, ev);
    return slot == nullptr ? nullptr : slot->kinds[std::countr_zero(ev)].evq;
}

[[gnu::weak]] int qrn_fd_unwatch(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev)
{
    kfx::lock_guard guard(fdm->lock);
    qrn_fd_slot_t *slot = find_watched(fdm, handle, ev);
    if (slot == nullptr)
        return QRN_FAILURE;
    set_watch(*slot, ev, {});
    arm(*fdm, handle, *slot, active_kinds(*slot));
    return QRN_OK;
}

[[gnu::weak]] int qrn_fd_any_watch(qrn_fd_t *fdm, qrn_handle_t *handle, qrn_ulong_t *ev)
{
    kfx::lock_guard guard(fdm->lock);
    for (int fd = 0; fd < fdm->num_slots; ++fd)
        for (const qrn_fd_watch_t &watch : fdm->slots[fd].kinds)
            if (watch.ev != 0) {
                *handle = fd;
                *ev = watch.ev;
                return 1;
            }
    return 0;
}

[[gnu::weak]] int qrn_fd_suspend(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev)
{
    if (fdm == nullptr)
        return QRN_FAILURE;
    kfx::lock_guard guard(fdm->lock);
    qrn_fd_slot_t *slot = find(fdm, handle);
    if (slot == nullptr)
        return QRN_FAILURE;
    each_kind(*slot, ev, [](qrn_fd_watch_t &watch, qrn_ulong_t) { ++watch.suspended; });
    return QRN_OK;
}

[[gnu::weak]] int qrn_fd_resume(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev)
{
    if (fdm == nullptr)
        return QRN_FAILURE;
    kfx::lock_guard guard(fdm->lock);
    qrn_fd_slot_t *slot = find(fdm, handle);
    if (slot == nullptr)
        return QRN_FAILURE;
    bool paired = true;
    each_kind(*slot, ev, [&](qrn_fd_watch_t &watch, qrn_ulong_t) {
        paired &= watch.suspended > 0;
        if (watch.suspended > 0 && --watch.suspended == 0)
            watch.since = fdm->waits;
    });
    const int armed = arm(*fdm, handle, *slot, slot->armed | active_kinds(*slot));
    return paired && armed == 0 ? QRN_OK : QRN_FAILURE;
}

[[gnu::weak]] int qrn_fd_wait(qrn_fd_t *fdm, int msec)
{
    {
        kfx::lock_guard guard(fdm->lock);
        ++fdm->waits;
    }
    const int ready = epoll_wait(fdm->epoll_fd, fdm->ready, QRN_FD_READY_MAX, msec);
    kfx_hrtime_t now;
    kfx_hrtime_timestamp(&now);
    kfx::store(fdm->fd_wakeup_ts.tsc_ticks, now.tsc_ticks);
    fdm->num_ready = std::max(0, ready);
    return ready >= 0 || errno == EINTR ? QRN_OK : fail("waiting for descriptors");
}

[[gnu::weak]] void qrn_fd_wake(qrn_fd_t *fdm)
{
    const uint64_t one = 1;
    // It fails only when wake-ups are pending already.
    [[maybe_unused]] const ssize_t put = write(fdm->wake_fd, &one, sizeof one);
}

[[gnu::weak]] int qrn_fd_report(qrn_fd_t *fdm, qrn_fd_enq_proc enqueue)
{
    int events = 0;
    for (int i = 0; i < fdm->num_ready; ++i) {
        const epoll_event &ready = fdm->ready[i];
        if (ready.data.fd == fdm->wake_fd)
            drain(fdm->wake_fd);
        else
            events += report_handle(*fdm, ready.data.fd, from_epoll(ready.events), enqueue);
    }
    fdm->num_ready = 0;
    return events;
}

} // extern "C"
