/* SPDX-License-Identifier: Apache-2.0 */
/* Timers: a heap, ids with a free list, cancellation marks. */
#ifndef QRNTIME_H
#define QRNTIME_H

#include <stdint.h>
#include <sys/time.h>

#include "kfxsync.h"
#include "qrn.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qrn_timer_node_t_stct {
    qrn_timer_cb_proc proc;
    void *clientd;
    qrn_event_queue_t *evq; /* receives the expiry events */
    int id;
    struct timeval tv;
    qrn_ulong_t period_msec; /* 0: one-shot */
    int defunct;
} qrn_timer_node_t;

/* Bit (id mod 32) of this word of the heap's `xmap` is the cancellation mark of a timer id. */
#define QRN_TIMER_XMAP_WORD(id) (((id) >> 5) & 0x7FFFF)

typedef struct qrn_timer_heap_t_stct {
    int sz, numfreeidxs, maxnumidxs, allocnumidxs;
    qrn_uint_t *map, *invmap, *freeidxs;
    uint32_t *xmap; /* cancellation marks; a word is read without the lock. Null: none is set */
    qrn_timer_node_t **timers, **free_timers;
    void *reserved;
} qrn_timer_heap_t;

typedef struct qrn_timer_t_stct {
    qrn_context_t *ctx;
    qrn_timer_heap_t *hp;
    int in_limbo_ref_cnt;
    kfx_mutex_t lock; /* guards the heap */
    qrn_timer_cb_proc last_cb;
    void *last_clientd;

    /* Private. */
} qrn_timer_t;

/* Brings `tv_usec` into 0 to 999999, carrying into or out of `tv_sec`. */
void qrn_timer_normalize_tv(struct timeval *tv);
/* Gives an id back for reuse; its next owner starts without a cancellation mark. 0. Any thread. */
int qrn_timer_push_free_id(qrn_timer_t *timer, int id);

#ifdef __cplusplus
}
#endif

#endif
