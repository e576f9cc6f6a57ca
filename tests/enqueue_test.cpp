// SPDX-License-Identifier: Apache-2.0
//
// What becomes of an event: each type, enqueued and ended in each way, with what the callback gets,
// what is released, and the figures. Missing arguments of the operations.
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

// Delivered: to a callback, to a target that is defunct, with the queue's flag set, to a callback
// that fails or throws, after a warning that threw. Or discarded with the queue. Or never accepted.
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
        const bool has_target = is_declined(type) && type != IO && type != IMSG && type != BUNDLE;
        const bool run = has_callback(type) && end != WARNED && !(end == DEFUNCT && has_target) &&
                         !(end == FLAGGED && is_declined(type) && type != BUNDLE);
        const int result = end == WARNED || (run && end == THROWS)  ? threw
                           : run && end == FAILS && type < CALLBACK ? -1
                                                                    : 1;
        const strings journal = end == WARNED ? world.discarded(type) : world.delivered(type, run);
        ticks += 70;
        queue->qsz += report_throws = end == WARNED; // one too many
        queue->shutdown = end == FLAGGED;
        world.act = [&](int) {
            ticks += 1000;
            return end == THROWS ? throw type : end == FAILS ? -1 : type;
        };
        EXPECT_EQ(dispatch(queue, result == 1 ? QRN_EVQ_DISPATCH_POLL : QRN_EVQ_DISPATCH_BLOCK),
                  result);
        EXPECT_EQ(done.take(), journal);
        queue->qsz -= report_throws;
        EXPECT_TRUE(queue->age_min == 70 && queue->age_mean == 70 && queue->age_max == 70);
        if (type == UNBLOCK)
            return;
        // The service time, of a callback that took 1000 ticks if it ran.
        const bool none = end == WARNED || (type == CTX_SRC && !run);
        const kfx_hrtime_ivl_t time = !run ? 0 : type == BUNDLE ? 333 : 1000;
        const figures times = figures_of(queue, type == BUNDLE ? MSG : type);
        EXPECT_EQ(times.min, none ? no_sample : time);
        EXPECT_TRUE(times.mean == time && times.max == time);
        EXPECT_EQ(figures_of(queue, WRCV).max, type == BUNDLE && run ? 334
                                               : type == WRCV        ? time
                                                                     : 0);
    }
    void expect_end(const char *tracking, int type, fate end)
    {
        SCOPED_TRACE(text("type %d, fate %d, %s", type, end, tracking));
        log_state.dmask = tracking[0] == 'c' ? ~0UL : 0; // traces change nothing
        Queue queue(text("count svc age size=1 notify %s", tracking), on_report, this);
        const bool accepted = end < DECLINED || (end == DECLINED && !is_declined(type));
        const bool tried = accepted || end == REFUSED;
        for (int *flag : {&world.rcv.defunct, &world.wrcv.defunct, &world.src.defunct,
                          &world.req.defunct, &world.ctx.defunct})
            *flag = end == DEFUNCT;
        world.xmap[1] = end == DEFUNCT ? 1U << 5 : 0; // the mark of timer 37
        world.reclaim = end != FLAGGED;
        if (end == DECLINED)
            qrn_event_queue_shutdown(queue);
        append_fails = end == REFUSED;
        stamps = reports = report_throws = 0;
        EXPECT_EQ(world.enqueue(queue, type), append_fails ? -1 : 0);
        append_fails = false;
        EXPECT_TRUE(stamps == tried && reports == accepted);
        expect_counts(queue, type, accepted, accepted);
        strings expected(type == IO && tried, what("suspend", &world.fdm, 7, 3));
        if (type == IO && end == REFUSED)
            expected.push_back(world.discarded(IO)[0]);
        EXPECT_EQ(done.take(), expected);
        expected = end == SHUT_DOWN ? world.discarded(type) : strings{};
        if (end <= WARNED)
            expect_dispatch(queue, type, end);
        if (end == SHUT_DOWN)
            qrn_event_queue_shutdown(queue);
        if (end <= SHUT_DOWN)
            expect_counts(queue, type, false, true);
        EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
        queue.end();
        EXPECT_EQ(done.take(), expected);
        if (!accepted || ((type == SRC || type == CTX_SRC) && world.reclaim == 0))
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
    Queue queue; // without any figure
    append_fails = true;
    EXPECT_EQ(world.enqueue(queue, MSG), -1);
    append_fails = false;
    world.drop(MSG);
}

// A delete procedure that a shutdown runs finds the queue shut down.
TEST_F(EnqueueTest, ShutdownDeclinesWhatItsDeleteProceduresEnqueue)
{
    Queue queue("count");
    const auto enqueues = [](qrn_event_queue_t *evq, void *w) {
        EXPECT_EQ(static_cast<World *>(w)->enqueue(evq, MSG), 0);
    };
    ASSERT_EQ(qrn_evq_enq_callback(queue, nullptr, enqueues, &world), 0);
    EXPECT_EQ(qrn_event_queue_shutdown(queue), 0);
    auto *msg = static_cast<qrn_msg_t *>(world.payload);
    EXPECT_EQ(qrn_evq_enq_wrcv_msg_with_proc(queue, &world.wrcv, world.on<WRCV>, msg, nullptr), 0);
    ASSERT_EQ(queue->data_msgs_tot + queue->wrcv_msgs_tot, 0);
    world.drop(MSG);
    EXPECT_EQ(done.take(), world.delivered(MSG, false));
}

// Calls the operation with each of the pointers missing in turn: each is a fatal check.
template <class... Args>
void need_each(int (*op)(Args...), std::type_identity_t<Args>... args)
{
    const auto need = [&](auto i) {
        std::tuple<Args...> some(args...);
        using argument = std::tuple_element_t<i, decltype(some)>;
        if constexpr (std::is_pointer_v<argument>) {
            if (std::exchange(std::get<i>(some), nullptr) == nullptr)
                return;
            EXPECT_NE(check_failed_by([&] { std::apply(op, some); }), "") << i;
        }
    };
    [&]<size_t... i>(std::index_sequence<i...>)
    {
        (need(std::integral_constant<size_t, i>{}), ...);
    }
    (std::index_sequence_for<Args...>{});
}

// A fatal check leaves the payload where it was.
TEST_F(EnqueueTest, MissingArgumentsAreReported)
{
    Queue queue; // without cancellation callbacks
    World &w = world;
    qrn_event_t ev{};
    cancel_info blank{queue, nullptr, nullptr};
    const auto fails = [](const std::string &check, auto call) {
        EXPECT_EQ(check_failed_by(call), check);
    };
    for (int type : {MSG, TIMER, IO, SRC, REQ, IMSG, WRCV, CANCEL, CTX_SRC, CALLBACK, BUNDLE}) {
        fails(type == CALLBACK ? "evq != NULL" : "evq!=NULL", [&] { w.enqueue(nullptr, type); });
        w.drop(type);
        ASSERT_EQ(w.enqueue(queue, type), 0);
        auto &info = first_event(queue)->info;
        std::memset(static_cast<void *>(&info), 0, sizeof info);
        fails(type == BUNDLE   ? "bundle!=NULL"
              : type == CANCEL ? "ev->info.cancel.obj!=NULL"
                               : text("ev->info.%s.proc!=NULL", World::names[type]),
              [&] { dispatch(queue); });
        w.drop(type);
    }
    for (const kind &k : kinds) {
        fails("evq!=NULL", [&] { k.purge(nullptr, w.object(k.type)); });
        fails(k.check, [&] { k.purge(queue, nullptr); });
        fails(k.check, [&] { k.cancel(nullptr, &blank); });
        fails("cbinfo->cbproc!=NULL", [&] { k.cancel(w.object(k.type), &blank); });
    }
    EXPECT_EQ(checks.take(), strings(std::size(kinds), "cbinfo->event_queue->attr->q_cancel_cb"));
    EXPECT_EQ(qrn_evq_enq_mon_hook(queue, &ev, 1) + qrn_evq_post_enq_mon_hook(queue), 0);
    EXPECT_EQ(checks.take(),
              (strings{"evq->monproc!=NULL||evq->attr->q_age!=0", "evq->monproc!=NULL"}));
    qrn_msg_t msg{};
    qrn_event_bundle_t bundle{};
    qrn_evq_dispatch_thrd_node_t node{};
    qrn_event_t plain{QRN_EVQ_MSG_TYPE, queue, {}, {}, {}, 0}, wild = plain;
    wild.type = QRN_EVQ_WRCV_MSG_TYPE;
    int remove = 0;
    need_each(qrn_evq_enq_msg_with_proc, queue, &w.rcv, {}, &msg, {});
    need_each(qrn_evq_enq_wrcv_msg, queue, &w.wrcv, &msg);
    need_each(qrn_evq_enq_wrcv_msg_with_proc, queue, &w.wrcv, {}, &msg, {});
    need_each(qrn_evq_enq_timer, queue, &w.ctx, 1, {}, w.on<TIMER>, 0);
    need_each(qrn_evq_enq_io, queue, &w.ctx, 1, 1, {}, w.on<IO>);
    need_each(qrn_evq_enq_src, queue, &w.src, 1, {}, {}, 0, w.on<SRC>);
    need_each(qrn_evq_enq_ctx_src, queue, &w.ctx, 1, {}, {}, 0, w.on<CTX_SRC>);
    need_each(qrn_evq_enq_req, queue, &w.req, &msg);
    need_each(qrn_evq_enq_imsg, queue, &w.ctx, &msg, {}, {});
    need_each(qrn_evq_enq_msg_bundle, queue, &bundle);
    need_each(qrn_event_bundle_delete, &bundle);
    need_each(qrn_event_delete, &ev);
    for (auto compare : {qrn_evq_purge_rcv_cmp, qrn_evq_purge_wrcv_cmp, qrn_evq_purge_src_cmp,
                         qrn_evq_purge_req_cmp, qrn_evq_purge_ctx_src_cmp, qrn_evq_purge_timer_cmp,
                         qrn_evq_purge_io_cmp, qrn_evq_purge_msg_bundle_cmp})
        need_each(compare, &ev, &ev);
    need_each(qrn_evq_purge_rcv_filter, &plain, &plain, nullptr);
    need_each(qrn_evq_purge_wrcv_filter, &wild, &wild, &remove);
    fails("ev_in->type==QRN_EVQ_MSG_TYPE", [&] { qrn_evq_purge_rcv_filter(&ev, &wild, {}); });
    fails("ev_in->type==QRN_EVQ_WRCV_MSG_TYPE",
          [&] { qrn_evq_purge_wrcv_filter(&ev, &plain, {}); });
    need_each(qrn_evq_check_obj, queue, &ev);
    need_each(qrn_evq_cancel_thrd_check, queue, &ev, nullptr);
    need_each(qrn_evq_thrd_enq_all, queue, nullptr);
    need_each(qrn_evq_rem_dispatch_thread, queue, &node);
    fails("node!=NULL", [&] { qrn_evq_dispatch_thread_ev_done(queue, nullptr); });
    fails("node!=NULL", [&] { qrn_evq_dispatch_thread_ev_update(queue, nullptr, &ev); });
    for (qrn_evq_cb_info_t info : {qrn_evq_cb_info_t{nullptr, &node}, {queue, nullptr}})
        EXPECT_NE(check_failed_by([&] { qrn_evq_dequeue_cb_func(&ev, &info); }), "");
    fails("evq_cb_info != NULL", [&] { qrn_evq_dequeue_cb_func(&ev, nullptr); });
}

} // namespace
