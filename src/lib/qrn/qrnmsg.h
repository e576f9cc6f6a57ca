/* SPDX-License-Identifier: Apache-2.0 */
/* Counted messages.
 *
 * A message is one block: the record, its topic and its payload. It is made with one reference; each
 * queued event holds one more. Any thread may hold, take and release references; topic, payload, type
 * and sequence number never change after the message is made known to another thread. */
#ifndef QRNMSG_H
#define QRNMSG_H

#include "kfxhrtime.h"
#include "qrn.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Values of `type`. The first, third and fourth are those whose delivery latency is stamped. */
#define QRN_MSG_TYPE_DATA 0
#define QRN_MSG_TYPE_NOTICE 1
#define QRN_MSG_TYPE_RESPONSE 2
#define QRN_MSG_TYPE_IMMEDIATE 3

/* Bit of `flags`, and the field it stands for: the message carries qrn_msg_timestamps_t. */
#define QRN_MSG_TIMESTAMPS_FIELD 0x200

typedef struct qrn_msg_timestamps_t_stct {
    kfx_hrtime_t fd_wakeup_ts;        /* when the descriptor wait that brought the message ended */
    kfx_hrtime_t msg_pre_callback_ts; /* just before the application callback */
} qrn_msg_timestamps_t;

/* Takes a message's queue consumption report: it was consumed. The message is valid during the call. */
typedef void (*qrn_msg_consumed_proc)(qrn_msg_t *msg, void *clientd);

struct qrn_msg_t_stct {
    int type;
    int flags;
    qrn_uint_t sequence_number;

    /* Private. */
    long refs;                   /* atomic; 0 only in a record that qrn_msg_create did not make */
    qrn_msg_timestamps_t stamps; /* meaningful when `flags` has the bit */
    qrn_msg_consumed_proc consumed; /* the report, or null; atomic */
    void *consumed_clientd;
    const char *topic; /* null: the message has none */
    const void *payload;
    size_t payload_len;
};

/* A message with copies of `topic` (null: none) and of `len` bytes of payload, and one reference, which
 * is the caller's. */
qrn_msg_t *qrn_msg_create(int type, const char *topic, const void *payload, size_t len,
                          qrn_uint_t sequence_number);
/* Takes one more reference; the caller holds one. Gives `msg`. */
qrn_msg_t *qrn_msg_retain(qrn_msg_t *msg);
/* Releases a reference; the last one makes the consumption report, if there is one, and frees the
 * message. 0. */
int qrn_msg_delete(qrn_msg_t *msg);

/* The topic, null when there is none; valid while a reference is held. */
const char *qrn_msg_topic(const qrn_msg_t *msg);
/* The payload, aligned for any type and followed by a byte 0 that is not counted in `*len`; valid while
 * a reference is held. */
const void *qrn_msg_payload(const qrn_msg_t *msg, size_t *len);

/* Asks for a queue consumption report: `consumed` is called when the last reference is released, unless
 * a queue discarded the message undelivered. Before the message is given to other threads. */
void qrn_msg_set_wqx_cr(qrn_msg_t *msg, qrn_msg_consumed_proc consumed, void *clientd);
/* Clears the message's queue consumption report, so that discarding it reports no consumption. 0. */
int qrn_msg_clr_wqx_cr(qrn_msg_t *msg);
/* Address of an internal field, whose bit must be set in `flags`; valid while a reference is held. Null
 * for a field that does not exist. */
void *qrn_msg_retrieve_internal_field_ptr(qrn_msg_t *msg, int field);

/* Number of messages that are alive in the process. */
long qrn_msg_live(void);

#ifdef __cplusplus
}
#endif

#endif
