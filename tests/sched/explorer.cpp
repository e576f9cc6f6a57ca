// SPDX-License-Identifier: Apache-2.0
//
// Threads, strategies, and the model of mutexes, semaphores and time. A thread that waits is ready when
// what it waits for is there; nobody is woken, so the models need no queues.
//
// Strategies, by seed: any ready thread at every point; the running thread goes on but for a few
// points; random priorities, with a few points at which the running thread becomes the last. The
// latter two find what needs few but well-placed switches.

#include "explorer.h"

#include "kfxsync.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <cxxabi.h>
#include <random>
#include <ucontext.h>

// What the thread sanitizer wants to know, where there is one.
extern "C" {
[[gnu::weak]] void *__tsan_create_fiber(unsigned);
[[gnu::weak]] void *__tsan_get_current_fiber();
[[gnu::weak]] void __tsan_switch_to_fiber(void *, unsigned);
[[gnu::weak]] void __tsan_acquire(void *);
[[gnu::weak]] void __tsan_release(void *);
}

namespace sched {

int64_t now;
std::function<bool()> stranded;

namespace {

// A mutex or a semaphore: may be taken while it is not above 0. A mutex is 0 or 1, a semaphore 1 less
// its value.
using model [[gnu::may_alias]] = int;

struct fiber {
    ucontext_t where;
    std::function<void()> body;
    bool live = false;
    int priority = 0;
    const model *waits_for = nullptr;
    bool timed = false;                // waits, but not for ever
    unsigned char exceptions[16] = {}; // the exceptions in flight are a thread's own
    void *sanitizer = nullptr;
};

constexpr size_t stack_size = 256 * 1024;
constexpr unsigned max_threads = 6;
constexpr unsigned max_changes = 3;
constexpr unsigned max_steps = 100'000;
constexpr unsigned max_streak = 300; // points in a row: who waits in a loop gives way then

enum class strategy { uniform, bounded, priorities };

struct schedule {
    std::minstd_rand random{};
    strategy kind = strategy::uniform;
    unsigned changes[max_changes] = {};
    unsigned steps = 0;
    unsigned streak = 0;
    unsigned spawned = 0;
    int lowest = 0;
    bool failed = false;
    std::string what;
};

schedule s;
fiber threads[max_threads + 1];
fiber &main_thread = threads[max_threads];
fiber *current = &main_thread;
char beginning, ending; // order the threads of a schedule behind its beginning and before its end

void order(void (*how)(void *), void *object)
{
    if (how != nullptr)
        how(object);
}

// --- Fibers --------------------------------------------------------------------------------------

void switch_to(fiber &next)
{
    fiber &self = *current;
    if (&self == &next)
        return;
    std::memcpy(self.exceptions, abi::__cxa_get_globals(), sizeof self.exceptions);
    current = &next;
    if (__tsan_switch_to_fiber != nullptr)
        __tsan_switch_to_fiber(next.sanitizer, 1); // which orders nothing
    swapcontext(&self.where, &next.where);
    std::memcpy(abi::__cxa_get_globals(), self.exceptions, sizeof self.exceptions);
}

void give_way();

void enter()
{
    std::memset(abi::__cxa_get_globals(), 0, sizeof current->exceptions);
    order(__tsan_acquire, &beginning);
    current->body();
    order(__tsan_release, &ending);
    current->live = false;
    give_way();
}

// --- Strategies ----------------------------------------------------------------------------------

// Whether it could go on now. A timer ends at any time, but seldom unless `timers` says so.
bool is_ready(const fiber &f, bool timers)
{
    if (!f.live || f.waits_for == nullptr || *f.waits_for <= 0)
        return f.live;
    return f.timed && (timers || choose(32) == 0);
}

fiber *choose_from(fiber **ready, unsigned n)
{
    const bool change = ++s.streak > max_streak || std::ranges::count(s.changes, s.steps) != 0;
    if (s.kind == strategy::priorities) {
        if (change)
            current->priority = --s.lowest;
        return *std::ranges::max_element(ready, ready + n, {}, &fiber::priority);
    }
    if (s.kind == strategy::bounded) {
        fiber **others = std::remove(ready, ready + n, current);
        const bool goes_on = others != ready + n;
        if (goes_on && (!change || n == 1))
            return current;
        n = static_cast<unsigned>(others - ready);
    }
    return ready[choose(n)];
}

// The thread that goes on; null when none can.
fiber *pick()
{
    fiber *ready[max_threads];
    unsigned n = 0;
    const auto collect = [&](bool timers) {
        for (fiber &f : threads)
            if (is_ready(f, timers))
                ready[n++] = &f;
    };
    collect(false);
    if (n == 0) {
        collect(true);
        check(n == 0 || !stranded(), "a wake-up was lost");
    }
    fiber *next = n == 0 ? nullptr : choose_from(ready, n);
    if (next != current)
        s.streak = 0;
    return next;
}

// Comes back when this thread is chosen again.
void give_way()
{
    fiber *next = pick();
    switch_to(next != nullptr ? *next : main_thread);
}

} // namespace

// --- The interface -------------------------------------------------------------------------------

void begin(uint64_t seed)
{
    s = {};
    now = second;
    stranded = [] { return false; };
    s.random.seed(static_cast<unsigned>(seed * 0x9E3779B97F4A7C15 >> 32));
    s.kind = static_cast<strategy>(choose(3));
    const unsigned length = 16U << choose(7);
    std::ranges::generate(s.changes, [=] { return choose(length); });
    std::fill_n(s.changes, choose(max_changes), max_steps); // fewer changes
    forget_blocks();
}

void spawn(std::function<void()> body)
{
    static char stacks[max_threads][stack_size];
    fiber &f = threads[s.spawned++];
    if (__tsan_create_fiber != nullptr && f.sanitizer == nullptr) {
        f.sanitizer = __tsan_create_fiber(0);
        main_thread.sanitizer = __tsan_get_current_fiber();
    }
    f.body = std::move(body);
    f.live = true;
    f.priority = static_cast<int>(choose(1000)) + 1;
    f.waits_for = nullptr;
    getcontext(&f.where);
    f.where.uc_stack = {stacks[&f - threads], 0, stack_size};
    makecontext(&f.where, enter, 0);
}

int run()
{
    order(__tsan_release, &beginning);
    while (fiber *next = pick())
        switch_to(*next);
    order(__tsan_acquire, &ending);
    if (s.failed)
        throw failure{s.what};
    return static_cast<int>(std::ranges::count(threads, true, &fiber::live));
}

void end()
{
    check(std::ranges::none_of(threads, &fiber::live), "a thread waits for ever");
    check(!blocks_left(), "memory leaked");
}

void point()
{
    if (current == &main_thread)
        return;
    now += 1000;
    check(++s.steps < max_steps, "no end in sight");
    give_way();
}

unsigned self()
{
    return static_cast<unsigned>(current - threads);
}

unsigned choose(unsigned n)
{
    return static_cast<unsigned>(s.random() % n);
}

void check(bool ok, const char *what)
{
    if (ok)
        return;
    if (!s.failed)
        s.what = what;
    s.failed = true;
    for (fiber &f : threads)
        f.live = false;
    while (current != &main_thread)
        switch_to(main_thread);
    throw failure{s.what};
}

} // namespace sched

// --- Mutexes, semaphores, time -------------------------------------------------------------------

using namespace sched;

namespace {

// Of an object that an operation is about to change.
model &at_point(void *object)
{
    kfx_sched_point(object);
    return *static_cast<model *>(object);
}

bool try_take(model &m)
{
    touch(&m);
    if (m > 0)
        return false;
    ++m;
    order(__tsan_acquire, &m);
    return true;
}

// Waits until it can be taken; false when the time was up before.
bool take(model &m, bool timed)
{
    if (try_take(m))
        return true;
    check(current != &main_thread, "the main thread would wait for ever");
    current->waits_for = &m;
    current->timed = timed;
    give_way();
    current->waits_for = nullptr;
    return (!timed || choose(8) != 0) && try_take(m);
}

// Points before and after: what follows without a lock shows, too.
int give(model &m)
{
    order(__tsan_release, &m);
    --m;
    point();
    return 0;
}

// Waits for a semaphore; signals arrive now and then.
int wait(void *sem, bool timed)
{
    model &m = at_point(sem);
    const bool interrupted = current != &main_thread && choose(64) == 0;
    const bool taken = !interrupted && take(m, timed);
    errno = interrupted ? EINTR : ETIMEDOUT;
    return taken ? 0 : -1;
}

} // namespace

extern "C" {

void kfx_sched_point(const void *field)
{
    touch(field);
    point();
}
int __wrap_sem_init(void *sem, int, unsigned value)
{
    touch(sem);
    *static_cast<model *>(sem) = 1 - static_cast<int>(value);
    return 0;
}
int __wrap_pthread_mutex_init(void *mutex, const void *)
{
    return __wrap_sem_init(mutex, 0, 1);
}
int __wrap_pthread_mutex_lock(void *mutex)
{
    take(at_point(mutex), false);
    return 0;
}
int __wrap_pthread_mutex_unlock(void *mutex)
{
    model &m = at_point(mutex);
    check(m == 1, "a mutex is unlocked that is not locked");
    return give(m);
}
int __wrap_sem_post(void *sem)
{
    return give(at_point(sem));
}
int __wrap_sem_wait(void *sem)
{
    return wait(sem, false);
}
int __wrap_sem_clockwait(void *sem, clockid_t, const timespec *deadline)
{
    const int result = wait(sem, true);
    if (result != 0 && errno == ETIMEDOUT)
        now = std::max(now, deadline->tv_sec * second + deadline->tv_nsec);
    return result;
}
int __wrap_sem_trywait(void *sem)
{
    const bool taken = try_take(at_point(sem));
    errno = EAGAIN;
    return taken ? 0 : -1;
}
int __wrap_sem_getvalue(void *sem, int *value)
{
    *value = 1 - at_point(sem);
    return 0;
}
int __wrap_clock_gettime(clockid_t, timespec *time)
{
    *time = {now / second, now % second};
    return 0;
}

} // extern "C"
