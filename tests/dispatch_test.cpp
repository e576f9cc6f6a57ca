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

class DispatchTest : public EventFixture {
protected:
    void enqueue(Queue &queue, std::initializer_list<int> types)
    {
        for (int type : types)
            ASSERT_EQ(world.enqueue(queue, type), 0);
    }
};

TEST_F(DispatchTest, DeadlineCountsBetweenEventsOnceItHasPassed)
{
    Queue queue;
    world.act = [](int) {
        const long usec = wall.tv_sec * 1'000'000 + wall.tv_usec + 500'000;
        wall = {usec / 1'000'000, usec % 1'000'000};
        return 0;
    };
    enqueue(queue, {CALLBACK, CALLBACK, CALLBACK, CALLBACK, CALLBACK});
    EXPECT_EQ(dispatch(queue), 1);
    EXPECT_EQ(dispatch(queue, 1000), 3); // after two the deadline is now
    EXPECT_EQ(dispatch(queue), 1);
    EXPECT_EQ(dispatch(queue), 0);
}

TEST_F(DispatchTest, EachUnblockEndsOneDispatcher)
{
    log_state.dmask = KFX_DBG_EVENT; // traces change nothing
    for (const char *tracking : {"", "cancel"})
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
    Queue queue("cancel");
    world.act = [&](int type) {
        if (type != TIMER)
            return 0;
        enqueue(queue, {SRC, MSG, UNBLOCK, UNBLOCK});
        EXPECT_EQ(qrn_evq_purge_src(queue, &world.src), 0);
        return qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK) == 2 ? 0 : -1;
    };
    enqueue(queue, {TIMER});
    EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), 2);
}

// Three events, singly or as one bundle, that waited just long enough or a bit longer.
TEST_F(DispatchTest, WarningsTellOfSizeAndDelay)
{
    for (unsigned mask = 0; mask < 32; ++mask) {
        const unsigned sized = mask & 1, delayed = mask / 2 & 1, late = mask / 4 & 1,
                       bundle = mask / 8 & 1, shut = mask / 16;
        SCOPED_TRACE(mask);
        Queue queue(text("size=%u delay=%u", sized * 2, delayed * 100), on_report, this);
        for (int type : {MSG, TIMER, CALLBACK})
            enqueue(queue, {bundle ? BUNDLE : type});
        qrn_ulong_t warnings[2] = {}, raised[2];
        ticks += 101 * ticks_per_usec - 1 + late;
        queue->shutdown = static_cast<int>(shut);
        for (unsigned left = 3; left > 0; --left) {
            const unsigned size = left * (bundle ? 3 : 1);
            const unsigned report = (sized && size > 2 ? 1 : 0) + 2 * (delayed & late);
            const bool due = report != 0 && !shut;
            EXPECT_EQ(dispatch(queue), 1);
            EXPECT_EQ(reports.take(), strings(due, what("report", queue.evq, report, sized * size,
                                                        delayed * (100 + late), this)));
            warnings[0] += due && report % 2 != 0;
            warnings[1] += due && report >= 2;
        }
        EXPECT_EQ(queue->qsz, 0);
        EXPECT_EQ(qrn_event_queue_reset_stats(queue), 0); // does not reach them
        EXPECT_EQ(qrn_event_queue_retrieve_warnings(queue, &raised[0], nullptr), 0);
        EXPECT_EQ(qrn_event_queue_retrieve_warnings(queue, nullptr, &raised[1]), 0);
        EXPECT_TRUE(raised[0] == warnings[0] && raised[1] == warnings[1]);
    }
}

TEST_F(DispatchTest, UpdateRuleKeepsExtremesAndARunningMean)
{
    constexpr kfx_hrtime_ivl_t half = 1UL << 63;
    const std::vector<kfx_hrtime_ivl_t> rows[] = {
        // minimum, mean, maximum, samples
        {100, 110, 200, 100, 200},  // nine parts of the old, one of the new
        {5, 171, 200, 200, 100, 5}, // 190, then 171.5
        {0, 51, 60, 0, 0, 50, 60},  // a mean of 0 is replaced
        {0, 8, 9, 9, 0},
        {half, half, half, half, half},
    };
    for (const auto &row : rows) {
        std::vector<kfx_hrtime_ivl_t> seen = row;
        std::tie(seen[0], seen[1], seen[2]) = std::tuple(no_sample, 0, 0);
        for (size_t i = 3; i < row.size(); ++i) {
            kfx_hrtime_t start{}, end{};
            end.tsc_ticks = row[i];
            qrn_evq_update_svc_time(&start, &end, &seen[0], &seen[1], &seen[2]);
        }
        EXPECT_EQ(seen, row);
    }
}

} // namespace
