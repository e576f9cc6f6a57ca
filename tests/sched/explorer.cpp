// SPDX-License-Identifier: Apache-2.0
//
// Threads, strategies, and the model of mutexes, semaphores and time. A thread that waits is ready when
// what it waits for is there; nobody is woken, so the models need no queues.
//
// Strategies, by seed: any ready thread at every point; the running thread goes on but for a few
// points; random priorities, with a few points at which the running thread becomes the last. The
// latter two find what needs few but well-placed switches.

#include "explorer.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cxxabi.h>
#include <random>

#ifdef SCHED_ASAN
#include <sanitizer/asan_interface.h>
#endif
#ifdef SCHED_TSAN
#include <sanitizer/tsan_interface.h>
#endif

// --- Fibers --------------------------------------------------------------------------------------

#ifdef __x86_64__
// Saves what a call preserves, stores the stack in `*from` and goes on with the stack `to`.
extern "C" void sched_switch(void **from, void *to);
asm(R"(
.pushsection .text
.type sched_switch, @function
sched_switch:
    pushq %rbp
    pushq %rbx
    pushq %r12
    pushq %r13
    pushq %r14
    pushq %r15
    movq %rsp, (%rdi)
    movq %rsi, %rsp
    popq %r15
    popq %r14
    popq %r13
    popq %r12
    popq %rbx
    popq %rbp
    ret
.popsection
)");
#else
#include <ucontext.h>
#endif

namespace sched {

namespace {

constexpr size_t stack_size = 256 * 1024;

struct context {
#ifdef __x86_64__
    void *sp = nullptr;
    void prepare(char *stack, void (*entry)())
    {
        auto *words = reinterpret_cast<void **>(stack + stack_size) - 8;
        std::fill_n(words, 8, nullptr);
        words[6] = reinterpret_cast<void *>(entry); // above the six registers; then no caller
        sp = words;
    }
    void jump(context &to)
    {
        sched_switch(&sp, to.sp);
    }
#else
    ucontext_t saved;
    void prepare(char *stack, void (*entry)())
    {
        getcontext(&saved);
        saved.uc_stack = {stack, 0, stack_size};
        makecontext(&saved, entry, 0);
    }
    void jump(context &to)
    {
        swapcontext(&saved, &to.saved);
    }
#endif
};

struct fiber;

// A mutex or a semaphore. It may be taken while `taken` is not above 0: a mutex is 0 or 1, a semaphore
// 1 less its value.
struct [[gnu::may_alias]] model {
    int taken;
    const fiber *owner;
};

struct fiber {
    context where;
    char *stack = nullptr;
    std::function<void()> body;
    bool live = false;
    int priority = 0;
    const model *waits_for = nullptr;
    bool timed = false;                // waits, but not for ever
    unsigned char exceptions[16] = {}; // the exceptions in flight are a thread's own
    const void *bottom = nullptr;      // these for the sanitizers
    size_t size = 0;
    void *sanitizer = nullptr;
};

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
    uint64_t time = 1'000'000'000;
    bool failed = false;
    std::string what;
    std::function<bool()> stranded;
};

schedule s;
fiber threads[max_threads];
fiber main_thread;
fiber *current = &main_thread;
fiber *left = nullptr;  // before `current`
char beginning, ending; // order the threads of a schedule behind its beginning and before its end

bool in_thread()
{
    return current != &main_thread;
}

#ifdef SCHED_TSAN
constexpr auto acquire = __tsan_acquire, release = __tsan_release;
#else
void acquire(void *) {}
void release(void *) {}
#endif

void arrive()
{
#ifdef SCHED_ASAN
    const void *bottom;
    size_t size;
    __sanitizer_finish_switch_fiber(current->sanitizer, &bottom, &size);
    left->bottom = bottom;
    left->size = size;
#endif
}

void switch_to(fiber &next)
{
    fiber &self = *current;
    if (&self == &next)
        return;
    std::memcpy(self.exceptions, abi::__cxa_get_globals(), sizeof self.exceptions);
    left = &self;
    current = &next;
#ifdef SCHED_ASAN
    __sanitizer_start_switch_fiber(&self.sanitizer, next.bottom, next.size);
#endif
#ifdef SCHED_TSAN
    __tsan_switch_to_fiber(next.sanitizer, __tsan_switch_to_fiber_no_sync);
#endif
    self.where.jump(next.where);
    arrive();
    std::memcpy(abi::__cxa_get_globals(), self.exceptions, sizeof self.exceptions);
}

void give_way();

void enter()
{
    arrive();
    for (;;) {
        std::memset(abi::__cxa_get_globals(), 0, sizeof current->exceptions);
        acquire(&beginning);
        try {
            current->body();
        } catch (...) {
            check(false, "an exception left a thread");
        }
        release(&ending);
        current->live = false;
        give_way();
    }
}

void make(fiber &f)
{
    if (f.stack == nullptr)
        f.stack = static_cast<char *>(std::aligned_alloc(64, stack_size));
    f.bottom = f.stack;
    f.size = stack_size;
    f.sanitizer = nullptr;
#ifdef SCHED_ASAN
    __asan_unpoison_memory_region(f.stack, stack_size);
#endif
#ifdef SCHED_TSAN
    f.sanitizer = __tsan_create_fiber(0);
    main_thread.sanitizer = __tsan_get_current_fiber();
#endif
    f.where.prepare(f.stack, enter);
}

// --- Strategies ----------------------------------------------------------------------------------

// Whether it could go on now. A timer ends at any time, but seldom unless `timers` says so.
bool is_ready(const fiber &f, bool timers)
{
    if (!f.live || f.waits_for == nullptr || f.waits_for->taken <= 0)
        return f.live;
    return f.timed && (timers || choose(32) == 0);
}

unsigned collect(fiber **ready, bool timers)
{
    unsigned n = 0;
    for (unsigned i = 0; i < s.spawned; ++i)
        if (is_ready(threads[i], timers))
            ready[n++] = &threads[i];
    return n;
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
    unsigned n = collect(ready, false);
    if (n == 0) {
        n = collect(ready, true);
        check(n == 0 || !s.stranded || !s.stranded(), "a wake-up was lost");
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

int count_live()
{
    return static_cast<int>(std::ranges::count(threads, true, &fiber::live));
}

} // namespace

// --- The interface -------------------------------------------------------------------------------

void begin(uint64_t seed)
{
    const bool fresh = s.failed || threads[0].stack == nullptr;
    s = {};
    s.random.seed(static_cast<unsigned>(seed * 0x9E3779B97F4A7C15 >> 32));
    s.kind = static_cast<strategy>(choose(3));
    const unsigned length = 16U << choose(7);
    std::ranges::generate(s.changes, [=] { return choose(length); });
    std::fill_n(s.changes, choose(max_changes), max_steps); // fewer changes
    for (fiber &f : threads) {
        f.live = false;
        f.waits_for = nullptr;
        if (fresh)
            make(f);
    }
    forget_blocks();
}

void spawn(std::function<void()> body)
{
    fiber &f = threads[s.spawned++];
    f.body = std::move(body);
    f.priority = static_cast<int>(choose(1000)) + 1;
    f.live = true;
}

int run()
{
    release(&beginning);
    while (fiber *next = pick())
        switch_to(*next);
    acquire(&ending);
    if (s.failed)
        throw failure{s.what};
    return count_live();
}

void end()
{
    check(count_live() == 0, "a thread waits for ever");
    check(!blocks_left(), "memory leaked");
}

void point()
{
    if (!in_thread())
        return;
    s.time += 1000;
    check(++s.steps < max_steps, "no end in sight");
    give_way();
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
    while (in_thread())
        switch_to(main_thread);
    throw failure{s.what};
}

void set_stranded(std::function<bool()> stranded)
{
    s.stranded = std::move(stranded);
}

uint64_t now()
{
    return s.time;
}

// --- Mutexes, semaphores, time -------------------------------------------------------------------

namespace {

// Of an object that an operation is about to change.
model &at_point(void *object)
{
    touch(object);
    point();
    return *static_cast<model *>(object);
}

int set_up(void *object, int taken)
{
    touch(object);
    *static_cast<model *>(object) = {taken, nullptr};
    return 0;
}

int tear_down(void *object)
{
    touch(object);
    const bool awaited = std::ranges::any_of(
        threads, [=](const fiber &f) { return f.live && f.waits_for == object; });
    check(!awaited, "what a thread waits for is destroyed");
    return 0;
}

bool try_take(model &m)
{
    if (m.taken > 0)
        return false;
    ++m.taken;
    m.owner = current;
    acquire(&m);
    return true;
}

// Waits until it can be taken; false when the time was up before.
bool take(model &m, bool timed)
{
    if (try_take(m))
        return true;
    check(in_thread(), "the main thread would wait for ever");
    current->waits_for = &m;
    current->timed = timed;
    give_way();
    current->waits_for = nullptr;
    return (!timed || choose(8) != 0) && try_take(m);
}

// Points before and after: what follows without a lock shows, too.
int give(model &m)
{
    release(&m);
    --m.taken;
    point();
    return 0;
}

int fail_with(int error)
{
    errno = error;
    return -1;
}

// Waits for a semaphore; signals arrive now and then.
int wait(void *sem, bool timed)
{
    model &m = at_point(sem);
    if (in_thread() && choose(64) == 0)
        return fail_with(EINTR);
    return take(m, timed) ? 0 : fail_with(ETIMEDOUT);
}

} // namespace

} // namespace sched

using namespace sched;

extern "C" {

void kfx_sched_point(const void *field);
void kfx_sched_point(const void *field)
{
    touch(field);
    point();
}
int __wrap_pthread_mutex_init(void *mutex, const void *)
{
    return set_up(mutex, 0);
}
int __wrap_pthread_mutex_destroy(void *mutex)
{
    check(static_cast<model *>(mutex)->taken == 0, "a locked mutex is destroyed");
    return tear_down(mutex);
}
int __wrap_pthread_mutex_lock(void *mutex)
{
    model &m = at_point(mutex);
    check(m.taken == 0 || m.owner != current, "a mutex is locked that this thread holds");
    take(m, false);
    return 0;
}
int __wrap_pthread_mutex_unlock(void *mutex)
{
    model &m = at_point(mutex);
    check(m.taken == 1 && m.owner == current, "a mutex is unlocked that this thread does not hold");
    return give(m);
}
int __wrap_sem_init(void *sem, int, unsigned value)
{
    return set_up(sem, 1 - static_cast<int>(value));
}
int __wrap_sem_destroy(void *sem)
{
    return tear_down(sem);
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
        s.time = std::max(s.time, static_cast<uint64_t>(deadline->tv_sec) * 1'000'000'000 +
                                      static_cast<uint64_t>(deadline->tv_nsec));
    return result;
}
int __wrap_sem_trywait(void *sem)
{
    return try_take(at_point(sem)) ? 0 : fail_with(EAGAIN);
}
int __wrap_sem_getvalue(void *sem, int *value)
{
    *value = 1 - at_point(sem).taken;
    return 0;
}
int __wrap_clock_gettime(clockid_t, timespec *time)
{
    *time = {static_cast<time_t>(now() / 1'000'000'000), static_cast<long>(now() % 1'000'000'000)};
    return 0;
}

} // extern "C"
