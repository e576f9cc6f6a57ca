// SPDX-License-Identifier: Apache-2.0
//
// Private to the module: template events, which name the object of a purge or of a cancellation.
#ifndef QRNEV_PURGE_H
#define QRNEV_PURGE_H

#include "qrnev.h"

namespace qrnev {

qrn_event_t rcv_template(qrn_rcv_t *rcv);
qrn_event_t wrcv_template(qrn_wildcard_rcv_t *wrcv);
qrn_event_t timer_template(qrn_context_t *ctx, int id);
qrn_event_t io_template(qrn_context_t *ctx, qrn_handle_t handle, qrn_ulong_t ev);
qrn_event_t src_template(qrn_src_t *src);
qrn_event_t ctx_src_template(qrn_context_t *ctx);
qrn_event_t req_template(qrn_request_t *req);

} // namespace qrnev

#endif
