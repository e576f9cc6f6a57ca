// SPDX-License-Identifier: Apache-2.0
// The clock of the measurements: the time-stamp counter where there is one.
#ifndef BENCH_CLOCK_HPP
#define BENCH_CLOCK_HPP

#include <chrono>
#include <cstdint>
#include <thread>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace bench {

using tick = std::uint64_t;

inline tick steady_ns()
{
    return static_cast<tick>(std::chrono::steady_clock::now().time_since_epoch() /
                             std::chrono::nanoseconds{1});
}

// Now, not earlier than what the program did before.
inline tick now()
{
#if defined(__x86_64__)
    _mm_lfence();
    return __rdtsc();
#else
    return steady_ns();
#endif
}

inline void relax()
{
#if defined(__x86_64__)
    _mm_pause();
#endif
}

// Length of a tick, measured once against the steady clock. It sleeps meanwhile, so that a count of
// instructions does not depend on it.
inline double ns_per_tick()
{
    static const double length = [] {
        const tick ns = steady_ns(), ticks = now();
        std::this_thread::sleep_for(std::chrono::milliseconds{100});
        return static_cast<double>(steady_ns() - ns) / static_cast<double>(now() - ticks);
    }();
    return length;
}

inline double to_ns(tick ticks)
{
    return static_cast<double>(ticks) * ns_per_tick();
}

inline tick from_ns(double ns)
{
    return static_cast<tick>(ns / ns_per_tick());
}

} // namespace bench

#endif
