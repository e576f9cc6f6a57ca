// SPDX-License-Identifier: Apache-2.0
//
// Private to the module: the delivery of one event, by type.
#ifndef QRNEV_DELIVER_H
#define QRNEV_DELIVER_H

#include "qrnev.h"

namespace qrnev {

// One step a type. Each delivers its event and does its accounts, also when the callback throws. -1 when
// the application callback returned -1, else another value.
int deliver_msg(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_timer(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_io(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_src(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_request(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_imsg(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_wrcv_msg(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_cancel(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_ctx_src(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_callback(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_bundle(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_unblock(qrn_event_queue_t *evq, qrn_event_t *ev);
int deliver_unknown(const qrn_event_t *ev);

} // namespace qrnev

#endif
