// SPDX-License-Identifier: Apache-2.0
//
// Delivery of each type of event, with what follows it: releases, figures, the registry, results.
#include "objects.h"

using namespace test;

namespace {

enum scenario { PLAIN, DEFUNCT, SHUT_DOWN, MINUS_ONE, THROWING };

class DeliverTest : public EventFixture {
protected:
    void set_defunct(int defunct)
    {
        for (int *flag : {&world.rcv.defunct, &world.wrcv.defunct, &world.src.defunct,
                          &world.req.defunct, &world.ctx.defunct})
            *flag = defunct;
        world.xmap[1] = defunct ? 1U << 5 : 0; // the mark of timer 37
    }
    static bool runs(int type, scenario in)
    {
        const bool has_target = is_declined(type) && type != IO && type != IMSG && type != BUNDLE;
        return has_callback(type) && !(in == DEFUNCT && has_target) &&
               !(in == SHUT_DOWN && is_declined(type) && type != BUNDLE);
    }
    strings traces_of(qrn_event_queue_t *evq, int type, int x)
    {
        const void *load = world.payload, *of = world.object(type), *ev = first_event(evq);
        const void *q = evq, *timer = &world.timer, *self = &world;
        const strings lines[] = {
            {},
            {text("MSG rcv %p msg %p x %d\n", of, load, x)},
            {text("TIMER id 37 x %d\n", x), text("timer evq %p freeidx 37\n", timer)},
            {text("IO handle 7 ev 0x3\n")},
            {text("SRC %p event 42 ed %p reclaim 1 x %d\n", of, load, !x)},
            {text("REQUEST req %p msg %p x %d\n", of, load, x)},
            {},
            {text("DIRECTED MSG ctx %p msg %p\n", of, load)},
            {text("WRCV MSG rcv %p msg %p x %d\n", of, load, x)},
            {text("CANCEL obj %p\n", load), text("evq_check_obj evq %p ev %p matches 0\n", q, ev)},
            {text("CTX SRC %p event 43 ed %p reclaim 1 x %d\n", of, load, x)},
            {text("CALLBACK %p proc %p clientd %p\n", ev,
                  reinterpret_cast<void *>(World::on_callback), self)},
            {text("EVENT BUNDLE %p [3 events]\n", load)},
        };
        strings out = lines[type];
        if (!out.empty())
            out[0] = text("evq %p dispatch ", q) + out[0];
        return out;
    }
    // The service time's figures, of a callback that took 1000 ticks if it ran.
    static figures times_of(int type, bool run, int of)
    {
        kfx_hrtime_ivl_t time = run ? 1000 : 0;
        if (type == BUNDLE && (of == MSG || of == WRCV))
            time = of == MSG ? 333 : 334;
        else if (of != type || (type == CTX_SRC && !run))
            return {0, 0, no_sample, 0, 0};
        return {0, 0, time, time, time};
    }
    void expect_figures(Queue &queue, int type, bool run)
    {
        counts total{};
        count(total, type);
        EXPECT_EQ(counts_of(queue), counts{});
        EXPECT_EQ(counts_of(queue, &figures::tot), total);
        EXPECT_EQ(queue->qsz, 0);
        EXPECT_TRUE(queue->age_min == 70 && queue->age_mean == 70 && queue->age_max == 70);
        for (int of = MSG; of <= CALLBACK; ++of) {
            figures times = figures_of(queue, of);
            times.now = times.tot = 0;
            EXPECT_TRUE(of == UNBLOCK || times == times_of(type, run, of)) << of;
        }
    }
    void expect_delivery(const char *tracking, int type, scenario in)
    {
        SCOPED_TRACE(text("type %d scenario %d, %s", type, in, tracking));
        Queue queue(text("count svc age size=99 %s", tracking));
        set_defunct(in == DEFUNCT);
        ASSERT_EQ(world.enqueue(queue, type), 0);
        const bool run = runs(type, in);
        const strings journal = world.delivered(type, run);
        const strings traces = traces_of(queue, type, in == DEFUNCT);
        done.take();
        ticks += 70;
        queue->shutdown = in == SHUT_DOWN;
        world.act = [&](int t) {
            const auto *thread = queue->thrd_tail.next;
            EXPECT_EQ(thread != &queue->thrd_head, *tracking != '\0');
            EXPECT_TRUE(*tracking == '\0' || thread->ev->type == t);
            ticks += 1000;
            return in == THROWING ? throw t : in == MINUS_ONE ? -1 : t;
        };
        log_state.dmask = KFX_DBG_EVENT;
        const bool ends = run && in == MINUS_ONE && type != CALLBACK && type != BUNDLE;
        const bool throws = run && in == THROWING;
        EXPECT_EQ(dispatch(queue, ends || throws ? QRN_EVQ_DISPATCH_BLOCK : QRN_EVQ_DISPATCH_POLL),
                  throws ? threw
                  : ends ? -1
                         : 1);
        log_state.dmask = 0;
        EXPECT_TRUE(logged.take() == traces || in == THROWING);
        EXPECT_EQ(done.take(), journal);
        expect_figures(queue, type, run);
        EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
        EXPECT_EQ(qrn_msg_live(), 0);
        world.act = [](int) { return 0; };
        ASSERT_EQ(world.enqueue(queue, CALLBACK), 0);
        EXPECT_EQ(dispatch(queue), 1); // goes on
        done.take();
    }
};

TEST_F(DeliverTest, EveryTypeInEveryScenario)
{
    for (const char *tracking : {"", "cancel", "purge=0"})
        for (int type = MSG; type <= BUNDLE; ++type)
            for (scenario in : {PLAIN, DEFUNCT, SHUT_DOWN, MINUS_ONE, THROWING})
                expect_delivery(tracking, type, in);
}

TEST_F(DeliverTest, TimerIdIsGivenBackUnlessTheTimerGoesOn)
{
    Queue queue;
    for (int mask = 0; mask < 16; ++mask) {
        const bool recurring = mask & 1, marked = mask & 2, marking = mask & 4, shut = mask & 8;
        SCOPED_TRACE(mask);
        set_defunct(marked);
        world.recurring = recurring;
        world.act = [&](int) { return set_defunct(marked || marking), 0; };
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
    for (unsigned i = 0; i < 4 * 3 * 5 * 32; ++i) {
        SCOPED_TRACE(i);
        const int type = std::array{MSG, WRCV, REQ, IMSG}[i % 4],
                  every = std::array{0, 1, 4}[i % 3];
        const unsigned mask = i / 60;
        const bool again = mask & 4, skipped = mask & 8, before = mask & 16;
        world.ctx.attr.rcv_delivery_latency = every;
        world.ctx.attr.timestamp_mask = before ? 6 : 5;
        world.sequence = std::array{8U, 9U, 11U, 12U, 0x80000000U}[i % 5];
        const bool due = every != 0 && world.sequence % static_cast<unsigned>(every) == 0;
        ASSERT_EQ(world.enqueue(queue, type), 0);
        auto *msg = qrn_msg_retain(static_cast<qrn_msg_t *>(world.payload));
        auto &stamps_of = msg->stamps;
        msg->type = static_cast<int>(mask & 3);
        stamps_of.fd_wakeup_ts.tsc_ticks = stamps_of.msg_pre_callback_ts.tsc_ticks = 5;
        msg->flags = again ? 0x1200 : 0x1000;
        queue->shutdown = skipped;
        EXPECT_EQ(dispatch(queue), 1);
        queue->shutdown = 0;
        const bool stamped = !skipped && due && msg->type != QRN_MSG_TYPE_NOTICE;
        EXPECT_EQ(msg->flags, stamped || again ? 0x1200 : 0x1000);
        EXPECT_EQ(stamps_of.fd_wakeup_ts.tsc_ticks, stamped && !again ? 77U : 5U);
        EXPECT_EQ(stamps_of.msg_pre_callback_ts.tsc_ticks, stamped && before ? ticks.load() : 5U);
        qrn_msg_delete(msg);
    }
}

// By those that it had, even if its callback takes one out.
TEST_F(DeliverTest, BundleSplitsItsTimeByMessages)
{
    const auto expected = [](long tot, kfx_hrtime_ivl_t t) {
        return figures{0, tot, tot == 0 ? no_sample : t, t, t};
    };
    for (const auto &[data, wild] : {std::pair{0, 0}, {1, 0}, {0, 1}, {4, 3}}) {
        const int all = data + wild;
        Queue queue("svc count");
        qrn_event_bundle_t *bundle = world.new_bundle({});
        for (int m = 0; m < all; ++m)
            world.add(bundle, m < data ? MSG : WRCV);
        world.act = [&](int) {
            bundle->events[0].ctx = nullptr;
            if (all != 0)
                qrn_msg_delete(bundle->events[0].info.msg.msg);
            ticks += 700;
            return -1;
        };
        ASSERT_EQ(qrn_evq_enq_msg_bundle(queue, bundle), 0);
        EXPECT_EQ(dispatch(queue), 1);
        const unsigned share = all == 7 ? 100 : 700;
        EXPECT_EQ(figures_of(queue, MSG), expected(data, data == 0 ? 0 : share));
        EXPECT_EQ(figures_of(queue, WRCV), expected(wild, wild == 0 ? 0 : share));
    }
}

// A fatal check leaves the payload where it was.
TEST_F(DeliverTest, MissingCallbacksAndObjectsAreReported)
{
    Queue queue;
    const std::tuple<int, const char *, void (*)(qrn_event_t &)> rows[] = {
        {MSG, "ev->info.msg.proc!=NULL", [](auto &ev) { ev.info.msg.proc = {}; }},
        {WRCV, "ev->info.wrcv_msg.proc!=NULL", [](auto &ev) { ev.info.wrcv_msg.proc = {}; }},
        {REQ, "ev->info.req.proc!=NULL", [](auto &ev) { ev.info.req.proc = {}; }},
        {IMSG, "ev->info.imsg.proc!=NULL", [](auto &ev) { ev.info.imsg.proc = {}; }},
        {TIMER, "ev->info.timer.proc!=NULL", [](auto &ev) { ev.info.timer.proc = {}; }},
        {IO, "ev->info.io.proc!=NULL", [](auto &ev) { ev.info.io.proc = {}; }},
        {SRC, "ev->info.src.proc!=NULL", [](auto &ev) { ev.info.src.proc = {}; }},
        {CTX_SRC, "ev->info.ctx_src.proc!=NULL", [](auto &ev) { ev.info.ctx_src.proc = {}; }},
        {CANCEL, "ev->info.cancel.obj!=NULL", [](auto &ev) { ev.info.cancel.obj = {}; }},
        {CALLBACK, "ev->info.callback.proc!=NULL", [](auto &ev) { ev.info.callback = {}; }},
        {BUNDLE, "bundle!=NULL", [](auto &ev) { ev.info.msg_bundle = {}; }},
        {BUNDLE, "ev->ctx!=NULL", [](auto &ev) { ev.ctx = {}; }},
        {BUNDLE, "ev->ctx->rcv_delivery_batching_cb!=NULL",
         [](auto &ev) { ev.ctx->rcv_delivery_batching_cb = {}; }},
    };
    for (auto &[type, expr, spoil] : rows) {
        ASSERT_EQ(world.enqueue(queue, type), 0);
        spoil(*first_event(queue));
        EXPECT_EQ(check_failed_by([&] { dispatch(queue); }), expr);
        if (type != SRC && type != CTX_SRC)
            world.drop(type);
    }
    for (int type : {0, 13}) {
        ASSERT_EQ(qrn_tl_queue_enqueue(queue->q, hand_made(queue, type)), 0);
        EXPECT_EQ(dispatch(queue), 1);
        const auto line = text("5 Core-5688-390: event dispatch - unknown event type (%d)\n", type);
        EXPECT_EQ(logged.take(), strings{line});
    }
}

} // namespace
