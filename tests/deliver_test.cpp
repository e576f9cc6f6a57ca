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
        const void *q = evq, *load = world.payload, *ctx = &world.ctx, *ev = first_event(evq);
        const void *rcv = &world.rcv, *wrcv = &world.wrcv, *src = &world.src, *req = &world.req,
                   *timer = &world.timer;
        const strings lines[] = {
            {},
            {text("evq %p dispatch MSG rcv %p msg %p x %d\n", q, rcv, load, x)},
            {text("evq %p dispatch TIMER id 37 x %d\n", q, x),
             text("timer evq %p freeidx 37\n", timer)},
            {text("evq %p dispatch IO handle 7 ev 0x3\n", q)},
            {text("evq %p dispatch SRC %p event 42 ed %p reclaim 1 x %d\n", q, src, load, !x)},
            {text("evq %p dispatch REQUEST req %p msg %p x %d\n", q, req, load, x)},
            {},
            {text("evq %p dispatch DIRECTED MSG ctx %p msg %p\n", q, ctx, load)},
            {text("evq %p dispatch WRCV MSG rcv %p msg %p x %d\n", q, wrcv, load, x)},
            {text("evq %p dispatch CANCEL obj %p\n", q, load),
             text("evq_check_obj evq %p ev %p matches 0\n", q, ev)},
            {text("evq %p dispatch CTX SRC %p event 43 ed %p reclaim 1 x %d\n", q, ctx, load, x)},
            {text("evq %p dispatch CALLBACK %p proc %p clientd %p\n", q, ev,
                  reinterpret_cast<void *>(World::on_callback), static_cast<void *>(&world))},
            {text("evq %p dispatch EVENT BUNDLE %p [3 events]\n", q, load)},
        };
        return lines[type];
    }
    // The service times of a callback that took 1000 ticks if it ran.
    static figures times_of(int type, scenario in, int of)
    {
        const auto sample = [](kfx_hrtime_ivl_t t) { return figures{0, 0, t, t, t}; };
        if (type == BUNDLE && (of == MSG || of == WRCV))
            return sample(of == MSG ? 333 : 334);
        if (of != type || (type == CTX_SRC && !runs(type, in)))
            return {0, 0, no_sample, 0, 0};
        return sample(runs(type, in) ? 1000 : 0);
    }
    void expect_figures(Queue &queue, int type, scenario in)
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
            EXPECT_TRUE(of == UNBLOCK || times == times_of(type, in, of)) << of;
        }
    }
    void expect_delivery(const char *tracking, int type, scenario in)
    {
        SCOPED_TRACE(text("type %d scenario %d, %s", type, in, tracking));
        Queue queue(text("count svc age size=99 %s", tracking));
        set_defunct(in == DEFUNCT);
        ASSERT_EQ(world.enqueue(queue, type), 0);
        const bool run = runs(type, in);
        strings journal = world.settled(type);
        if (run)
            journal.insert(journal.begin(), world.called(type));
        const strings traces = traces_of(queue, type, in == DEFUNCT);
        done.take();
        ticks += 70;
        queue->shutdown = in == SHUT_DOWN;
        world.act = [&](int t) {
            EXPECT_EQ(queue->thrd_tail.next != &queue->thrd_head, *tracking != '\0');
            EXPECT_TRUE(*tracking == '\0' || queue->thrd_tail.next->ev->type == t);
            ticks += 1000;
            return in == THROWING ? throw t : in == MINUS_ONE ? -1 : t;
        };
        log_state.dmask = KFX_DBG_EVENT;
        if (in == THROWING && run)
            EXPECT_THROW(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), int);
        else if (in == MINUS_ONE && run && type != CALLBACK && type != BUNDLE)
            EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), -1);
        else
            EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_POLL), 1);
        log_state.dmask = 0;
        EXPECT_TRUE(logged.take() == traces || in == THROWING);
        EXPECT_EQ(done.take(), journal);
        expect_figures(queue, type, in);
        EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
        EXPECT_EQ(qrn_msg_live(), 0);
        world.act = [](int) { return 0; };
        ASSERT_EQ(world.enqueue(queue, CALLBACK), 0);
        EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_POLL), 1); // goes on
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

// A call that goes on for long keeps the records of its events for later ones.
TEST_F(DeliverTest, LongCallsDeliverAlike)
{
    Queue queue("count age size=1 cancel");
    strings expected;
    const auto enqueue = [&](int type) {
        ASSERT_EQ(world.enqueue(queue, type), 0);
        const strings lines = world.settled(type);
        if (has_callback(type))
            expected.push_back(world.called(type));
        expected.insert(expected.end(), lines.begin(), lines.end());
    };
    for (int round = 0; round < 3; ++round) {
        expected.clear();
        for (int i = 0; i < 40; ++i)
            enqueue(CALLBACK);
        for (int type = MSG; type <= 2 * BUNDLE; ++type)
            if (type % BUNDLE != UNBLOCK)
                enqueue(type % BUNDLE + (type % BUNDLE == 0) * BUNDLE);
        enqueue(UNBLOCK);
        done.take();
        EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), 63);
        EXPECT_EQ(done.take(), expected);
        EXPECT_EQ(counts_of(queue), counts{});
        EXPECT_EQ(queue->qsz, 0);
        EXPECT_EQ(qrn_msg_live(), 0);
    }
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
        EXPECT_EQ(qrn_event_dispatch(queue, 0), 1);
        const bool run = !marked && !shut;
        strings expected = world.settled(TIMER, !recurring || marked || (run && marking));
        if (run)
            expected.insert(expected.begin(), world.called(TIMER));
        EXPECT_EQ(done.take(), expected);
    }
}

// Sequence numbers are taken modulo, unsigned.
TEST_F(DeliverTest, LatencyIsStampedOnSampledMessages)
{
    Queue queue;
    for (int type : std::initializer_list<int>{MSG, WRCV, REQ, IMSG})
        for (int every : {0, 1, 4})
            for (qrn_uint_t sequence : {8U, 9U, 11U, 12U, 0x80000000U})
                for (int mask = 0; mask < 32; ++mask) {
                    SCOPED_TRACE(text("%d: every %d, number %u, %x", type, every, sequence, mask));
                    const int msg_type = mask & 3;
                    const bool again = mask & 4, skipped = mask & 8;
                    world.ctx.attr.rcv_delivery_latency = every;
                    world.ctx.attr.timestamp_mask = mask & 16 ? 6 : 5;
                    world.fdm.fd_wakeup_ts.tsc_ticks = 77;
                    world.sequence = sequence;
                    ASSERT_EQ(world.enqueue(queue, type), 0);
                    auto *msg = qrn_msg_retain(static_cast<qrn_msg_t *>(world.payload));
                    msg->type = msg_type;
                    msg->stamps.fd_wakeup_ts.tsc_ticks = msg->stamps.msg_pre_callback_ts.tsc_ticks =
                        5;
                    msg->flags = again ? 0x1200 : 0x1000;
                    queue->shutdown = skipped;
                    EXPECT_EQ(qrn_event_dispatch(queue, 0), 1);
                    queue->shutdown = 0;
                    const bool stamped = !skipped && every != 0 &&
                                         sequence % static_cast<unsigned>(every) == 0 &&
                                         msg_type != QRN_MSG_TYPE_NOTICE;
                    EXPECT_EQ(msg->flags, stamped || again ? 0x1200 : 0x1000);
                    EXPECT_EQ(msg->stamps.fd_wakeup_ts.tsc_ticks, stamped && !again ? 77U : 5U);
                    EXPECT_EQ(msg->stamps.msg_pre_callback_ts.tsc_ticks,
                              stamped && mask & 16 ? ticks.load() : 5U);
                    qrn_msg_delete(msg);
                }
}

TEST_F(DeliverTest, BundleSplitsItsTimeByMessages)
{
    for (long data = 0; data <= 4; ++data)
        for (long wild = 0; wild <= 3; ++wild)
            for (long time : {0L, 7L, 1000L}) {
                SCOPED_TRACE(text("%ld and %ld in %ld", data, wild, time));
                Queue queue("svc count");
                qrn_event_bundle_t *bundle = world.new_bundle({});
                for (long i = 0; i < data + wild; ++i)
                    world.add(bundle, i < data ? MSG : WRCV);
                world.act = [&](int) { // takes a message out, the others stay
                    if (data + wild == 0)
                        return -1;
                    bundle->events[0].ctx = nullptr;
                    qrn_msg_delete(bundle->events[0].info.msg.msg);
                    ticks += static_cast<uint64_t>(time);
                    return -1;
                };
                ASSERT_EQ(qrn_evq_enq_msg_bundle(queue, bundle), 0);
                EXPECT_EQ(qrn_event_dispatch(queue, 0), 1);
                EXPECT_EQ(done.take().size(), data + wild == 0 ? 1U : 2U); // callback, consumed
                const long all = data + wild, share = all == 0 ? 0 : data * time / all;
                const auto expected = [](long tot, long sum) {
                    const auto t = static_cast<kfx_hrtime_ivl_t>(tot == 0 ? 0 : sum / tot);
                    return figures{0, tot, tot == 0 ? no_sample : t, t, t};
                };
                EXPECT_EQ(figures_of(queue, MSG), expected(data, share));
                EXPECT_EQ(figures_of(queue, WRCV), expected(wild, time - share));
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
        EXPECT_EQ(check_failed_by([&] { qrn_event_dispatch(queue, 0); }), expr);
        if (type != SRC && type != CTX_SRC)
            world.drop(type);
    }
    for (int type : {0, 13}) {
        ASSERT_EQ(qrn_tl_queue_enqueue(queue->q, hand_made(queue, type)), 0);
        EXPECT_EQ(qrn_event_dispatch(queue, 0), 1);
        EXPECT_EQ(
            logged.take(),
            strings{text("5 Core-5688-390: event dispatch - unknown event type (%d)\n", type)});
    }
}

} // namespace
