// SPDX-License-Identifier: Apache-2.0
//
// What becomes of an event: each type, enqueued and ended in each way, with what the callback gets, what is
// released, and the figures. Missing arguments of the operations.
#include "objects.h"

using namespace test;

namespace {

bool append_fails;

} // namespace

extern "C" {
int __real_qrn_tl_queue_enqueue(qrn_tl_queue_t *q, void *value);
int __wrap_qrn_tl_queue_enqueue(qrn_tl_queue_t *q, void *value)
{
    return append_fails ? -1 : __real_qrn_tl_queue_enqueue(q, value);
}
}

namespace {

// Delivered: to a callback, to a target that is defunct, with the queue's flag set, to a callback that
// fails or throws, after a warning that threw. Or discarded with the queue. Or never accepted.
enum fate { PLAIN, DEFUNCT, FLAGGED, FAILS, THROWS, WARNED, SHUT_DOWN, DELETED, DECLINED, REFUSED };

class EnqueueTest : public EventFixture {
protected:
    int reports = 0, report_throws = 0;

    static int on_report(qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *clientd)
    {
        auto *self = static_cast<EnqueueTest *>(clientd);
        ++self->reports;
        return self->report_throws ? throw 1 : -1; // a result means nothing
    }
    static bool runs(int type, fate end)
    {
        const bool has_target = is_declined(type) && type != IO && type != IMSG && type != BUNDLE;
        return has_callback(type) && end != WARNED && !(end == DEFUNCT && has_target) &&
               !(end == FLAGGED && is_declined(type) && type != BUNDLE);
    }
    // The service time's figures of a group, when a callback that ran took 1000 ticks.
    static figures times_of(int group, int type, bool run, fate end)
    {
        kfx_hrtime_ivl_t time = run ? 1000 : 0;
        if (type == BUNDLE && (group == MSG || group == WRCV) && run)
            time = group == MSG ? 333 : 334;
        else if (group != type || end == WARNED || (type == CTX_SRC && !run))
            return {0, 0, no_sample, 0, 0};
        return {0, 0, time, time, time};
    }
    void expect_counts(Queue &queue, int type, bool queued, bool accepted)
    {
        counts now{}, total{};
        count(now, type, queued);
        count(total, type, accepted);
        EXPECT_EQ(counts_of(queue), now);
        EXPECT_EQ(counts_of(queue, &figures::tot), total);
        EXPECT_EQ(queue->qsz, queued * (type == BUNDLE ? 3 : 1));
    }
    void expect_dispatch(Queue &queue, int type, fate end)
    {
        const bool run = runs(type, end);
        const int result = end == WARNED || (run && end == THROWS)  ? threw
                           : run && end == FAILS && type < CALLBACK ? -1
                                                                    : 1;
        ticks += 70;
        report_throws = end == WARNED;
        queue->qsz += report_throws;
        queue->shutdown = end == FLAGGED;
        world.act = [&](int t) {
            const auto *thread = queue->thrd_tail.next;
            EXPECT_TRUE(thread == &queue->thrd_head || thread->ev->type == t);
            ticks += 1000;
            return end == THROWS ? throw t : end == FAILS ? -1 : t;
        };
        const strings journal = end == WARNED ? world.discarded(type) : world.delivered(type, run);
        EXPECT_EQ(dispatch(queue, result == 1 ? QRN_EVQ_DISPATCH_POLL : QRN_EVQ_DISPATCH_BLOCK),
                  result);
        EXPECT_EQ(done.take(), journal);
        queue->qsz -= report_throws;
        EXPECT_TRUE(queue->age_min == 70 && queue->age_mean == 70 && queue->age_max == 70);
        for (int group = MSG; group <= CALLBACK; ++group) {
            figures times = figures_of(queue, group);
            times.now = times.tot = 0;
            EXPECT_TRUE(group == UNBLOCK || times == times_of(group, type, run, end)) << group;
        }
    }
    void expect_end(const char *tracking, int type, fate end)
    {
        SCOPED_TRACE(text("type %d, fate %d, %s", type, end, tracking));
        Queue queue(text("count svc age size=1 notify %s", tracking), on_report, this);
        const bool queued = end < DECLINED || (end == DECLINED && !is_declined(type));
        for (int *flag : {&world.rcv.defunct, &world.wrcv.defunct, &world.src.defunct,
                          &world.req.defunct, &world.ctx.defunct})
            *flag = end == DEFUNCT;
        world.xmap[1] = end == DEFUNCT ? 1U << 5 : 0; // the mark of timer 37
        EXPECT_EQ(end == DECLINED ? qrn_event_queue_shutdown(queue) : 0, 0);
        append_fails = end == REFUSED;
        world.reclaim = end != FLAGGED;
        stamps = reports = report_throws = 0;
        EXPECT_EQ(world.enqueue(queue, type), append_fails ? -1 : 0);
        append_fails = false;
        EXPECT_EQ(stamps, queued || end == REFUSED);
        EXPECT_EQ(reports, queued);
        expect_counts(queue, type, queued, queued);
        strings expected(type == IO && (queued || end == REFUSED),
                         what("suspend", &world.fdm, 7, 3));
        if (type == IO && end == REFUSED)
            expected.push_back(world.discarded(IO)[0]);
        EXPECT_EQ(done.take(), expected);
        expected = end == SHUT_DOWN ? world.discarded(type) : strings{};
        if (queued && end <= WARNED)
            expect_dispatch(queue, type, end);
        if (end == SHUT_DOWN)
            qrn_event_queue_shutdown(queue);
        if (end < DELETED)
            expect_counts(queue, type, 0, 1);
        EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
        queue.end();
        EXPECT_EQ(done.take(), expected);
        if (!queued || ((type == SRC || type == CTX_SRC) && world.reclaim == 0))
            world.drop(type); // still the caller's
        EXPECT_EQ(qrn_msg_live(), 0);
        done.take();
    }
};

TEST_F(EnqueueTest, EveryTypeMeetsEveryFate)
{
    for (const char *tracking : {"", "cancel", "purge=0"})
        for (int type = MSG; type <= BUNDLE; ++type)
            for (int end = PLAIN; end <= REFUSED; ++end)
                expect_end(tracking, type, static_cast<fate>(end));
}

TEST_F(EnqueueTest, MissingArgumentsAreReported)
{
    Queue queue("cancel");
    World &w = world;
    qrn_event_t ev{};
    ev.type = TIMER;
    cancel_info blank{queue, nullptr, nullptr};
    int remove;
    const auto fails = [](const char *check, auto call) {
        EXPECT_EQ(check_failed_by(call), check);
    };
    for (int type = MSG; type <= BUNDLE; ++type) {
        if (type == UNBLOCK)
            continue; // records an error
        fails(type == CALLBACK ? "evq != NULL" : "evq!=NULL", [&] { w.enqueue(nullptr, type); });
        w.drop(type);
    }
    for (const kind &k : kinds) {
        fails("evq!=NULL", [&] { k.purge(nullptr, w.object(k.type)); });
        fails(k.check, [&] { k.purge(queue, nullptr); });
        fails(k.check, [&] { k.cancel(nullptr, &blank); });
        fails("cbinfo->cbproc!=NULL", [&] { k.cancel(w.object(k.type), &blank); });
    }
    fails("rcv!=NULL", [&] { qrn_evq_enq_msg_with_proc(queue, {}, w.on<MSG>, {}, {}); });
    fails("msg!=NULL", [&] { qrn_evq_enq_msg_with_proc(queue, &w.rcv, w.on<MSG>, {}, {}); });
    fails("wrcv!=NULL", [&] { qrn_evq_enq_wrcv_msg(queue, {}, {}); });
    fails("req!=NULL", [&] { qrn_evq_enq_req(queue, {}, {}); });
    fails("ctx!=NULL", [&] { qrn_evq_enq_timer(queue, {}, 1, {}, w.on<TIMER>, 0); });
    fails("proc!=NULL", [&] { qrn_evq_enq_timer(queue, &w.ctx, 1, {}, {}, 0); });
    fails("proc!=NULL", [&] { qrn_evq_enq_io(queue, &w.ctx, 1, 1, {}, {}); });
    fails("src!=NULL", [&] { qrn_evq_enq_src(queue, {}, 1, {}, {}, 0, w.on<SRC>); });
    fails("bundle!=NULL", [&] { qrn_evq_enq_msg_bundle(queue, {}); });
    fails("bundle!=NULL", [&] { qrn_event_bundle_delete(nullptr); });
    fails("ev!=NULL", [&] { qrn_event_delete(nullptr); });
    fails("ev->info.cancel.obj!=NULL", [&] { qrn_evq_check_obj(queue, &ev); });
    fails("ev_in_q!=NULL", [&] { qrn_evq_purge_rcv_cmp(nullptr, &ev); });
    fails("ev_in->type==QRN_EVQ_MSG_TYPE", [&] { qrn_evq_purge_rcv_filter(&ev, &ev, &remove); });
}

} // namespace
