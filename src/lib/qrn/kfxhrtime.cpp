/* SPDX-License-Identifier: Apache-2.0 */
/* Time.
 *
 * Source of stamps: the time-stamp counter is used where the processor calls it invariant and the
 * kernel keeps its own time by it, which says that it is synchronised across processors. The fence
 * before the read keeps it behind every load that precedes it, so a stamp taken after another thread's
 * stamp became known is never the smaller one. Elsewhere stamps are CLOCK_MONOTONIC in nanoseconds.
 *
 * Calibration: a pair of readings (counter, CLOCK_MONOTONIC) is taken when the library is loaded. A
 * conversion that finds no factor takes a second pair and divides; when the first pair is younger than
 * 4 ms it waits until it is that old. A pair is off by a few ten nanoseconds at most, so that factor is
 * good to about 1e-5. Conversions that find the first pair older than 64 ms and then 1 s improve the
 * factor once each; from then on a conversion is one multiplication.
 *
 * Wall clock: the deadline of a dispatch call is looked at before each event, so a thread reads the clock
 * itself every 50 us at most and adds what the counter has advanced since.
 *
 * The operations are weak: a program may put its own in their place at link time. */
#include "kfxhrtime.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include "kfxsync.h"

namespace {

constexpr uint64_t nsec_per_sec = 1'000'000'000;
/* How old the first pair must be for each improvement of the factor. */
constexpr uint64_t refine_age_nsec[] = {4'000'000, 64'000'000, nsec_per_sec};
constexpr unsigned refined = std::size(refine_age_nsec);

uint64_t clock_nsec(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * nsec_per_sec + static_cast<uint64_t>(now.tv_nsec);
}

#if defined(__x86_64__)

/* May be read ahead of loads that precede it. */
uint64_t glance_at_counter()
{
    uint32_t low, high;
    asm volatile("rdtsc" : "=a"(low), "=d"(high));
    return static_cast<uint64_t>(high) << 32 | low;
}

uint64_t read_counter()
{
    asm volatile("lfence" : : : "memory");
    return glance_at_counter();
}

bool counter_is_invariant()
{
    unsigned eax, ebx, ecx, edx;
    return __get_cpuid(0x80000007, &eax, &ebx, &ecx, &edx) != 0 && (edx & 1U << 8) != 0;
}

bool kernel_trusts_counter()
{
    char name[16] = "";
    FILE *file =
        std::fopen("/sys/devices/system/clocksource/clocksource0/current_clocksource", "re");
    if (file == nullptr)
        return false;
    const bool read = std::fgets(name, sizeof name, file) != nullptr;
    std::fclose(file);
    return read && std::strcmp(name, "tsc\n") == 0;
}

bool counter_usable()
{
    return counter_is_invariant() && kernel_trusts_counter();
}

#else

uint64_t read_counter()
{
    return clock_nsec(CLOCK_MONOTONIC);
}

/* There is none: whatever was read with it is old. */
uint64_t glance_at_counter()
{
    return UINT64_MAX;
}

bool counter_usable()
{
    return false;
}

#endif

__extension__ typedef unsigned __int128 uint128;

struct reading {
    uint64_t ticks;
    uint64_t nsec;
};

/* Both clocks at one moment: the tightest of several tries, so that a preempted one does not count. */
reading read_both()
{
    reading best = {};
    uint64_t best_width = UINT64_MAX;
    for (int i = 0; i < 16; ++i) {
        const uint64_t before = read_counter();
        const uint64_t nsec = clock_nsec(CLOCK_MONOTONIC);
        const uint64_t width = read_counter() - before;
        if (width < best_width) {
            best_width = width;
            best = {before + width / 2, nsec};
        }
    }
    return best;
}

/* What is found out once. */
struct clock_base {
    bool use_counter = counter_usable();
    reading first = read_both();
    uint64_t wall_offset_nsec = clock_nsec(CLOCK_REALTIME) - clock_nsec(CLOCK_MONOTONIC);
};

const clock_base &base()
{
    static const clock_base found;
    return found;
}

/* Finds it out at load time, before any thread needs it. */
[[maybe_unused]] const clock_base &loaded_ = base();

kfx_mutex_t refine_lock_ = PTHREAD_MUTEX_INITIALIZER; // serialises improvements; nothing nests
constinit unsigned refinements_ = 0; // made so far; written under the lock after `factor_`
constinit uint64_t factor_ = 0;      // microseconds a tick, in units of 2^-64

/* Whether the first pair is old enough at this moment for an improvement after those done. */
bool may_refine(unsigned done, uint64_t nsec)
{
    return nsec - base().first.nsec >= refine_age_nsec[done];
}

bool refinement_due(unsigned done)
{
    return done == 0 || (done < refined && may_refine(done, clock_nsec(CLOCK_MONOTONIC)));
}

void refine()
{
    kfx::lock_guard guard(refine_lock_);
    const unsigned done = kfx::load(refinements_);
    if (!refinement_due(done))
        return;
    const reading &first = base().first;
    reading last;
    do {
        last = read_both();
    } while (last.nsec - first.nsec < refine_age_nsec[done] || last.ticks == first.ticks);
    const long double usec = static_cast<long double>(last.nsec - first.nsec) / 1000;
    const auto ticks = static_cast<long double>(last.ticks - first.ticks);
    kfx::store(factor_, static_cast<uint64_t>(usec / ticks * 0x1p64L));
    // Release: who sees the count with acquire sees a factor.
    kfx::store(refinements_, done + 1, std::memory_order_release);
}

/* Once there is a factor. */
uint64_t scale(uint64_t ticks)
{
    return static_cast<uint64_t>(static_cast<uint128>(ticks) * kfx::load(factor_) >> 64);
}

uint64_t ticks_to_usec(uint64_t ticks)
{
    if (!base().use_counter)
        return ticks / 1000;
    if (refinement_due(kfx::load(refinements_, std::memory_order_acquire)))
        refine();
    return scale(ticks);
}

/* The wall clock as a thread has read it last, and the counter just after. */
struct wall_reading {
    uint64_t nsec;
    uint64_t ticks;
};
constinit thread_local wall_reading last_reading_ = {}; /* older than any */

/* How old a reading may become: about 50 us, in which the first factor is off by less than 1 ns. */
constexpr uint64_t fresh_ticks = 1 << 17;

/* A reading, which this thread may advance by the counter once there is a factor. */
[[gnu::noinline]] uint64_t read_wall()
{
    const uint64_t nsec = clock_nsec(CLOCK_MONOTONIC);
    const unsigned done = kfx::load(refinements_, std::memory_order_acquire);
    if (done < refined && may_refine(done, nsec))
        refine();
    const uint64_t wall = nsec + base().wall_offset_nsec;
    if (base().use_counter && done != 0)
        last_reading_ = {wall, read_counter()};
    return wall;
}

uint64_t wall_nsec()
{
    const uint64_t passed = glance_at_counter() - last_reading_.ticks;
    if (passed >= fresh_ticks) [[unlikely]]
        return read_wall();
    return last_reading_.nsec + scale(passed * 1000);
}

} // namespace

extern "C" {

[[gnu::weak]] void kfx_hrtime_timestamp(kfx_hrtime_t *ts)
{
    ts->tsc_ticks = base().use_counter ? read_counter() : clock_nsec(CLOCK_MONOTONIC);
}

[[gnu::weak]] void kfx_hrtime_delta(const kfx_hrtime_t *start, const kfx_hrtime_t *end,
                                    kfx_hrtime_ivl_t *ivl)
{
    *ivl = end->tsc_ticks - start->tsc_ticks;
}

[[gnu::weak]] void kfx_hrtime_delta_usec(const kfx_hrtime_ivl_t *ivl, qrn_ulong_t *usec)
{
    *usec = ticks_to_usec(*ivl);
}

[[gnu::weak]] void kfx_current_tv(struct timeval *tv)
{
    const uint64_t usec = wall_nsec() / 1000;
    tv->tv_sec = static_cast<time_t>(usec / 1'000'000);
    tv->tv_usec = static_cast<suseconds_t>(usec % 1'000'000);
}

} // extern "C"
