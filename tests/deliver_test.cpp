// SPDX-License-Identifier: Apache-2.0
//
// What is particular to the delivery of a type: a timer's id, a message's stamps, a bundle's time.
#include "objects.h"

using namespace test;

namespace {

class DeliverTest : public EventFixture {};

TEST_F(DeliverTest, TimerIdIsGivenBackUnlessTheTimerGoesOn)
{
    Queue queue;
    for (int mask = 0; mask < 16; ++mask) {
        const bool recurring = mask & 1, marked = mask & 2, marking = mask & 4, shut = mask & 8;
        SCOPED_TRACE(mask);
        world.xmap[1] = marked ? 1U << 5 : 0; // the mark of timer 37
        world.recurring = recurring;
        world.act = [&](int) { return world.xmap[1] |= marking ? 1U << 5 : 0, 0; };
        queue->shutdown = 0;
        ASSERT_EQ(world.enqueue(queue, TIMER), 0);
        queue->shutdown = shut;
        EXPECT_EQ(dispatch(queue), 1);
        const bool run = !marked && !shut;
        EXPECT_EQ(done.take(),
                  world.delivered(TIMER, run, !recurring || marked || (run && marking)));
    }
}

// Sequence numbers are taken modulo, unsigned.
TEST_F(DeliverTest, LatencyIsStampedOnSampledMessages)
{
    Queue queue;
    world.fdm.fd_wakeup_ts.tsc_ticks = 77;
    for (unsigned i = 0; i < 4 * 3 * 5 * 8; ++i) {
        SCOPED_TRACE(i);
        const int type = std::array{MSG, WRCV, REQ, IMSG}[i % 4],
                  every = std::array{0, 1, 4}[i % 3];
        const bool again = i / 60 & 1, before = i / 60 & 2, notice = i / 60 & 4;
        world.ctx.attr.rcv_delivery_latency = every;
        world.ctx.attr.timestamp_mask = before ? 6 : 5;
        world.sequence = std::array{8U, 9U, 11U, 12U, 0x80000000U}[i % 5];
        const bool stamped =
            every != 0 && world.sequence % static_cast<unsigned>(every) == 0 && !notice;
        ASSERT_EQ(world.enqueue(queue, type), 0);
        auto *msg = qrn_msg_retain(static_cast<qrn_msg_t *>(world.payload));
        msg->type = notice ? QRN_MSG_TYPE_NOTICE : QRN_MSG_TYPE_DATA;
        msg->flags = again ? 0x1200 : 0x1000;
        EXPECT_EQ(dispatch(queue), 1);
        EXPECT_EQ(msg->flags, stamped || again ? 0x1200 : 0x1000);
        EXPECT_EQ(msg->stamps.fd_wakeup_ts.tsc_ticks, stamped && !again ? 77U : 0U);
        EXPECT_EQ(msg->stamps.msg_pre_callback_ts.tsc_ticks, stamped && before ? ticks.load() : 0U);
        qrn_msg_delete(msg);
    }
}

// By the messages that it had, even if its callback takes one out.
TEST_F(DeliverTest, BundleSplitsItsTimeByMessages)
{
    for (const auto &[data, wild] : {std::pair{0, 0}, {0, 1}, {4, 3}}) {
        Queue queue("svc");
        qrn_event_bundle_t *bundle = world.new_bundle({});
        for (int m = 0; m < data + wild; ++m)
            world.add(bundle, m < data ? MSG : WRCV);
        world.act = [&, all = data + wild](int) {
            bundle->events[0].ctx = nullptr;
            if (all != 0)
                qrn_msg_delete(bundle->events[0].info.msg.msg);
            ticks += 700;
            return -1;
        };
        ASSERT_EQ(qrn_evq_enq_msg_bundle(queue, bundle), 0);
        EXPECT_EQ(dispatch(queue), 1);
        EXPECT_EQ(figures_of(queue, MSG).min, data == 4 ? 100 : no_sample);
        EXPECT_EQ(figures_of(queue, WRCV).min, wild == 3 ? 100 : wild == 1 ? 700 : no_sample);
    }
}

// A fatal check leaves the payload where it was.
TEST_F(DeliverTest, MissingCallbacksAndObjectsAreReported)
{
    Queue queue;
    for (int type = MSG; type <= BUNDLE; ++type) {
        if (type == UNBLOCK)
            continue;
        ASSERT_EQ(world.enqueue(queue, type), 0);
        auto &info = first_event(queue)->info;
        std::memset(static_cast<void *>(&info), 0, sizeof info);
        EXPECT_EQ(check_failed_by([&] { dispatch(queue); }),
                  type == BUNDLE ? "bundle!=NULL"
                                 : text("ev->info.%s.%s!=NULL", World::names[type],
                                        type == CANCEL ? "obj" : "proc"));
        world.drop(type);
    }
    for (int type : {0, 13}) {
        ASSERT_EQ(world.enqueue(queue, UNBLOCK), 0);
        first_event(queue)->type = type;
        EXPECT_EQ(dispatch(queue), 1);
        const auto line = text("5 Core-5688-390: event dispatch - unknown event type (%d)\n", type);
        EXPECT_EQ(logged.take(), strings{line});
    }
}

} // namespace
