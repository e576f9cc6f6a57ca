// SPDX-License-Identifier: Apache-2.0
//
// The deletion of a receiver in mid-stream, and what became of each message that was handed to it.
//
// The numbers of its messages are kept until their callback begins. A message that is consumed without
// one (its consumption report comes) was taken by a thread that then found the receiver deleted. One
// that is left over was discarded by the purge.
#ifndef QRNFEED_DELETION_H
#define QRNFEED_DELETION_H

#include <atomic>
#include <chrono>
#include <mutex>
#include <unordered_set>

#include "qrnctx.h"

namespace feeder {

// Meaningful once nothing is queued any more.
struct deletion_result {
    bool done = false;
    unsigned handed = 0;
    unsigned long purged = 0;  // removed from the queue
    unsigned long skipped = 0; // already taken by a thread, their callbacks not begun
    bool has_callback = false; // the cancellation callback was asked for
    unsigned callbacks = 0;    // ... and made so many times
    bool by_dispatcher = false;
    std::chrono::microseconds callback_after{};
};

class deletion {
public:
    explicit deletion(unsigned after) : after_(after) {}

    // The next three are for the feeding thread. Before the message is delivered:
    void hand(qrn_msg_t *msg);
    bool is_due() const { return !done_ && handed_ == after_; }
    // The cancellation callback is made when `with_callback` is set.
    void run(qrn_rcv_t *rcv, bool with_callback);

    bool is_done() const { return done_; }
    unsigned after() const { return after_; }
    // On the dispatching thread, when a callback begins.
    void begin(const qrn_msg_t *msg);

    deletion_result result() const;

private:
    using clock = std::chrono::steady_clock;

    static void on_consumed(qrn_msg_t *msg, void *clientd);
    static void on_cancel(int dispatch_thrd, void *clientd);

    const unsigned after_;
    unsigned handed_ = 0;
    bool done_ = false;
    bool with_callback_ = false;
    clock::time_point start_;

    mutable std::mutex lock_; // guards what follows
    bool running_ = false;
    std::unordered_set<qrn_uint_t> waiting_;
    unsigned long skipped_ = 0;
    unsigned callbacks_ = 0;
    bool by_dispatcher_ = false;
    clock::time_point callback_at_;
};

} // namespace feeder

#endif
