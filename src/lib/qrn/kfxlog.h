/* SPDX-License-Identifier: Apache-2.0 */
/* Utility layer: the log. Warnings and errors by level, debug traces by mask bit. */
#ifndef KFXLOG_H
#define KFXLOG_H

#include <stdint.h>

#include "qrn.h"

#ifdef __cplusplus
#include "kfxsync.h"
extern "C" {
#endif

/* Levels, the most severe first. */
#define KFX_LOG_FATAL 2
#define KFX_LOG_ERROR 3
#define KFX_LOG_WARNING 5
#define KFX_LOG_INFO 6
#define KFX_LOG_DEBUG 7

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

/* Takes every line: `line` is valid during the call and ends with its own newline where the writer
 * gave one. Runs on the logging thread, several at once. */
typedef void (*kfx_log_sink_proc)(int level, const char *line);

/* Installs a sink (null: standard error) and returns the one it replaces. Any thread. */
QRN_API kfx_log_sink_proc kfx_set_log_sink(kfx_log_sink_proc sink);

#ifdef __cplusplus
}

/* Traces when the mask has the bit; only then are the arguments evaluated. */
#define KFX_TRACE(bit, ...) \
    (__builtin_expect((kfx::load(log_state.dmask) & (bit)) != 0, 0) ? kfx_debug_logf(__VA_ARGS__) \
                                                                    : (void)0)
#endif

#endif
