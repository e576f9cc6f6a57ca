/* SPDX-License-Identifier: Apache-2.0 */
/* Contexts, and the life of what is bound to them: descriptor watches, timers, receivers, wildcard
 * receivers, sources, requests, the context's own source side and its immediate messages.
 *
 * A context has one thread, which waits for descriptors and timers and enqueues what is due. Messages
 * and source events are enqueued by the thread that hands them in. Each object names, when it is made,
 * the queue that its events go to; the callbacks run where that queue is dispatched.
 *
 * Every operation may run on any thread, also inside an application callback, unless its comment says
 * otherwise. None waits for a dispatching thread. They must not be called from a queue's monitor callback
 * that reports an enqueue: it may run inside the context. (A deferred cancellation callback must not
 * delete: that would take its queue's cancellation lock again.)
 *
 * An operation returns 0 on success and -1 on failure after recording an error; a failed one changes
 * nothing. An object is not used any more by its owner once its deletion was called.
 *
 * Deleting an object: it takes no further events, those that wait in its queue are removed, and
 *
 * - on a queue whose `queue_cancellation_callbacks_enabled` is 1, `cancel` (null: none) is called once,
 *   when no dispatching thread is inside an event of the object (`event_queue` in it is not looked at);
 *   on other queues `cancel` must be null;
 * - the object's memory stays until no dispatching thread can touch it. A queue that tracks its threads
 *   (that option is 1, or `queue_objects_purged_on_close` is 0) ends it with a cancel event. On other
 *   queues nothing tells when the last thread has passed, so it stays until its context is deleted.
 *
 * A callback that was about to run when the deletion was called may still run; without a cancellation
 * callback only an owner that dispatches on the deleting thread, or has stopped dispatching, knows that
 * none does. */
#ifndef QRNCTX_H
#define QRNCTX_H

#include "qrn.h"
#include "qrnmsg.h"
#include "qrnobj.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef qrn_event_queue_cancel_cb_info_t qrn_cancel_t;

/* --- Contexts ---------------------------------------------------------------------------------- */

/* What a context is made with; a blank one asks for nothing. */
typedef struct qrn_ctx_attr_t_stct {
    uint64_t timestamp_mask;  /* bit value 2: stamp sampled messages before their callback */
    int rcv_delivery_latency; /* sample one message in so many; 0: none */
    qrn_rcv_bundle_cb_proc
        rcv_delivery_batching_cb; /* not null: receivers' messages are delivered in
                                                        bundles, to this callback */
    void *rcv_delivery_batching_clientd;
} qrn_ctx_attr_t;

/* Makes a context and starts its thread. `attr` null: a blank one. */
int qrn_ctx_create(qrn_context_t **ctx, const qrn_ctx_attr_t *attr);

/* Stops a context's thread, deletes what is still bound to it and frees it. Nobody may use the context
 * or its objects any more, and no dispatching thread may be inside an event of it: the caller has ended
 * dispatching first. What it deletes has no cancellation callback. A queue is deleted after everything
 * that is bound to it, so after the context when the context is to delete that. */
int qrn_ctx_delete(qrn_context_t *ctx);

/* Enqueues nothing more on `evq`; what is bound to it is silent from the return on. For a queue that is
 * going to be shut down: one that shuts down while an event is being enqueued loses what it carries.
 * Binding something to the queue undoes it. */
int qrn_ctx_detach(qrn_context_t *ctx, qrn_event_queue_t *evq);

/* --- Descriptors ------------------------------------------------------------------------------- */

/* Watches a descriptor for QRN_FD_ kinds of readiness, none of which this context watches on it yet. It
 * is reported anew while it is ready, but not while an event waits or its callback runs. */
int qrn_ctx_watch(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev, qrn_event_queue_t *evq,
                  qrn_fd_cb_proc proc, void *clientd);
/* Ends a watch, named as it was begun. Close the descriptor afterwards. */
int qrn_ctx_unwatch(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev,
                    const qrn_cancel_t *cancel);

/* --- Timers ------------------------------------------------------------------------------------ */

/* Starts a timer, due in `delay_msec` milliseconds and, when `period_msec` is not 0, each period after
 * that, in monotonic time. A recurring timer skips beats while its last expiry waits or is delivered. Its
 * id, or -1. */
int qrn_ctx_schedule(qrn_context_t *ctx, qrn_event_queue_t *evq, qrn_timer_cb_proc proc,
                     void *clientd, qrn_ulong_t delay_msec, qrn_ulong_t period_msec);
/* Deletes a timer. One-shot timers delete themselves after their callback: -1 then, unless the id
 * belongs to a new timer. */
int qrn_ctx_cancel_timer(qrn_context_t *ctx, int id, const qrn_cancel_t *cancel);

/* --- Messages ---------------------------------------------------------------------------------- */

/* Makes a receiver of the messages with exactly this topic; it is copied. */
int qrn_rcv_create(qrn_rcv_t **rcv, qrn_context_t *ctx, const char *topic, qrn_event_queue_t *evq,
                   qrn_rcv_cb_proc proc, void *clientd);
int qrn_rcv_delete(qrn_rcv_t *rcv, const qrn_cancel_t *cancel);

/* Makes a receiver of the messages whose topic matches a pattern of fnmatch(3); it is copied. */
int qrn_wildcard_rcv_create(qrn_wildcard_rcv_t **wrcv, qrn_context_t *ctx, const char *pattern,
                            qrn_event_queue_t *evq, qrn_rcv_cb_proc proc, void *clientd);
int qrn_wildcard_rcv_delete(qrn_wildcard_rcv_t *wrcv, const qrn_cancel_t *cancel);

/* Sends messages without a topic to `proc`. */
int qrn_ctx_bind_immediate(qrn_context_t *ctx, qrn_event_queue_t *evq,
                           qrn_immediate_msg_cb_proc proc, void *clientd);
/* Ends that; removes those that wait. */
int qrn_ctx_unbind_immediate(qrn_context_t *ctx);

/* Hands a message to every receiver it is for, in the order they were made, exact ones first. The caller
 * keeps its reference. Number of receivers that took it. */
int qrn_ctx_deliver(qrn_context_t *ctx, qrn_msg_t *msg);

/* Enqueues the bundles that were begun; full ones are enqueued by themselves. */
int qrn_ctx_flush(qrn_context_t *ctx);

/* A batch callback that runs the callback of each receiver in the bundle that was not deleted. 0. */
int qrn_ctx_run_bundle(qrn_event_bundle_t *bundle, void *clientd);

/* --- Sources and requests ---------------------------------------------------------------------- */

/* Makes a source, whose events go to `proc`. */
int qrn_src_create(qrn_src_t **src, qrn_context_t *ctx, qrn_event_queue_t *evq,
                   qrn_src_cb_proc proc, void *clientd);
int qrn_src_delete(qrn_src_t *src, const qrn_cancel_t *cancel);
/* Raises an event of a source. With `reclaim_ed` not 0 the event takes over `eventd`, a block from
 * malloc, unless this fails. */
int qrn_src_raise(qrn_src_t *src, int event, void *eventd, int reclaim_ed);

/* Sends events of the context's source side to `proc`. Once a context. */
int qrn_ctx_bind_src(qrn_context_t *ctx, qrn_event_queue_t *evq, qrn_context_src_cb_proc proc,
                     void *clientd);
/* Deletes the context's source side; the context lives on. */
int qrn_ctx_unbind_src(qrn_context_t *ctx, const qrn_cancel_t *cancel);
/* Raises an event of the context's source side, as qrn_src_raise(). */
int qrn_ctx_src_raise(qrn_context_t *ctx, int event, void *eventd, int reclaim_ed);

/* Makes a request, whose responses go to `proc`. */
int qrn_request_create(qrn_request_t **req, qrn_context_t *ctx, qrn_event_queue_t *evq,
                       qrn_request_cb_proc proc, void *clientd);
int qrn_request_delete(qrn_request_t *req, const qrn_cancel_t *cancel);
/* Hands in a response. The caller keeps its reference. */
int qrn_request_respond(qrn_request_t *req, qrn_msg_t *msg);

#ifdef __cplusplus
}
#endif

#endif
