// SPDX-License-Identifier: Apache-2.0
//
// The dispatch loop: how long a call stays, what ends it, what it warns of, and its figures.
#include <chrono>
#include <climits>
#include <semaphore>
#include <thread>

#include "objects.h"

using namespace test;

namespace {

timeval wall; // the wall clock that a test set; when zero it runs
journal reports;
bool report_throws;

int on_report(qrn_event_queue_t *evq, int report, size_t sz, qrn_ulong_t delay, void *clientd)
{
    reports.note("report", evq, report, sz, delay, clientd);
    return report_throws ? throw report : -1; // a result means nothing
}

} // namespace

extern "C" void kfx_current_tv(struct timeval *tv)
{
    const long usec =
        std::chrono::steady_clock::now().time_since_epoch() / std::chrono::microseconds(1);
    *tv = wall.tv_sec != 0 ? wall : timeval{usec / 1'000'000, usec % 1'000'000};
}

namespace {

constexpr const char *trackings[] = {"", "cancel"};

class DispatchTest : public EventFixture {
protected:
    void SetUp() override
    {
        EventFixture::SetUp();
        wall = {};
        report_throws = false;
    }
    void enqueue(Queue &queue, std::initializer_list<int> types)
    {
        for (int type : types)
            ASSERT_EQ(world.enqueue(queue, type), 0);
    }
};

TEST_F(DispatchTest, PollTakesOneEventAtMostAndReadsNoClock)
{
    Queue queue;
    const void *q = queue.evq;
    log_state.dmask = KFX_DBG_API;
    EXPECT_EQ(dispatch(queue), 0);
    EXPECT_EQ(qrn_event_dispatch_unblock(queue), 0);
    EXPECT_EQ(logged.take(), (strings{text("[qrn_event_dispatch] evq[%p] tmo[0]\n", q),
                                      text("[qrn_event_dispatch_unblock] evq[%p]\n", q)}));
    stamps = 0;
    enqueue(queue, {TIMER, IO, MSG});
    EXPECT_EQ(dispatch(queue), 1); // the unblock event
    for (int left = 3; left > 0; --left) {
        EXPECT_EQ(done.take().size(), left == 3 ? 1U : 2U); // a suspension, or a delivery
        EXPECT_EQ(dispatch(queue), 1);
    }
    EXPECT_EQ(dispatch(queue), 0);
    EXPECT_EQ(stamps, 0);
}

TEST_F(DispatchTest, AnyTimeoutIsTaken)
{
    for (qrn_ulong_t tmo : {1UL, 999UL, 1000UL, 1001UL, 0xFFFFFFFEUL, 0xFFFFFFFFUL, 0x100000000UL,
                            0x7FFFFFFFFFFFFFFFUL, 0x8000000000000000UL, ULONG_MAX - 1, ULONG_MAX}) {
        Queue queue;
        wall = {10, 999'999};
        enqueue(queue, {CALLBACK, MSG, UNBLOCK, CALLBACK});
        log_state.dmask = KFX_DBG_API | KFX_DBG_EVENT;
        EXPECT_EQ(qrn_event_dispatch(queue, tmo), 3); // the unblock event counts
        log_state.dmask = 0;
        const void *q = queue.evq;
        strings lines = logged.take();
        EXPECT_EQ(lines[0], text("[qrn_event_dispatch] evq[%p] tmo[%lu]\n", q, tmo));
        const unsigned long usec = 999'999 + tmo % 1000 * 1000, sec = 10 + tmo / 1000;
        const auto low = [](unsigned long n) { return static_cast<unsigned>(n); };
        EXPECT_EQ(tmo == QRN_EVQ_DISPATCH_BLOCK,
                  lines[1] != text("event_dispatch %p tmo @c %u -> endtv %u %u\n", q, low(tmo),
                                   low(sec + usec / 1'000'000), low(usec % 1'000'000)));
    }
}

TEST_F(DispatchTest, DeadlineCountsBetweenEventsOnceItHasPassed)
{
    Queue queue;
    wall = {10, 600'000};
    world.act = [](int) {
        const long usec = wall.tv_sec * 1'000'000 + wall.tv_usec + 500'000;
        wall = {usec / 1'000'000, usec % 1'000'000};
        return 0;
    };
    enqueue(queue, {CALLBACK, CALLBACK, CALLBACK, CALLBACK});
    EXPECT_EQ(dispatch(queue, 1000), 3); // after two the deadline is now
    EXPECT_EQ(dispatch(queue), 1);
}

TEST_F(DispatchTest, IdleQueueIsLeftAtTheDeadlineAndNotBefore)
{
    for (const char *tracking : trackings) {
        Queue queue(tracking);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(qrn_event_dispatch(queue, 15), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(15));
    }
}

TEST_F(DispatchTest, EachUnblockEndsOneDispatcher)
{
    for (const char *tracking : trackings)
        for (qrn_ulong_t tmo : {QRN_EVQ_DISPATCH_BLOCK, 0x100000000UL, 1UL << 63, ULONG_MAX}) {
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
    for (int mask = 0; mask < 64; ++mask) {
        const bool sized = mask & 1, delayed = mask & 2, late = mask & 4, bundle = mask & 8,
                   shut = mask & 16, age = mask & 32;
        SCOPED_TRACE(mask);
        Queue queue(text("size=%d delay=%d age=%d", sized ? 2 : 0, delayed ? 100 : 0, age),
                    on_report, this);
        if (bundle)
            enqueue(queue, {BUNDLE});
        else
            enqueue(queue, {MSG, TIMER, CALLBACK});
        qrn_ulong_t size_warnings = 0, delay_warnings = 0, raised[2];
        ticks += late ? 101 * ticks_per_usec : 101 * ticks_per_usec - 1;
        queue->shutdown = shut;
        for (int size = 3; size > 0; size -= bundle ? 3 : 1) {
            const int report = (sized && size > 2) + 2 * (delayed && late);
            strings expected;
            if (report != 0 && !shut) {
                expected = {what("report", queue.evq, report, sized ? size : 0,
                                 delayed ? 100 + late : 0, this)};
                size_warnings += report % 2 != 0;
                delay_warnings += report > 1;
            }
            EXPECT_EQ(dispatch(queue), 1);
            EXPECT_EQ(reports.take(), expected);
        }
        EXPECT_EQ(queue->qsz, 0);
        EXPECT_EQ(queue->age_mean, age ? 1009U + late : 0U);
        EXPECT_EQ(qrn_event_queue_reset_stats(queue), 0); // does not reach them
        EXPECT_EQ(qrn_event_queue_retrieve_warnings(queue, &raised[0], &raised[1]), 0);
        EXPECT_EQ(raised[0], size_warnings);
        EXPECT_EQ(raised[1], delay_warnings);
    }
}

// An event whose warning throws is gone, and what it carried is released.
TEST_F(DispatchTest, MonitorCallbackMayThrow)
{
    for (int type = MSG; type <= BUNDLE; ++type) {
        SCOPED_TRACE(type);
        Queue queue("size=1 count notify cancel", on_report, this);
        report_throws = false;
        enqueue(queue, {CALLBACK});
        report_throws = true;
        EXPECT_THROW(world.enqueue(queue, type), int); // accepted: the notification comes after
        EXPECT_EQ(queue->qsz, type == BUNDLE ? 4 : 2);
        done.take();
        EXPECT_EQ(dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), threw);
        EXPECT_EQ(done.take(), world.discarded(CALLBACK));
        queue->qsz = 99;
        EXPECT_EQ(dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), threw);
        EXPECT_EQ(done.take(), world.discarded(type));
        EXPECT_EQ(counts_of(queue), counts{});
        EXPECT_EQ(queue->qsz, type == BUNDLE ? 96 : 98);
        EXPECT_EQ(qrn_msg_live(), 0);
        EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
    }
}

TEST_F(DispatchTest, UpdateRuleKeepsExtremesAndARunningMean)
{
    constexpr kfx_hrtime_ivl_t big = 1ULL << 63;
    const struct {
        std::vector<kfx_hrtime_ivl_t> samples;
        kfx_hrtime_ivl_t min, mean, max;
    } rows[] = {
        {{100}, 100, 100, 100},
        {{100, 200}, 100, 110, 200},
        {{200, 100, 5}, 5, 171, 200}, // 190, then 171.5
        {{19, 10}, 10, 18, 19},       // 18.1
        {{0}, 0, 0, 0},
        {{0, 0, 50, 60}, 0, 51, 60}, // a mean of 0 is replaced
        {{9, 0}, 0, 8, 9},
        {{big, big}, big, big, big},
        {{3 * (big / 2), big / 2}, big / 2, 14 * (big / 10), 3 * (big / 2)}, // nearly
    };
    for (auto &row : rows) {
        kfx_hrtime_ivl_t min = no_sample, mean = 0, max = 0;
        for (kfx_hrtime_ivl_t sample : row.samples) {
            kfx_hrtime_t start{}, end{};
            start.tsc_ticks = 12345;
            end.tsc_ticks = 12345 + sample;
            qrn_evq_update_svc_time(&start, &end, &min, &mean, &max);
        }
        EXPECT_EQ(min, row.min);
        EXPECT_EQ(max, row.max);
        EXPECT_LE(std::max(mean, row.mean) - std::min(mean, row.mean), row.mean >> 40);
    }
}

TEST_F(DispatchTest, ItemWithoutAnEventIsReportedAndPassedOver)
{
    Queue queue("cancel");
    EXPECT_EQ(qrn_tl_queue_enqueue(queue->q, nullptr), 0);
    enqueue(queue, {UNBLOCK});
    EXPECT_EQ(dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), 1);
    EXPECT_EQ(checks.take(), strings{"ev!=NULL"});
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
    EXPECT_EQ(done.take(), strings{what("discard", queue.evq, &world)});
}

} // namespace
