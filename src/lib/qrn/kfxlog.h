/* SPDX-License-Identifier: Apache-2.0 */
/* Utility layer: the log. Warnings and errors by level, debug traces by mask bit. The levels
 * and the sink are in qrn.h. */
#ifndef KFXLOG_H
#define KFXLOG_H

#include <stdint.h>

#include "qrn.h"

#ifdef __cplusplus
#include "kfxsync.h"
extern "C" {
#endif

/* Bits of `log_state.dmask`. */
#define KFX_DBG_EVENT 0x1UL  /* each event enqueued, dispatched, settled */
#define KFX_DBG_LIFE 0x2UL   /* queues made, shut down, deleted */
#define KFX_DBG_OPTION 0x4UL /* options read and set by name */
#define KFX_DBG_API 0x8000UL /* entry of public operations */

typedef struct kfx_log_state_t_stct {
    uint64_t dmask; /* which traces are written; read without a lock at each trace */
} kfx_log_state_t;

extern kfx_log_state_t log_state;

/* Writes one line to the sink. */
__attribute__((format(printf, 2, 3))) void kfx_logf(int level, const char *fmt, ...);
/* Writes one trace line to the sink. Callers test the mask first: see KFX_TRACE. */
__attribute__((format(printf, 1, 2))) void kfx_debug_logf(const char *fmt, ...);

#ifdef __cplusplus
}

/* Traces when the mask has the bit; only then are the arguments evaluated. */
#define KFX_TRACE(bit, ...) \
    (__builtin_expect((kfx::load(log_state.dmask) & (bit)) != 0, 0) ? kfx_debug_logf(__VA_ARGS__) \
                                                                    : (void)0)
#endif

#endif
