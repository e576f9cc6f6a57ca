// SPDX-License-Identifier: Apache-2.0
//
// Private to the module: how an event gets onto a queue.
#ifndef QRNEV_APPEND_H
#define QRNEV_APPEND_H

#include "qrnev.h"

namespace qrnev {

// A record without payload; the caller fills it. Running out of memory is fatal.
qrn_event_t *make_event(qrn_event_queue_t *evq, int type, qrn_context_t *ctx);

// Sizes, stamps and counts the event as the options ask, appends it, notifies. -1 when the append
// failed: then everything is undone and the record freed.
int append(qrn_event_t *ev);

// What the monitor hook of an append does. It checks nothing: the option that called for it may be
// switched off meanwhile.
void size_and_stamp(qrn_event_queue_t *evq, qrn_event_t *ev, long sz);

} // namespace qrnev

#endif
