// SPDX-License-Identifier: Apache-2.0
//
// Cancellation callbacks and deferred frees. Threads are held inside callbacks while an object of
// theirs goes away.
#include <semaphore>
#include <thread>

#include "objects.h"

using namespace test;

namespace {

int fails_in; // so many calls of the ordered list; 0: none fails

} // namespace

extern "C" {
qrn_queue_t *__real_qrn_queue_create(void);
qrn_queue_t *__wrap_qrn_queue_create(void)
{
    return fails_in != 0 && --fails_in == 0 ? nullptr : __real_qrn_queue_create();
}
int __real_qrn_queue_enqueue(qrn_queue_t *list, const void *buff, qrn_ulong_t pri);
int __wrap_qrn_queue_enqueue(qrn_queue_t *list, const void *buff, qrn_ulong_t pri)
{
    return fails_in != 0 && --fails_in == 0 ? -1 : __real_qrn_queue_enqueue(list, buff, pri);
}
}

namespace {

// Threads that are held inside the callback of one event each.
struct Busy {
    qrn_event_queue_t *evq;
    std::counting_semaphore<8> inside{0}, go{0}, left{0};
    std::vector<std::jthread> threads;

    Busy(qrn_event_queue_t *q, World &world) : evq(q)
    {
        world.act = [this](int) { return inside.release(), go.acquire(), 0; };
    }
    // One more thread, in the first event of the queue.
    void take()
    {
        threads.emplace_back([this] {
            EXPECT_EQ(dispatch(evq), 1);
            left.release();
        });
        inside.acquire();
    }
    void finish_one()
    {
        go.release();
        left.acquire();
    }
};

journal cancelled; // calls: of what, and how

class CancelTest : public EventFixture {
protected:
    char first[8] = "first", second[8] = "second";

    CancelTest() { log_state.dmask = ~0UL; } // traces change nothing
    static void on_cancel(int how, void *of) { cancelled.note(static_cast<char *>(of), how); }
    // The record lives no longer than the call.
    static int cancel(World &w, const kind &k, cancel_info info)
    {
        return k.cancel(w.object(k.type), &info);
    }
};

// Every kind of object against every type of event, with some threads busy with the object and one
// with another; the last of the former makes the call.
TEST_F(CancelTest, CallbackWaitsForThoseInsideEventsOfTheObject)
{
    World other;
    for (const kind &k : kinds)
        for (int type = MSG; type <= BUNDLE; ++type)
            for (int threads = 0; threads <= 2 && has_callback(type); ++threads) {
                SCOPED_TRACE(text("kind %d, type %d, %d threads", k.type, type, threads));
                Queue queue("cancel");
                Busy busy(queue, world), elsewhere(queue, other);
                for (int t = 0; t < threads; ++t, busy.take())
                    ASSERT_EQ(world.enqueue(queue, type), 0);
                ASSERT_EQ(other.enqueue(queue, type), 0);
                elsewhere.take();
                ASSERT_EQ(world.enqueue(queue, type), 0); // one that is still queued
                const bool refers =
                    type == k.type || (type == BUNDLE && (k.type == MSG || k.type == WRCV));
                const int due = refers ? threads : 0;
                EXPECT_EQ(cancel(world, k, {queue, on_cancel, first}), 0);
                for (int finished = 0; finished <= threads; ++finished) {
                    const auto call = text("first %d", due > 0);
                    EXPECT_EQ(cancelled.take(), strings(finished == due, call));
                    if (finished < threads)
                        busy.finish_one();
                }
                elsewhere.finish_one();
                EXPECT_EQ(cancelled.take(), strings{});
            }
}

// Also when the callback, or another cancellation callback, throws.
TEST_F(CancelTest, ObjectMayBeDeletedInsideItsOwnCallback)
{
    const auto throws = [](int, void *) { throw 1; };
    for (const kind &k : kinds)
        for (unsigned way : {0U, 1U, 2U, 3U}) {
            Queue queue("cancel count");
            world.act = [&](int) {
                cancel(world, k, {queue, on_cancel, first});
                cancel(world, k, {queue, way % 2 ? throws : on_cancel, second});
                cancel(world, k, {queue, way == 3 ? throws : on_cancel, second});
                EXPECT_EQ(cancelled.take(), strings{});
                return way == 2 ? throw 1 : 0;
            };
            ASSERT_EQ(world.enqueue(queue, k.type), 0);
            EXPECT_EQ(dispatch(queue), way == 0 ? 1 : threw);
            strings expected(std::array{3U, 2U, 3U, 1U}[way], "second 1");
            expected[0] = "first 1";
            EXPECT_EQ(cancelled.take(), expected);
            EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
            EXPECT_EQ(counts_of(queue), counts{});
        }
}

// The object of a cancel event is freed once, by the last thread inside an event of it: the leak
// checker looks.
TEST_F(CancelTest, CancelEventFreesTheObjectAfterItsLastUse)
{
    for (int type : {MSG, WRCV, SRC, REQ, CTX_SRC, BUNDLE})
        for (int threads = 0; threads <= 3; ++threads) {
            SCOPED_TRACE(text("type %d, %d threads", type, threads));
            Queue queue("cancel count");
            Busy busy(queue, world);
            auto *object = kfx::alloc_zeroed<qrn_rcv_t>(8);
            for (int t = 0; t < threads; ++t, busy.take()) {
                ASSERT_EQ(world.enqueue(queue, type), 0);
                qrn_event_t *ev = first_event(queue);
                qrn_event_t *refers = type == BUNDLE ? &ev->info.msg_bundle->events[1] : ev;
                if (type == CTX_SRC)
                    ev->ctx = reinterpret_cast<qrn_context_t *>(object);
                else
                    refers->info.msg.rcv = object; // it comes first in each of them
            }
            ASSERT_EQ(qrn_evq_enq_cancel(queue, &world.ctx, object), 0);
            EXPECT_EQ(dispatch(queue), 1);
            for (int t = 0; t < threads; ++t, busy.finish_one())
                object->defunct = 1; // it is still there
            EXPECT_EQ(counts_of(queue), counts{});
        }
}

// The memory that a callback takes runs out now or then. It is made when those threads are done that
// it was attached to, and never at once.
TEST_F(CancelTest, AttachmentMayFailPartWay)
{
    for (int failing = 1; failing <= 7; ++failing) {
        SCOPED_TRACE(failing);
        Queue queue("cancel");
        Busy busy(queue, world);
        for (int t = 0; t < 3; ++t, busy.take())
            ASSERT_EQ(world.enqueue(queue, MSG), 0);
        fails_in = failing; // a list is created and appended to for each thread
        EXPECT_EQ(cancel(world, kinds[0], {queue, on_cancel, first}), 0);
        fails_in = 0;
        EXPECT_EQ(cancelled.take(), strings{});
        for (int t = 0; t < 3; ++t)
            busy.finish_one();
        EXPECT_EQ(cancelled.take(), strings(failing > 2, "first 1"));
    }
}

} // namespace
