/* SPDX-License-Identifier: Apache-2.0 */
/* Descriptor manager, on epoll.
 *
 * One thread waits and reports; every other operation may run on any thread meanwhile. Whoever reports
 * and unwatches from different threads excludes the two from each other, so that nothing is reported for
 * a watch whose end has returned. */
#ifndef QRNFD_H
#define QRNFD_H

#include <stdint.h>
#include <sys/epoll.h>

#include "kfxhrtime.h"
#include "kfxsync.h"
#include "qrn.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Kinds of readiness. An error or a hang-up of the other side counts as each kind that is watched. */
#define QRN_FD_READ 0x1UL
#define QRN_FD_WRITE 0x2UL
#define QRN_FD_EXCEPT 0x4UL

#define QRN_FD_KINDS 3
#define QRN_FD_READY_MAX 64

/* The watch of one kind of readiness of one descriptor. */
typedef struct qrn_fd_watch_t_stct {
    qrn_event_queue_t *evq;
    qrn_fd_cb_proc proc;
    void *clientd;
    qrn_ulong_t ev; /* every kind of the same watch; 0: not watched */
    int suspended;  /* suspensions that were not resumed; outlives the watch */
    uint64_t since; /* the number of waits when it became active */
} qrn_fd_watch_t;

typedef struct qrn_fd_slot_t_stct {
    qrn_fd_watch_t kinds[QRN_FD_KINDS];
    qrn_ulong_t armed; /* the kinds that epoll reports */
} qrn_fd_slot_t;

typedef struct qrn_fd_t_stct {
    kfx_hrtime_t
        fd_wakeup_ts; /* end of the last wait; its `tsc_ticks` is stored and loaded whole */

    /* Private. */
    qrn_context_t *ctx;
    kfx_mutex_t lock; /* guards the slots and the number of waits; a leaf */
    uint64_t waits;   /* waits begun so far */
    int epoll_fd;
    int wake_fd;
    qrn_fd_slot_t *slots; /* by descriptor */
    int num_slots;
    struct epoll_event ready[QRN_FD_READY_MAX]; /* of the last wait; the waiting thread's */
    int num_ready;
} qrn_fd_t;

/* A context's descriptors, none to begin with; null after recording an error. Freed with their delete
 * operation, which leaves the descriptors open; nobody uses them then. */
qrn_fd_t *qrn_fd_create(qrn_context_t *ctx);
void qrn_fd_delete(qrn_fd_t *fdm);

/* Watches `handle` for the kinds `ev`, none of which is watched yet; level-triggered. 0, or -1 after
 * recording an error. */
int qrn_fd_watch(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev, qrn_event_queue_t *evq,
                 qrn_fd_cb_proc proc, void *clientd);
/* Ends a watch, named as it was begun. Its suspensions stay until they are resumed: a new watch of the
 * same descriptor number is silent until then. 0, or -1 after recording an error when there is no
 * such watch. */
int qrn_fd_unwatch(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev);
/* The queue of a watch, named as it was begun; null after recording an error when there is none. */
qrn_event_queue_t *qrn_fd_watched_on(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev);
/* Finds any watch; 1, or 0 when there is none. */
int qrn_fd_any_watch(qrn_fd_t *fdm, qrn_handle_t *handle, qrn_ulong_t *ev);

/* Stops and resumes the report of readiness `ev` on `handle`; in pairs. 0; -1 for a descriptor that was
 * never watched, or that is resumed without having been suspended, which changes nothing. */
int qrn_fd_suspend(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev);
int qrn_fd_resume(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev);

/* Waits until a descriptor is ready, a wake-up, or `msec` milliseconds (-1: no limit). 0, or -1 after
 * recording an error. */
int qrn_fd_wait(qrn_fd_t *fdm, int msec);
/* Ends the wait that is under way, else the next one. */
void qrn_fd_wake(qrn_fd_t *fdm);

/* What enqueues readiness, as qrn_evq_enq_io() does, which suspends the descriptor meanwhile. Above 0:
 * the queue takes no more, and the watch is silent from now on. */
typedef int (*qrn_fd_enq_proc)(qrn_event_queue_t *evq, qrn_context_t *ctx, qrn_handle_t handle,
                               qrn_ulong_t ev, void *clientd, qrn_fd_cb_proc proc);

/* Enqueues what the last wait found ready and is still watched and not suspended. No lock is held while
 * `enqueue` runs. Number of events. */
int qrn_fd_report(qrn_fd_t *fdm, qrn_fd_enq_proc enqueue);

#ifdef __cplusplus
}
#endif

#endif
