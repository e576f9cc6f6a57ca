// SPDX-License-Identifier: Apache-2.0
// Contexts with everything real: the thread, descriptors, timers, queues.
#include <functional>
#include <sched.h>
#include <semaphore>
#include <sys/eventfd.h>
#include <thread>

#include "qrnctx.h"
#include "qrnerr.h"
#include "qrnev.h"
#include "support.h"

namespace {

// What runs inside every callback of the tests, and how often one ran.
std::function<void()> inside;
std::atomic<int> calls;
// How often the cancellation callback was told 0, and 1.
std::atomic<int> told[2];

template <class... Args>
int on(Args...)
{
    ++calls;
    if (inside)
        inside();
    return 0;
}
int on_io(qrn_context_t *, qrn_handle_t handle, qrn_ulong_t, void *)
{
    eventfd_t value;
    EXPECT_EQ(eventfd_read(handle, &value), 0);
    return on();
}
template <class Owner>
int on_src(Owner *, int event, void *ed, void *)
{
    EXPECT_EQ(event + *static_cast<char *>(ed), 7 + 'd');
    return on();
}

struct Context {
    qrn_context_t *ctx = nullptr;
    explicit Context(qrn_rcv_bundle_cb_proc batch = nullptr)
    {
        const qrn_ctx_attr_t attr = {0, 0, batch, nullptr};
        inside = nullptr;
        calls = told[0] = told[1] = 0;
        EXPECT_EQ(qrn_ctx_create(&ctx, &attr), QRN_OK);
    }
    ~Context() { EXPECT_EQ(qrn_ctx_delete(ctx), QRN_OK); }
    operator qrn_context_t *() { return ctx; }
};

// Hands a message to the context, or to the request, and does not keep it.
int deliver(qrn_context_t *ctx, const char *topic, unsigned sequence = 0,
            qrn_request_t *req = nullptr)
{
    qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, topic, nullptr, 0, sequence);
    const int taken = req == nullptr ? qrn_ctx_deliver(ctx, msg) : qrn_request_respond(req, msg);
    qrn_msg_delete(msg);
    return taken;
}

void drain(qrn_event_queue_t *evq)
{
    while (evq != nullptr && qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_POLL) > 0) {
    }
}

// One object of a kind, of which a fired event runs a callback once when it is dispatched.
struct O {
    qrn_context_t *ctx;
    qrn_event_queue_t *evq;
    int id = -1, fd = eventfd(0, EFD_NONBLOCK);
    qrn_ulong_t period = 0;
    qrn_rcv_t *rcv = nullptr;
    qrn_wildcard_rcv_t *wrcv = nullptr;
    qrn_src_t *src = nullptr;
    qrn_request_t *req = nullptr;
    ~O() { close(fd); }
    int watch() { return qrn_ctx_watch(ctx, fd, QRN_FD_READ, evq, on_io, nullptr); }
    int schedule(qrn_ulong_t delay)
    {
        return (id = qrn_ctx_schedule(ctx, evq, on, nullptr, delay, period)) < 0 ? -1 : 0;
    }
    int raise() // by the context without a source
    {
        char *data = strdup("data"); // ours when it is refused
        const int result =
            src == nullptr ? qrn_ctx_src_raise(ctx, 7, data, 1) : qrn_src_raise(src, 7, data, 1);
        return result == QRN_OK ? result : (free(data), result);
    }
    bool intact() // reads the object as a callback may
    {
        return (rcv ? rcv->ctx : ctx) == ctx && (wrcv ? wrcv->ctx : ctx) == ctx &&
               (src ? src->ctx : ctx) == ctx && (req ? req->ctx : ctx) == ctx;
    }
};

using C = const qrn_cancel_t;
const struct kind {
    int (*make)(O &);
    int (*fire)(O &);
    int (*end)(O &, C *);
} kinds[] = {
    // the last one: once a context
    {[](O &o) { return qrn_rcv_create(&o.rcv, o.ctx, "t", o.evq, on, nullptr); },
     [](O &o) { return deliver(o.ctx, "t") - 1; },
     [](O &o, C *c) { return qrn_rcv_delete(o.rcv, c); }},
    {[](O &o) { return qrn_wildcard_rcv_create(&o.wrcv, o.ctx, "[st]", o.evq, on, nullptr); },
     [](O &o) { return deliver(o.ctx, "t") - 1; },
     [](O &o, C *c) { return qrn_wildcard_rcv_delete(o.wrcv, c); }},
    {[](O &) { return 0; }, [](O &o) { return o.schedule(0); },
     [](O &o, C *c) { return qrn_ctx_cancel_timer(o.ctx, o.id, c); }},
    {[](O &o) { return o.watch(); }, [](O &o) { return eventfd_write(o.fd, 1); },
     [](O &o, C *c) { return qrn_ctx_unwatch(o.ctx, o.fd, QRN_FD_READ, c); }},
    {[](O &o) { return qrn_src_create(&o.src, o.ctx, o.evq, on_src, nullptr); },
     [](O &o) { return o.raise(); }, [](O &o, C *c) { return qrn_src_delete(o.src, c); }},
    {[](O &o) { return qrn_request_create(&o.req, o.ctx, o.evq, on, nullptr); },
     [](O &o) { return deliver(o.ctx, nullptr, 0, o.req); },
     [](O &o, C *c) { return qrn_request_delete(o.req, c); }},
    {[](O &o) { return qrn_ctx_bind_src(o.ctx, o.evq, on_src, nullptr); },
     [](O &o) { return o.raise(); }, [](O &o, C *c) { return qrn_ctx_unbind_src(o.ctx, c); }},
};

enum { WAITING, IN_ITS_CALLBACK, THREAD_INSIDE, THREAD_INSIDE_THEN_SHUT_DOWN };

class ContextTest : public test::Fixture, public testing::WithParamInterface<const char *> {
protected:
    static constexpr qrn_cancel_t empty = {};
    const qrn_cancel_t record = {nullptr, [](int thread, void *) { ++told[thread]; }, nullptr};
    const bool cancels = GetParam() == std::string("cancel");
    C *const cancel = cancels ? &record : nullptr; // of a deletion on this kind of queue
};

// What a deletion queued is dispatched by another thread or discarded while one is inside the callback:
// neither may end the object's memory or call back too early.
TEST_P(ContextTest, EachKindIsDeliveredUntilItsDeletionWhichEndsOnce)
{
    for (const kind &k : kinds)
        for (int when = WAITING; when <= THREAD_INSIDE_THEN_SHUT_DOWN; ++when) {
            SCOPED_TRACE(test::text("kind %d, moment %d", static_cast<int>(&k - kinds), when));
            test::Queue queue(GetParam());
            Context ctx;
            O o{ctx, queue}, late{ctx, queue};
            std::binary_semaphore entered(0), leave(0);
            ASSERT_EQ(late.schedule(3'600'000) | k.make(o), QRN_OK); // sooner ones wake the thread
            const auto end = [&] { EXPECT_EQ(k.end(o, cancel), QRN_OK); };
            inside = [&] {
                if (calls <= 20)
                    return;
                if (when == IN_ITS_CALLBACK)
                    end();
                entered.release();
                leave.acquire();
                EXPECT_TRUE(late.schedule(3'600'000) == 0 && late.id != o.id) << "in use";
                EXPECT_TRUE(o.intact());
                EXPECT_EQ(told[0] + told[1], 0) << "the callback is still running";
            };
            for (int i = 0; i <= 20; ++i) {
                for (; calls < i; sched_yield())
                    drain(queue);
                ASSERT_EQ(k.fire(o), 0);
            }
            while (qrn_tl_queue_is_empty(queue->q)) // the context's thread may have to
                sched_yield();
            EXPECT_EQ(k.end(o, cancels ? &empty : &record), QRN_FAILURE);
            std::jthread other([&, evq = when == WAITING ? nullptr : queue.evq] { drain(evq); });
            if (when != WAITING)
                entered.acquire();
            if (when != IN_ITS_CALLBACK)
                end();
            EXPECT_EQ(told[0], cancels && when == WAITING) << "before the deletion returns";
            if (when == THREAD_INSIDE_THEN_SHUT_DOWN)
                qrn_event_queue_shutdown(queue);
            drain(queue);
            leave.release();
            other.join();
            drain(queue);
            EXPECT_EQ(calls, when == WAITING ? 20 : 21);
            EXPECT_EQ(told[when != WAITING], cancels);
            EXPECT_EQ(told[when == WAITING] + deliver(ctx, "t"), 0);
        }
}

TEST_P(ContextTest, TakesNothingOnceTheQueueIsShutDownOrDetached)
{
    for (const int how : {0, 1}) {
        test::Queue queue(GetParam());
        O o{nullptr, queue};
        Context ctx; // ends what it still has
        O timer{o.ctx = ctx, queue, -1, -1, 1};
        for (const kind &k : kinds)
            ASSERT_EQ(k.make(o), QRN_OK);
        EXPECT_EQ(qrn_ctx_bind_immediate(ctx, queue, on, nullptr) | timer.schedule(1), QRN_OK);
        EXPECT_EQ(kinds[6].make(o) + o.watch(), 2 * QRN_FAILURE) << "bound";
        how == 0 ? qrn_ctx_detach(ctx, queue) : qrn_event_queue_shutdown(queue);
        EXPECT_EQ(deliver(ctx, "t") + deliver(ctx, nullptr), 0);
        EXPECT_EQ(deliver(ctx, nullptr, 0, o.req), QRN_FAILURE);
        EXPECT_EQ(o.raise() | eventfd_write(o.fd, 1), QRN_FAILURE);
        while (qrn_timer_next_msec(ctx.ctx->timer) >= 0) // until the timer was dropped
            sched_yield();
        drain(queue);
        EXPECT_EQ(calls, 0);
    }
}

TEST(Contexts, RefuseNullArguments)
{
    const auto refuse = []<class... Args>(int (*operation)(Args...)) {
        EXPECT_EQ(operation(Args{}...), QRN_FAILURE);
    };
    const auto all_refuse = [&](auto... operations) { (refuse(operations), ...); };
    all_refuse(qrn_ctx_create, qrn_ctx_delete, qrn_ctx_detach, qrn_ctx_watch, qrn_ctx_unwatch,
               qrn_ctx_schedule, qrn_ctx_cancel_timer, qrn_rcv_create, qrn_rcv_delete,
               qrn_wildcard_rcv_create, qrn_wildcard_rcv_delete, qrn_ctx_bind_immediate,
               qrn_ctx_unbind_immediate, qrn_ctx_deliver, qrn_ctx_flush, qrn_src_create,
               qrn_src_delete, qrn_src_raise, qrn_ctx_bind_src, qrn_ctx_unbind_src,
               qrn_ctx_src_raise, qrn_request_create, qrn_request_delete, qrn_request_respond);
    EXPECT_EQ(qrn_errnum(), QRN_ERR_INVALID);
}

TEST_P(ContextTest, BundlesFillInOrderAndLoseWhatIsDeleted)
{
    test::Queue queue(GetParam());
    Context ctx([](qrn_event_bundle_t *bundle, void *clientd) {
        ++calls;
        return qrn_ctx_run_bundle(bundle, clientd);
    });
    std::vector<unsigned> got(3);
    const auto note = [](qrn_rcv_t *, qrn_msg_t *msg, void *clientd) {
        EXPECT_EQ(msg->sequence_number, (*static_cast<unsigned *>(clientd))++);
        return 0;
    };
    qrn_rcv_t *a, *b;
    qrn_wildcard_rcv_t *w;
    for (int i = 0; i < 300; ++i) // more than the table's first size
        qrn_rcv_create(&b, ctx, test::text("n.%d", i).c_str(), queue, note, nullptr);
    qrn_rcv_create(&a, ctx, "a", queue, note, &got[0]);
    qrn_rcv_create(&b, ctx, "b", queue, note, &got[1]);
    qrn_wildcard_rcv_create(&w, ctx, "b*", queue, note, &got[2]);
    for (unsigned i = 0; i < 20; ++i) // three entries each time: one full bundle, 28 left
        EXPECT_EQ(deliver(ctx, "a", i) * 10 + deliver(ctx, "b", i), 12);
    EXPECT_EQ(qrn_wildcard_rcv_delete(w, cancel), QRN_OK); // out of both
    EXPECT_EQ(qrn_ctx_flush(ctx) | qrn_ctx_flush(ctx), QRN_OK);
    EXPECT_EQ(deliver(ctx, "a", 20), 1);
    EXPECT_EQ(qrn_rcv_delete(a, cancel), QRN_OK);
    drain(queue);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(got, (std::vector<unsigned>{0, 20, 0}));
    EXPECT_EQ(told[0], cancels ? 2 : 0);
}

// What is deleted inside a bundle gets none of the rest; a bundle that was begun ends with the use of
// its queue.
TEST_P(ContextTest, BundlesReachNobodyThatIsGone)
{
    for (const int how : {0, 1}) {
        test::Queue queue(GetParam());
        Context ctx(qrn_ctx_run_bundle);
        O a{ctx, queue}, b{ctx, queue};
        ASSERT_EQ(kinds[0].make(a) | kinds[0].make(b) | kinds[1].make(b) | kinds[1].make(a),
                  QRN_OK);
        inside = [&] { // of the first
            for (int k = 0; k < 2; ++k)
                EXPECT_EQ(kinds[k].end(a, cancel) | kinds[k].end(b, cancel), QRN_OK);
        };
        EXPECT_EQ(deliver(ctx, "t"), 4);
        EXPECT_EQ(qrn_ctx_flush(ctx), QRN_OK);
        drain(queue);
        EXPECT_EQ(calls, 1);
        O late{ctx, queue};
        ASSERT_EQ(kinds[0].make(late), QRN_OK);
        EXPECT_EQ(deliver(ctx, "t"), 1);
        how == 0 ? qrn_ctx_detach(ctx, queue) : qrn_event_queue_shutdown(queue);
        EXPECT_EQ(qrn_ctx_flush(ctx), how == 0 ? QRN_OK : QRN_FAILURE);
    }
}

TEST_P(ContextTest, BindsOneSideOnce)
{
    test::Queue queue(GetParam());
    Context ctx;
    O o{ctx, queue};
    const auto bind = [&] { return qrn_ctx_bind_immediate(ctx, queue, on, nullptr); };
    EXPECT_EQ(deliver(ctx, nullptr), 0);
    EXPECT_EQ(o.raise() + kinds[6].end(o, cancel) + kinds[3].end(o, cancel), 3 * QRN_FAILURE);
    EXPECT_EQ(qrn_ctx_unbind_immediate(ctx), QRN_FAILURE);
    EXPECT_EQ(kinds[6].make(o), QRN_OK);
    EXPECT_EQ(kinds[6].end(o, cancel), QRN_OK);
    EXPECT_EQ(kinds[6].make(o), QRN_FAILURE) << "once a context";
    EXPECT_EQ(bind() + bind(), QRN_FAILURE) << "the second";
    ASSERT_EQ(deliver(ctx, nullptr) + o.schedule(0), 1);
    EXPECT_EQ(qrn_ctx_unbind_immediate(ctx), QRN_OK);
    while (qrn_event_dispatch(queue, 1'000) < 1) // the timer's event stays
        ;
}

INSTANTIATE_TEST_SUITE_P(Queues, ContextTest, testing::Values("", "cancel", "purge=0"));

} // namespace
