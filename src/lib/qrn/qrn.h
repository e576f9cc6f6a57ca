/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file qrn.h
 * @brief Event queues: library threads enqueue, application threads dispatch.
 *
 * The only header an application needs; C11 and C++.
 *
 * An event queue moves callbacks off the library's own threads. The library enqueues typed events
 * (messages, timers, descriptor readiness, ...), an application posts callbacks, and any number of
 * application threads dispatch: they take events off in arrival order and run the callbacks.
 *
 * Life of a queue: create an attribute record, set options on it, create the queue, dispatch, shut
 * down, delete.
 *
 * Unless a comment says otherwise, an operation returns 0 on success and -1 on failure after
 * recording an error that the same thread reads with qrn_errnum() and qrn_errmsg(); a failed
 * operation changes nothing. Running out of memory is fatal: it is reported and the process aborts.
 *
 * Which operations may run at the same time on one queue:
 *
 * |                          | enqueue | dispatch | unblock | setopt, getopt | stats, size | shutdown | delete |
 * |--------------------------|---------|----------|---------|----------------|-------------|----------|--------|
 * | enqueue, post a callback | free    | free     | free    | free           | free        | free     | X      |
 * | dispatch                 | free    | free     | free    | free           | free        | free     | X      |
 * | unblock                  | free    | free     | free    | free           | free        | free     | X      |
 * | setopt, getopt           | free    | free     | free    | free (1)       | free        | free     | X      |
 * | retrieve or reset stats  | free    | free     | free    | free           | free        | free     | X      |
 * | size                     | free    | free     | free    | free           | free        | free     | X      |
 * | shutdown                 | free    | free     | free    | free           | free        | free     | X      |
 * | delete                   | X       | X        | X       | X              | X           | X        | X      |
 *
 * free: any number of threads at once. X: the caller must have ended every other use first.
 * (1) except `application_data`: the caller excludes every other access to that option while one
 * thread sets it. Operations on one attribute record never overlap: the caller excludes them.
 */
#ifndef QRN_H
#define QRN_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @brief Marks what the shared library exports. */
#define QRN_API __attribute__((visibility("default")))

/** @name Version
 * @{ */

/** @brief Version of this header, first number: programs must be changed or built again. */
#define QRN_VERSION_MAJOR 0
/** @brief Version of this header, second number: more than before. */
#define QRN_VERSION_MINOR 1
/** @brief Version of this header, third number: mended. */
#define QRN_VERSION_PATCH 0
/** @brief Version of the library that runs, as "0.1.0". Never blocks. */
QRN_API const char *qrn_version(void);

/** @} */

/** @name Types
 * @{ */

/** @brief Unsigned 64-bit number. */
typedef unsigned long qrn_ulong_t;
/** @brief Unsigned 32-bit number. */
typedef unsigned int qrn_uint_t;
/** @brief A file descriptor. */
typedef int qrn_handle_t;

/** @brief Result of an operation that succeeded. */
#define QRN_OK 0
/** @brief Result of an operation that failed and recorded an error. */
#define QRN_FAILURE (-1)

/** @brief An event queue; opaque. */
typedef struct qrn_event_queue_t_stct qrn_event_queue_t;
/** @brief A record of queue options; opaque. */
typedef struct qrn_event_queue_attr_t_stct qrn_event_queue_attr_t;
/** @brief A library context: one thread, its descriptors and its timers; opaque. */
typedef struct qrn_context_t_stct qrn_context_t;
/** @brief A receiver of the messages of one topic; opaque. */
typedef struct qrn_rcv_t_stct qrn_rcv_t;
/** @brief A receiver of the messages of every topic that matches a pattern; opaque. */
typedef struct qrn_wildcard_rcv_t_stct qrn_wildcard_rcv_t;
/** @brief A source of messages; opaque. */
typedef struct qrn_src_t_stct qrn_src_t;
/** @brief A request that waits for responses; opaque. */
typedef struct qrn_request_t_stct qrn_request_t;
/** @brief A message; opaque. */
typedef struct qrn_msg_t_stct qrn_msg_t;
/** @brief Up to 32 messages delivered in one call; opaque. */
typedef struct qrn_event_bundle_t_stct qrn_event_bundle_t;
/** @brief A controller of the monitoring layer; opaque. */
typedef struct qrnmon_sctl_t_stct qrnmon_sctl_t;

/** @} */

/** @name Callbacks
 * Run on the dispatching thread with no lock of the library held, so a callback may enqueue on,
 * purge, unblock or dispatch its own queue. A result of -1 ends that thread's dispatch call with
 * -1; other results are ignored. An exception leaves dispatch as it was thrown, after the same
 * bookkeeping as a -1.
 * @{ */

/** @brief A message arrived. `rcv` is null on a wildcard receiver. The message is released when the
 * callback returns; one that keeps it takes a reference of its own first. */
typedef int (*qrn_rcv_cb_proc)(qrn_rcv_t *rcv, qrn_msg_t *msg, void *clientd);
/** @brief A timer expired. */
typedef int (*qrn_timer_cb_proc)(qrn_context_t *ctx, const void *clientd);
/** @brief A watched descriptor is ready for `ev`; it is not reported again before the return. */
typedef int (*qrn_fd_cb_proc)(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev,
                              void *clientd);
/** @brief An event of a source, with event data `ed` that is valid during the call. */
typedef int (*qrn_src_cb_proc)(qrn_src_t *src, int event, void *ed, void *clientd);
/** @brief An event of a context's source side, with event data `ed` that is valid during the call. */
typedef int (*qrn_context_src_cb_proc)(qrn_context_t *ctx, int event, void *ed, void *clientd);
/** @brief A response to a request arrived; the message as for ::qrn_rcv_cb_proc. */
typedef int (*qrn_request_cb_proc)(qrn_request_t *req, qrn_msg_t *msg, void *clientd);
/** @brief A message without a topic arrived for a context; the message as for ::qrn_rcv_cb_proc. */
typedef int (*qrn_immediate_msg_cb_proc)(qrn_context_t *ctx, qrn_msg_t *msg, void *clientd);
/** @brief A bundle of messages arrived. Its result is ignored; what the callback leaves in the
 * bundle is released when it returns. */
typedef int (*qrn_rcv_bundle_cb_proc)(qrn_event_bundle_t *bundle, void *clientd);
/** @brief A posted callback, or what runs instead when it is discarded undelivered. */
typedef void (*qrn_evq_cb_proc)(qrn_event_queue_t *evq, void *clientd);

/** @brief Report of a monitor callback: the queue held more than `queue_size_warning` events. */
#define QRN_EVQ_MON_SIZE_WARNING 1
/** @brief Report of a monitor callback: the event waited more than `queue_delay_warning`. */
#define QRN_EVQ_MON_DELAY_WARNING 2
/** @brief Report of a monitor callback: an event was accepted. */
#define QRN_EVQ_MON_ENQUEUE_NOTIFICATION 3

/** @brief Value of `monitor_transport`: "qrn". */
#define QRN_EVQ_MON_TRANSPORT_QRN 1
/** @brief Value of `monitor_transport`: "qrnsnmp". */
#define QRN_EVQ_MON_TRANSPORT_QRNSNMP 2

/**
 * @brief Watches a queue; given at creation.
 *
 * Called on an enqueuing thread after an accepted event when `queue_enqueue_notification` is 1 (`report`
 * 3, `sz` 1, `delay` 0), and on a dispatching thread before the delivery of an event that tripped a
 * warning (`report` 1, 2, or both: 3).
 *
 * Threads: several at once, with no lock held. Its result is ignored.
 *
 * @param evq the queue
 * @param report one of the QRN_EVQ_MON_ values; on the dispatching side their bitwise or
 * @param sz the size before the event was taken, in events, when the size warning is on; else 0
 * @param delay how long the event waited, in microseconds, when the delay warning is on; else 0
 * @param clientd the pointer given at creation
 */
typedef int (*qrn_event_queue_monitor_proc)(qrn_event_queue_t *evq, int report, size_t sz,
                                            qrn_ulong_t delay, void *clientd);

/**
 * @brief Tells that no dispatching thread is inside a callback of a deleted object any more.
 *
 * The first argument is 0 when the deleting thread makes the call, before the deletion returns,
 * because no thread was busy with the object. It is 1 when the last busy dispatching thread makes
 * it: then the queue's cancellation lock is held, so the callback may enqueue on its own queue but
 * must not dispatch, purge or cancel on it.
 */
typedef void (*qrn_event_queue_cancel_cb_proc)(int dispatch_thrd, void *clientd);

/** @brief A cancellation callback; copied, so it may be freed once the deletion has returned. */
typedef struct qrn_event_queue_cancel_cb_info_t_stct {
    qrn_event_queue_t *event_queue;        /**< the queue the object delivers through */
    qrn_event_queue_cancel_cb_proc cbproc; /**< called exactly once */
    void *clientd;                         /**< its second argument */
} qrn_event_queue_cancel_cb_info_t;

/** @} */

/** @name Errors and the log
 * @{ */

/** @brief Number of the calling thread's last error; 0 when there was none. Never blocks. */
QRN_API int qrn_errnum(void);
/** @brief Text of the calling thread's last error; empty when there was none. The library owns the
 * text, which is valid until the thread's next error. Never blocks. */
QRN_API const char *qrn_errmsg(void);

/** @brief Level of a log line: the process is about to abort. */
#define KFX_LOG_FATAL 2
/** @brief Level of a log line: something failed. */
#define KFX_LOG_ERROR 3
/** @brief Level of a log line: something is wrong, and the library goes on. */
#define KFX_LOG_WARNING 5
/** @brief Level of a log line: something to know. */
#define KFX_LOG_INFO 6
/** @brief Level of a log line: a trace. */
#define KFX_LOG_DEBUG 7

/** @brief Takes each line of the log. `line` is valid during the call and ends with its own newline
 * where the writer gave one. Runs on the logging thread, several at once. */
typedef void (*kfx_log_sink_proc)(int level, const char *line);

/** @brief Installs a sink for the log of the process (null: standard error, as at the start) and returns
 * the one that it replaces. Threads: any. Never blocks. */
QRN_API kfx_log_sink_proc kfx_set_log_sink(kfx_log_sink_proc sink);

/** @} */

/** @name Create: attribute records
 * A record holds the fourteen options of a queue. One thread at a time uses a record.
 * @{ */

/** @brief Makes a record of the current defaults; the caller owns `*attr`. */
QRN_API int qrn_event_queue_attr_create(qrn_event_queue_attr_t **attr);
/** @brief Makes a record of the built-in defaults; the caller owns `*attr`. */
QRN_API int qrn_event_queue_attr_create_default(qrn_event_queue_attr_t **attr);
/** @brief Makes a deep copy of `original`; the caller owns `*attr`. */
QRN_API int qrn_event_queue_attr_dup(qrn_event_queue_attr_t **attr,
                                     const qrn_event_queue_attr_t *original);
/** @brief Frees a record. */
QRN_API int qrn_event_queue_attr_delete(qrn_event_queue_attr_t *attr);
/** @brief Entries that a dump of all options needs, the terminating row of the table included: 15. */
QRN_API int qrn_event_queue_attr_option_size(void);
/** @brief Bytes of the set of options that were set by name: 2. */
QRN_API size_t qrn_event_queue_attr_setopt_mask_size(void);
/** @brief Tells whether `name` may name a queue: letters, digits, '-' and '_' only. */
QRN_API int qrn_event_queue_validate_name(const char *name);

/** @} */

/** @name Create: queues
 * @{ */

/**
 * @brief Creates a queue.
 *
 * Threads: any. Blocking: no; with a `monitor_interval` it starts the monitoring thread.
 * Ownership: the caller owns `*evqp` and ends it with qrn_event_queue_delete(); the queue keeps a
 * copy of `attr`, not the record.
 *
 * @param evqp where to store the queue
 * @param proc monitor callback, or null
 * @param clientd last argument of `proc`
 * @param attr options, or null for the current defaults
 */
QRN_API int qrn_event_queue_create(qrn_event_queue_t **evqp, qrn_event_queue_monitor_proc proc,
                                   void *clientd, const qrn_event_queue_attr_t *attr);

/** @} */

/** @name Configure: options by name
 * Names are matched ignoring case. The typed form takes and gives a value of the option's own type
 * and its exact size; the string form takes and gives text. A getter reads the buffer's size from
 * `*optlen` and stores the length of the result there; a buffer that is too small is refused. A
 * string getter of a number or a transport wants at least 80 bytes.
 *
 * | Option | Type | Values | Default | Live |
 * |---|---|---|---|---|
 * | `queue_size_warning` | size_t | events above which the monitor callback is told; 0 is off | 0 | yes |
 * | `queue_delay_warning` | unsigned long | microseconds above which the monitor callback is told; 0 is off | 0 | yes |
 * | `queue_enqueue_notification` | int | 0, 1: tell the monitor callback of every accepted event | 0 | yes |
 * | `queue_cancellation_callbacks_enabled` | int | 0, 1: cancellation callbacks | 0 | no |
 * | `queue_objects_purged_on_close` | int | 0, 1: deletions purge timers' events; 0 tracks dispatching threads | 1 | no |
 * | `queue_service_time_enabled` | int | 0, 1: service-time statistics | 0 | yes |
 * | `queue_age_enabled` | int | 0, 1: age statistics | 0 | yes |
 * | `queue_count_enabled` | int | 0, 1: event counts | 0 | yes |
 * | `monitor_interval` | unsigned long | seconds between samples, low 32 bits; 0 is off | 0 | no |
 * | `monitor_transport` | int | a QRN_EVQ_MON_TRANSPORT_ value: 1 "qrn", 2 "qrnsnmp" | 1 | no |
 * | `monitor_transport_opts` | string | options of the transport, not beginning with '"' | none | no |
 * | `monitor_appid` | string | application identifier in the samples | none | no |
 * | `event_queue_name` | string | letters, digits, '-', '_'; 128 at most | none | no |
 * | `application_data` | bytes | anything; deprecated | none | yes |
 *
 * The environment variables QRN_MONITOR_INTERVAL, QRN_MONITOR_TRANSPORT,
 * QRN_MONITOR_TRANSPORT_OPTS and QRN_MONITOR_APPID replace the defaults of the monitor options.
 * @{ */

/** @brief Sets an option of a record. */
QRN_API int qrn_event_queue_attr_setopt(qrn_event_queue_attr_t *attr, const char *optname,
                                        const void *optval, size_t optlen);
/** @brief Sets an option of a record from text. */
QRN_API int qrn_event_queue_attr_str_setopt(qrn_event_queue_attr_t *attr, const char *optname,
                                            const char *optval);
/** @brief Reads an option of a record. */
QRN_API int qrn_event_queue_attr_getopt(qrn_event_queue_attr_t *attr, const char *optname,
                                        void *optval, size_t *optlen);
/** @brief Reads an option of a record as text. */
QRN_API int qrn_event_queue_attr_str_getopt(qrn_event_queue_attr_t *attr, const char *optname,
                                            char *optval, size_t *optlen);
/** @brief Sets an option of a running queue; it takes effect from the next event that reads it. Only
 * options that the table calls live. */
QRN_API int qrn_event_queue_setopt(qrn_event_queue_t *evq, const char *optname, const void *optval,
                                   size_t optlen);
/** @brief Sets an option of a running queue from text. Only options that the table calls live. */
QRN_API int qrn_event_queue_str_setopt(qrn_event_queue_t *evq, const char *optname,
                                       const char *optval);
/** @brief Reads any option of a running queue. */
QRN_API int qrn_event_queue_getopt(qrn_event_queue_t *evq, const char *optname, void *optval,
                                   size_t *optlen);
/** @brief Reads any option of a running queue as text. */
QRN_API int qrn_event_queue_str_getopt(qrn_event_queue_t *evq, const char *optname, char *optval,
                                       size_t *optlen);

/** @brief One option as text. */
typedef struct qrn_config_option_stct_t {
    char type[128];  /**< what the option belongs to: "event_queue" */
    char oname[128]; /**< the option's name */
    char val[128];   /**< its value */
} qrn_config_option_t;

/** @brief Reads the options of a record as text. A value that does not fit an entry is left out.
 * @param eattr the record
 * @param size entries of `opts`, at least 1; receives the number that was filled
 * @param opts the entries; the caller's */
QRN_API int qrn_event_queue_attr_dump(qrn_event_queue_attr_t *eattr, int *size,
                                      qrn_config_option_t *opts);
/** @brief Reads the options of a running queue as text, as qrn_event_queue_attr_dump(). */
QRN_API int qrn_event_queue_dump(qrn_event_queue_t *evq, int *size, qrn_config_option_t *opts);

/** @} */

/** @name Dispatch
 * @{ */

/** @brief Timeout of qrn_event_dispatch(): take at most one event, never wait. */
#define QRN_EVQ_DISPATCH_POLL 0UL
/** @brief Timeout of qrn_event_dispatch(): no deadline. */
#define QRN_EVQ_DISPATCH_BLOCK 0xFFFFFFFFUL

/**
 * @brief Takes events off a queue in arrival order and runs their callbacks on this thread.
 *
 * Returns when the deadline has passed, after one event when polling, after an unblock event, or
 * when a callback returned -1. Shutting the queue down does not end a call: unblock it.
 *
 * Threads: any number at once on one queue, also from inside a callback.
 * Blocking: until `tmo`; the deadline is looked at between events.
 *
 * @param evq the queue
 * @param tmo milliseconds, QRN_EVQ_DISPATCH_POLL or QRN_EVQ_DISPATCH_BLOCK
 * @return the number of events processed; -1 for a null queue (error recorded) or when a callback
 * returned -1 (nothing recorded; the remaining events stay queued)
 */
QRN_API int qrn_event_dispatch(qrn_event_queue_t *evq, qrn_ulong_t tmo);

/** @brief Ends one dispatch call: that of the thread that takes the event this enqueues. Never
 * blocks; works on a queue that was shut down. */
QRN_API int qrn_event_dispatch_unblock(qrn_event_queue_t *evq);

/**
 * @brief Posts a callback: `proc` runs on the thread that dispatches the event.
 *
 * Threads: any, also from inside a callback. Never waits for a dispatching thread.
 * Ownership: exactly one of `proc` and `delproc` is called for an accepted callback, `delproc`
 * when the event is discarded undelivered by a shutdown or a purge; none is when
 * qrn_event_queue_delete() discards it.
 * Accepted also on a queue that was shut down.
 *
 * @param evq the queue
 * @param proc the callback
 * @param delproc what runs if the event is discarded, or null
 * @param clientd their second argument
 * @return 0, or -1 when the event was not accepted (nothing recorded; neither procedure will run)
 */
QRN_API int qrn_evq_enq_callback(qrn_event_queue_t *evq, qrn_evq_cb_proc proc,
                                 qrn_evq_cb_proc delproc, void *clientd);

/**
 * @brief A descriptor for a foreign event loop: readable while events are queued that nobody has
 * taken.
 *
 * Watch it for reading, level-triggered, and dispatch with QRN_EVQ_DISPATCH_POLL when it is readable;
 * do not read from it. The queue makes it at the first call and closes it when it is deleted. It is
 * written when the queue turns from empty to non-empty and cleared when it is empty again; a queue
 * that was never asked pays nothing.
 *
 * Threads: any. Blocking: no, neither here nor in an enqueuing thread. Ownership: the queue's.
 * Errors: a null or a shut-down queue, no descriptor to be had.
 *
 * @return the descriptor, or -1
 */
QRN_API int qrn_event_queue_fd(qrn_event_queue_t *evq);

/** @} */

/** @name Observe
 * @{ */

/**
 * @brief A snapshot of a queue's statistics.
 *
 * The first figure of a group counts the events queued now, `_tot` those ever accepted since the
 * creation or the last reset (both kept while `queue_count_enabled` is 1). Service times (kept
 * while `queue_service_time_enabled` is 1) and ages (`queue_age_enabled`) are in microseconds; a
 * minimum with all bits set means that there is no sample yet, and a mean is a running average that
 * gives the newest sample a weight of one tenth.
 */
typedef struct qrn_event_queue_stats_t_stct {
    qrn_ulong_t data_msgs;                      /**< messages to receivers, queued now */
    qrn_ulong_t data_msgs_tot;                  /**< messages to receivers, in all */
    qrn_ulong_t data_msgs_svc_min;              /**< their shortest service time */
    qrn_ulong_t data_msgs_svc_mean;             /**< their mean service time */
    qrn_ulong_t data_msgs_svc_max;              /**< their longest service time */
    qrn_ulong_t resp_msgs;                      /**< responses, queued now */
    qrn_ulong_t resp_msgs_tot;                  /**< responses, in all */
    qrn_ulong_t resp_msgs_svc_min;              /**< their shortest service time */
    qrn_ulong_t resp_msgs_svc_mean;             /**< their mean service time */
    qrn_ulong_t resp_msgs_svc_max;              /**< their longest service time */
    qrn_ulong_t topicless_im_msgs;              /**< immediate messages, queued now */
    qrn_ulong_t topicless_im_msgs_tot;          /**< immediate messages, in all */
    qrn_ulong_t topicless_im_msgs_svc_min;      /**< their shortest service time */
    qrn_ulong_t topicless_im_msgs_svc_mean;     /**< their mean service time */
    qrn_ulong_t topicless_im_msgs_svc_max;      /**< their longest service time */
    qrn_ulong_t wrcv_msgs;                      /**< messages to wildcard receivers, queued now */
    qrn_ulong_t wrcv_msgs_tot;                  /**< messages to wildcard receivers, in all */
    qrn_ulong_t wrcv_msgs_svc_min;              /**< their shortest service time */
    qrn_ulong_t wrcv_msgs_svc_mean;             /**< their mean service time */
    qrn_ulong_t wrcv_msgs_svc_max;              /**< their longest service time */
    qrn_ulong_t io_events;                      /**< descriptor events, queued now */
    qrn_ulong_t io_events_tot;                  /**< descriptor events, in all */
    qrn_ulong_t io_events_svc_min;              /**< their shortest service time */
    qrn_ulong_t io_events_svc_mean;             /**< their mean service time */
    qrn_ulong_t io_events_svc_max;              /**< their longest service time */
    qrn_ulong_t timer_events;                   /**< timer expiries, queued now */
    qrn_ulong_t timer_events_tot;               /**< timer expiries, in all */
    qrn_ulong_t timer_events_svc_min;           /**< their shortest service time */
    qrn_ulong_t timer_events_svc_mean;          /**< their mean service time */
    qrn_ulong_t timer_events_svc_max;           /**< their longest service time */
    qrn_ulong_t source_events;                  /**< source events, queued now */
    qrn_ulong_t source_events_tot;              /**< source events, in all */
    qrn_ulong_t source_events_svc_min;          /**< their shortest service time */
    qrn_ulong_t source_events_svc_mean;         /**< their mean service time */
    qrn_ulong_t source_events_svc_max;          /**< their longest service time */
    qrn_ulong_t unblock_events;                 /**< unblock events, queued now */
    qrn_ulong_t unblock_events_tot;             /**< unblock events, in all */
    qrn_ulong_t cancel_events;                  /**< cancel events, queued now */
    qrn_ulong_t cancel_events_tot;              /**< cancel events, in all */
    qrn_ulong_t cancel_events_svc_min;          /**< their shortest service time */
    qrn_ulong_t cancel_events_svc_mean;         /**< their mean service time */
    qrn_ulong_t cancel_events_svc_max;          /**< their longest service time */
    qrn_ulong_t context_source_events;          /**< context source events, queued now */
    qrn_ulong_t context_source_events_tot;      /**< context source events, in all */
    qrn_ulong_t context_source_events_svc_min;  /**< their shortest service time */
    qrn_ulong_t context_source_events_svc_mean; /**< their mean service time */
    qrn_ulong_t context_source_events_svc_max;  /**< their longest service time */
    qrn_ulong_t events;                         /**< all of the above and callbacks, queued now */
    qrn_ulong_t events_tot;                     /**< all of the above and callbacks, in all */
    qrn_ulong_t age_min;                        /**< shortest time in the queue */
    qrn_ulong_t age_mean;                       /**< mean time in the queue */
    qrn_ulong_t age_max;                        /**< longest time in the queue */
    qrn_ulong_t callback_events;                /**< posted callbacks, queued now */
    qrn_ulong_t callback_events_tot;            /**< posted callbacks, in all */
    qrn_ulong_t callback_events_svc_min;        /**< their shortest service time */
    qrn_ulong_t callback_events_svc_mean;       /**< their mean service time */
    qrn_ulong_t callback_events_svc_max;        /**< their longest service time */
} qrn_event_queue_stats_t;

/** @brief Fills `*stats`. Each figure is whole; together they are not one moment's. Never blocks. */
QRN_API int qrn_event_queue_retrieve_stats(qrn_event_queue_t *evq, qrn_event_queue_stats_t *stats);
/** @brief Sets totals, service times and ages back to their initial values; what is queued now stays
 * counted. Never blocks. */
QRN_API int qrn_event_queue_reset_stats(qrn_event_queue_t *evq);
/** @brief Events queued now, a bundle counting as its messages; -1 unless `queue_size_warning` is
 * above 0. Counted while a monitor callback is set or `queue_age_enabled` is 1. Never blocks. */
QRN_API int qrn_event_queue_size(qrn_event_queue_t *evq);
/** @brief Warnings raised to the monitor callback since the creation: events whose taking raised a size
 * warning, and events that raised a delay warning. Either pointer may be null. Never blocks. */
QRN_API int qrn_event_queue_retrieve_warnings(qrn_event_queue_t *evq, qrn_ulong_t *size_warnings,
                                              qrn_ulong_t *delay_warnings);
/** @brief Makes `sctl` the controller of a queue that automatic monitoring watches; leaves any other
 * queue as it is. */
QRN_API int qrn_event_queue_monitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *evq);
/** @brief Makes the queue forget `sctl` when that is its controller. */
QRN_API int qrn_event_queue_unmonitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *evq);

/** @} */

/** @name Destroy
 * @{ */

/** @brief Marks the queue shut down and discards every queued event, releasing what it carries. From
 * then on only cancel, callback and unblock events are accepted, and message, timer, descriptor
 * and source callbacks no longer run. Does not wake dispatching threads. */
QRN_API int qrn_event_queue_shutdown(qrn_event_queue_t *evq);
/** @brief Frees a queue with what it still holds. Nobody may use it any more: the caller has ended
 * every dispatch call (unblock them and join) and every enqueuing thread first. */
QRN_API int qrn_event_queue_delete(qrn_event_queue_t *evq);

/** @} */

/** @name Option tables and handlers
 * What stands behind the access by name: one row an option with its four handlers. A handler knows
 * nothing of names or queues; `attr` must be valid, and so must `optval` and `optlen` except where
 * an option may be cleared by a null `optval`.
 * @{ */

/** @brief Sets an option of a record from a typed value of `optlen` bytes. */
typedef int (*qrn_event_queue_attr_set_proc)(qrn_event_queue_attr_t *attr, const void *optval,
                                             size_t optlen);
/** @brief Sets an option of a record from text. */
typedef int (*qrn_event_queue_attr_sets_proc)(qrn_event_queue_attr_t *attr, const char *optval);
/** @brief Reads an option of a record; `*optlen` is the buffer's size, then the result's length. */
typedef int (*qrn_event_queue_attr_get_proc)(qrn_event_queue_attr_t *attr, void *optval,
                                             size_t *optlen);
/** @brief Reads an option of a record as text; `*optlen` as for the typed getter. */
typedef int (*qrn_event_queue_attr_gets_proc)(qrn_event_queue_attr_t *attr, char *optval,
                                              size_t *optlen);

/** @brief A row of an option table. */
typedef struct qrn_event_queue_attr_entry_t_stct {
    const char *oname;                   /**< the option's name; null ends the table */
    int otype;                           /**< 10 a number, 6 a switch, 2 text or bytes */
    qrn_event_queue_attr_set_proc set;   /**< typed setter */
    qrn_event_queue_attr_sets_proc sset; /**< setter from text */
    qrn_event_queue_attr_get_proc get;   /**< typed getter */
    qrn_event_queue_attr_gets_proc sget; /**< getter of text */
} qrn_event_queue_attr_entry_t;

/** @brief Every option, ended by a row of zeros; the row number is the option's bit in the set of
 * options that were set by name. */
QRN_API extern const qrn_event_queue_attr_entry_t qrn_event_queue_attr_opt_table[15];
/** @brief The options that may be set on a running queue, ended by a row of zeros. */
QRN_API extern const qrn_event_queue_attr_entry_t qrn_event_queue_opt_table[8];

/** @brief Sets `queue_size_warning`. */
QRN_API int qrn_event_queue_attr_q_sz_warn_set(qrn_event_queue_attr_t *attr, const void *optval,
                                               size_t optlen);
/** @brief Sets `queue_size_warning` from text. */
QRN_API int qrn_event_queue_attr_q_sz_warn_sset(qrn_event_queue_attr_t *attr, const char *optval);
/** @brief Reads `queue_size_warning`. */
QRN_API int qrn_event_queue_attr_q_sz_warn_get(qrn_event_queue_attr_t *attr, void *optval,
                                               size_t *optlen);
/** @brief Reads `queue_size_warning` as text. */
QRN_API int qrn_event_queue_attr_q_sz_warn_sget(qrn_event_queue_attr_t *attr, char *optval,
                                                size_t *optlen);
/** @brief Sets `queue_delay_warning`. */
QRN_API int qrn_event_queue_attr_q_delay_warn_set(qrn_event_queue_attr_t *attr, const void *optval,
                                                  size_t optlen);
/** @brief Sets `queue_delay_warning` from text. */
QRN_API int qrn_event_queue_attr_q_delay_warn_sset(qrn_event_queue_attr_t *attr,
                                                   const char *optval);
/** @brief Reads `queue_delay_warning`. */
QRN_API int qrn_event_queue_attr_q_delay_warn_get(qrn_event_queue_attr_t *attr, void *optval,
                                                  size_t *optlen);
/** @brief Reads `queue_delay_warning` as text. */
QRN_API int qrn_event_queue_attr_q_delay_warn_sget(qrn_event_queue_attr_t *attr, char *optval,
                                                   size_t *optlen);
/** @brief Sets `queue_enqueue_notification`. */
QRN_API int qrn_event_queue_attr_q_notify_set(qrn_event_queue_attr_t *attr, const void *optval,
                                              size_t optlen);
/** @brief Sets `queue_enqueue_notification` from text. */
QRN_API int qrn_event_queue_attr_q_notify_sset(qrn_event_queue_attr_t *attr, const char *optval);
/** @brief Reads `queue_enqueue_notification`. */
QRN_API int qrn_event_queue_attr_q_notify_get(qrn_event_queue_attr_t *attr, void *optval,
                                              size_t *optlen);
/** @brief Reads `queue_enqueue_notification` as text. */
QRN_API int qrn_event_queue_attr_q_notify_sget(qrn_event_queue_attr_t *attr, char *optval,
                                               size_t *optlen);
/** @brief Sets `queue_cancellation_callbacks_enabled`. */
QRN_API int qrn_event_queue_attr_q_cancel_cb_set(qrn_event_queue_attr_t *attr, const void *optval,
                                                 size_t optlen);
/** @brief Sets `queue_cancellation_callbacks_enabled` from text. */
QRN_API int qrn_event_queue_attr_q_cancel_cb_sset(qrn_event_queue_attr_t *attr, const char *optval);
/** @brief Reads `queue_cancellation_callbacks_enabled`. */
QRN_API int qrn_event_queue_attr_q_cancel_cb_get(qrn_event_queue_attr_t *attr, void *optval,
                                                 size_t *optlen);
/** @brief Reads `queue_cancellation_callbacks_enabled` as text. */
QRN_API int qrn_event_queue_attr_q_cancel_cb_sget(qrn_event_queue_attr_t *attr, char *optval,
                                                  size_t *optlen);
/** @brief Sets `queue_objects_purged_on_close`. */
QRN_API int qrn_event_queue_attr_q_purge_on_close_set(qrn_event_queue_attr_t *attr,
                                                      const void *optval, size_t optlen);
/** @brief Sets `queue_objects_purged_on_close` from text. */
QRN_API int qrn_event_queue_attr_q_purge_on_close_sset(qrn_event_queue_attr_t *attr,
                                                       const char *optval);
/** @brief Reads `queue_objects_purged_on_close`. */
QRN_API int qrn_event_queue_attr_q_purge_on_close_get(qrn_event_queue_attr_t *attr, void *optval,
                                                      size_t *optlen);
/** @brief Reads `queue_objects_purged_on_close` as text. */
QRN_API int qrn_event_queue_attr_q_purge_on_close_sget(qrn_event_queue_attr_t *attr, char *optval,
                                                       size_t *optlen);
/** @brief Sets `queue_service_time_enabled`. */
QRN_API int qrn_event_queue_attr_q_svc_time_set(qrn_event_queue_attr_t *attr, const void *optval,
                                                size_t optlen);
/** @brief Sets `queue_service_time_enabled` from text. */
QRN_API int qrn_event_queue_attr_q_svc_time_sset(qrn_event_queue_attr_t *attr, const char *optval);
/** @brief Reads `queue_service_time_enabled`. */
QRN_API int qrn_event_queue_attr_q_svc_time_get(qrn_event_queue_attr_t *attr, void *optval,
                                                size_t *optlen);
/** @brief Reads `queue_service_time_enabled` as text. */
QRN_API int qrn_event_queue_attr_q_svc_time_sget(qrn_event_queue_attr_t *attr, char *optval,
                                                 size_t *optlen);
/** @brief Sets `queue_age_enabled`. */
QRN_API int qrn_event_queue_attr_q_age_set(qrn_event_queue_attr_t *attr, const void *optval,
                                           size_t optlen);
/** @brief Sets `queue_age_enabled` from text. */
QRN_API int qrn_event_queue_attr_q_age_sset(qrn_event_queue_attr_t *attr, const char *optval);
/** @brief Reads `queue_age_enabled`. */
QRN_API int qrn_event_queue_attr_q_age_get(qrn_event_queue_attr_t *attr, void *optval,
                                           size_t *optlen);
/** @brief Reads `queue_age_enabled` as text. */
QRN_API int qrn_event_queue_attr_q_age_sget(qrn_event_queue_attr_t *attr, char *optval,
                                            size_t *optlen);
/** @brief Sets `queue_count_enabled`. */
QRN_API int qrn_event_queue_attr_q_count_set(qrn_event_queue_attr_t *attr, const void *optval,
                                             size_t optlen);
/** @brief Sets `queue_count_enabled` from text. */
QRN_API int qrn_event_queue_attr_q_count_sset(qrn_event_queue_attr_t *attr, const char *optval);
/** @brief Reads `queue_count_enabled`. */
QRN_API int qrn_event_queue_attr_q_count_get(qrn_event_queue_attr_t *attr, void *optval,
                                             size_t *optlen);
/** @brief Reads `queue_count_enabled` as text. */
QRN_API int qrn_event_queue_attr_q_count_sget(qrn_event_queue_attr_t *attr, char *optval,
                                              size_t *optlen);
/** @brief Sets `monitor_interval`. */
QRN_API int qrn_event_queue_attr_monitor_ivl_set(qrn_event_queue_attr_t *attr, const void *optval,
                                                 size_t optlen);
/** @brief Sets `monitor_interval` from text. */
QRN_API int qrn_event_queue_attr_monitor_ivl_sset(qrn_event_queue_attr_t *attr, const char *optval);
/** @brief Reads `monitor_interval`. */
QRN_API int qrn_event_queue_attr_monitor_ivl_get(qrn_event_queue_attr_t *attr, void *optval,
                                                 size_t *optlen);
/** @brief Reads `monitor_interval` as text. */
QRN_API int qrn_event_queue_attr_monitor_ivl_sget(qrn_event_queue_attr_t *attr, char *optval,
                                                  size_t *optlen);
/** @brief Sets `monitor_transport`. */
QRN_API int qrn_event_queue_attr_monitor_transport_set(qrn_event_queue_attr_t *attr,
                                                       const void *optval, size_t optlen);
/** @brief Sets `monitor_transport` from text. */
QRN_API int qrn_event_queue_attr_monitor_transport_sset(qrn_event_queue_attr_t *attr,
                                                        const char *optval);
/** @brief Reads `monitor_transport`. */
QRN_API int qrn_event_queue_attr_monitor_transport_get(qrn_event_queue_attr_t *attr, void *optval,
                                                       size_t *optlen);
/** @brief Reads `monitor_transport` as text. */
QRN_API int qrn_event_queue_attr_monitor_transport_sget(qrn_event_queue_attr_t *attr, char *optval,
                                                        size_t *optlen);
/** @brief Sets `monitor_transport_opts`. */
QRN_API int qrn_event_queue_attr_monitor_transport_opts_set(qrn_event_queue_attr_t *attr,
                                                            const void *optval, size_t optlen);
/** @brief Sets `monitor_transport_opts` from text. */
QRN_API int qrn_event_queue_attr_monitor_transport_opts_sset(qrn_event_queue_attr_t *attr,
                                                             const char *optval);
/** @brief Reads `monitor_transport_opts`. */
QRN_API int qrn_event_queue_attr_monitor_transport_opts_get(qrn_event_queue_attr_t *attr,
                                                            void *optval, size_t *optlen);
/** @brief Reads `monitor_transport_opts` as text. */
QRN_API int qrn_event_queue_attr_monitor_transport_opts_sget(qrn_event_queue_attr_t *attr,
                                                             char *optval, size_t *optlen);
/** @brief Sets `monitor_appid`. */
QRN_API int qrn_event_queue_attr_monitor_appid_set(qrn_event_queue_attr_t *attr, const void *optval,
                                                   size_t optlen);
/** @brief Sets `monitor_appid` from text. */
QRN_API int qrn_event_queue_attr_monitor_appid_sset(qrn_event_queue_attr_t *attr,
                                                    const char *optval);
/** @brief Reads `monitor_appid`. */
QRN_API int qrn_event_queue_attr_monitor_appid_get(qrn_event_queue_attr_t *attr, void *optval,
                                                   size_t *optlen);
/** @brief Reads `monitor_appid` as text. */
QRN_API int qrn_event_queue_attr_monitor_appid_sget(qrn_event_queue_attr_t *attr, char *optval,
                                                    size_t *optlen);
/** @brief Sets `event_queue_name`. */
QRN_API int qrn_event_queue_attr_event_queue_name_set(qrn_event_queue_attr_t *attr,
                                                      const void *optval, size_t optlen);
/** @brief Sets `event_queue_name` from text. */
QRN_API int qrn_event_queue_attr_event_queue_name_sset(qrn_event_queue_attr_t *attr,
                                                       const char *optval);
/** @brief Reads `event_queue_name`. */
QRN_API int qrn_event_queue_attr_event_queue_name_get(qrn_event_queue_attr_t *attr, void *optval,
                                                      size_t *optlen);
/** @brief Reads `event_queue_name` as text. */
QRN_API int qrn_event_queue_attr_event_queue_name_sget(qrn_event_queue_attr_t *attr, char *optval,
                                                       size_t *optlen);
/** @brief Sets `application_data`. */
QRN_API int qrn_event_queue_attr_app_data_set(qrn_event_queue_attr_t *attr, const void *optval,
                                              size_t optlen);
/** @brief Sets `application_data` from text. */
QRN_API int qrn_event_queue_attr_app_data_sset(qrn_event_queue_attr_t *attr, const char *optval);
/** @brief Reads `application_data`. */
QRN_API int qrn_event_queue_attr_app_data_get(qrn_event_queue_attr_t *attr, void *optval,
                                              size_t *optlen);
/** @brief Reads `application_data` as text. */
QRN_API int qrn_event_queue_attr_app_data_sget(qrn_event_queue_attr_t *attr, char *optval,
                                               size_t *optlen);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
