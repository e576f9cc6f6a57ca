// SPDX-License-Identifier: Apache-2.0
//
// Threads, strategies, and the model of mutexes, semaphores and time. A thread that waits is ready when
// what it waits for is there; nobody is woken, so the models need no queues.
//
// Strategies, by seed: any ready thread at every point; the running thread goes on but for at most
// three points; random priorities, with at most three points at which the running thread becomes the
// last. The latter two find what needs few but well-placed switches.

#include "explorer.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cxxabi.h>
#include <pthread.h>
#include <semaphore.h>

#ifdef SCHED_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif
#ifdef SCHED_TSAN
#include <sanitizer/tsan_interface.h>
#endif

// --- Fibers --------------------------------------------------------------------------------------

#ifdef __x86_64__
// Saves what a call preserves, stores the stack in `*from` and goes on with the stack `to`.
extern "C" void sched_switch(void **from, void *to);
asm(R"(
.text
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
)");
#else
#include <ucontext.h>
#endif

namespace sched {

namespace {

constexpr size_t stack_size = 256 * 1024;

#ifdef __x86_64__
struct context {
    void *sp = nullptr;
    void prepare(char *stack, void (*entry)())
    {
        auto *words = reinterpret_cast<void **>(stack + stack_size) - 8;
        std::fill_n(words, 8, nullptr);
        words[6] = reinterpret_cast<void *>(entry); // above the six registers; then no caller
        sp = words;
    }
    void jump(context &to) { sched_switch(&sp, to.sp); }
};
#else
struct context {
    ucontext_t saved;
    void prepare(char *stack, void (*entry)())
    {
        getcontext(&saved);
        saved.uc_stack = {stack, 0, stack_size};
        makecontext(&saved, entry, 0);
    }
    void jump(context &to) { swapcontext(&saved, &to.saved); }
};
#endif

struct [[gnu::may_alias]] mutex_model {
    const struct fiber *owner;
};

struct [[gnu::may_alias]] semaphore_model {
    unsigned value;
};

struct fiber {
    context where;
    char *stack = nullptr;
    std::function<void()> body;
    bool live = false;
    int priority = 0;
    const mutex_model *mutex = nullptr;         // waits for it
    const semaphore_model *semaphore = nullptr; // waits for it
    bool timed = false;                         // but not for ever
    unsigned char exceptions[16] = {}; // the exceptions in flight, which are a thread's own
    [[maybe_unused]] const void *bottom = nullptr;
    [[maybe_unused]] size_t size = 0;
    [[maybe_unused]] void *sanitizer = nullptr;
};

constexpr unsigned max_threads = 6;
constexpr unsigned max_changes = 3;
constexpr unsigned long max_steps = 100'000;
constexpr unsigned max_streak =
    300; // points in a row; a thread that waits for others in a loop ends there

enum class strategy { uniform, bounded, priorities };

struct schedule {
    uint64_t random;
    strategy kind;
    unsigned long changes[max_changes];
    unsigned long steps = 0;
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
char start_token, end_token; // order a schedule's threads behind its start and before its end

bool in_thread()
{
    return current != &main_thread;
}

void acquire([[maybe_unused]] void *what)
{
#ifdef SCHED_TSAN
    __tsan_acquire(what);
#endif
}

void release([[maybe_unused]] void *what)
{
#ifdef SCHED_TSAN
    __tsan_release(what);
#endif
}

void before_switch([[maybe_unused]] fiber &from, [[maybe_unused]] fiber &to)
{
#ifdef SCHED_ASAN
    __sanitizer_start_switch_fiber(&from.sanitizer, to.bottom, to.size);
#endif
#ifdef SCHED_TSAN
    __tsan_switch_to_fiber(to.sanitizer, __tsan_switch_to_fiber_no_sync);
#endif
}

// `from` is the thread that was left.
void after_switch([[maybe_unused]] fiber &self, [[maybe_unused]] fiber *from)
{
#ifdef SCHED_ASAN
    const void *bottom;
    size_t size;
    __sanitizer_finish_switch_fiber(self.sanitizer, &bottom, &size);
    if (from == &main_thread) {
        from->bottom = bottom;
        from->size = size;
    }
#endif
}

fiber *left = nullptr;

void switch_to(fiber &next)
{
    fiber &self = *current;
    if (&self == &next)
        return;
    std::memcpy(self.exceptions, abi::__cxa_get_globals(), sizeof self.exceptions);
    left = &self;
    current = &next;
    before_switch(self, next);
    self.where.jump(next.where);
    after_switch(self, left);
    std::memcpy(abi::__cxa_get_globals(), self.exceptions, sizeof self.exceptions);
}

void leave();

void enter()
{
    after_switch(*current, left);
    for (;;) {
        std::memset(abi::__cxa_get_globals(), 0, sizeof current->exceptions);
        acquire(&start_token);
        try {
            current->body();
        } catch (...) {
            check(false, "an exception left a thread");
        }
        release(&end_token);
        current->live = false;
        leave();
    }
}

void make(fiber &f)
{
    if (f.stack == nullptr)
        f.stack = static_cast<char *>(std::aligned_alloc(64, stack_size));
#ifdef SCHED_ASAN
    __asan_unpoison_memory_region(f.stack, stack_size);
#endif
    f.bottom = f.stack;
    f.size = stack_size;
#ifdef SCHED_TSAN
    f.sanitizer = __tsan_create_fiber(0);
    main_thread.sanitizer = __tsan_get_current_fiber();
#endif
    f.where.prepare(f.stack, enter);
}

// --- Strategies ----------------------------------------------------------------------------------

// Whether it could go on now; a timer ends at any time, but seldom unless `timers` says so.
bool is_ready(const fiber &f, bool timers)
{
    if (!f.live)
        return false;
    if (f.mutex != nullptr)
        return f.mutex->owner == nullptr;
    if (f.semaphore != nullptr)
        return f.semaphore->value > 0 || (f.timed && (timers || choose(32) == 0));
    return true;
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
    bool change = ++s.streak > max_streak || std::ranges::count(s.changes, s.steps) != 0;
    switch (s.kind) {
    case strategy::uniform:
        return ready[choose(n)];
    case strategy::bounded:
        if (!change && std::find(ready, ready + n, current) != ready + n)
            return current;
        if (change && n > 1) // to another one
            n = static_cast<unsigned>(std::remove(ready, ready + n, current) - ready);
        return ready[choose(n)];
    default:
        if (change)
            current->priority = --s.lowest;
        return *std::max_element(ready, ready + n,
                                 [](auto *a, auto *b) { return a->priority < b->priority; });
    }
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
    if (n == 0)
        return nullptr;
    fiber *next = choose_from(ready, n);
    if (next != current)
        s.streak = 0;
    return next;
}

// Gives way to whoever can go on; comes back when this thread is chosen again.
void leave()
{
    fiber *next = pick();
    switch_to(next != nullptr ? *next : main_thread);
}

} // namespace

// --- The interface -------------------------------------------------------------------------------

void begin(uint64_t seed)
{
    const bool fresh = s.failed || threads[0].stack == nullptr;
    s = {};
    s.random = seed * 0x9E3779B97F4A7C15 + 1;
    s.kind = static_cast<strategy>(choose(3));
    const unsigned long length = 16UL << choose(7);
    std::ranges::generate(s.changes, [=] { return choose(static_cast<unsigned>(length)); });
    std::fill_n(s.changes, choose(max_changes), max_steps + 1); // fewer changes
    for (fiber &f : threads) {
        f.live = false;
        f.mutex = nullptr;
        f.semaphore = nullptr;
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
    release(&start_token);
    while (fiber *next = pick())
        switch_to(*next);
    acquire(&end_token);
    if (s.failed)
        throw failure{s.what};
    return static_cast<int>(std::ranges::count(threads, true, &fiber::live));
}

void end()
{
    check(std::ranges::count(threads, true, &fiber::live) == 0, "a thread waits for ever");
    check(!blocks_left(), "memory leaked");
}

void point()
{
    if (!in_thread())
        return;
    s.time += 1000;
    check(++s.steps < max_steps, "no end in sight");
    leave();
}

unsigned choose(unsigned n)
{
    s.random += 0x9E3779B97F4A7C15;
    uint64_t x = s.random;
    x = (x ^ x >> 30) * 0xBF58476D1CE4E5B9;
    x = (x ^ x >> 27) * 0x94D049BB133111EB;
    return static_cast<unsigned>((x ^ x >> 31) % n);
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
    if (!in_thread())
        throw failure{s.what};
    for (;;)
        switch_to(main_thread);
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

template <class Model>
Model &model_of(void *object)
{
    touch(object);
    return *reinterpret_cast<Model *>(object);
}

bool is_awaited(const void *object)
{
    return std::ranges::any_of(threads, [=](const fiber &f) {
        return f.live && (f.mutex == object || f.semaphore == object);
    });
}

bool try_lock(mutex_model &m)
{
    if (m.owner != nullptr)
        return false;
    m.owner = current;
    acquire(&m);
    return true;
}

bool try_take(semaphore_model &sem)
{
    if (sem.value == 0)
        return false;
    --sem.value;
    acquire(&sem);
    return true;
}

int fail_with(int error)
{
    errno = error;
    return -1;
}

// A null deadline is none. Signals arrive now and then.
int wait(semaphore_model &sem, const timespec *deadline)
{
    point();
    if (in_thread() && choose(64) == 0)
        return fail_with(EINTR);
    if (try_take(sem))
        return 0;
    check(in_thread(), "the main thread would wait for ever");
    current->semaphore = &sem;
    current->timed = deadline != nullptr;
    leave();
    current->semaphore = nullptr;
    if (deadline != nullptr && (sem.value == 0 || choose(8) == 0)) {
        s.time = std::max(s.time, static_cast<uint64_t>(deadline->tv_sec) * 1'000'000'000 +
                                      static_cast<uint64_t>(deadline->tv_nsec));
        return fail_with(ETIMEDOUT);
    }
    try_take(sem);
    return 0;
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
    model_of<mutex_model>(mutex).owner = nullptr;
    return 0;
}

int __wrap_pthread_mutex_destroy(void *mutex)
{
    check(model_of<mutex_model>(mutex).owner == nullptr && !is_awaited(mutex),
          "a mutex in use is destroyed");
    return 0;
}

int __wrap_pthread_mutex_lock(void *mutex)
{
    auto &m = model_of<mutex_model>(mutex);
    point();
    if (try_lock(m))
        return 0;
    check(in_thread() && m.owner != current, "a mutex is locked that this thread holds");
    current->mutex = &m;
    leave();
    current->mutex = nullptr;
    try_lock(m);
    return 0;
}

int __wrap_pthread_mutex_trylock(void *mutex)
{
    auto &m = model_of<mutex_model>(mutex);
    point();
    return try_lock(m) ? 0 : EBUSY;
}

// Points before and after: what a lock guards, and what follows the release without one, shows.
int __wrap_pthread_mutex_unlock(void *mutex)
{
    auto &m = model_of<mutex_model>(mutex);
    point();
    check(m.owner == current, "a mutex is unlocked that another thread holds");
    release(&m);
    m.owner = nullptr;
    point();
    return 0;
}

int __wrap_sem_init(void *sem, int, unsigned value)
{
    model_of<semaphore_model>(sem).value = value;
    return 0;
}

int __wrap_sem_destroy(void *sem)
{
    touch(sem);
    check(!is_awaited(sem), "a semaphore in use is destroyed");
    return 0;
}

int __wrap_sem_post(void *sem)
{
    auto &model = model_of<semaphore_model>(sem);
    point();
    release(&model);
    ++model.value;
    point();
    return 0;
}

int __wrap_sem_wait(void *sem)
{
    return wait(model_of<semaphore_model>(sem), nullptr);
}

int __wrap_sem_clockwait(void *sem, clockid_t, const timespec *deadline)
{
    return wait(model_of<semaphore_model>(sem), deadline);
}

int __wrap_sem_trywait(void *sem)
{
    auto &model = model_of<semaphore_model>(sem);
    point();
    return try_take(model) ? 0 : fail_with(EAGAIN);
}

int __wrap_sem_getvalue(void *sem, int *value)
{
    auto &model = model_of<semaphore_model>(sem);
    point();
    *value = static_cast<int>(model.value);
    return 0;
}

int __wrap_clock_gettime(clockid_t, timespec *time)
{
    *time = {static_cast<time_t>(now() / 1'000'000'000), static_cast<long>(now() % 1'000'000'000)};
    return 0;
}

} // extern "C"
