// SPDX-License-Identifier: Apache-2.0
//
// The registry of dispatching threads, cancellation callbacks and deferred frees. Threads are held
// inside callbacks while an object of theirs goes away.
#include <semaphore>
#include <thread>

#include "objects.h"

using namespace test;

namespace {

int failing_call, calls; // of the ordered list; 0: none fails
journal cancelled;

void on_cancel(int how, void *clientd)
{
    cancelled.note("cancelled", how, clientd);
}

bool fails()
{
    return ++calls == failing_call;
}

} // namespace

extern "C" {
qrn_queue_t *__real_qrn_queue_create(void);
qrn_queue_t *__wrap_qrn_queue_create(void)
{
    return fails() ? nullptr : __real_qrn_queue_create();
}
int __real_qrn_queue_enqueue(qrn_queue_t *list, const void *buff, qrn_ulong_t pri);
int __wrap_qrn_queue_enqueue(qrn_queue_t *list, const void *buff, qrn_ulong_t pri)
{
    EXPECT_EQ(pri, 0U);
    return fails() ? -1 : __real_qrn_queue_enqueue(list, buff, pri);
}
}

namespace {

// Threads that are inside the callback of one event each.
class Busy {
public:
    explicit Busy(qrn_event_queue_t *evq) : evq_(evq) {}
    ~Busy() { EXPECT_TRUE(threads_.empty()); }

    // One more thread, in an event of this type; or in the one that is queued.
    void take(World &world, int type = 0)
    {
        ASSERT_EQ(type == 0 ? 0 : world.enqueue(evq_, type), 0);
        if (threads_.empty())
            world.act = [this](int) { return inside_.release(), go_.acquire(), 0; };
        threads_.emplace_back([this] {
            EXPECT_EQ(dispatch(evq_), 1);
            left_.release();
        });
        inside_.acquire();
    }
    // Lets one of them finish.
    void finish_one()
    {
        go_.release();
        left_.acquire();
        if (++finished_ == threads_.size())
            threads_.clear();
    }

private:
    qrn_event_queue_t *evq_;
    std::counting_semaphore<8> inside_{0}, go_{0}, left_{0};
    std::vector<std::jthread> threads_;
    size_t finished_ = 0;
};

class CancelTest : public EventFixture {
protected:
    World other;
    char first = 0, second = 0;
    template <class... Of>
    static strings lines(int how, Of *...clientd)
    {
        return {what("cancelled", how, static_cast<void *>(clientd))...};
    }

    // The record lives no longer than the call.
    static int cancel(World &w, const kind &k, cancel_info info)
    {
        return k.cancel(w.object(k.type), &info);
    }
    // Queues an event whose object is a block of its own, if it has one.
    void enqueue_for(qrn_event_queue_t *evq, int type, void *object)
    {
        ASSERT_EQ(world.enqueue(evq, type), 0);
        qrn_event_t *ev = first_event(evq);
        if (type == BUNDLE)
            ev->info.msg_bundle->events[1].info.msg.rcv = static_cast<qrn_rcv_t *>(object);
        else if (type == CTX_SRC)
            ev->ctx = static_cast<qrn_context_t *>(object);
        else if (has_own_object(type))
            ev->info.src.src = static_cast<qrn_src_t *>(object); // it comes first in each of them
    }
    static bool has_own_object(int type)
    {
        return type != TIMER && type != IO && type != IMSG && type != CALLBACK;
    }
    // Expects the traces of holds that were let go, down to none.
    static void expect_count_down(const char *trace, int from)
    {
        log_state.dmask = 0;
        strings traces = logged.take(), expected;
        std::erase_if(traces, [=](const std::string &l) { return !l.starts_with(trace); });
        while (from > 0)
            expected.push_back(text("%s thrd_cnt %d\n", trace, --from));
        EXPECT_EQ(traces, expected);
    }
};

// Every kind of object against every type of event, with some threads busy with the object and one
// with another; the last of the former makes the call.
TEST_F(CancelTest, CallbackWaitsForThoseInsideEventsOfTheObject)
{
    for (const kind &k : kinds)
        for (int type = MSG; type <= BUNDLE; ++type)
            for (int threads = 0; threads <= 2 && has_callback(type); ++threads) {
                SCOPED_TRACE(text("kind %d, type %d, %d threads", k.type, type, threads));
                Queue queue("cancel");
                Busy busy(queue), elsewhere(queue);
                for (int t = 0; t < threads; ++t)
                    busy.take(world, type);
                elsewhere.take(other, type);
                ASSERT_EQ(world.enqueue(queue, type), 0); // one that is still queued
                const bool refers = type == k.type || (type == BUNDLE && k.type == MSG) ||
                                    (type == BUNDLE && k.type == WRCV);
                strings expected = lines(threads > 0 && refers, &first);
                EXPECT_EQ(cancel(world, k, {queue, on_cancel, &first}), 0);
                for (int t = 0; t < threads && refers; ++t) {
                    EXPECT_EQ(cancelled.take(), strings{});
                    busy.finish_one();
                }
                EXPECT_EQ(cancelled.take(), expected);
                for (int t = 0; t < threads && !refers; ++t)
                    busy.finish_one();
                elsewhere.finish_one();
                EXPECT_EQ(cancelled.take(), strings{});
            }
}

TEST_F(CancelTest, ObjectMayBeDeletedInsideItsOwnCallback)
{
    for (const kind &k : kinds)
        for (bool throwing : {false, true}) {
            Queue queue("cancel");
            world.act = [&](int) {
                cancel(world, k, {queue, on_cancel, &first});
                cancel(world, k, {queue, on_cancel, &second});
                EXPECT_EQ(cancelled.take(), strings{});
                return throwing ? throw 1 : 0;
            };
            ASSERT_EQ(world.enqueue(queue, k.type), 0);
            log_state.dmask = KFX_DBG_EVENT;
            EXPECT_EQ(dispatch(queue), throwing ? threw : 1);
            EXPECT_EQ(cancelled.take(), lines(1, &first, &second));
            EXPECT_EQ(logged.take().back(), "evq ev_done thrd_cnt 0\n");
        }
}

// What is left of the event is settled, and the thread leaves the registry.
TEST_F(CancelTest, CallbackMayThrow)
{
    Queue queue("cancel count");
    const auto throws = [](int, void *) { throw 1; };
    world.act = [&](int) {
        cancel(world, kinds[0], {queue, throws, &first});
        return cancel(world, kinds[0], {queue, on_cancel, &second});
    };
    ASSERT_EQ(world.enqueue(queue, MSG), 0);
    EXPECT_EQ(dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), threw);
    EXPECT_EQ(cancelled.take(), lines(1, &second));
    EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
    EXPECT_EQ(counts_of(queue), counts{});
    EXPECT_THROW(cancel(world, kinds[0], {queue, throws, &first}), int);
}

TEST_F(CancelTest, QueueWithoutCancellationCallbacksIsReported)
{
    Queue queue;
    for (const kind &k : kinds)
        EXPECT_EQ(cancel(world, k, {queue, on_cancel, &first}), 0);
    EXPECT_EQ(cancelled.take(), strings(std::size(kinds), lines(0, &first)[0]));
    EXPECT_EQ(checks.take(), strings(std::size(kinds), "cbinfo->event_queue->attr->q_cancel_cb"));
}

// The object of a cancel event is freed once, by the last thread inside an event of it: the leak
// checker looks.
TEST_F(CancelTest, CancelEventFreesTheObjectAfterItsLastUse)
{
    for (int type = MSG; type <= BUNDLE; ++type)
        for (int threads = 1; threads <= 3 && has_callback(type); ++threads) {
            SCOPED_TRACE(text("type %d, %d threads", type, threads));
            Queue queue("cancel count");
            Busy busy(queue);
            auto *object = kfx::alloc_zeroed<char>(1024);
            for (int t = 0; t < threads; ++t) {
                enqueue_for(queue, type, object);
                busy.take(world);
            }
            const int holders = has_own_object(type) ? threads : 0;
            ASSERT_EQ(qrn_evq_enq_cancel(queue, &world.ctx, object), 0);
            const void *q = queue.evq, *ev = first_event(queue);
            log_state.dmask = KFX_DBG_EVENT;
            EXPECT_EQ(dispatch(queue), 1);
            EXPECT_EQ(logged.take()[1],
                      text("evq_check_obj evq %p ev %p matches %d\n", q, ev, holders));
            for (int t = 0; t < threads; ++t) {
                if (holders > 0)
                    object[0] = 1; // it is still there
                busy.finish_one();
            }
            expect_count_down("evq cancel ev_done", holders);
            EXPECT_EQ(counts_of(queue), counts{});
        }
}

// A callback for whoever is busy, or for those that match; the memory that it takes runs out now or
// then. It is made when those threads are done that it was attached to, and never at once.
TEST_F(CancelTest, AttachmentMayFailPartWay)
{
    for (int failing = 1; failing <= 7; ++failing)
        for (bool all : {false, true}) {
            SCOPED_TRACE(failing);
            Queue queue("cancel");
            cancel_info info{queue, on_cancel, &first};
            auto *waiting = qrn_evq_add_dispatch_thread(queue);
            Busy busy(queue);
            for (int t = 0; t < 3; ++t)
                busy.take(world, MSG);
            calls = 0;
            failing_call = failing; // a list is created and appended to for each thread
            EXPECT_EQ(all ? qrn_evq_thrd_enq_all(queue, &info) : cancel(world, kinds[0], info),
                      !all           ? 0
                      : failing == 7 ? 3
                                     : -1);
            failing_call = 0;
            log_state.dmask = KFX_DBG_EVENT;
            for (int t = 0; t < 3; ++t)
                busy.finish_one();
            const int attached = (failing - 1) / 2;
            expect_count_down("evq ev_done", attached);
            EXPECT_EQ(cancelled.take(), attached == 0 ? strings{} : lines(1, &first));
            EXPECT_EQ(qrn_evq_rem_dispatch_thread(queue, waiting), 0);
        }
}

TEST_F(CancelTest, RegistryKeepsTheNewestThreadFirst)
{
    Queue queue("cancel");
    auto *a = qrn_evq_add_dispatch_thread(queue), *b = qrn_evq_add_dispatch_thread(queue);
    EXPECT_TRUE(queue->thrd_tail.next == b && b->next == a && a->next == &queue->thrd_head);
    EXPECT_TRUE(queue->thrd_head.prev == a && a->prev == b && b->prev == &queue->thrd_tail);
    qrn_event_t ev{};
    qrn_evq_cb_info_t hook{queue, a};
    qrn_evq_dequeue_cb_func(&ev, &hook);
    pthread_mutex_lock(&queue->cancel_cb_lock);
    EXPECT_EQ(qrn_evq_dispatch_thread_ev_update(queue, b, &ev), 0);
    for (auto *node : {a, b}) { // the update released the lock
        EXPECT_EQ(node->ev, &ev);
        EXPECT_EQ(qrn_evq_dispatch_thread_ev_done(queue, node), 0);
        EXPECT_EQ(node->ev, nullptr);
        EXPECT_EQ(qrn_evq_rem_dispatch_thread(queue, node), 0);
    }
    EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
}

TEST_F(CancelTest, MissingArgumentsAreReported)
{
    Queue queue("cancel");
    cancel_info info{queue, on_cancel, nullptr}, blank{queue, nullptr, nullptr};
    qrn_evq_dispatch_thrd_node_t loose{}, half{};
    half.next = &half;
    qrn_event_t ev{};
    const auto evq = "evq!=NULL", node = "node!=NULL";
    const char *const no = nullptr;
    check_nulls({evq, node}, qrn_evq_rem_dispatch_thread, queue, &loose);
    check_nulls({no, node}, qrn_evq_dispatch_thread_ev_done, queue, &loose);
    check_nulls({evq, "ev!=NULL"}, qrn_evq_check_obj, queue, &ev);
    check_nulls({evq, "ev!=NULL", no}, qrn_evq_cancel_thrd_check, queue, &ev, &info);
    check_nulls({evq, no}, qrn_evq_thrd_enq_all, queue, &info);
    for (const kind &k : kinds)
        EXPECT_EQ(check_failed_by([&] { k.cancel(nullptr, &info); }), k.check);
    world.act = [&](int) { return cancel(world, kinds[0], blank); };
    ASSERT_EQ(world.enqueue(queue, MSG), 0);
    const std::pair<const char *, std::function<void()>> rows[] = {
        {"ev->info.cancel.obj!=NULL", [&] { qrn_evq_check_obj(queue, &ev); }},
        {"node->next!=NULL", [&] { qrn_evq_rem_dispatch_thread(queue, &loose); }},
        {"node->prev!=NULL", [&] { qrn_evq_rem_dispatch_thread(queue, &half); }},
        {"cbinfo->cbproc!=NULL", [&] { cancel(world, kinds[0], blank); }},
        {"cbinfo->cbproc != NULL", [&] { qrn_event_dispatch(queue, 0); }},
    };
    for (auto &[expr, call] : rows)
        EXPECT_EQ(check_failed_by(call), expr);
}

} // namespace
