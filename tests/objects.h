// SPDX-License-Identifier: Apache-2.0
//
// One object of each kind that events refer to, with callbacks that keep a journal, and the
// services around the module as fakes: a clock that stands until a test moves it, a descriptor
// manager and a timer module that only write down what they are told. For one-file programs.
#ifndef QRN_TESTS_OBJECTS_H
#define QRN_TESTS_OBJECTS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <functional>
#include <tuple>

#include "qrnev.h"
#include "qrnobj.h"
#include "support.h"

namespace test {

inline constexpr int ticks_per_usec = 10;
inline std::atomic<uint64_t> ticks = 1000; // the clock
inline std::atomic<int> stamps = 0;        // how often it was read

} // namespace test

extern "C" {

void kfx_hrtime_timestamp(kfx_hrtime_t *ts)
{
    ++test::stamps;
    ts->tsc_ticks = test::ticks;
}
void kfx_hrtime_delta_usec(const kfx_hrtime_ivl_t *ivl, qrn_ulong_t *usec)
{
    *usec = *ivl / test::ticks_per_usec;
}
int qrn_fd_suspend(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev)
{
    return test::done.note("suspend", fdm, handle, ev);
}
int qrn_fd_resume(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev)
{
    return test::done.note("resume", fdm, handle, ev);
}
int qrn_timer_push_free_id(qrn_timer_t *timer, int id)
{
    return test::done.note("free id", timer, id);
}

} // extern "C"

namespace test {

enum : int { MSG = 1, TIMER, IO, SRC, REQ, UNBLOCK, IMSG, WRCV, CANCEL, CTX_SRC, CALLBACK, BUNDLE };

inline constexpr auto is_msg = [](int t) { return t == MSG || t == WRCV || t == REQ || t == IMSG; };
inline constexpr auto has_callback = [](int t) { return t != UNBLOCK && t != CANCEL; };
// Whether a queue that is shut down declines it.
inline constexpr auto is_declined = [](int t) { return has_callback(t) && t != CALLBACK; };

// The figures of a type; unblock events have no times.
struct figures {
    long now, tot;
    kfx_hrtime_ivl_t min, mean, max;
};
inline constexpr kfx_hrtime_ivl_t no_sample = ~kfx_hrtime_ivl_t{0};
using Q = qrn_event_queue_t;
inline constexpr long Q::*counter_of[BUNDLE] = {
    nullptr,           &Q::data_msgs,     &Q::timer_events,          &Q::io_events,
    &Q::source_events, &Q::resp_msgs,     &Q::unblock_events,        &Q::topicless_im_msgs,
    &Q::wrcv_msgs,     &Q::cancel_events, &Q::context_source_events, &Q::callback_events};
inline figures figures_of(qrn_event_queue_t *evq, int type)
{
    figures out;
    std::memcpy(&out, static_cast<const void *>(&(evq->*counter_of[type])), sizeof out);
    return out;
}

// Counts by type.
using counts = std::array<long, BUNDLE>;
inline counts counts_of(qrn_event_queue_t *evq, long figures::*which = &figures::now)
{
    counts out{};
    for (int type = MSG; type < BUNDLE; ++type)
        out[static_cast<size_t>(type)] = figures_of(evq, type).*which;
    return out;
}
// What one event of a type adds to them; a bundle here has two data messages and a wildcard one.
inline void count(counts &to, int type, bool accepted = true)
{
    to[static_cast<size_t>(type == BUNDLE ? MSG : type)] += accepted * (type == BUNDLE ? 2 : 1);
    to[WRCV] += accepted && type == BUNDLE;
}

inline qrn_event_t *first_event(qrn_event_queue_t *evq)
{
    const qrn_tl_queue_node_t *node = evq->q->head->next;
    return node == nullptr ? nullptr : static_cast<qrn_event_t *>(node->value);
}

// What a dispatch call gives back; when an exception left it, `threw`.
inline constexpr int threw = -2;
inline int dispatch(qrn_event_queue_t *evq, qrn_ulong_t tmo = QRN_EVQ_DISPATCH_POLL)
{
    try {
        return qrn_event_dispatch(evq, tmo);
    } catch (int) {
        return threw;
    }
}

// The kinds of object that events are purged by and cancelled for, each under the type of its own
// events; a timer is number 37, a descriptor number 7 with mask 2.
using cancel_info = qrn_event_queue_cancel_cb_info_t;
struct kind {
    int type;
    const char *check; // of a null object
    int (*purge)(Q *, void *object);
    int (*cancel)(void *object, cancel_info *);
};
template <class T, auto purge, auto cancel, auto... keys>
constexpr kind kind_of(int type, const char *check)
{
    return {type, check, [](Q *q, void *of) { return purge(q, static_cast<T *>(of), keys...); },
            [](void *of, cancel_info *i) { return cancel(static_cast<T *>(of), keys..., i); }};
}
inline constexpr kind kinds[] = {
    kind_of<qrn_rcv_t, qrn_evq_purge_rcv, qrn_evq_cancel_cb_rcv>(MSG, "rcv!=NULL"),
    kind_of<qrn_wildcard_rcv_t, qrn_evq_purge_wrcv, qrn_evq_cancel_cb_wrcv>(WRCV, "wrcv!=NULL"),
    kind_of<qrn_src_t, qrn_evq_purge_src, qrn_evq_cancel_cb_src>(SRC, "src!=NULL"),
    kind_of<qrn_request_t, qrn_evq_purge_req, qrn_evq_cancel_cb_req>(REQ, "req!=NULL"),
    kind_of<qrn_context_t, qrn_evq_purge_ctx_src, qrn_evq_cancel_cb_ctx_src>(CTX_SRC, "ctx!=NULL"),
    kind_of<qrn_context_t, qrn_evq_purge_timer, qrn_evq_cancel_cb_timer, 37>(TIMER, "ctx!=NULL"),
    kind_of<qrn_context_t, qrn_evq_purge_io, qrn_evq_cancel_cb_io, 7, 2UL>(IO, "ctx!=NULL"),
};

struct World {
    qrn_fd_t fdm{};
    uint32_t xmap[2]{};
    qrn_timer_heap_t heap{};
    qrn_timer_t timer{};
    qrn_context_t ctx{};
    qrn_rcv_t rcv{};
    qrn_wildcard_rcv_t wrcv{};
    qrn_src_t src{};
    qrn_request_t req{};
    int id = 37, reclaim = 1;
    qrn_ulong_t recurring = 0, readiness = 3;
    qrn_uint_t sequence = 0;
    // Of the last event:
    qrn_event_queue_t *queue = nullptr;
    void *payload = nullptr;
    // What callbacks do and give back.
    std::function<int(int type)> act = [](int) { return 0; };

    World()
    {
        heap.xmap = xmap;
        timer.hp = &heap;
        ctx.fdm = &fdm;
        ctx.timer = &timer;
        ctx.rcv_delivery_batching_cb = on<BUNDLE>;
        ctx.rcv_delivery_batching_clientd = wrcv.cd = req.clientd = this;
        rcv.ctx = wrcv.ctx = src.ctx = req.ctx = &ctx;
        wrcv.rcvproc = on<WRCV>;
        req.proc = on<REQ>;
    }
    World(const World &) = delete;

    int enqueue(qrn_event_queue_t *evq, int type)
    {
        queue = evq;
        payload = nullptr;
        return type == MSG     ? qrn_evq_enq_msg_with_proc(evq, &rcv, on<MSG>, new_msg(), this)
               : type == TIMER ? qrn_evq_enq_timer(evq, &ctx, id, this, on<TIMER>, recurring)
               : type == IO    ? qrn_evq_enq_io(evq, &ctx, 7, readiness, this, on<IO>)
               : type == SRC   ? qrn_evq_enq_src(evq, &src, 42, this, new_block(), reclaim, on<SRC>)
               : type == REQ   ? qrn_evq_enq_req(evq, &req, new_msg())
               : type == UNBLOCK ? qrn_event_dispatch_unblock(evq)
               : type == IMSG    ? qrn_evq_enq_imsg(evq, &ctx, new_msg(), this, on<IMSG>)
               : type == WRCV    ? qrn_evq_enq_wrcv_msg(evq, &wrcv, new_msg())
               : type == CANCEL  ? qrn_evq_enq_cancel(evq, &ctx, new_block())
               : type == CTX_SRC
                   ? qrn_evq_enq_ctx_src(evq, &ctx, 42, this, new_block(), reclaim, on<CTX_SRC>)
               : type == CALLBACK ? qrn_evq_enq_callback(evq, on_callback, on_discard, this)
                                  : qrn_evq_enq_msg_bundle(evq, new_bundle({MSG, MSG, WRCV}));
    }

    void *object(int kind)
    {
        void *const objects[] = {nullptr, &rcv,  &ctx,    &ctx, &src,    &req,   nullptr,
                                 &ctx,    &wrcv, nullptr, &ctx, nullptr, nullptr};
        return objects[kind];
    }
    // Releases the payload of an event that was not accepted.
    void drop(int type)
    {
        if (is_msg(type))
            qrn_msg_delete(static_cast<qrn_msg_t *>(payload));
        else if (type == BUNDLE)
            qrn_event_bundle_delete(static_cast<qrn_event_bundle_t *>(payload));
        else
            std::free(payload);
    }

    // The journal's lines of the last event, which was of this type: its callback if it ran, and
    // what follows.
    strings delivered(int type, bool ran, bool id_is_free = true)
    {
        const char *name = names[type];
        void *const of = type == WRCV ? nullptr : object(type);
        strings lines;
        if (ran)
            lines.push_back(type == TIMER                    ? what(name, of, this)
                            : type == IO                     ? what(name, of, 7, readiness, this)
                            : type == CALLBACK               ? what(name, queue, this)
                            : type == SRC || type == CTX_SRC ? what(name, of, 42, payload, this)
                            : type == BUNDLE                 ? what(name, payload, this)
                                                             : what(name, of, payload, this));
        if (is_msg(type))
            lines.push_back(what("consumed", payload));
        if (type == IO)
            lines.push_back(what("resume", &fdm, 7, readiness));
        if (type == TIMER && id_is_free)
            lines.push_back(what("free id", &timer, id));
        return lines;
    }
    // Those of an event that was shut down with its queue, or whose warning threw.
    strings discarded(int type)
    {
        if (type == CALLBACK)
            return {what("discard", queue, this)};
        return type == IO ? delivered(IO, false) : strings{};
    }

    void *new_block() { return payload = kfx::alloc<long>(); }
    qrn_msg_t *new_msg()
    {
        qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, "topic", "x", 1, sequence++);
        qrn_msg_set_wqx_cr(
            msg, [](qrn_msg_t *m, void *) { done.note("consumed", m); }, nullptr);
        payload = msg;
        return msg;
    }
    // Puts a message for this object's receiver into a bundle.
    void add(qrn_event_bundle_t *bundle, int type)
    {
        qrn_event_t &ev = bundle->events[bundle->num_events++];
        ev = {};
        ev.type = type;
        ev.ctx = &ctx;
        if (type == MSG)
            ev.info.msg = {&rcv, new_msg(), this, on<MSG>};
        else
            ev.info.wrcv_msg = {&wrcv, new_msg(), this, on<WRCV>};
        ++(type == MSG ? bundle->data_msgs : bundle->wrcv_msgs);
    }
    qrn_event_bundle_t *new_bundle(std::initializer_list<int> types)
    {
        qrn_event_bundle_t *bundle = qrn_event_bundle_create(&ctx);
        for (int type : types)
            add(bundle, type);
        payload = bundle;
        return bundle;
    }

    // The callbacks: client data is their last argument. Types are named as their part of a record.
    static constexpr const char *names[] = {"",        "msg",      "timer", "io",       "src",
                                            "req",     "",         "imsg",  "wrcv_msg", "cancel",
                                            "ctx_src", "callback", "bundle"};
    template <int type, class... Args>
    static int on(Args... args)
    {
        done.note(names[type], args...);
        const void *clientd = std::get<sizeof...(args) - 1>(std::tie(args...));
        return static_cast<const World *>(clientd)->act(type);
    }
    static void on_callback(qrn_event_queue_t *evq, void *cd) { on<CALLBACK>(evq, cd); }
    static void on_discard(qrn_event_queue_t *evq, void *cd) { done.note("discard", evq, cd); }
};

class EventFixture : public Fixture {
protected:
    World world;
};

} // namespace test

#endif
