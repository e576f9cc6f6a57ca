/* SPDX-License-Identifier: Apache-2.0 */
/* The two containers that event queues stand on: a blocking queue and an ordered list. */
#ifndef QRNQUEUE_H
#define QRNQUEUE_H

#include <semaphore.h>
#include <stdalign.h>
#include <time.h>

#include "kfxsync.h"
#include "qrn.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --- The blocking queue: first-in first-out, any number of threads at both ends ---------------- */

/* One item. `next` is written once, with release order, by the appender that links the item behind
 * this one; whoever holds no lock that excludes appenders reads it with acquire order. */
typedef struct qrn_tl_queue_node_t_stct {
    void *value;
    struct qrn_tl_queue_node_t_stct *next;
} qrn_tl_queue_node_t;

/* Calls made with an item. */
typedef void (*qrn_tl_queue_dequeue_cb_proc)(void *value, void *clientd);
typedef int (*qrn_tl_queue_cmp_proc)(const void *item, const void *clientd);
typedef int (*qrn_tl_queue_rem_proc)(const void *item);
typedef int (*qrn_tl_queue_filter_proc)(const void *item, const void *clientd, int *remove);

/* The hook of a dequeue. */
typedef struct qrn_tl_queue_dequeue_cb_info_t_stct {
    qrn_tl_queue_dequeue_cb_proc cbproc;
    void *clientd;
} qrn_tl_queue_dequeue_cb_info_t;

/* The fields of each side lie on cache lines of their own.
 *
 * Lock order: `head_lock`, then whatever a hook, filter or removal callback takes. `tail_lock` is a
 * leaf: nothing is locked and no callback runs under it. */
typedef struct qrn_tl_queue_t_stct {
    alignas(64) kfx_mutex_t head_lock;     /* guards `head`, serialises takers and passes */
    alignas(64) kfx_mutex_t tail_lock;     /* guards `tail`, serialises appenders */
    alignas(64) sem_t sem_sz;              /* a token for each item: TOKENS in qrnqueue.cpp */
    alignas(64) qrn_tl_queue_node_t *head; /* sentinel; `head->next` is the first item or null */
    alignas(64) qrn_tl_queue_node_t *tail; /* last node; the sentinel when empty */

    /* Private. */
    qrn_tl_queue_node_t *fresh;     /* next node of the tail's segment; under `tail_lock` */
    qrn_tl_queue_node_t *fresh_end; /* where that segment ends; under `tail_lock` */
    qrn_uint_t credit;              /* stale tokens for the next appends; under `tail_lock` */
    alignas(64) qrn_uint_t idle; /* takers that look and that are parked: WAITING in qrnqueue.cpp */
    int fd;                  /* written under both end locks, read under either; -1: not in use */
    int fd_readable;         /* under `fd_lock` */
    sem_t park;              /* what parked takers sleep on */
    kfx_mutex_t fd_lock;     /* innermost; taken only while the descriptor is in use */
    alignas(64) void *spare; /* an emptied segment on its way back to the appenders, or null */
    qrn_uint_t offered;      /* stale tokens on the same way: TOKENS in qrnqueue.cpp */
    qrn_uint_t owed;         /* stale tokens known of; under `head_lock` */
    qrn_uint_t flow;         /* takes since the queue was last found empty; under `head_lock` */
} qrn_tl_queue_t;

/* A new, empty queue; null when memory or a system object ran out. */
qrn_tl_queue_t *qrn_tl_queue_create(void);

/* Frees a queue that nobody uses any more. Items that are still queued are the caller's. */
void qrn_tl_queue_delete(qrn_tl_queue_t *q);

/* Appends an item. Any thread, at any time; never waits for a taker. 0, or -1 with nothing appended
 * when memory ran out. */
int qrn_tl_queue_enqueue(qrn_tl_queue_t *q, void *value);

/* Takes the first item into `*value`; stores null there when none was taken. With `block` it waits
 * for an item. 0; an empty queue without `block` gives 0 and null. -1 when a wait ended without an
 * item, which happens only when somebody else posted `sem_sz`: the caller is to try again. */
int qrn_tl_queue_dequeue(qrn_tl_queue_t *q, void **value, int block);

/* The same; when an item is taken and `cbinfo` is not null, calls the hook with it before any pass
 * can run: a pass sees every item queued or already given to its hook. The hook runs with
 * `head_lock` held and must not use the queue. */
int qrn_tl_queue_dequeue_ex(qrn_tl_queue_t *q, void **value, int block,
                            qrn_tl_queue_dequeue_cb_info_t *cbinfo);

/* The same, waiting until `deadline` (absolute, on the monotonic clock) at most; -1 then too. An item
 * that is there is taken whatever the deadline. */
int qrn_tl_queue_dequeue_timed(qrn_tl_queue_t *q, void **value,
                               qrn_tl_queue_dequeue_cb_info_t *cbinfo,
                               const struct timespec *deadline);

/* A descriptor that is readable while an item is queued, for foreign event loops; made by the first
 * call, closed with the queue. -1 with errno when there is none to be had. */
int qrn_tl_queue_fd(qrn_tl_queue_t *q);

/* Whether nothing is queued at this moment. Takes `head_lock`. */
int qrn_tl_queue_is_empty(qrn_tl_queue_t *q);

/* Removes every item for which `cmp(item, clientd)` is 0 and calls `rem(item)` once it is unlinked.
 * The other items keep their order. Takers wait meanwhile, appenders do not; a pass may wait about a
 * microsecond for a taker that looks at the empty list. Callbacks run with `head_lock` held and may
 * append. 0. */
int qrn_tl_queue_remove_all(qrn_tl_queue_t *q, qrn_tl_queue_cmp_proc cmp, qrn_tl_queue_rem_proc rem,
                            void *clientd);

/* Calls `filter(item, clientd, &remove)` for every item, `remove` preset to 0, and unlinks the item
 * when the filter set it to 1; the item itself is the filter's to release, or the caller's.
 * Threads as for a removal pass. 0. */
int qrn_tl_queue_filter_all(qrn_tl_queue_t *q, qrn_tl_queue_filter_proc filter, void *clientd);

/* --- The ordered list: no locking of its own --------------------------------------------------- */

typedef struct qrn_queue_node_t_stct {
    qrn_ulong_t pri; /* low first; equal ones first-in first-out */
    const void *buff;
    struct qrn_queue_node_t_stct *next;
    struct qrn_queue_node_t_stct *prev;
} qrn_queue_node_t;

typedef struct qrn_queue_t_stct {
    size_t sz;                   /* entries */
    qrn_queue_node_t head, tail; /* sentinels; entries lie between them */
} qrn_queue_t;

/* A new, empty list; null when memory ran out. */
qrn_queue_t *qrn_queue_create(void);
/* Inserts an entry behind those of the same or a lower `pri`. 0, or -1 when memory ran out. */
int qrn_queue_enqueue(qrn_queue_t *list, const void *buff, qrn_ulong_t pri);
/* Takes the first entry; null when there is none. */
void *qrn_queue_dequeue(qrn_queue_t *list);
/* Frees a list with the entries that are left; what they point to is the caller's. */
void qrn_queue_delete(qrn_queue_t *list);

#ifdef __cplusplus
}
#endif

#endif
