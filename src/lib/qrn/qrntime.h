/* SPDX-License-Identifier: Apache-2.0 */
/* Timers: a heap, ids with a free list, cancellation marks.
 *
 * The operations guard themselves and may run on any thread, with one exception: whoever expires timers
 * and cancels them from different threads excludes the two from each other, so that no expiry is
 * enqueued for a timer whose cancellation has returned. Time is the monotonic clock's. */
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
    struct timeval tv;       /* when it is due */
    qrn_ulong_t period_msec; /* 0: one-shot */
    int defunct;             /* 1: cancelled, or a one-shot timer that is done */

    /* Private. */
    int in_flight;   /* 1: an expiry event was enqueued and has not ended */
    int held;        /* 1: a cancellation is under way */
    qrn_ulong_t seq; /* orders timers that are due at the same time */
} qrn_timer_node_t;

/* Number of timer ids, and words of marks that cover them. */
#define QRN_TIMER_MAX_IDS (1 << 24)
#define QRN_TIMER_XMAP_WORDS (QRN_TIMER_MAX_IDS / 32)

/* Bit (id mod 32) of this word of the heap's `xmap` is the cancellation mark of a timer id. */
#define QRN_TIMER_XMAP_WORD(id) (((id) >> 5) & 0x7FFFF)

typedef struct qrn_timer_heap_t_stct {
    int sz;               /* timers in the heap */
    int numfreeidxs;      /* ids on the free list */
    int maxnumidxs;       /* ids that were ever handed out */
    int allocnumidxs;     /* room of the arrays */
    qrn_uint_t *map;      /* ids in heap order */
    qrn_uint_t *invmap;   /* an id's place in the heap; all ones when it is not there */
    qrn_uint_t *freeidxs; /* the free list, a stack */
    uint32_t *xmap; /* cancellation marks: one block for every id, so that it never moves while a
                             word of it is read without the lock. Null: none is set */
    qrn_timer_node_t **timers;      /* the node of each id */
    qrn_timer_node_t **free_timers; /* nodes of the free list's ids, for their next owners */
    void *reserved;
} qrn_timer_heap_t;

typedef struct qrn_timer_t_stct {
    qrn_context_t *ctx;
    qrn_timer_heap_t *hp;
    int in_limbo_ref_cnt;      /* ids that cannot be given back before something lets go of them */
    kfx_mutex_t lock;          /* guards everything here but the reading of marks; a leaf */
    qrn_timer_cb_proc last_cb; /* of the newest expiry */
    void *last_clientd;

    /* Private. */
    qrn_ulong_t next_seq;
} qrn_timer_t;

/* Brings `tv_usec` into 0 to 999999, carrying into or out of `tv_sec`. */
void qrn_timer_normalize_tv(struct timeval *tv);

/* A context's timers, none to begin with. Freed with their delete operation; nobody uses them then. */
qrn_timer_t *qrn_timer_create(qrn_context_t *ctx);
void qrn_timer_delete(qrn_timer_t *timer);

/* Starts a timer that is due in `delay_msec` milliseconds and, when `period_msec` is not 0, each period
 * after that; stores in `*first` (null: not wanted) whether it is now the next one that is due. Its id;
 * -1 after recording an error when all ids are in use. */
int qrn_timer_schedule(qrn_timer_t *timer, qrn_event_queue_t *evq, qrn_timer_cb_proc proc,
                       void *clientd, qrn_ulong_t delay_msec, qrn_ulong_t period_msec, int *first);

/* Milliseconds until the next timer is due, rounded up, at most INT_MAX; -1 when there is none. */
int qrn_timer_next_msec(qrn_timer_t *timer);

/* The first id from `from` on that belongs to a timer that is not cancelled; -1: none. */
int qrn_timer_next_id(qrn_timer_t *timer, int from);

/* What enqueues an expiry, as qrn_evq_enq_timer() does: 0 when it did; below 0 when it could not and is
 * to be tried again, above 0 when the queue takes no more: the timer is not due again. */
typedef int (*qrn_timer_enq_proc)(qrn_event_queue_t *evq, qrn_context_t *ctx, int id, void *clientd,
                                  qrn_timer_cb_proc proc, qrn_ulong_t recurring);

/* Enqueues, in the order of their due times, an expiry for each timer that is due. A recurring timer
 * whose last expiry has not ended skips a beat, so it is in its queue once at most and its callback never
 * overlaps itself; beats that were missed are not made up for. No lock is held while `enqueue` runs.
 * Number of expiries. */
int qrn_timer_expire(qrn_timer_t *timer, qrn_timer_enq_proc enqueue);

/* Stops a timer: it is not due any more, and when an expiry has not ended its id is marked, so that the
 * expiry is not delivered. The id stays with the caller until qrn_timer_release(). 0, or
 * -1 after recording an error when there is no such timer or it was cancelled before. */
int qrn_timer_cancel(qrn_timer_t *timer, int id);
/* The queue of a timer that is not cancelled; null after recording an error when there is none. */
qrn_event_queue_t *qrn_timer_queue_of(qrn_timer_t *timer, int id);
/* Ends a cancellation; `purged` not 0: the caller removed the expiry from the queue. The id is given back
 * now or, when an expiry is still being delivered, by qrn_timer_push_free_id(). */
void qrn_timer_release(qrn_timer_t *timer, int id, int purged);

/* An expiry of `id` has ended: gives the id back for reuse, without its mark, unless it is still in use by
 * a live recurring timer or by a cancellation. 0; -1 for an id that has no expiry. */
int qrn_timer_push_free_id(qrn_timer_t *timer, int id);

#ifdef __cplusplus
}
#endif

#endif
