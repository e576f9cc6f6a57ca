// SPDX-License-Identifier: Apache-2.0
//
// What owns the library's objects, and the attribute records of the two queues.
#ifndef QRNFEED_QUEUES_H
#define QRNFEED_QUEUES_H

#include <atomic>
#include <memory>

#include "qrnctx.h"
#include "settings.h"

namespace feeder {

struct deleter {
    void operator()(qrn_event_queue_attr_t *attr) const { qrn_event_queue_attr_delete(attr); }
    void operator()(qrn_context_t *ctx) const { qrn_ctx_delete(ctx); }
    void operator()(qrn_event_queue_t *evq) const
    {
        qrn_event_queue_shutdown(evq);
        qrn_event_queue_delete(evq);
    }
};

using attr_ptr = std::unique_ptr<qrn_event_queue_attr_t, deleter>;
using queue_ptr = std::unique_ptr<qrn_event_queue_t, deleter>;
using context_ptr = std::unique_ptr<qrn_context_t, deleter>;

// Counts what a queue's monitor callback reports.
struct warnings {
    std::atomic<unsigned long> size = 0;
    std::atomic<unsigned long> delay = 0;
    std::atomic<unsigned long> enqueued = 0;
};

// The options of a queue that keeps its figures; those of the user's wishes come last. Throws a refusal.
attr_ptr make_attr(const char *name, const settings &wanted);
bool is_on(const attr_ptr &attr, const char *option);

// `into` null: no monitor callback. Throws a refusal.
queue_ptr make_queue(const attr_ptr &attr, warnings *into);

} // namespace feeder

#endif
