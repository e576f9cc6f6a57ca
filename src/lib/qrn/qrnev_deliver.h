// SPDX-License-Identifier: Apache-2.0
//
// Private to the module: the delivery of one event.
#ifndef QRNEV_DELIVER_H
#define QRNEV_DELIVER_H

#include "qrnev.h"

namespace qrnev {

// Delivers an event by its type and does its accounts, also when the callback throws. -1 when the
// application callback returned -1, else another value.
int deliver(qrn_event_queue_t *evq, qrn_event_t *ev);

} // namespace qrnev

#endif
