// SPDX-License-Identifier: Apache-2.0
#include "deletion.h"

namespace feeder {

void deletion::hand(qrn_msg_t *msg)
{
    ++handed_;
    qrn_msg_set_wqx_cr(msg, on_consumed, this);
    const std::lock_guard guard(lock_);
    waiting_.insert(msg->sequence_number);
}

void deletion::begin(const qrn_msg_t *msg)
{
    const std::lock_guard guard(lock_);
    waiting_.erase(msg->sequence_number);
}

void deletion::run(qrn_rcv_t *rcv, bool with_callback)
{
    done_ = true;
    with_callback_ = with_callback;
    start_ = clock::now();
    {
        const std::lock_guard guard(lock_);
        running_ = true;
    }
    const qrn_cancel_t cancel{nullptr, on_cancel, this};
    qrn_rcv_delete(rcv, with_callback ? &cancel : nullptr);
}

// One that is consumed without a callback before the deletion is lost: it counts as nothing, and the
// final sum shows it.
void deletion::on_consumed(qrn_msg_t *msg, void *clientd)
{
    auto &self = *static_cast<deletion *>(clientd);
    const std::lock_guard guard(self.lock_);
    if (self.waiting_.erase(msg->sequence_number) != 0 && self.running_)
        ++self.skipped_;
}

// May run with the queue's cancellation lock held.
void deletion::on_cancel(int dispatch_thrd, void *clientd)
{
    auto &self = *static_cast<deletion *>(clientd);
    const std::lock_guard guard(self.lock_);
    ++self.callbacks_;
    self.by_dispatcher_ = dispatch_thrd != 0;
    self.callback_at_ = clock::now();
}

deletion_result deletion::result() const
{
    const std::lock_guard guard(lock_);
    deletion_result result;
    result.done = done_;
    result.handed = handed_;
    result.purged = done_ ? waiting_.size() : 0;
    result.skipped = skipped_;
    result.has_callback = with_callback_;
    result.callbacks = callbacks_;
    result.by_dispatcher = by_dispatcher_;
    if (callbacks_ > 0)
        result.callback_after =
            std::chrono::duration_cast<std::chrono::microseconds>(callback_at_ - start_);
    return result;
}

} // namespace feeder
