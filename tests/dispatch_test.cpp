// SPDX-License-Identifier: Apache-2.0
//
// The dispatch loop: how long a call stays, what ends it, what it warns of, and its figures.
#include <semaphore>
#include <thread>

#include "objects.h"

using namespace test;

namespace {

timeval wall = {10, 600'000}; // stands unless a test moves it
journal reports;

int on_report(qrn_event_queue_t *evq, int report, size_t sz, qrn_ulong_t delay, void *clientd)
{
    return reports.note("report", evq, report, sz, delay, clientd) - 1; // a result means nothing
}

} // namespace

extern "C" void kfx_current_tv(struct timeval *tv)
{
    *tv = wall;
}

namespace {

constexpr const char *trackings[] = {"", "cancel"};

class DispatchTest : public EventFixture {
protected:
    void enqueue(Queue &queue, std::initializer_list<int> types)
    {
        for (int type : types)
            ASSERT_EQ(world.enqueue(queue, type), 0);
    }
};

TEST_F(DispatchTest, PollTakesOneEventAtMostAndReadsNoClock)
{
    Queue queue;
    EXPECT_EQ(dispatch(queue), 0);
    stamps = 0;
    enqueue(queue, {UNBLOCK, CALLBACK, MSG});
    for (size_t ran : {0U, 1U, 2U}) {
        EXPECT_EQ(dispatch(queue), 1);
        EXPECT_EQ(done.take().size(), ran); // the message is consumed, too
    }
    EXPECT_EQ(dispatch(queue), 0);
    EXPECT_EQ(stamps, 0);
}

TEST_F(DispatchTest, DeadlineCountsBetweenEventsOnceItHasPassed)
{
    Queue queue;
    world.act = [](int) {
        const long usec = wall.tv_sec * 1'000'000 + wall.tv_usec + 500'000;
        wall = {usec / 1'000'000, usec % 1'000'000};
        return 0;
    };
    enqueue(queue, {CALLBACK, CALLBACK, CALLBACK, CALLBACK});
    EXPECT_EQ(dispatch(queue, 1000), 3); // after two the deadline is now
    EXPECT_EQ(dispatch(queue), 1);
}

TEST_F(DispatchTest, EachUnblockEndsOneDispatcher)
{
    for (const char *tracking : trackings)
        for (qrn_ulong_t tmo : {QRN_EVQ_DISPATCH_BLOCK, 0x100000000UL, ~0UL}) {
            Queue queue(tracking);
            std::counting_semaphore<8> ran(0), ended(0);
            std::atomic<int> events = 0, left = 2;
            world.act = [&](int) { return ran.release(), 0; };
            const auto work = [&] {
                events += dispatch(queue, tmo);
                --left;
                ended.release();
            };
            std::jthread one(work), two(work);
            enqueue(queue, {UNBLOCK});
            ended.acquire();
            enqueue(queue, {CALLBACK});
            ran.acquire();
            EXPECT_EQ(left, 1);
            EXPECT_EQ(qrn_event_queue_shutdown(queue), 0);
            enqueue(queue, {UNBLOCK}); // works on a queue that is shut down
            ended.acquire();
            EXPECT_EQ(events, 3);
        }
}

TEST_F(DispatchTest, CallbacksMayUseTheirQueue)
{
    for (const char *tracking : trackings) {
        Queue queue(tracking);
        int inner = 0;
        world.act = [&](int type) {
            if (type != TIMER)
                return 0;
            enqueue(queue, {SRC, MSG, UNBLOCK, UNBLOCK});
            EXPECT_EQ(qrn_evq_purge_src(queue, &world.src), 0);
            return inner = qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK);
        };
        enqueue(queue, {TIMER});
        EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), 2);
        EXPECT_EQ(inner, 2);
        EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
    }
}

// Three events, singly or as one bundle, that waited just long enough or a bit longer.
TEST_F(DispatchTest, WarningsTellOfSizeAndDelay)
{
    for (unsigned mask = 0; mask < 32; ++mask) {
        const unsigned sized = mask & 1, delayed = mask / 2 & 1, late = mask / 4 & 1,
                       bundle = mask / 8 & 1, shut = mask / 16;
        SCOPED_TRACE(mask);
        Queue queue(text("size=%u delay=%u", sized * 2, delayed * 100), on_report, this);
        enqueue(queue, {bundle ? BUNDLE : MSG});
        if (!bundle)
            enqueue(queue, {TIMER, CALLBACK});
        qrn_ulong_t size_warnings = 0, delay_warnings = 0, raised[2];
        ticks += 101 * ticks_per_usec - 1 + late;
        queue->shutdown = static_cast<int>(shut);
        for (unsigned size = 3; size > 0; size -= bundle ? 3 : 1) {
            const unsigned report = (sized && size > 2 ? 1 : 0) + 2 * (delayed & late);
            strings expected;
            if (report != 0 && !shut) {
                expected = {
                    what("report", queue.evq, report, sized * size, delayed * (100 + late), this)};
                size_warnings += report % 2;
                delay_warnings += report / 2;
            }
            EXPECT_EQ(dispatch(queue), 1);
            EXPECT_EQ(reports.take(), expected);
        }
        EXPECT_EQ(queue->qsz, 0);
        EXPECT_EQ(qrn_event_queue_reset_stats(queue), 0); // does not reach them
        EXPECT_EQ(qrn_event_queue_retrieve_warnings(queue, &raised[0], &raised[1]), 0);
        EXPECT_EQ(raised[0], size_warnings);
        EXPECT_EQ(raised[1], delay_warnings);
    }
}

TEST_F(DispatchTest, UpdateRuleKeepsExtremesAndARunningMean)
{
    const struct {
        std::vector<kfx_hrtime_ivl_t> samples;
        kfx_hrtime_ivl_t min, mean, max;
    } rows[] = {
        {{100, 200}, 100, 110, 200}, {{200, 100, 5}, 5, 171, 200}, // 190, then 171.5
        {{0, 0, 50, 60}, 0, 51, 60},                               // a mean of 0 is replaced
        {{9, 0}, 0, 8, 9},           {{1UL << 63, 1UL << 63}, 1UL << 63, 1UL << 63, 1UL << 63},
    };
    for (auto &row : rows) {
        kfx_hrtime_ivl_t min = no_sample, mean = 0, max = 0;
        for (kfx_hrtime_ivl_t sample : row.samples) {
            kfx_hrtime_t start{}, end{};
            end.tsc_ticks = sample;
            qrn_evq_update_svc_time(&start, &end, &min, &mean, &max);
        }
        EXPECT_TRUE(min == row.min && mean == row.mean && max == row.max) << mean;
    }
}

// The rest of the queue is discarded by the next attempt.
TEST_F(DispatchTest, DeleteProcedureMayThrow)
{
    Queue queue;
    const auto throws = [](qrn_event_queue_t *, void *) { throw 1; };
    ASSERT_EQ(qrn_evq_enq_callback(queue, world.on_callback, throws, &world), 0);
    enqueue(queue, {MSG, CALLBACK});
    EXPECT_THROW(qrn_event_queue_shutdown(queue), int);
    EXPECT_EQ(qrn_event_queue_shutdown(queue), 0);
    EXPECT_EQ(done.take(), world.discarded(CALLBACK));
}

} // namespace
