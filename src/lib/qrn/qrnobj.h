/* SPDX-License-Identifier: Apache-2.0 */
/* The records that events refer to. They are made and ended by the operations of qrnctx.h. */
#ifndef QRNOBJ_H
#define QRNOBJ_H

#include <stdint.h>

#include "qrn.h"
#include "qrnfd.h"
#include "qrnmsg.h"
#include "qrntime.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What binds an object to its context and its queue. `owner`, `ctx` and `evq` never change; the links are
 * guarded by the context's lock. */
typedef struct qrn_binding_t_stct {
    void *owner; /* the object, a block from malloc */
    qrn_context_t *ctx;
    qrn_event_queue_t *evq;
    struct qrn_binding_t_stct *next;
    struct qrn_binding_t_stct **link; /* what points to this one */
} qrn_binding_t;

struct qrn_context_t_stct {
    int defunct; /* not 0: its source side or the whole of it was deleted. Here and below read without a
                    lock */
    qrn_fd_t *fdm;
    qrn_timer_t *timer;
    struct {
        uint64_t timestamp_mask;  /* bit value 2: stamp messages before their callback */
        int rcv_delivery_latency; /* stamp one message in so many; 0: none */
    } attr;
    qrn_rcv_bundle_cb_proc rcv_delivery_batching_cb; /* not null: messages travel in bundles */
    void *rcv_delivery_batching_clientd;

    /* Private. */
    struct qrn_ctx_state_t_stct *state;
};

struct qrn_rcv_t_stct {
    qrn_context_t *ctx;
    int defunct;

    /* Private. */
    qrn_binding_t binding;
    qrn_rcv_cb_proc proc;
    void *clientd;
    const char *topic; /* in the same block */
};

struct qrn_wildcard_rcv_t_stct {
    qrn_context_t *ctx;
    int defunct;
    void *cd; /* client data of the callback */
    qrn_rcv_cb_proc rcvproc;

    /* Private. */
    qrn_binding_t binding;
    const char *pattern; /* in the same block */
};

struct qrn_src_t_stct {
    qrn_context_t *ctx;
    int defunct;

    /* Private. */
    qrn_binding_t binding;
    qrn_src_cb_proc proc;
    void *clientd;
};

struct qrn_request_t_stct {
    qrn_context_t *ctx;
    int defunct;
    void *clientd;
    qrn_request_cb_proc proc;

    /* Private. */
    qrn_binding_t binding;
};

#ifdef __cplusplus
}
#endif

#endif
