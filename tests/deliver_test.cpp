// SPDX-License-Identifier: Apache-2.0
//
// What is particular to the delivery of a type: a timer's id, a message's stamps, an empty bundle.
#include "objects.h"

using namespace test;

namespace {

using DeliverTest = EventFixture;

TEST_F(DeliverTest, TimerIdIsGivenBackUnlessTheTimerGoesOn)
{
    Queue queue;
    for (int mask = 0; mask < 16; ++mask) {
        const bool recurring = mask & 1, marked = mask & 2, marking = mask & 4, shut = mask & 8;
        const bool run = !marked && !shut;
        world.xmap[1] = marked ? 1U << 5 : 0; // the mark of timer 37
        world.recurring = recurring;
        world.act = [&](int) { return world.xmap[1] |= marking ? 1U << 5 : 0, 0; };
        queue->shutdown = 0;
        ASSERT_EQ(world.enqueue(queue, TIMER), 0);
        queue->shutdown = shut;
        EXPECT_EQ(dispatch(queue), 1);
        EXPECT_EQ(done.take(),
                  world.delivered(TIMER, run, !recurring || marked || (run && marking)))
            << mask;
    }
}

// Sequence numbers are taken modulo, unsigned.
TEST_F(DeliverTest, LatencyIsStampedOnSampledMessages)
{
    Queue queue;
    world.fdm.fd_wakeup_ts.tsc_ticks = 77;
    for (unsigned i = 0; i < 4 * 3 * 5 * 8; ++i) {
        const unsigned every = std::array{0U, 1U, 4U}[i % 3];
        const bool again = i / 60 & 1, before = i / 60 & 2, notice = i / 60 & 4;
        world.ctx.attr = {before ? 6U : 5U, static_cast<int>(every)};
        world.sequence = std::array{8U, 9U, 11U, 12U, 0x80000000U}[i % 5];
        const bool stamped = every != 0 && world.sequence % every == 0 && !notice;
        ASSERT_EQ(world.enqueue(queue, std::array{MSG, WRCV, REQ, IMSG}[i % 4]), 0);
        auto *msg = qrn_msg_retain(static_cast<qrn_msg_t *>(world.payload));
        msg->type = notice ? QRN_MSG_TYPE_NOTICE : std::array{0, 2, 3}[i / 4 % 3];
        msg->flags = again ? 0x1200 : 0x1000;
        EXPECT_EQ(dispatch(queue), 1);
        EXPECT_EQ(msg->flags, stamped || again ? 0x1200 : 0x1000) << i;
        EXPECT_EQ(msg->stamps.fd_wakeup_ts.tsc_ticks, stamped && !again ? 77U : 0U) << i;
        EXPECT_EQ(msg->stamps.msg_pre_callback_ts.tsc_ticks, stamped && before ? ticks.load() : 0U);
        qrn_msg_delete(msg);
    }
}

TEST_F(DeliverTest, EmptyBundleHasNoTimeToShare)
{
    Queue queue("svc");
    ASSERT_EQ(qrn_evq_enq_msg_bundle(queue, world.new_bundle({})), 0);
    EXPECT_EQ(dispatch(queue), 1);
    EXPECT_EQ(figures_of(queue, MSG).min, no_sample);
}

TEST_F(DeliverTest, UnknownTypeIsReportedAndPassedOver)
{
    Queue queue;
    ASSERT_EQ(world.enqueue(queue, UNBLOCK), 0);
    first_event(queue)->type = BUNDLE + 1;
    EXPECT_EQ(dispatch(queue), 1);
    EXPECT_EQ(logged.take(),
              strings{"5 Core-5688-390: event dispatch - unknown event type (13)\n"});
}

} // namespace
