// SPDX-License-Identifier: Apache-2.0
//
// The operations below stand between the library and what it calls: the program is linked so that a
// call of `f` comes to `__wrap_f`, which reaches the real one as `__real_f`.
#include "ledger.h"

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

namespace soak {

void expect_equal(const char *what, long a, long b)
{
    if (a == b)
        return;
    std::fflush(stdout);
    std::fprintf(stderr, "qrnsoak: FAILED: %s: %ld and %ld\n", what, a, b);
    std::abort();
}

qrn_msg_t *new_message(unsigned n, const char *topic)
{
    qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, topic, "payload", 7, n);
    qrn_msg_set_wqx_cr(
        msg, [](qrn_msg_t *, void *) { ++total.consumed; }, nullptr);
    ++total.messages;
    return msg;
}

void check_ledger()
{
    const ledger &t = total;
    expect_equal("events enqueued, ended", t.enqueued, t.delivered + t.purged + t.discarded);
    expect_equal("messages made, ended", t.messages, t.consumed + t.cleared);
    expect_equal("callbacks posted, ended", t.callbacks, t.called + t.dropped);
    expect_equal("cancellations asked for, made", t.cancels, t.cancelled);
    expect_equal("messages that live on", qrn_msg_live(), 0);
    expect_equal("blocks of memory that are left", t.blocks, 0);
}

} // namespace soak

using namespace soak;

namespace {

long size_of(const qrn_event_t *ev)
{
    if (ev->type != QRN_EVQ_MSG_BUNDLE_TYPE)
        return 1;
    return ev->info.msg_bundle->data_msgs + ev->info.msg_bundle->wrcv_msgs;
}

// Adds an event to what its queue accepted, or takes it back with `sign` -1.
void accept(const qrn_event_t *ev, long sign)
{
    auto &accepted = static_cast<account *>(ev->evq->clientd)->accepted;
    if (ev->type == QRN_EVQ_MSG_BUNDLE_TYPE) {
        accepted[QRN_EVQ_MSG_TYPE] += sign * ev->info.msg_bundle->data_msgs;
        accepted[QRN_EVQ_WRCV_MSG_TYPE] += sign * ev->info.msg_bundle->wrcv_msgs;
    } else {
        accepted.at(static_cast<size_t>(ev->type)) += sign;
    }
    total.enqueued += sign * size_of(ev);
}

void take(std::atomic<long> &where, void *const *value)
{
    if (*value != nullptr)
        where += size_of(static_cast<const qrn_event_t *>(*value));
}

// The removal procedure of the pass that the thread is in.
thread_local qrn_tl_queue_rem_proc remove_item = nullptr;

int purge_item(const void *item)
{
    ++total.purged;
    return remove_item(item);
}

struct filter_pass {
    qrn_tl_queue_filter_proc filter;
    const void *clientd;
};

// A filter may remove the item or thin it out.
int filter_item(const void *item, const void *clientd, int *remove)
{
    const auto *pass = static_cast<const filter_pass *>(clientd);
    const auto *ev = static_cast<const qrn_event_t *>(item);
    const long before = size_of(ev);
    const int result = pass->filter(item, pass->clientd, remove);
    total.purged += before - (*remove != 0 ? 0 : size_of(ev));
    return result;
}

void *counted(void *block)
{
    total.blocks += block != nullptr;
    return block;
}

} // namespace

extern "C" {

// A message that is discarded has its report cleared once.
int qrn_msg_clr_wqx_cr(qrn_msg_t *msg)
{
    total.cleared += msg->consumed != nullptr;
    msg->consumed = nullptr;
    return 0;
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names.

int __real_qrn_tl_queue_enqueue(qrn_tl_queue_t *, void *);
int __real_qrn_tl_queue_dequeue(qrn_tl_queue_t *, void **, int);
int __real_qrn_tl_queue_dequeue_ex(qrn_tl_queue_t *, void **, int,
                                   qrn_tl_queue_dequeue_cb_info_t *);
int __real_qrn_tl_queue_dequeue_timed(qrn_tl_queue_t *, void **, qrn_tl_queue_dequeue_cb_info_t *,
                                      const timespec *);
int __real_qrn_tl_queue_remove_all(qrn_tl_queue_t *, qrn_tl_queue_cmp_proc, qrn_tl_queue_rem_proc,
                                   void *);
int __real_qrn_tl_queue_filter_all(qrn_tl_queue_t *, qrn_tl_queue_filter_proc, void *);

// Counted before the append: afterwards the event may be gone.
int __wrap_qrn_tl_queue_enqueue(qrn_tl_queue_t *q, void *value)
{
    accept(static_cast<qrn_event_t *>(value), 1);
    const int result = __real_qrn_tl_queue_enqueue(q, value);
    if (result != 0)
        accept(static_cast<qrn_event_t *>(value), -1);
    return result;
}
// Shutdown and deletion take events off like this.
int __wrap_qrn_tl_queue_dequeue(qrn_tl_queue_t *q, void **value, int block)
{
    const int result = __real_qrn_tl_queue_dequeue(q, value, block);
    take(total.discarded, value);
    return result;
}
int __wrap_qrn_tl_queue_dequeue_ex(qrn_tl_queue_t *q, void **value, int block,
                                   qrn_tl_queue_dequeue_cb_info_t *hook)
{
    const int result = __real_qrn_tl_queue_dequeue_ex(q, value, block, hook);
    take(total.delivered, value);
    return result;
}
int __wrap_qrn_tl_queue_dequeue_timed(qrn_tl_queue_t *q, void **value,
                                      qrn_tl_queue_dequeue_cb_info_t *hook, const timespec *end)
{
    const int result = __real_qrn_tl_queue_dequeue_timed(q, value, hook, end);
    take(total.delivered, value);
    return result;
}
int __wrap_qrn_tl_queue_remove_all(qrn_tl_queue_t *q, qrn_tl_queue_cmp_proc cmp,
                                   qrn_tl_queue_rem_proc rem, void *clientd)
{
    remove_item = rem;
    return __real_qrn_tl_queue_remove_all(q, cmp, purge_item, clientd);
}
int __wrap_qrn_tl_queue_filter_all(qrn_tl_queue_t *q, qrn_tl_queue_filter_proc filter,
                                   void *clientd)
{
    filter_pass pass = {filter, clientd};
    return __real_qrn_tl_queue_filter_all(q, filter_item, &pass);
}

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_aligned_alloc(size_t alignment, size_t size);
void __real_free(void *block);

void *__wrap_malloc(size_t size)
{
    return counted(__real_malloc(size));
}
void *__wrap_calloc(size_t count, size_t size)
{
    return counted(__real_calloc(count, size));
}
void *__wrap_aligned_alloc(size_t alignment, size_t size)
{
    return counted(__real_aligned_alloc(alignment, size));
}
void __wrap_free(void *block)
{
    total.blocks -= block != nullptr;
    __real_free(block);
}

// NOLINTEND(bugprone-reserved-identifier)

} // extern "C"
