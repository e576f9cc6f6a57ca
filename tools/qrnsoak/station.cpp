// SPDX-License-Identifier: Apache-2.0
#include "station.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

namespace soak {

// --- Callbacks -----------------------------------------------------------------------------------

namespace {

// Now and then -1, which ends the dispatch call.
int next_result()
{
    static std::atomic<unsigned> n;
    return n++ % 1000 == 999 ? -1 : 0;
}

// Any callback of an event.
template <class... Args>
int on(Args...)
{
    return next_result();
}

int on_monitor(qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *)
{
    return 0;
}

int on_ready(qrn_context_t *, qrn_handle_t handle, qrn_ulong_t, void *)
{
    char byte;
    [[maybe_unused]] auto got = read(handle, &byte, 1);
    return next_result();
}

void on_called(qrn_event_queue_t *, void *)
{
    ++total.called;
}

void on_dropped(qrn_event_queue_t *, void *)
{
    ++total.dropped;
}

// One in 64 posts another one.
void on_callback(qrn_event_queue_t *evq, void *)
{
    if (++total.called % 64 == 0) {
        ++total.callbacks;
        qrn_evq_enq_callback(evq, on_called, on_dropped, nullptr);
    }
}

void on_cancelled(int, void *)
{
    ++total.cancelled;
}

// The figures of a snapshot that belong to a type of event.
struct figures {
    size_t type;
    qrn_ulong_t qrn_event_queue_stats_t::*now;
    qrn_ulong_t qrn_event_queue_stats_t::*tot;
};

using stats = qrn_event_queue_stats_t;
constexpr figures all_figures[] = {
    {QRN_EVQ_MSG_TYPE, &stats::data_msgs, &stats::data_msgs_tot},
    {QRN_EVQ_TIMER_TYPE, &stats::timer_events, &stats::timer_events_tot},
    {QRN_EVQ_IO_TYPE, &stats::io_events, &stats::io_events_tot},
    {QRN_EVQ_SRC_TYPE, &stats::source_events, &stats::source_events_tot},
    {QRN_EVQ_REQUEST_TYPE, &stats::resp_msgs, &stats::resp_msgs_tot},
    {QRN_EVQ_UNBLOCK_TYPE, &stats::unblock_events, &stats::unblock_events_tot},
    {QRN_EVQ_IMSG_TYPE, &stats::topicless_im_msgs, &stats::topicless_im_msgs_tot},
    {QRN_EVQ_WRCV_MSG_TYPE, &stats::wrcv_msgs, &stats::wrcv_msgs_tot},
    {QRN_EVQ_CANCEL_TYPE, &stats::cancel_events, &stats::cancel_events_tot},
    {QRN_EVQ_CTX_SRC_TYPE, &stats::context_source_events, &stats::context_source_events_tot},
    {QRN_EVQ_CALLBACK_TYPE, &stats::callback_events, &stats::callback_events_tot},
};

} // namespace

// --- Life ----------------------------------------------------------------------------------------

station::station(random_source &random, bool exact) : exact_(exact), cancels_(random.one_in(2))
{
    create_queue(random);
    const qrn_ctx_attr_t attr = {
        2, 3, random.one_in(2) ? on<qrn_event_bundle_t *, void *> : nullptr, nullptr};
    expect_equal("context", qrn_ctx_create(&ctx_, &attr), 0);
    ctx_->rcv_delivery_batching_cb = on; // of the bundles that are made here
    create_objects();
}

void station::create_queue(random_source &random)
{
    qrn_event_queue_attr_t *attr = nullptr;
    qrn_event_queue_attr_create_default(&attr);
    attr->q_count = 1;
    attr->q_cancel_cb = cancels_;
    attr->q_purge_on_close = random.one_in(2);
    const auto monitor = random.one_in(2) ? on_monitor : nullptr;
    expect_equal("queue", qrn_event_queue_create(&evq_, monitor, &account_, attr), 0);
    qrn_event_queue_attr_delete(attr);
}

void station::create_objects()
{
    expect_equal("pipe", pipe2(fds_, O_NONBLOCK), 0);
    qrn_ctx_watch(ctx_, fds_[0], QRN_FD_READ, evq_, on_ready, nullptr);
    qrn_ctx_schedule(ctx_, evq_, on, nullptr, 1, 1);
    qrn_ctx_bind_src(ctx_, evq_, on, nullptr);
    for (unsigned i = 0; i < objects; ++i) {
        qrn_rcv_create(&rcvs_[i], ctx_, i == 0 ? "topic" : "other", evq_, on, nullptr);
        qrn_wildcard_rcv_create(&wrcvs_[i], ctx_, "none*", evq_, on, nullptr);
        qrn_src_create(&srcs_[i], ctx_, evq_, on, nullptr);
        qrn_request_create(&reqs_[i], ctx_, evq_, on, nullptr);
    }
}

void station::finish()
{
    qrn_ctx_detach(ctx_, evq_);
    drain();
    qrn_ctx_delete(ctx_);
    drain(); // what the deletions enqueued
    check_statistics();
    check_tokens();
    qrn_event_queue_delete(evq_);
    close(fds_[0]);
    close(fds_[1]);
}

void station::drain()
{
    while (qrn_event_dispatch(evq_, QRN_EVQ_DISPATCH_POLL) != 0)
        ;
}

void station::check_statistics() const
{
    qrn_event_queue_stats_t got;
    qrn_event_queue_retrieve_stats(evq_, &got);
    long events = 0;
    for (const figures &f : all_figures) {
        expect_equal("count of an empty queue", static_cast<long>(got.*f.now), 0);
        events += account_.accepted[f.type];
        if (exact_)
            expect_equal("total, accepted", static_cast<long>(got.*f.tot),
                         account_.accepted[f.type]);
    }
    if (exact_)
        expect_equal("total of all events, accepted", static_cast<long>(got.events_tot), events);
    expect_equal("events in an empty queue", static_cast<long>(got.events), 0);
    expect_equal("size of an empty queue", evq_->qsz, 0);
}

// What a queue keeps to wake its takers by.
void station::check_tokens() const
{
    const qrn_tl_queue_t &q = *evq_->q;
    int tokens = 0, wakes = 0;
    sem_getvalue(&evq_->q->sem_sz, &tokens);
    sem_getvalue(&evq_->q->park, &wakes);
    expect_equal("tokens of an empty queue, known", tokens,
                 static_cast<long>(q.owed) + q.offered + q.credit);
    expect_equal("wake-ups that nobody took", wakes, 0);
    expect_equal("takers that are idle", q.idle, 0);
}

// --- Producing and dispatching -------------------------------------------------------------------

void station::produce(random_source &random)
{
    static constexpr int (*operations[])(station &, unsigned) = {
        [](station &s, unsigned i) {
            return qrn_evq_enq_msg_with_proc(s.evq_, s.rcvs_[i], on, new_message(i, "topic"), &s);
        },
        [](station &s, unsigned i) {
            return qrn_evq_enq_wrcv_msg(s.evq_, s.wrcvs_[i], new_message(i, "topic"));
        },
        [](station &s, unsigned i) {
            return qrn_evq_enq_req(s.evq_, s.reqs_[i], new_message(i, "topic"));
        },
        [](station &s, unsigned i) {
            return qrn_evq_enq_imsg(s.evq_, s.ctx_, new_message(i, nullptr), nullptr, on);
        },
        [](station &s, unsigned i) { return s.post_bundle(1 + i); },
        [](station &s, unsigned i) { return qrn_src_raise(s.srcs_[i], 1, std::malloc(8), 1); },
        [](station &s, unsigned) { return qrn_ctx_src_raise(s.ctx_, 1, std::malloc(8), 1); },
        [](station &s, unsigned) { return qrn_evq_enq_cancel(s.evq_, s.ctx_, std::malloc(8)); },
        [](station &s, unsigned) { return qrn_event_dispatch_unblock(s.evq_); },
        [](station &s, unsigned) {
            return write(s.fds_[1], "x", 1) < -1 ? -1 : 0;
        }, // full: as good
        [](station &s, unsigned i) {
            return qrn_ctx_schedule(s.ctx_, s.evq_, on, nullptr, i, 0) < 0 ? -1 : 0;
        },
        [](station &s, unsigned) { return s.live_shortly(); },
        [](station &s, unsigned) { return s.post_callback(); },
    };
    std::shared_lock enqueuing(shutdown_lock_);
    const auto operation = random.pick(operations, 16);
    const unsigned object = random.below(objects);
    expect_equal("result of an operation",
                 evq_->shutdown != 0 ? post_callback() : operation(*this, object), 0);
}

int station::post_bundle(unsigned n)
{
    qrn_event_bundle_t *bundle = qrn_event_bundle_create(ctx_);
    for (unsigned i = 0; i < n; ++i) {
        qrn_event_t &entry = bundle->events[bundle->num_events++];
        entry = {QRN_EVQ_MSG_TYPE, evq_, ctx_, {}, {}, 0};
        entry.info.msg = {rcvs_[i % objects], new_message(i, "topic"), nullptr, on};
        ++bundle->data_msgs;
    }
    return qrn_evq_enq_msg_bundle(evq_, bundle);
}

int station::post_callback()
{
    ++total.callbacks;
    return qrn_evq_enq_callback(evq_, on_callback, on_dropped, nullptr);
}

// A receiver that gets one message, and is deleted while that waits or is delivered.
int station::live_shortly()
{
    qrn_rcv_t *rcv = nullptr;
    qrn_rcv_create(&rcv, ctx_, "short", evq_, on, nullptr);
    qrn_msg_t *msg = new_message(1, "short");
    qrn_ctx_deliver(ctx_, msg); // perhaps in a bundle that is enqueued later
    qrn_msg_delete(msg);
    const qrn_cancel_t cancel = {evq_, on_cancelled, nullptr};
    total.cancels += cancels_;
    return qrn_rcv_delete(rcv, cancels_ ? &cancel : nullptr);
}

void station::dispatch(random_source &random)
{
    static constexpr qrn_ulong_t timeouts[] = {QRN_EVQ_DISPATCH_POLL, 1, 3};
    qrn_event_dispatch(evq_, random.pick(timeouts));
}

// --- Disturbing ----------------------------------------------------------------------------------

void station::disturb(random_source &random)
{
    static constexpr void (*operations[])(station &, random_source &, unsigned) = {
        [](station &s, random_source &, unsigned i) { qrn_evq_purge_rcv(s.evq_, s.rcvs_[i]); },
        [](station &s, random_source &, unsigned i) { qrn_evq_purge_wrcv(s.evq_, s.wrcvs_[i]); },
        [](station &s, random_source &, unsigned i) { qrn_evq_purge_src(s.evq_, s.srcs_[i]); },
        [](station &s, random_source &, unsigned i) { qrn_evq_purge_req(s.evq_, s.reqs_[i]); },
        [](station &s, random_source &, unsigned) { qrn_evq_purge_ctx_src(s.evq_, s.ctx_); },
        [](station &s, random_source &, unsigned) {
            qrn_evq_purge_io(s.evq_, s.ctx_, s.fds_[0], QRN_FD_READ);
        },
        [](station &s, random_source &, unsigned i) { s.cancel(s.rcvs_[i]); },
        [](station &s, random_source &, unsigned) { qrn_event_queue_size(s.evq_); },
        [](station &s, random_source &, unsigned) { s.observe(); },
        [](station &s, random_source &r, unsigned) {
            if (r.one_in(2000))
                s.shut_down();
        },
        [](station &s, random_source &r, unsigned) { s.switch_option(r); },
    };
    const auto operation = random.pick(operations, 12);
    operation(*this, random, random.below(objects));
}

void station::cancel(qrn_rcv_t *rcv)
{
    if (!cancels_)
        return;
    qrn_event_queue_cancel_cb_info_t info = {evq_, on_cancelled, nullptr};
    ++total.cancels;
    qrn_evq_cancel_cb_rcv(rcv, &info);
}

void station::shut_down()
{
    std::unique_lock nobody_enqueues(shutdown_lock_);
    qrn_event_queue_shutdown(evq_);
}

void station::observe()
{
    qrn_event_queue_stats_t seen;
    qrn_event_queue_retrieve_stats(evq_, &seen);
    if (!exact_)
        qrn_event_queue_reset_stats(evq_);
    qrn_config_option_t options[15];
    int n = 15;
    qrn_event_queue_dump(evq_, &n, options);
}

void station::switch_option(random_source &random)
{
    static constexpr const char *names[] = {"queue_service_time_enabled", "queue_age_enabled",
                                            "queue_enqueue_notification", "queue_size_warning",
                                            "queue_delay_warning",        "queue_count_enabled"};
    const char *value = random.one_in(2) ? "1" : "0";
    qrn_event_queue_str_setopt(evq_, names[random.below(exact_ ? 5 : 6)], value);
}

} // namespace soak
