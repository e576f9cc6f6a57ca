/* SPDX-License-Identifier: Apache-2.0 */
/* Contexts with everything real: the thread, descriptors, timers, queues. */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qrnctx.h"
#include "qrnerr.h"
#include "qrnev.h"
#include "support.h"

namespace {

/* What runs inside every callback of the tests, and how often one ran. */
std::function<void()> inside;
std::atomic<int> calls;

int called()
{
    ++calls;
    if (inside)
        inside();
    return 0;
}

int on_msg(qrn_rcv_t *, qrn_msg_t *, void *)
{
    return called();
}
int on_timer(qrn_context_t *, const void *)
{
    return called();
}
int on_io(qrn_context_t *, qrn_handle_t handle, qrn_ulong_t, void *)
{
    char byte;
    EXPECT_EQ(read(handle, &byte, 1), 1);
    return called();
}
int on_src(qrn_src_t *, int event, void *ed, void *)
{
    EXPECT_EQ(event, 7);
    EXPECT_STREQ(static_cast<char *>(ed), "data");
    return called();
}
int on_ctx_src(qrn_context_t *, int event, void *ed, void *)
{
    return on_src(nullptr, event, ed, nullptr);
}
int on_response(qrn_request_t *, qrn_msg_t *, void *)
{
    return called();
}
int on_imsg(qrn_context_t *, qrn_msg_t *, void *)
{
    return called();
}

struct Pipe {
    int ends[2];
    Pipe() { EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0); }
    ~Pipe()
    {
        close(ends[0]);
        close(ends[1]);
    }
    Pipe(const Pipe &) = delete;
    void put() { EXPECT_EQ(write(ends[1], "x", 1), 1); }
};

struct Context {
    qrn_context_t *ctx = nullptr;
    explicit Context(qrn_rcv_bundle_cb_proc batch = nullptr)
    {
        qrn_ctx_attr_t attr = {};
        attr.rcv_delivery_batching_cb = batch;
        EXPECT_EQ(qrn_ctx_create(&ctx, &attr), QRN_OK);
    }
    ~Context() { EXPECT_EQ(qrn_ctx_delete(ctx), QRN_OK); }
    operator qrn_context_t *() { return ctx; }
    qrn_context_t *operator->() { return ctx; }
};

/* Delivers a message that is not kept. */
int deliver(qrn_context_t *ctx, const char *topic, unsigned sequence = 0, unsigned producer = 0)
{
    qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, topic, &producer, sizeof producer, sequence);
    const int taken = qrn_ctx_deliver(ctx, msg);
    qrn_msg_delete(msg);
    return taken;
}

int drain(qrn_event_queue_t *evq)
{
    int events = 0;
    while (qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_POLL) > 0)
        ++events;
    return events;
}

class Dispatchers {
public:
    Dispatchers(qrn_event_queue_t *evq, int count) : evq_(evq)
    {
        for (int i = 0; i < count; ++i)
            team_.emplace_back([evq] { qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_BLOCK); });
    }
    ~Dispatchers() { stop(); }
    void stop()
    {
        for (size_t i = 0; i < team_.size(); ++i)
            qrn_event_dispatch_unblock(evq_);
        for (auto &thread : team_)
            thread.join();
        team_.clear();
    }

private:
    qrn_event_queue_t *evq_;
    std::vector<std::thread> team_;
};

/* One object of a kind, of which a fired event runs called() once when it is dispatched. */
struct object {
    qrn_context_t *ctx;
    qrn_event_queue_t *evq;
    Pipe pipe = {};
    int id = -1;
    qrn_rcv_t *rcv = nullptr;
    qrn_wildcard_rcv_t *wrcv = nullptr;
    qrn_src_t *src = nullptr;
    qrn_request_t *req = nullptr;
};

struct kind {
    const char *name;
    int (*make)(object &);
    void (*fire)(object &);
    int (*end)(object &, const qrn_cancel_t *);
    int (*touch)(object &); // reads the object as a callback may; 0
};

constexpr auto no_memory = [](object &) { return 0; };

const kind kinds[] = {
    {"receiver",
     [](object &o) { return qrn_rcv_create(&o.rcv, o.ctx, "t", o.evq, on_msg, nullptr); },
     [](object &o) { EXPECT_EQ(deliver(o.ctx, "t"), 1); },
     [](object &o, const qrn_cancel_t *c) { return qrn_rcv_delete(o.rcv, c); },
     [](object &o) { return o.rcv->ctx == o.ctx ? std::strcmp(o.rcv->topic, "t") : 1; }},
    {"wildcard",
     [](object &o) { return qrn_wildcard_rcv_create(&o.wrcv, o.ctx, "[st]", o.evq, on_msg, {}); },
     [](object &o) { EXPECT_EQ(deliver(o.ctx, "t"), 1); },
     [](object &o, const qrn_cancel_t *c) { return qrn_wildcard_rcv_delete(o.wrcv, c); },
     [](object &o) { return o.wrcv->ctx == o.ctx ? std::strcmp(o.wrcv->pattern, "[st]") : 1; }},
    {"timer", [](object &) { return 0; },
     [](object &o) { EXPECT_GE(o.id = qrn_ctx_schedule(o.ctx, o.evq, on_timer, {}, 0, 0), 0); },
     [](object &o, const qrn_cancel_t *c) { return qrn_ctx_cancel_timer(o.ctx, o.id, c); },
     no_memory},
    {"descriptor",
     [](object &o) {
         return qrn_ctx_watch(o.ctx, o.pipe.ends[0], QRN_FD_READ, o.evq, on_io, nullptr);
     },
     [](object &o) { o.pipe.put(); },
     [](object &o, const qrn_cancel_t *c) {
         return qrn_ctx_unwatch(o.ctx, o.pipe.ends[0], QRN_FD_READ, c);
     },
     no_memory},
    {"source", [](object &o) { return qrn_src_create(&o.src, o.ctx, o.evq, on_src, nullptr); },
     [](object &o) { EXPECT_EQ(qrn_src_raise(o.src, 7, strdup("data"), 1), QRN_OK); },
     [](object &o, const qrn_cancel_t *c) { return qrn_src_delete(o.src, c); },
     [](object &o) { return o.src->ctx == o.ctx ? 0 : 1; }},
    {"context source", [](object &o) { return qrn_ctx_bind_src(o.ctx, o.evq, on_ctx_src, {}); },
     [](object &o) { EXPECT_EQ(qrn_ctx_src_raise(o.ctx, 7, strdup("data"), 1), QRN_OK); },
     [](object &o, const qrn_cancel_t *c) { return qrn_ctx_unbind_src(o.ctx, c); }, no_memory},
    {"request",
     [](object &o) { return qrn_request_create(&o.req, o.ctx, o.evq, on_response, nullptr); },
     [](object &o) {
         qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_RESPONSE, nullptr, nullptr, 0, 1);
         EXPECT_EQ(qrn_request_respond(o.req, msg), QRN_OK);
         qrn_msg_delete(msg);
     },
     [](object &o, const qrn_cancel_t *c) { return qrn_request_delete(o.req, c); },
     [](object &o) { return o.req->ctx == o.ctx ? 0 : 1; }},
};

/* What the cancellation callback was told: its first argument, in order. */
std::vector<int> cancelled;
std::atomic<int> num_cancelled;

void on_cancelled(int dispatch_thrd, void *clientd)
{
    EXPECT_EQ(clientd, &cancelled);
    cancelled.push_back(dispatch_thrd);
    ++num_cancelled;
}

class ContextTest : public test::Fixture, public testing::WithParamInterface<const char *> {
protected:
    void SetUp() override
    {
        Fixture::SetUp();
        inside = nullptr;
        calls = 0;
        cancelled.clear();
        num_cancelled = 0;
    }
    void TearDown() override
    {
        inside = nullptr;
        Fixture::TearDown();
    }
    bool has_cancel() const { return std::string(GetParam()) == "cancel"; }
    /* What a deletion is to be called with on this kind of queue. */
    const qrn_cancel_t *cancel() const { return has_cancel() ? &cancel_ : nullptr; }
    std::vector<int> told(int argument) const
    {
        return has_cancel() ? std::vector<int>{argument} : std::vector<int>{};
    }

private:
    qrn_cancel_t cancel_ = {nullptr, on_cancelled, &cancelled};
};

/* Timers and descriptors are enqueued by the context's thread. */
void wait_until_queued(qrn_event_queue_t *evq)
{
    while (qrn_tl_queue_is_empty(evq->q))
        sched_yield();
}

TEST_P(ContextTest, EachKindIsDeliveredUntilItIsDeleted)
{
    for (const kind &k : kinds) {
        SCOPED_TRACE(k.name);
        test::Queue queue(GetParam());
        Context ctx;
        object o = {ctx, queue};
        ASSERT_EQ(k.make(o), QRN_OK);
        for (int i = 0; i < 4; ++i) {
            k.fire(o);
            wait_until_queued(queue);
            if (i < 3) {
                EXPECT_EQ(drain(queue), 1);
            }
            EXPECT_EQ(calls.exchange(0), i < 3 ? 1 : 0);
        }
        ASSERT_EQ(k.end(o, cancel()), QRN_OK);
        EXPECT_EQ(std::exchange(cancelled, {}), told(0)) << "before the deletion returns";
        drain(queue);
        EXPECT_EQ(calls, 0);
        EXPECT_EQ(deliver(ctx, "t"), 0);
    }
}

TEST_P(ContextTest, DeletionInTheObjectsOwnCallbackIsSafe)
{
    for (const kind &k : kinds) {
        SCOPED_TRACE(k.name);
        test::Queue queue(GetParam());
        Context ctx;
        object o = {ctx, queue};
        ASSERT_EQ(k.make(o), QRN_OK);
        inside = [&] {
            EXPECT_EQ(k.end(o, cancel()), QRN_OK);
            EXPECT_EQ(cancelled, std::vector<int>{}) << "the callback is still running";
            EXPECT_EQ(k.touch(o), 0);
        };
        k.fire(o);
        wait_until_queued(queue);
        drain(queue);
        EXPECT_EQ(calls.exchange(0), 1);
        EXPECT_EQ(std::exchange(cancelled, {}), told(1));
    }
}

/* While a thread is inside a callback the object is deleted, and what the deletion queued is dispatched
 * by another thread or discarded: neither may end the object's memory or call back too early. */
TEST_P(ContextTest, DeletionWaitsForThreadsThatAreInside)
{
    for (const bool discard : {false, true})
        for (const kind &k : kinds) {
            SCOPED_TRACE(k.name);
            test::Queue queue(GetParam());
            Context ctx;
            object o = {ctx, queue};
            ASSERT_EQ(k.make(o), QRN_OK);
            std::binary_semaphore entered(0), leave(0);
            inside = [&] {
                entered.release();
                leave.acquire();
                EXPECT_EQ(k.touch(o), 0);
                EXPECT_EQ(num_cancelled, 0);
            };
            k.fire(o);
            wait_until_queued(queue);
            Dispatchers dispatcher(queue, 1);
            entered.acquire();
            ASSERT_EQ(k.end(o, cancel()), QRN_OK);
            if (discard)
                qrn_event_queue_shutdown(queue);
            drain(queue);
            leave.release();
            dispatcher.stop();
            drain(queue);
            EXPECT_EQ(calls.exchange(0), 1);
            EXPECT_EQ(std::exchange(cancelled, {}), told(1));
            num_cancelled = 0;
        }
}

TEST_P(ContextTest, EndsWithEverythingLiveAndQueued)
{
    test::Queue queue(GetParam());
    std::vector<std::unique_ptr<object>> objects;
    {
        Context ctx;
        ASSERT_EQ(qrn_ctx_bind_immediate(ctx, queue, on_imsg, nullptr), QRN_OK);
        for (const kind &k : kinds) {
            objects.emplace_back(new object{ctx, queue});
            ASSERT_EQ(k.make(*objects.back()), QRN_OK);
        }
        qrn_ctx_schedule(ctx, queue, on_timer, nullptr, 1, 1);
        deliver(ctx, "t");
        deliver(ctx, nullptr);
        for (size_t i = 2; i < std::size(kinds); ++i)
            kinds[i].fire(*objects[i]);
    }
    drain(queue);
    EXPECT_EQ(calls, 0);
}

TEST_P(ContextTest, MessagesReachExactAndWildcardReceiversInOrder)
{
    test::Queue queue(GetParam());
    Context ctx;
    std::vector<std::string> got;
    const auto note = [](qrn_rcv_t *, qrn_msg_t *msg, void *clientd) {
        static_cast<std::vector<std::string> *>(clientd)->push_back(
            std::string(qrn_msg_topic(msg)) + std::to_string(msg->sequence_number));
        return 0;
    };
    std::vector<qrn_rcv_t *> rcvs(300);
    for (size_t i = 0; i < rcvs.size(); ++i) // more than the table's first size
        ASSERT_EQ(qrn_rcv_create(&rcvs[i], ctx, ("n." + std::to_string(i % 150)).c_str(), queue,
                                 note, &got),
                  QRN_OK);
    qrn_wildcard_rcv_t *wrcv;
    ASSERT_EQ(qrn_wildcard_rcv_create(&wrcv, ctx, "n.?", queue, note, &got), QRN_OK);
    EXPECT_EQ(deliver(ctx, "n.3", 1), 3);
    EXPECT_EQ(deliver(ctx, "n.42", 2), 2);
    EXPECT_EQ(deliver(ctx, "m.3", 3), 0);
    EXPECT_EQ(qrn_rcv_delete(rcvs[153], nullptr), QRN_OK);
    EXPECT_EQ(deliver(ctx, "n.3", 4), 2);
    EXPECT_EQ(qrn_wildcard_rcv_delete(wrcv, nullptr), QRN_OK);
    EXPECT_EQ(deliver(ctx, "n.3", 5), 1);
    drain(queue);
    EXPECT_EQ(got, (std::vector<std::string>{"n.31", "n.422", "n.422", "n.34", "n.35"}));
}

TEST_P(ContextTest, TimersRecurUntilTheyAreCancelled)
{
    test::Queue queue(GetParam());
    Context ctx;
    std::counting_semaphore<> beats(0);
    inside = [&] { beats.release(); };
    qrn_ctx_schedule(ctx, queue, on_timer, nullptr, 3'600'000, 0); // not in the way of sooner ones
    const int id = qrn_ctx_schedule(ctx, queue, on_timer, nullptr, 1, 1);
    {
        Dispatchers dispatchers(queue, 2);
        for (int i = 0; i < 5; ++i)
            beats.acquire();
        EXPECT_EQ(qrn_ctx_cancel_timer(ctx, id, nullptr), QRN_OK);
        EXPECT_EQ(qrn_ctx_cancel_timer(ctx, id, nullptr), QRN_FAILURE);
    }
    const int before = calls;
    EXPECT_EQ(ctx->timer->in_limbo_ref_cnt, 0);
    EXPECT_EQ(drain(queue), 0);
    EXPECT_EQ(calls, before);
}

TEST_P(ContextTest, EveryByteOfADescriptorIsReported)
{
    test::Queue queue(GetParam());
    Context ctx;
    Pipe pipe;
    std::counting_semaphore<> bytes(0);
    inside = [&] { bytes.release(); };
    ASSERT_EQ(qrn_ctx_watch(ctx, pipe.ends[0], QRN_FD_READ, queue, on_io, nullptr), QRN_OK);
    Dispatchers dispatchers(queue, 3);
    for (int i = 0; i < 500; ++i)
        pipe.put();
    for (int i = 0; i < 500; ++i)
        bytes.acquire();
    dispatchers.stop();
    EXPECT_EQ(calls, 500);
}

/* --- Bundles ----------------------------------------------------------------------------------- */

std::vector<int> bundle_sizes;

int on_bundle(qrn_event_bundle_t *bundle, void *clientd)
{
    bundle_sizes.push_back(bundle->num_events);
    return qrn_ctx_run_bundle(bundle, clientd);
}

TEST_P(ContextTest, BundlesFillInOrderAndLoseWhatIsDeleted)
{
    test::Queue queue(std::string(GetParam()) + " size=1000 count age");
    Context ctx(on_bundle);
    bundle_sizes.clear();
    std::map<int, std::vector<unsigned>> got;
    static std::map<int, std::vector<unsigned>> *sink;
    sink = &got;
    const auto note = [](qrn_rcv_t *, qrn_msg_t *msg, void *clientd) {
        (*sink)[*static_cast<int *>(clientd)].push_back(msg->sequence_number);
        return 0;
    };
    int names[] = {0, 1, 2};
    qrn_rcv_t *a, *b;
    qrn_wildcard_rcv_t *w;
    ASSERT_EQ(qrn_rcv_create(&a, ctx, "a", queue, note, &names[0]), QRN_OK);
    ASSERT_EQ(qrn_rcv_create(&b, ctx, "b", queue, note, &names[1]), QRN_OK);
    ASSERT_EQ(qrn_wildcard_rcv_create(&w, ctx, "b*", queue, note, &names[2]), QRN_OK);
    for (unsigned i = 0; i < 20; ++i) { // three entries each time: one full bundle, 28 left
        EXPECT_EQ(deliver(ctx, "a", i), 1);
        EXPECT_EQ(deliver(ctx, "b", i), 2);
    }
    EXPECT_EQ(qrn_event_queue_size(queue), 32);
    EXPECT_EQ(qrn_wildcard_rcv_delete(w, cancel()), QRN_OK); // out of both
    EXPECT_EQ(qrn_ctx_flush(ctx), QRN_OK);
    EXPECT_EQ(qrn_ctx_flush(ctx), QRN_OK) << "nothing was begun";
    EXPECT_EQ(deliver(ctx, "a", 20), 1);
    EXPECT_EQ(qrn_rcv_delete(a, cancel()), QRN_OK); // the begun one ends, the queued ones stay
    EXPECT_EQ(qrn_ctx_flush(ctx), QRN_OK);
    drain(queue);
    EXPECT_EQ(bundle_sizes.size(), 2u);
    ASSERT_EQ(got.size(), 1u);
    ASSERT_EQ(got[1].size(), 20u);
    for (unsigned i = 0; i < 20; ++i)
        EXPECT_EQ(got[1][i], i);
    EXPECT_EQ(qrn_event_queue_size(queue), 0);
    qrn_event_queue_stats_t stats;
    qrn_event_queue_retrieve_stats(queue, &stats);
    EXPECT_EQ(stats.data_msgs + stats.wrcv_msgs, 0u);
    EXPECT_EQ(cancelled, has_cancel() ? (std::vector<int>{0, 0}) : std::vector<int>{});
    deliver(ctx, "b"); // the context ends with a bundle that was begun
}

/* --- Refusals ---------------------------------------------------------------------------------- */

TEST_P(ContextTest, AQueueThatIsShutDownOrDetachedTakesNothing)
{
    for (const bool detach : {false, true}) {
        test::Queue queue(GetParam());
        Context ctx;
        std::vector<std::unique_ptr<object>> objects;
        for (const kind &k : kinds) {
            objects.emplace_back(new object{ctx, queue});
            ASSERT_EQ(k.make(*objects.back()), QRN_OK);
        }
        ASSERT_EQ(qrn_ctx_bind_immediate(ctx, queue, on_imsg, nullptr), QRN_OK);
        ASSERT_EQ(qrn_ctx_schedule(ctx, queue, on_timer, nullptr, 20, 20), 0);
        EXPECT_EQ(detach ? qrn_ctx_detach(ctx, queue) : qrn_event_queue_shutdown(queue), QRN_OK);
        EXPECT_EQ(deliver(ctx, "t"), 0);
        EXPECT_EQ(deliver(ctx, nullptr), 0);
        char data[] = "stays ours";
        EXPECT_EQ(qrn_src_raise(objects[4]->src, 7, data, 1), QRN_FAILURE);
        EXPECT_EQ(qrn_ctx_src_raise(ctx, 7, data, 1), QRN_FAILURE);
        objects[3]->pipe.put();
        while (qrn_timer_next_msec(ctx->timer) >= 0) // until the timer was dropped
            sched_yield();
        EXPECT_EQ(qrn_ctx_cancel_timer(ctx, 0, nullptr), QRN_OK);
        EXPECT_EQ(drain(queue), 0);
        EXPECT_EQ(calls, 0);
    }
}

TEST_P(ContextTest, MisuseIsRefused)
{
    test::Queue queue(GetParam());
    Context ctx;
    qrn_rcv_t *rcv = nullptr;
    Pipe pipe;
    ASSERT_EQ(qrn_rcv_create(&rcv, ctx, "t", queue, on_msg, nullptr), QRN_OK);
    ASSERT_EQ(qrn_ctx_watch(ctx, pipe.ends[0], QRN_FD_READ, queue, on_io, nullptr), QRN_OK);
    ASSERT_EQ(qrn_ctx_bind_src(ctx, queue, on_ctx_src, nullptr), QRN_OK);
    ASSERT_EQ(qrn_ctx_bind_immediate(ctx, queue, on_imsg, nullptr), QRN_OK);
    const int id = qrn_ctx_schedule(ctx, queue, on_timer, nullptr, 3'600'000, 0);
    const qrn_cancel_t empty = {nullptr, nullptr, nullptr};
    const qrn_cancel_t full = {nullptr, on_cancelled, &cancelled};
    const qrn_cancel_t *bad = has_cancel() ? &empty : &full;
    qrn_src_t *src;
    qrn_request_t *req;
    const std::vector<std::function<int()>> wrong = {
        [&] { return qrn_ctx_create(nullptr, nullptr); },
        [&] { return qrn_ctx_deliver(ctx, nullptr); },
        [&] { return qrn_rcv_create(&rcv, ctx, nullptr, queue, on_msg, nullptr); },
        [&] { return qrn_wildcard_rcv_create(nullptr, ctx, "t", queue, on_msg, nullptr); },
        [&] { return qrn_src_create(&src, ctx, queue, nullptr, nullptr); },
        [&] { return qrn_request_create(&req, nullptr, queue, on_response, nullptr); },
        [&] { return qrn_ctx_watch(ctx, pipe.ends[0], QRN_FD_READ, queue, on_io, nullptr); },
        [&] { return qrn_ctx_bind_src(ctx, queue, on_ctx_src, nullptr); },
        [&] { return qrn_ctx_bind_immediate(ctx, queue, on_imsg, nullptr); },
        [&] { return qrn_ctx_unwatch(ctx, pipe.ends[1], QRN_FD_READ, nullptr); },
        [&] { return qrn_ctx_cancel_timer(ctx, id + 1, nullptr); },
        [&] { return qrn_rcv_delete(rcv, bad); },
        [&] { return qrn_ctx_unwatch(ctx, pipe.ends[0], QRN_FD_READ, bad); },
        [&] { return qrn_ctx_cancel_timer(ctx, id, bad); },
        [&] { return qrn_ctx_unbind_src(ctx, bad); },
    };
    for (size_t i = 0; i < wrong.size(); ++i) {
        qrn_seterr(0, "");
        EXPECT_EQ(wrong[i](), QRN_FAILURE) << i;
        EXPECT_EQ(qrn_errnum(), QRN_ERR_INVALID) << i;
        EXPECT_STRNE(qrn_errmsg(), "") << i;
    }
    pipe.put(); // nothing changed
    wait_until_queued(queue);
    EXPECT_EQ(deliver(ctx, "t"), 1);
    EXPECT_EQ(drain(queue), 2);
    EXPECT_EQ(qrn_ctx_cancel_timer(ctx, id, nullptr), QRN_OK);
    EXPECT_EQ(qrn_ctx_unbind_src(ctx, nullptr), QRN_OK);
    EXPECT_EQ(qrn_ctx_bind_src(ctx, queue, on_ctx_src, nullptr), QRN_FAILURE) << "it is gone";
}

/* --- All at once ------------------------------------------------------------------------------- */

constexpr unsigned producers = 2, per_producer = 3'000;

/* The receiver that stays: counts what arrives and, with one dispatcher, checks each producer's order. */
struct steady {
    bool in_order;
    std::atomic<unsigned> received = 0;
    unsigned next[producers] = {};
};

int on_steady(qrn_rcv_t *, qrn_msg_t *msg, void *clientd)
{
    auto *to = static_cast<steady *>(clientd);
    size_t len;
    const unsigned producer = *static_cast<const unsigned *>(qrn_msg_payload(msg, &len));
    if (to->in_order) {
        EXPECT_EQ(to->next[producer]++, msg->sequence_number);
    }
    ++to->received;
    return 0;
}

int on_short_lived(qrn_rcv_t *rcv, qrn_msg_t *, void *)
{
    EXPECT_TRUE(rcv == nullptr || std::strcmp(rcv->topic, "t") == 0);
    return called();
}

void churn(qrn_context_t *ctx, qrn_event_queue_t *evq, const qrn_cancel_t *cancel, int &ended)
{
    qrn_rcv_t *rcv;
    qrn_wildcard_rcv_t *wrcv;
    Pipe pipe;
    const int watched = pipe.ends[0];
    pipe.put();
    ASSERT_EQ(qrn_rcv_create(&rcv, ctx, "t", evq, on_short_lived, nullptr), QRN_OK);
    ASSERT_EQ(qrn_wildcard_rcv_create(&wrcv, ctx, "t", evq, on_short_lived, nullptr), QRN_OK);
    ASSERT_EQ(qrn_ctx_watch(
                  ctx, watched, QRN_FD_WRITE | QRN_FD_READ, evq,
                  [](qrn_context_t *, int, qrn_ulong_t, void *) { return 0; }, nullptr),
              QRN_OK);
    const int id = qrn_ctx_schedule(ctx, evq, on_timer, nullptr, 0, 1);
    sched_yield();
    EXPECT_EQ(qrn_rcv_delete(rcv, cancel), QRN_OK);
    EXPECT_EQ(qrn_wildcard_rcv_delete(wrcv, cancel), QRN_OK);
    EXPECT_EQ(qrn_ctx_unwatch(ctx, watched, QRN_FD_WRITE | QRN_FD_READ, cancel), QRN_OK);
    EXPECT_EQ(qrn_ctx_cancel_timer(ctx, id, cancel), QRN_OK);
    ended += 4;
}

void run_load(const char *options, int dispatchers, bool batch, const qrn_cancel_t *cancel)
{
    test::Queue queue(options);
    Context ctx(batch ? qrn_ctx_run_bundle : nullptr);
    steady exact{dispatchers == 1}, wild{dispatchers == 1};
    qrn_rcv_t *rcv;
    qrn_wildcard_rcv_t *wrcv;
    ASSERT_EQ(qrn_rcv_create(&rcv, ctx, "t", queue, on_steady, &exact), QRN_OK);
    ASSERT_EQ(qrn_wildcard_rcv_create(&wrcv, ctx, "*", queue, on_steady, &wild), QRN_OK);
    Dispatchers threads(queue, dispatchers);
    std::atomic<unsigned> feeding{producers};
    std::vector<std::thread> team;
    for (unsigned p = 0; p < producers; ++p)
        team.emplace_back([&, p] {
            for (unsigned i = 0; i < per_producer; ++i)
                EXPECT_GE(deliver(ctx, "t", i, p), 2);
            --feeding;
        });
    int ended = 0;
    while (feeding > 0)
        churn(ctx, queue, cancel, ended);
    for (auto &thread : team)
        thread.join();
    EXPECT_EQ(qrn_ctx_flush(ctx), QRN_OK);
    threads.stop();
    EXPECT_EQ(exact.received, producers * per_producer);
    EXPECT_EQ(wild.received, producers * per_producer);
    EXPECT_EQ(num_cancelled, cancel == nullptr ? 0 : ended);
    EXPECT_EQ(ctx->timer->in_limbo_ref_cnt, 0);
}

TEST_P(ContextTest, NothingIsLostWhileObjectsComeAndGo)
{
    static qrn_cancel_t counting = {nullptr, [](int, void *) { ++num_cancelled; }, nullptr};
    for (const int dispatchers : {1, 4})
        for (const bool batch : {false, true}) {
            num_cancelled = 0;
            run_load(GetParam(), dispatchers, batch, has_cancel() ? &counting : nullptr);
        }
}

INSTANTIATE_TEST_SUITE_P(Queues, ContextTest, testing::Values("", "cancel", "purge=0"),
                         [](const auto &param) {
                             const std::string options = param.param;
                             return options.empty()       ? "Plain"
                                    : options == "cancel" ? "Cancel"
                                                          : "Tracked";
                         });

} // namespace
