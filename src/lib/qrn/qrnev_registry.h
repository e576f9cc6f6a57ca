// SPDX-License-Identifier: Apache-2.0
//
// Private to the module: the registry of live queues.
#ifndef QRNEV_REGISTRY_H
#define QRNEV_REGISTRY_H

#include "qrnev.h"

typedef struct qrn_evq_node_t_stct {
    qrn_event_queue_t *q;
    struct qrn_evq_node_t_stct *next; // under evq_list_lock
} qrn_evq_node_t;

extern qrn_evq_node_t *evq_head; // the newest queue; under evq_list_lock

// Guards the list. The outermost lock of the library: the locks of any queue may nest in it.
extern kfx_mutex_t evq_list_lock;

#endif
