/* SPDX-License-Identifier: Apache-2.0 */
/* The records that events refer to. */
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

struct qrn_context_t_stct {
    int defunct; /* not 0: deleted. Here and below read without a lock */
    qrn_fd_t *fdm;
    qrn_timer_t *timer;
    struct {
        uint64_t timestamp_mask;  /* bit value 2: stamp messages before their callback */
        int rcv_delivery_latency; /* stamp one message in so many; 0: none */
    } attr;
    qrn_rcv_bundle_cb_proc rcv_delivery_batching_cb;
    void *rcv_delivery_batching_clientd;

    /* Private. */
};

struct qrn_rcv_t_stct {
    qrn_context_t *ctx;
    int defunct;

    /* Private. */
};

struct qrn_wildcard_rcv_t_stct {
    qrn_context_t *ctx;
    int defunct;
    void *cd; /* client data of the callback */
    qrn_rcv_cb_proc rcvproc;

    /* Private. */
};

struct qrn_src_t_stct {
    qrn_context_t *ctx;
    int defunct;

    /* Private. */
};

struct qrn_request_t_stct {
    qrn_context_t *ctx;
    int defunct;
    void *clientd;
    qrn_request_cb_proc proc;

    /* Private. */
};

#ifdef __cplusplus
}
#endif

#endif
