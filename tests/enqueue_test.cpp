// SPDX-License-Identifier: Apache-2.0
//
// Enqueue operations: the record that reaches the queue, and the figures, stamps, notifications and
// traces on the way. What the payload holds shows in its delivery.
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

int reports; // calls of the monitor callback, whose result means nothing
int on_report(qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *)
{
    return ++reports, -1;
}

class EnqueueTest : public EventFixture {
protected:
    // Behind the twelve types: the operation that is given the callback of a wildcard receiver.
    static constexpr int wrcv_with_proc = BUNDLE + 1, operations = wrcv_with_proc;

    char clientd = 0;

    static int type_of(int operation) { return operation == wrcv_with_proc ? WRCV : operation; }
    int enqueue(qrn_event_queue_t *evq, int operation)
    {
        if (operation != wrcv_with_proc)
            return world.enqueue(evq, operation);
        return qrn_evq_enq_wrcv_msg_with_proc(evq, &world.wrcv, World::on<MSG>, world.new_msg(),
                                              &clientd);
    }
    std::string trace_of(qrn_event_queue_t *evq, int operation)
    {
        const void *q = evq, *load = world.payload, *of = world.object(type_of(operation));
        const auto proc = [](auto *p) { return reinterpret_cast<const void *>(p); };
        const void *on_msg = proc(&World::on<MSG, qrn_rcv_t *, qrn_msg_t *, void *>);
        const void *ev = first_event(evq), *self = &world, *ctx = &world.ctx;
        const std::string lines[] = {
            "",
            text("MSG rcv %p msg %p proc %p", of, load, on_msg),
            text("TIMER id 37"),
            text("IO handle 7 ev 0x3"),
            text("SRC src %p event 42", of),
            text("REQUEST req %p msg %p", of, load),
            text("UNBLOCK"),
            text("DIRECTED MSG ctx %p msg %p", of, load),
            text("WRCV MSG rcv %p msg %p", of, load),
            text("CANCEL %p", load),
            text("CTX SRC ctx %p event 43", of),
            text("CALLBACK %p proc %p delproc %p clientd %p", ev, proc(World::on_callback),
                 proc(World::on_discard), self),
            text("MSG BUNDLE ctx %p [3 msgs]", ctx),
            text("WRCV MSG rcv %p msg %p proc %p", of, load, on_msg),
        };
        return text("evq %p enq ", q) + lines[operation] + "\n";
    }
    strings io_journal(int operation, bool resumed = false)
    {
        strings lines(operation == IO, what("suspend", &world.fdm, 7, 3));
        if (operation == IO && resumed)
            lines.push_back(world.settled(IO)[0]);
        return lines;
    }
};

TEST_F(EnqueueTest, QueuesARecordBehindTheOthersAndCountsIt)
{
    for (int operation = 1; operation <= operations; ++operation)
        for (int other = 1; other <= operations; other += 3) {
            SCOPED_TRACE(text("operations %d, %d", operation, other));
            Queue queue(text("count=%d", other != 1));
            log_state.dmask = KFX_DBG_EVENT;
            ASSERT_EQ(enqueue(queue, operation), 0);
            log_state.dmask = 0;
            EXPECT_EQ(logged.take(), strings{trace_of(queue, operation)});
            const qrn_event_t *ev = first_event(queue);
            constexpr qrn_rcv_cb_proc proc = World::on<MSG>;
            EXPECT_EQ(ev->type, type_of(operation));
            EXPECT_EQ(ev->evq, queue.evq);
            EXPECT_EQ(ev->ctx,
                      operation == UNBLOCK || operation == CALLBACK ? nullptr : &world.ctx);
            EXPECT_TRUE(operation != wrcv_with_proc ||
                        (ev->info.wrcv_msg.clientd == &clientd && ev->info.wrcv_msg.proc == proc));
            EXPECT_EQ(done.take(), io_journal(operation));
            ASSERT_EQ(enqueue(queue, other), 0);
            EXPECT_EQ(first_event(queue), ev);
            counts expected{};
            if (other != 1) {
                count(expected, type_of(operation));
                count(expected, type_of(other));
            }
            EXPECT_EQ(counts_of(queue), expected);
            EXPECT_EQ(counts_of(queue, &figures::tot), expected);
            done.take();
        }
}

TEST_F(EnqueueTest, RefusalsTouchNothing)
{
    for (int operation = 1; operation <= operations; ++operation)
        for (bool failing : {false, true}) { // or shut down
            SCOPED_TRACE(text("operation %d, failing %d", operation, failing));
            const int type = type_of(operation);
            Queue queue("count size=1 age notify", on_report);
            append_fails = failing;
            EXPECT_EQ(failing ? 0 : qrn_event_queue_shutdown(queue), 0);
            stamps = reports = 0;
            const bool refused = failing || is_declined(type);
            EXPECT_EQ(enqueue(queue, operation), failing ? -1 : 0);
            append_fails = false;
            counts expected{};
            if (!refused)
                count(expected, type);
            EXPECT_EQ(first_event(queue) == nullptr, refused);
            EXPECT_EQ(counts_of(queue), expected);
            EXPECT_EQ(counts_of(queue, &figures::tot), expected);
            EXPECT_EQ(queue->qsz, !refused);
            EXPECT_TRUE(failing || stamps == !refused);
            EXPECT_EQ(reports, !refused);
            EXPECT_EQ(done.take(), failing ? io_journal(operation, true) : strings{});
            if (refused)
                world.drop(type); // still the caller's
            done.take();
        }
}

TEST_F(EnqueueTest, MissingArgumentsAreReported)
{
    Queue queue("count");
    World &w = world;
    qrn_msg_t *msg = w.new_msg();
    const auto evq = "evq!=NULL", m = "msg!=NULL", ctx = "ctx!=NULL", proc = "proc!=NULL";
    const char *const no = nullptr;
    check_nulls({evq, "rcv!=NULL", no, m, no}, qrn_evq_enq_msg_with_proc, queue, &w.rcv, w.on<MSG>,
                msg, &w);
    check_nulls({evq, "bundle!=NULL"}, qrn_evq_enq_msg_bundle, queue, nullptr);
    check_nulls({evq, "wrcv!=NULL", m}, qrn_evq_enq_wrcv_msg, queue, &w.wrcv, msg);
    check_nulls({evq, "wrcv!=NULL", no, m, no}, qrn_evq_enq_wrcv_msg_with_proc, queue, &w.wrcv,
                w.on<MSG>, msg, &w);
    check_nulls({evq, ctx, no, no, proc, no}, qrn_evq_enq_timer, queue, &w.ctx, 1, &w, w.on<TIMER>,
                0);
    check_nulls({evq, ctx, no, no, no, proc}, qrn_evq_enq_io, queue, &w.ctx, 1, 1, &w, w.on<IO>);
    check_nulls({evq, "src!=NULL", no, no, no, no, proc}, qrn_evq_enq_src, queue, &w.src, 1, &w,
                nullptr, 0, w.on<SRC>);
    check_nulls({evq, ctx, no, no, no, no, proc}, qrn_evq_enq_ctx_src, queue, &w.ctx, 1, &w,
                nullptr, 0, w.on<CTX_SRC>);
    check_nulls({evq, "req!=NULL", m}, qrn_evq_enq_req, queue, &w.req, msg);
    check_nulls({evq, ctx, m, no, no}, qrn_evq_enq_imsg, queue, &w.ctx, msg, &w, w.on<IMSG>);
    check_nulls({evq, no, no}, qrn_evq_enq_cancel, queue, &w.ctx, nullptr);
    check_nulls({"evq != NULL", no, no, no}, qrn_evq_enq_callback, queue, w.on_callback, nullptr,
                &w);
    EXPECT_EQ(first_event(queue), nullptr);
    EXPECT_EQ(counts_of(queue), counts{});
    EXPECT_EQ(done.take(), strings{});
    qrn_msg_delete(msg);
    // The hooks, called where they are not due.
    qrn_event_t ev{};
    EXPECT_EQ(qrn_evq_enq_mon_hook(queue, &ev, 1), 0);
    EXPECT_EQ(qrn_evq_post_enq_mon_hook(queue), 0);
    EXPECT_EQ(checks.take(),
              (strings{"evq->monproc!=NULL||evq->attr->q_age!=0", "evq->monproc!=NULL"}));
}

} // namespace
