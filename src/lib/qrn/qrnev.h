/* SPDX-License-Identifier: Apache-2.0 */
/* The event-queue module as the rest of the library sees it: records, enqueue, purge, cancellation,
 * the registry of dispatching threads.
 *
 * Every operation may be called from any thread, also from inside a callback, unless its comment says
 * otherwise. A null argument where an object is needed is a failed check (kfx_fail_assert). */
#ifndef QRNEV_H
#define QRNEV_H

#include "kfxhrtime.h"
#include "kfxsync.h"
#include "qrn.h"
#include "qrnqueue.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qrn_timer_t_stct qrn_timer_t;

/* --- Attributes -------------------------------------------------------------------------------- */

/* The options of a queue. The record owns the five blocks its pointers name. In a queue's own copy
 * the fields of live options are read and written without a lock, each as a whole. */
struct qrn_event_queue_attr_t_stct {
    int q_purge_on_close;
    int q_notify;
    int q_cancel_cb;
    size_t q_sz_warn;         /* events */
    qrn_ulong_t q_delay_warn; /* microseconds */
    int q_svc_time;
    int q_age;
    int q_count;
    qrn_uint_t mon_interval; /* seconds */
    int mon_transport_module;
    char *mon_transport_opts;
    char *mon_appid;
    char *evq_name;
    size_t evq_name_len;
    void *app_data;
    size_t app_data_len;
    char *setopt_mask; /* bit i: row i of the option table was set by name */
};

/* Makes `dest` a deep copy of `src`, releasing what it held. 0. */
int qrn_event_queue_attr_clone(qrn_event_queue_attr_t *dest, const qrn_event_queue_attr_t *src);
/* Releases the owned blocks of a record and leaves the record itself. 0. */
int qrn_event_queue_attr_cleanup_internal(qrn_event_queue_attr_t *attr);
/* Fills a fresh or cleaned-up record with the built-in defaults and the environment's. 0. */
int qrn_event_queue_attr_init_defaults(qrn_event_queue_attr_t *attr);

/* --- Events ------------------------------------------------------------------------------------ */

#define QRN_EVQ_MSG_TYPE 1
#define QRN_EVQ_TIMER_TYPE 2
#define QRN_EVQ_IO_TYPE 3
#define QRN_EVQ_SRC_TYPE 4
#define QRN_EVQ_REQUEST_TYPE 5
#define QRN_EVQ_UNBLOCK_TYPE 6
#define QRN_EVQ_IMSG_TYPE 7
#define QRN_EVQ_WRCV_MSG_TYPE 8
#define QRN_EVQ_CANCEL_TYPE 9
#define QRN_EVQ_CTX_SRC_TYPE 10
#define QRN_EVQ_CALLBACK_TYPE 11
#define QRN_EVQ_MSG_BUNDLE_TYPE 12

/* Message events hold one reference to their message. */
typedef struct qrn_event_msg_t_stct {
    qrn_rcv_t *rcv;
    qrn_msg_t *msg;
    void *clientd;
    qrn_rcv_cb_proc proc;
} qrn_event_msg_t;

typedef struct qrn_event_wrcv_msg_t_stct {
    qrn_wildcard_rcv_t *wrcv;
    qrn_msg_t *msg;
    void *clientd;
    qrn_rcv_cb_proc proc;
} qrn_event_wrcv_msg_t;

typedef struct qrn_event_timer_t_stct {
    void *clientd;
    int id;
    qrn_timer_t *timer;
    qrn_timer_cb_proc proc;
    qrn_ulong_t recurring; /* 0: one-shot */
} qrn_event_timer_t;

/* The descriptor is suspended while the event lives. */
typedef struct qrn_event_io_t_stct {
    qrn_handle_t handle;
    qrn_ulong_t ev;
    void *clientd;
    qrn_fd_cb_proc proc;
} qrn_event_io_t;

typedef struct qrn_event_src_t_stct {
    qrn_src_t *src;
    int event;
    void *clientd;
    void *eventd;
    int reclaim_ed; /* not 0: the event owns `eventd` */
    qrn_src_cb_proc proc;
} qrn_event_src_t;

typedef struct qrn_event_ctx_src_t_stct {
    int event;
    void *clientd;
    void *eventd;
    int reclaim_ed; /* not 0: the event owns `eventd` */
    qrn_context_src_cb_proc proc;
} qrn_event_ctx_src_t;

typedef struct qrn_event_request_t_stct {
    qrn_request_t *req;
    qrn_msg_t *msg;
    void *clientd;
    qrn_request_cb_proc proc;
} qrn_event_request_t;

typedef struct qrn_event_imsg_t_stct {
    qrn_msg_t *msg;
    void *clientd;
    qrn_immediate_msg_cb_proc proc;
} qrn_event_imsg_t;

typedef struct qrn_event_cancel_t_stct {
    void *obj;
    int exec_on_delete; /* not 0: the event owns `obj` */
} qrn_event_cancel_t;

typedef struct qrn_event_callback_t_stct {
    qrn_evq_cb_proc proc;
    qrn_evq_cb_proc delproc; /* runs if the event is discarded undelivered; may be null */
    void *clientd;
} qrn_event_callback_t;

typedef union qrn_event_info_t_stct {
    qrn_event_msg_t msg;
    qrn_event_wrcv_msg_t wrcv_msg;
    qrn_event_timer_t timer;
    qrn_event_io_t io;
    qrn_event_src_t src;
    qrn_event_ctx_src_t ctx_src;
    qrn_event_request_t req;
    qrn_event_imsg_t imsg;
    qrn_event_cancel_t cancel;
    qrn_event_callback_t callback;
    qrn_event_bundle_t *msg_bundle;
} qrn_event_info_t;

/* One queued event: a block from malloc, of one size for every type. The thread that made it owns it
 * until the append, then the queue, then the dispatching thread that took it. */
typedef struct qrn_event_t_stct {
    int type;
    qrn_event_queue_t *evq;
    qrn_context_t
        *ctx; /* null for callback and unblock events, and for a purged entry of a bundle */
    qrn_event_info_t info;
    kfx_hrtime_t enqtv; /* enqueue stamp; meaningful only when one was taken */

    /* Private: which figures the enqueue counted the event in (qrnev_account.h). */
    qrn_uint_t marks;
} qrn_event_t;

/* Up to 32 message events delivered in one call. The receive path fills it before it is enqueued; while
 * it is queued only purges change it, then only the thread that delivers it. */
struct qrn_event_bundle_t_stct {
    qrn_event_t
        *events; /* entries of type message or wildcard message; one with no `ctx` is empty */
    int num_events;
    int max_num_events;
    qrn_context_t *ctx; /* whose batch callback receives the bundle */
    long data_msgs;     /* message entries that still carry a message */
    long wrcv_msgs;     /* wildcard message entries that still carry one */
};

/* --- Queues ------------------------------------------------------------------------------------ */

typedef struct qrn_evq_cancel_t_stct qrn_evq_cancel_t;

/* A deferred free, shared by the nodes that still have to settle it. */
struct qrn_evq_cancel_t_stct {
    int dispatch_thrd_cnt; /* nodes that hold it */
    void *obj;
};

/* A pending cancellation callback, shared likewise. */
typedef struct qrn_evq_cancel_cb_t_stct {
    int dispatch_thrd_cnt; /* nodes that hold it */
    qrn_event_queue_cancel_cb_proc cbproc;
    void *clientd;
} qrn_evq_cancel_cb_t;

/* One dispatching thread. Every field is guarded by the queue's `cancel_cb_lock`. */
typedef struct qrn_evq_dispatch_thrd_node_t {
    qrn_event_t *ev;               /* the event being delivered; null between events */
    qrn_queue_t *cbinfo_queue;     /* callbacks to settle when it is done; null when none */
    qrn_evq_cancel_t *cancel_info; /* deferred free to settle when it is done; null when none */
    struct qrn_evq_dispatch_thrd_node_t *next;
    struct qrn_evq_dispatch_thrd_node_t *prev;

    /* Private: further deferred frees. */
    struct qrn_evq_cancel_link_t_stct *more_cancels;
} qrn_evq_dispatch_thrd_node_t;

/* What is written for each event lies on other cache lines than what is only read. */
struct qrn_event_queue_t_stct {
    alignas(64) qrn_tl_queue_t *q;
    alignas(64) long qsz; /* queued events, a bundle counting as its messages; atomic */
    alignas(64) kfx_mutex_t cancel_cb_lock; /* guards the registry of dispatching threads and what
                                               hangs on it; innermost, but for a cancellation
                                               callback that enqueues */
    alignas(64) qrn_event_queue_monitor_proc monproc; /* this and `clientd` never change */
    void *clientd;
    int shutdown;                           /* atomic; goes from 0 to 1 once */
    qrn_event_queue_attr_t *attr;           /* the queue's own copy */
    qrn_evq_dispatch_thrd_node_t thrd_head; /* sentinels: the list runs from `thrd_tail` to here */
    qrn_evq_dispatch_thrd_node_t thrd_tail;

    /* Statistics: counts are atomic; times and ages are stored whole by the thread that measured
     * them, in ticks of kfx_hrtime_t. */
    alignas(64) long data_msgs;
    long data_msgs_tot;
    kfx_hrtime_ivl_t data_msgs_svc_min;
    kfx_hrtime_ivl_t data_msgs_svc_mean;
    kfx_hrtime_ivl_t data_msgs_svc_max;
    long resp_msgs;
    long resp_msgs_tot;
    kfx_hrtime_ivl_t resp_msgs_svc_min;
    kfx_hrtime_ivl_t resp_msgs_svc_mean;
    kfx_hrtime_ivl_t resp_msgs_svc_max;
    long topicless_im_msgs;
    long topicless_im_msgs_tot;
    kfx_hrtime_ivl_t topicless_im_msgs_svc_min;
    kfx_hrtime_ivl_t topicless_im_msgs_svc_mean;
    kfx_hrtime_ivl_t topicless_im_msgs_svc_max;
    long wrcv_msgs;
    long wrcv_msgs_tot;
    kfx_hrtime_ivl_t wrcv_msgs_svc_min;
    kfx_hrtime_ivl_t wrcv_msgs_svc_mean;
    kfx_hrtime_ivl_t wrcv_msgs_svc_max;
    long io_events;
    long io_events_tot;
    kfx_hrtime_ivl_t io_events_svc_min;
    kfx_hrtime_ivl_t io_events_svc_mean;
    kfx_hrtime_ivl_t io_events_svc_max;
    long timer_events;
    long timer_events_tot;
    kfx_hrtime_ivl_t timer_events_svc_min;
    kfx_hrtime_ivl_t timer_events_svc_mean;
    kfx_hrtime_ivl_t timer_events_svc_max;
    long source_events;
    long source_events_tot;
    kfx_hrtime_ivl_t source_events_svc_min;
    kfx_hrtime_ivl_t source_events_svc_mean;
    kfx_hrtime_ivl_t source_events_svc_max;
    long unblock_events;
    long unblock_events_tot;
    long cancel_events;
    long cancel_events_tot;
    kfx_hrtime_ivl_t cancel_events_svc_min;
    kfx_hrtime_ivl_t cancel_events_svc_mean;
    kfx_hrtime_ivl_t cancel_events_svc_max;
    long context_source_events;
    long context_source_events_tot;
    kfx_hrtime_ivl_t context_source_events_svc_min;
    kfx_hrtime_ivl_t context_source_events_svc_mean;
    kfx_hrtime_ivl_t context_source_events_svc_max;
    long events;
    long events_tot;
    kfx_hrtime_ivl_t age_min;
    kfx_hrtime_ivl_t age_mean;
    kfx_hrtime_ivl_t age_max;
    long callback_events;
    long callback_events_tot;
    kfx_hrtime_ivl_t callback_events_svc_min;
    kfx_hrtime_ivl_t callback_events_svc_mean;
    kfx_hrtime_ivl_t callback_events_svc_max;

    qrnmon_sctl_t *mon_sctl; /* controller that watches the queue, or null; atomic */
    int automonitor;         /* 1: started at creation */

    /* Private: events that raised a warning, ever; atomic. */
    long size_warnings;
    long delay_warnings;
};

/* Sets up the registry of queues; once, before the first creation. 0. */
int qrn_evq_init(void);

/* A bundle with room for 32 entries, for the receive path; the caller owns it. */
qrn_event_bundle_t *qrn_event_bundle_create(qrn_context_t *ctx);
/* Frees a bundle and releases, as undelivered, the messages it still carries. 0. */
int qrn_event_bundle_delete(qrn_event_bundle_t *bundle);

/* Ends an event's life: resumes its descriptor, frees what it owns, runs the delete procedure of a
 * callback, frees the record. Messages and bundles are not released here. `in_evq_delete` (1 only from
 * the deletion of a queue) leaves descriptors and delete procedures alone. 0. */
int qrn_event_delete_ex(qrn_event_t *ev, int in_evq_delete);
/* qrn_event_delete_ex(ev, 0). */
int qrn_event_delete(qrn_event_t *ev);

/* --- Enqueue ----------------------------------------------------------------------------------- */

/* Each returns 0 when the event was queued, -1 when the append failed (everything is undone; the
 * payload stays the caller's), and 0 without touching anything when the queue is shut down, except
 * for cancel and callback events, which are queued even then. None waits for a dispatching thread.
 *
 * On success the queue takes over the caller's reference to a message, the bundle, `eventd` when
 * `reclaim_ed` is not 0, and the `obj` of a cancel event.
 *
 * qrn_evq_enq_callback() is declared in qrn.h. */
int qrn_evq_enq_msg_with_proc(qrn_event_queue_t *evq, qrn_rcv_t *rcv, qrn_rcv_cb_proc proc,
                              qrn_msg_t *msg, void *clientd);
int qrn_evq_enq_msg_bundle(qrn_event_queue_t *evq, qrn_event_bundle_t *bundle);
int qrn_evq_enq_wrcv_msg(qrn_event_queue_t *evq, qrn_wildcard_rcv_t *wrcv, qrn_msg_t *msg);
int qrn_evq_enq_wrcv_msg_with_proc(qrn_event_queue_t *evq, qrn_wildcard_rcv_t *wrcv,
                                   qrn_rcv_cb_proc proc, qrn_msg_t *msg, void *clientd);
int qrn_evq_enq_timer(qrn_event_queue_t *evq, qrn_context_t *ctx, int id, void *clientd,
                      qrn_timer_cb_proc proc, qrn_ulong_t recurring);
int qrn_evq_enq_io(qrn_event_queue_t *evq, qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev,
                   void *clientd, qrn_fd_cb_proc proc);
int qrn_evq_enq_src(qrn_event_queue_t *evq, qrn_src_t *src, int event, void *clientd, void *eventd,
                    int reclaim_ed, qrn_src_cb_proc proc);
int qrn_evq_enq_ctx_src(qrn_event_queue_t *evq, qrn_context_t *ctx, int event, void *clientd,
                        void *eventd, int reclaim_ed, qrn_context_src_cb_proc proc);
int qrn_evq_enq_req(qrn_event_queue_t *evq, qrn_request_t *req, qrn_msg_t *msg);
int qrn_evq_enq_imsg(qrn_event_queue_t *evq, qrn_context_t *ctx, qrn_msg_t *msg, void *clientd,
                     qrn_immediate_msg_cb_proc proc);
int qrn_evq_enq_cancel(qrn_event_queue_t *evq, qrn_context_t *ctx, void *obj);

/* Before the append: counts the size and stamps the event as the options ask. 0. */
int qrn_evq_enq_mon_hook(qrn_event_queue_t *evq, qrn_event_t *ev, long sz);
/* After it: tells the monitor callback when notification is on. 0. */
int qrn_evq_post_enq_mon_hook(qrn_event_queue_t *evq);

/* --- Statistics -------------------------------------------------------------------------------- */

/* Feeds the time from `start` to `end` into a minimum, a running mean and a maximum. */
void qrn_evq_update_svc_time(const kfx_hrtime_t *start, const kfx_hrtime_t *end,
                             kfx_hrtime_ivl_t *svc_min, kfx_hrtime_ivl_t *svc_mean,
                             kfx_hrtime_ivl_t *svc_max);

/* --- Purge ------------------------------------------------------------------------------------- */

/* Each removes the events of one object that wait in the queue, releases what they carry and lowers
 * their counts. Events that a dispatching thread already took are not touched. Takers wait meanwhile,
 * appenders do not; a delete procedure or a descriptor that is resumed by the pass may enqueue but
 * not dispatch or purge the queue. Each returns the result of the pass: 0. */
int qrn_evq_purge_rcv(qrn_event_queue_t *evq, qrn_rcv_t *rcv);
int qrn_evq_purge_wrcv(qrn_event_queue_t *evq, qrn_wildcard_rcv_t *wrcv);
int qrn_evq_purge_timer(qrn_event_queue_t *evq, qrn_context_t *ctx, int id);
int qrn_evq_purge_io(qrn_event_queue_t *evq, qrn_context_t *ctx, qrn_handle_t handle,
                     qrn_ulong_t ev);
int qrn_evq_purge_src(qrn_event_queue_t *evq, qrn_src_t *src);
int qrn_evq_purge_ctx_src(qrn_event_queue_t *evq, qrn_context_t *ctx);
int qrn_evq_purge_req(qrn_event_queue_t *evq, qrn_request_t *req);

/* The same in every queue; timers only in queues whose `q_purge_on_close` is set. Hold the registry of
 * queues meanwhile, so a callback of the pass must not create or delete a queue. 0. */
int qrn_evq_purge_timer_all(qrn_context_t *ctx, int id);
int qrn_evq_purge_io_all(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev);

/* Compare a queued event with a template event: 0 when it refers to the template's object. */
int qrn_evq_purge_rcv_cmp(const void *buff, const void *in);
int qrn_evq_purge_wrcv_cmp(const void *buff, const void *in);
int qrn_evq_purge_src_cmp(const void *buff, const void *in);
int qrn_evq_purge_req_cmp(const void *buff, const void *in);
int qrn_evq_purge_ctx_src_cmp(const void *buff, const void *in);
int qrn_evq_purge_timer_cmp(const void *buff, const void *in);
int qrn_evq_purge_io_cmp(const void *buff, const void *in);
int qrn_evq_purge_msg_bundle_cmp(const void *buff, const void *in);

/* Release what the event `elem` carries for the template `clientd`; `*remove` becomes 1 when nothing is
 * left. The record itself is the caller's. 0. */
int qrn_evq_purge_rcv_filter(const void *elem, const void *clientd, int *remove);
int qrn_evq_purge_wrcv_filter(const void *elem, const void *clientd, int *remove);

/* Disposes of a removed event; the message of a response or of an immediate message stays. 0. */
int qrn_evq_purge_rem(const void *outbuff);

/* --- Dispatching threads and cancellation ------------------------------------------------------ */

/* What the dequeue hook works on. */
typedef struct qrn_evq_cb_info_t_stct {
    qrn_event_queue_t *evq;
    qrn_evq_dispatch_thrd_node_t *thrd_node;
} qrn_evq_cb_info_t;

/* Register the calling thread, and the other way round. */
qrn_evq_dispatch_thrd_node_t *qrn_evq_add_dispatch_thread(qrn_event_queue_t *evq);
int qrn_evq_rem_dispatch_thread(qrn_event_queue_t *evq, qrn_evq_dispatch_thrd_node_t *node);

/* The dequeue hook: `value`, just taken, is what the thread delivers now. */
void qrn_evq_dequeue_cb_func(void *value, void *clientd);

/* Stores what the thread delivers now and releases `cancel_cb_lock`, which the caller holds. 0. */
int qrn_evq_dispatch_thread_ev_update(qrn_event_queue_t *evq, qrn_evq_dispatch_thrd_node_t *node,
                                      qrn_event_t *ev);
/* The thread is done with its event: settles what was attached to it meanwhile. 0. */
int qrn_evq_dispatch_thread_ev_done(qrn_event_queue_t *evq, qrn_evq_dispatch_thrd_node_t *node);

/* Number of registered threads whose event refers to the object of the cancel event `ev`. When it is
 * not 0 the last of them frees the object; when it is 0 the object is still the caller's. */
int qrn_evq_check_obj(qrn_event_queue_t *evq, qrn_event_t *ev);

/* Attaches a callback to every registered thread whose event matches the template, or that delivers
 * any event. Number of threads; -1 when memory ran out part way: the callback stays attached to
 * those that were reached and is made when they are done. */
int qrn_evq_cancel_thrd_check(qrn_event_queue_t *evq, qrn_event_t *ev,
                              qrn_event_queue_cancel_cb_info_t *incbinfo);
int qrn_evq_thrd_enq_all(qrn_event_queue_t *evq, qrn_event_queue_cancel_cb_info_t *cbinfo);

/* Each makes the callback once, when no registered thread delivers an event of the object any more: at
 * once with 0, or on the last such thread with 1. 0. */
int qrn_evq_cancel_cb_rcv(qrn_rcv_t *rcv, qrn_event_queue_cancel_cb_info_t *cbinfo);
int qrn_evq_cancel_cb_wrcv(qrn_wildcard_rcv_t *wrcv, qrn_event_queue_cancel_cb_info_t *cbinfo);
int qrn_evq_cancel_cb_timer(qrn_context_t *ctx, int id, qrn_event_queue_cancel_cb_info_t *cbinfo);
int qrn_evq_cancel_cb_io(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev,
                         qrn_event_queue_cancel_cb_info_t *cbinfo);
int qrn_evq_cancel_cb_src(qrn_src_t *src, qrn_event_queue_cancel_cb_info_t *cbinfo);
int qrn_evq_cancel_cb_ctx_src(qrn_context_t *ctx, qrn_event_queue_cancel_cb_info_t *cbinfo);
int qrn_evq_cancel_cb_req(qrn_request_t *req, qrn_event_queue_cancel_cb_info_t *cbinfo);

#ifdef __cplusplus
}
#endif

#endif
