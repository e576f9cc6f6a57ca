/* SPDX-License-Identifier: Apache-2.0 */
/* The configuration layer: one-time initialisation, current and base defaults, acceptance of queues. */
#ifndef QRNCFG_H
#define QRNCFG_H

#include "qrn.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Initialises the library; what it does is done once. Any thread. */
void qrn_do_init_once(void);

/* Fills a zeroed record with a deep copy of the current defaults, or of the base defaults. 0, or -1
 * after recording an error; then the caller releases what the record holds. */
int qrn_event_queue_attr_init_clone(qrn_event_queue_attr_t *attr);
int qrn_event_queue_attr_init_clone_base(qrn_event_queue_attr_t *attr);

/* Whether a queue of this name (null: none) with these attributes may be created: above 0 when so. */
int qrn_xmlcfg_check_event_queue(const char *name, qrn_event_queue_attr_t *attr);

#ifdef __cplusplus
}
#endif

#endif
