/* SPDX-License-Identifier: Apache-2.0 */
/* Utility layer: time.
 *
 * Stamps never run backwards across threads. Their source is the processor's time-stamp counter
 * where the kernel itself keeps time by it, else the monotonic clock in nanoseconds; the choice is
 * made once. The operations never fail; they may run on any thread and never block, but for the first
 * conversion to microseconds in a process younger than 4 ms, which waits until it is that old. */
#ifndef KFXHRTIME_H
#define KFXHRTIME_H

#include <stdint.h>
#include <sys/time.h>

#include "qrn.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A point in time. Opaque: only the operations below look inside. */
typedef union kfx_hrtime_t_stct {
    struct timeval tv;
    uint64_t tsc_ticks;
    uint64_t mach_ticks;
} kfx_hrtime_t;

/* The time between two points, in ticks of the stamps' source. */
typedef uint64_t kfx_hrtime_ivl_t;

/* Stores the current time. */
void kfx_hrtime_timestamp(kfx_hrtime_t *ts);
/* Stores the time from `start` to `end`. */
void kfx_hrtime_delta(const kfx_hrtime_t *start, const kfx_hrtime_t *end, kfx_hrtime_ivl_t *ivl);
/* Stores an interval in microseconds, rounded down and right to 1 part in 100,000; any interval
 * converts without overflow. */
void kfx_hrtime_delta_usec(const kfx_hrtime_ivl_t *ivl, qrn_ulong_t *usec);

/* Stores the wall-clock time as it was read once when the process started, advanced by the monotonic
 * clock: stepping the system clock does not move it. */
void kfx_current_tv(struct timeval *tv);

#ifdef __cplusplus
}
#endif

#endif
