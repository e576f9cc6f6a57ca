// SPDX-License-Identifier: Apache-2.0
// This library's queue through its real interface: posted callbacks, messages, bundles.
#ifndef BENCH_QRN_QUEUES_HPP
#define BENCH_QRN_QUEUES_HPP

#include <array>
#include <atomic>

#include "harness.hpp"
#include "qrnev.h"
#include "qrnobj.h"

namespace bench {

// How a queue is set up, and how it is dispatched.
struct setup {
    struct option {
        const char *name = nullptr;
        const char *value = nullptr;
    };
    std::array<option, 3> options{};
    bool monitored = false;
    qrn_ulong_t timeout = QRN_EVQ_DISPATCH_BLOCK;
};

inline constexpr setup plain{};
inline constexpr setup statistics{.options = {{{"queue_count_enabled", "1"},
                                               {"queue_age_enabled", "1"},
                                               {"queue_service_time_enabled", "1"}}}};
inline constexpr setup counts{.options = {{{"queue_count_enabled", "1"}}}};
inline constexpr setup ages{.options = {{{"queue_age_enabled", "1"}}}};
inline constexpr setup service_times{.options = {{{"queue_service_time_enabled", "1"}}}};
inline constexpr setup tracked{.options = {{{"queue_objects_purged_on_close", "0"}}}};
// High enough that no report is made: the cost is that of keeping the size.
inline constexpr setup sized{.options = {{{"queue_size_warning", "1000000000"}}},
                             .monitored = true};
inline constexpr setup finite{.timeout = 10'000};

inline void must(int result)
{
    if (result != 0)
        fail(qrn_errmsg());
}

inline int unexpected_report(qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *)
{
    fail("the monitor callback was called");
}

// A queue and its life.
class event_queue {
public:
    explicit event_queue(const setup &how) : timeout_(how.timeout)
    {
        qrn_event_queue_attr_t *attr = nullptr;
        must(qrn_event_queue_attr_create_default(&attr));
        for (const setup::option &o : how.options)
            if (o.name != nullptr)
                must(qrn_event_queue_attr_str_setopt(attr, o.name, o.value));
        must(qrn_event_queue_create(&queue_, how.monitored ? unexpected_report : nullptr, nullptr,
                                    attr));
        must(qrn_event_queue_attr_delete(attr));
    }
    ~event_queue() { must(qrn_event_queue_delete(queue_)); }
    event_queue(const event_queue &) = delete;
    event_queue &operator=(const event_queue &) = delete;

    qrn_event_queue_t *get() const { return queue_; }

    void dispatch()
    {
        do {
            if (qrn_event_dispatch(queue_, timeout_) == -1)
                fail("dispatch failed");
        } while (!stopped_.load());
    }

    void stop(unsigned dispatchers)
    {
        stopped_ = true;
        for (unsigned i = 0; i < dispatchers; i++)
            must(qrn_event_dispatch_unblock(queue_));
    }

private:
    qrn_event_queue_t *queue_ = nullptr;
    qrn_ulong_t timeout_;
    std::atomic<bool> stopped_{false};
};

template <const setup &How>
class callback_queue {
public:
    explicit callback_queue(unsigned) {}

    template <auto Handler>
    void enqueue(void *arg)
    {
        must(qrn_evq_enq_callback(
            queue_.get(), [](qrn_event_queue_t *, void *clientd) { Handler(clientd); }, nullptr,
            arg));
    }

    void dispatch() { queue_.dispatch(); }
    void stop(unsigned dispatchers) { queue_.stop(dispatchers); }

private:
    event_queue queue_{How};
};

template <auto Handler>
int receive(qrn_rcv_t *, qrn_msg_t *, void *clientd)
{
    Handler(clientd);
    return 0;
}

inline qrn_msg_t *make_message()
{
    return qrn_msg_create(0, nullptr, nullptr, 0, 0);
}

// A message an event, made by the producer and released after its callback.
class message_queue {
public:
    explicit message_queue(unsigned) { receiver_.ctx = &context_; }

    template <auto Handler>
    void enqueue(void *arg)
    {
        must(qrn_evq_enq_msg_with_proc(queue_.get(), &receiver_, receive<Handler>, make_message(),
                                       arg));
    }

    void dispatch() { queue_.dispatch(); }
    void stop(unsigned dispatchers) { queue_.stop(dispatchers); }

private:
    qrn_context_t context_{};
    qrn_rcv_t receiver_{};
    event_queue queue_{plain};
};

// Messages in bundles of 32; a figure for one event is one for a message.
class bundle_queue {
public:
    explicit bundle_queue(unsigned)
    {
        receiver_.ctx = &context_;
        context_.rcv_delivery_batching_cb = [](qrn_event_bundle_t *bundle, void *) {
            for (int i = 0; i < bundle->num_events; i++) {
                const qrn_event_msg_t &m = bundle->events[i].info.msg;
                m.proc(m.rcv, m.msg, m.clientd);
            }
            return 0;
        };
    }

    template <auto Handler>
    void enqueue(void *arg)
    {
        if (gathered == nullptr)
            gathered = qrn_event_bundle_create(&context_);
        qrn_event_t &e = gathered->events[gathered->num_events++];
        e = {};
        e.type = QRN_EVQ_MSG_TYPE;
        e.evq = queue_.get();
        e.ctx = &context_;
        e.info.msg = {&receiver_, make_message(), arg, receive<Handler>};
        gathered->data_msgs++;
        if (gathered->num_events == gathered->max_num_events)
            flush();
    }

    void flush()
    {
        if (gathered != nullptr)
            must(qrn_evq_enq_msg_bundle(queue_.get(), gathered));
        gathered = nullptr;
    }

    void dispatch() { queue_.dispatch(); }
    void stop(unsigned dispatchers) { queue_.stop(dispatchers); }

private:
    static inline thread_local qrn_event_bundle_t *gathered = nullptr;
    qrn_context_t context_{};
    qrn_rcv_t receiver_{};
    event_queue queue_{plain};
};

} // namespace bench

#endif
