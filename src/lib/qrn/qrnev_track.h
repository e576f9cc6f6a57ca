// SPDX-License-Identifier: Apache-2.0
//
// Private to the module: whether a queue tracks its dispatching threads.
#ifndef QRNEV_TRACK_H
#define QRNEV_TRACK_H

#include "qrnev.h"

namespace qrnev {

// Neither option can be set on a live queue, so the answer holds for the queue's life.
inline bool tracks_threads(const qrn_event_queue_t *evq)
{
    return evq->attr->q_cancel_cb != 0 || evq->attr->q_purge_on_close == 0;
}

inline bool is_shut_down(const qrn_event_queue_t *evq)
{
    return kfx::load(evq->shutdown) != 0;
}

} // namespace qrnev

#endif
