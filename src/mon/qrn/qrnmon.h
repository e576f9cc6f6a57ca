/* SPDX-License-Identifier: Apache-2.0 */
/* The monitoring layer: a controller samples queues at an interval, a format makes a record of each
 * sample, a transport carries it. */
#ifndef QRNMON_H
#define QRNMON_H

#include "qrn.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A format module and a transport module; opaque. */
typedef struct qrnmon_format_func_t_stct qrnmon_format_func_t;
typedef struct qrnmon_transport_func_t_stct qrnmon_transport_func_t;

/* Comma-separated values. */
const qrnmon_format_func_t *qrnmon_format_csv_module(void);
/* One UDP datagram a record; the two differ in their default port. */
const qrnmon_transport_func_t *qrnmon_transport_qrn_module(void);
const qrnmon_transport_func_t *qrnmon_transport_qrnsnmp_module(void);

/* Acquires the controller for a format, a transport and the transport's options, and stores it:
 * callers that ask for the same destination share one, with one sampling thread. The format must
 * be the one above, its options null. The transport's options name the receiver,
 * "host=NAME,port=NUMBER", in any order, each at will, separated by commas, semicolons or blanks;
 * null or empty: 127.0.0.1 and the transport's own port.
 *
 * Any thread. A host name is resolved here, so this may wait for a name server; nothing later
 * waits for the receiver. -1 on failure (unknown option, host that does not resolve, ...), with an
 * error recorded for the thread, for qrn_errnum() and for qrnmon_errnum(). */
int qrn_automon_sctl_create(qrnmon_sctl_t **sctl, const qrnmon_format_func_t *format,
                            const void *format_opts, const qrnmon_transport_func_t *transport,
                            const char *transport_opts);
/* Releases one acquisition, whichever controller it was for. The caller has stopped what it
 * monitored with it, or failed to start, and uses that controller no more. A controller ends, and
 * its thread with it, once it watches nothing and no acquisition can be meant for it; all of them
 * end with the last release. Any thread but a sampler. */
void qrn_automon_sctl_destroy(void);

/* Starts to sample a queue, now and then every `interval` seconds (1 or more), under the
 * application identifier (null: none; the text is copied). A controller may watch many queues; a
 * queue is watched once. Any thread. -1 on failure. */
int qrnmon_evq_monitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *evq, const char *appid,
                       unsigned interval);
/* Stops: once it returns, the layer no longer touches the queue, whichever controller watched it.
 * Waits for a sample of this queue that is being taken, which waits for nothing. Any thread but a
 * sampler. -1 when the queue is not watched. */
int qrnmon_evq_unmonitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *evq);

/* The layer's last failure on the calling thread: a bad argument or option 1, a host that does not
 * resolve 2, a refusal by the system 3, a queue that is watched already or not at all 4. The text
 * is valid until the thread's next failure. */
int qrnmon_errnum(void);
const char *qrnmon_errmsg(void);

#ifdef __cplusplus
}
#endif

#endif
