// SPDX-License-Identifier: Apache-2.0
//
// Queues from creation to deletion, the disposal of events, bundles, automatic monitoring, and the
// errors that operations record.
#include "objects.h"
#include "qrnerr.h"
#include "qrnmon.h"

using namespace test;

namespace {

// What the layers around the module were asked, and what they are to answer.
journal asked;
int config_result, sctl_result, monitor_result;
bool no_blocking_queue;

std::string quoted(const char *t)
{
    return t == nullptr ? "(none)" : t;
}
auto *const controller = reinterpret_cast<qrnmon_sctl_t *>(0x10UL);
auto *const other_controller = reinterpret_cast<qrnmon_sctl_t *>(0x20UL);

} // namespace

extern "C" {

int qrn_xmlcfg_check_event_queue(const char *name, qrn_event_queue_attr_t *attr)
{
    EXPECT_EQ(attr->evq_name, name);
    return asked.note("config", quoted(name)) + config_result;
}
qrn_tl_queue_t *__real_qrn_tl_queue_create(void);
qrn_tl_queue_t *__wrap_qrn_tl_queue_create(void)
{
    return no_blocking_queue ? nullptr : __real_qrn_tl_queue_create();
}
int qrn_automon_sctl_create(qrnmon_sctl_t **sctl, const qrnmon_format_func_t *format,
                            const void *format_opts, const qrnmon_transport_func_t *transport,
                            const char *opts)
{
    if (sctl_result == 0)
        *sctl = controller;
    return asked.note("create", format, format_opts, transport, quoted(opts)) + sctl_result;
}
void qrn_automon_sctl_destroy(void)
{
    asked.note("destroy");
}
int qrnmon_evq_monitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *, const char *appid, unsigned ivl)
{
    return asked.note("monitor", sctl, quoted(appid), ivl) + monitor_result;
}
int qrnmon_evq_unmonitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *evq)
{
    return asked.note("unmonitor", sctl, evq);
}
int qrnmon_errnum(void)
{
    return 17;
}
const char *qrnmon_errmsg(void)
{
    return "no route";
}

} // extern "C"

namespace {

class EvqTest : public EventFixture {
protected:
    void SetUp() override
    {
        EventFixture::SetUp();
        config_result = 1;
        sctl_result = monitor_result = 0;
        no_blocking_queue = false;
        asked.take();
    }
    void expect_no_queue(const Attr &attr, int code, const char *error, const strings &layers)
    {
        qrn_event_queue_t before{}, *evq = &before;
        qrn_seterr(0, "");
        EXPECT_EQ(qrn_event_queue_create(&evq, nullptr, nullptr, attr.attr), -1);
        EXPECT_EQ(evq, config_result <= 0 ? &before : nullptr);
        EXPECT_EQ(qrn_errnum(), code);
        EXPECT_STREQ(qrn_errmsg(), error);
        EXPECT_EQ(asked.take(), layers);
    }
    // Queues an I/O event in each, by which a purge of every queue shows the registry.
    void expect_registry(std::initializer_list<qrn_event_queue_t *> newest_first)
    {
        strings expected;
        qrn_ulong_t mark = 0;
        for (qrn_event_queue_t *evq : newest_first) {
            ASSERT_EQ(qrn_evq_enq_io(evq, &world.ctx, 1, ++mark, &world, world.on<IO>), 0);
            expected.push_back(what("resume", &world.fdm, 1, mark));
        }
        done.take();
        EXPECT_EQ(qrn_evq_purge_io_all(&world.ctx, 1, ~0UL), 0);
        EXPECT_EQ(done.take(), expected);
    }
};

TEST_F(EvqTest, ErrorsOfNullArgumentsAreRecorded)
{
    Queue q;
    qrn_event_queue_stats_t stats;
    const auto valid = "evq must be valid", evq = "evq must not be NULL",
               sctl = "sctl must not be NULL";
    const std::tuple<int, const char *, std::function<int()>> rows[] = {
        {386, "evqp must be valid", [&] { return qrn_event_queue_create({}, {}, {}, {}); }},
        {391, valid, [&] { return qrn_event_queue_shutdown(nullptr); }},
        {392, valid, [&] { return qrn_event_queue_delete(nullptr); }},
        {389, valid, [&] { return qrn_event_dispatch(nullptr, 0); }},
        {398, valid, [&] { return qrn_event_dispatch_unblock(nullptr); }},
        {393, valid, [&] { return qrn_event_queue_retrieve_stats(nullptr, &stats); }},
        {394, "stats must be valid", [&] { return qrn_event_queue_retrieve_stats(q, nullptr); }},
        {395, valid, [&] { return qrn_event_queue_reset_stats(nullptr); }},
        {406, valid, [&] { return qrn_event_queue_retrieve_warnings(nullptr, {}, {}); }},
        {396, valid, [&] { return qrn_event_queue_size(nullptr); }},
        {397, "evq must have queue_size_warning > 0", [&] { return qrn_event_queue_size(q); }},
        {399, sctl, [&] { return qrn_event_queue_monitor(nullptr, q); }},
        {400, evq, [&] { return qrn_event_queue_monitor(controller, nullptr); }},
        {401, sctl, [&] { return qrn_event_queue_unmonitor(nullptr, q); }},
        {402, evq, [&] { return qrn_event_queue_unmonitor(controller, nullptr); }},
    };
    for (auto &[code, message, call] : rows) {
        qrn_seterr(0, "");
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(qrn_errnum(), 1);
        EXPECT_EQ(qrn_errmsg(), text("CoreApi-5688-%d: ", code) + message);
    }
    check_nulls({"ev!=NULL"}, qrn_event_delete, nullptr);
    check_nulls({"bundle!=NULL"}, qrn_event_bundle_delete, nullptr);
}

TEST_F(EvqTest, LifeOfAQueue)
{
    Attr attr("name=q-1 size=5");
    qrn_event_queue_t *evq;
    log_state.dmask = KFX_DBG_API | KFX_DBG_LIFE;
    ASSERT_EQ(qrn_event_queue_create(&evq, nullptr, this, attr), 0);
    EXPECT_EQ(asked.take(), strings{"config q-1"});
    strings lines = logged.take(); // those of the attribute record stand between them
    const void *q = evq, *at = &evq, *from = attr.attr;
    EXPECT_EQ(lines.front(),
              text("[qrn_event_queue_create] evqp[%p] proc[%p] clientd[%p] attr[%p]\n", at, nullptr,
                   static_cast<void *>(this), from));
    EXPECT_EQ(lines.back(), text("#a#Cob#con qrn_event_queue_t %p\n", q));
    EXPECT_TRUE(evq->attr->q_sz_warn == 5 && evq->attr->evq_name != attr.attr->evq_name);
    EXPECT_EQ(figures_of(evq, CALLBACK), (figures{0, 0, no_sample, 0, 0}));
    EXPECT_TRUE(evq->age_min == no_sample && evq->age_mean == 0 && evq->age_max == 0);
    EXPECT_EQ(qrn_event_queue_shutdown(evq), 0);
    EXPECT_EQ(logged.take(), (strings{text("[qrn_event_queue_shutdown] evq[%p]\n", q),
                                      text("evq %p shutdown\n", q)}));
    EXPECT_EQ(qrn_event_queue_delete(evq), 0);
    lines = logged.take();
    EXPECT_EQ(lines.front(), text("[qrn_event_queue_delete] evq[%p]\n", q));
    EXPECT_EQ(lines.back(), text("#a#Cob#des qrn_event_queue_t %p\n", q));
    ASSERT_EQ(qrn_event_queue_create(&evq, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(evq->attr->q_purge_on_close, 1); // the current defaults
    EXPECT_EQ(qrn_event_queue_delete(evq), 0);
}

TEST_F(EvqTest, RegistryHoldsLiveQueuesTheNewestFirst)
{
    Queue a, b, c;
    expect_registry({c, b, a});
    b.end(); // from the middle
    Queue d;
    expect_registry({d, c, a});
    d.end(); // the first
    a.end(); // the last
    expect_registry({c});
}

// Whatever a creation had made before it failed is released: the leak checker looks.
TEST_F(EvqTest, CreationThatFailsLeavesNothing)
{
    Queue witness;
    asked.take();
    Attr plain("name=x"), monitored("monitor=3 appid=app"), odd("monitor=3");
    odd.attr->mon_transport_module = 3;
    const std::string config = "config (none)",
                      create = what("create", qrnmon_format_csv_module(), 0,
                                    qrnmon_transport_qrn_module(), "(none)");
    for (config_result = -1; config_result <= 0; ++config_result)
        expect_no_queue(plain, 0, "", {"config x"});
    no_blocking_queue = true;
    expect_no_queue(monitored, 0, "", {config});
    no_blocking_queue = false;
    expect_no_queue(odd, 1, "CoreApi-5688-387: monitor_transport is not supported", {config});
    sctl_result = -1;
    expect_no_queue(monitored, 0, "", {config, create});
    sctl_result = 0;
    monitor_result = -1;
    expect_no_queue(monitored, 4, "CoreApi-5688-388: automatic monitoring failed [17] [no route]",
                    {config, create, "monitor 0x10 app 3", "destroy"});
    expect_registry({witness});
}

TEST_F(EvqTest, AutomaticMonitoringLastsAsLongAsTheQueue)
{
    Queue watched("monitor=60 transport=qrnsnmp topts=host=h");
    EXPECT_EQ(asked.take(), (strings{"config (none)",
                                     what("create", qrnmon_format_csv_module(), 0,
                                          qrnmon_transport_qrnsnmp_module(), "host=h"),
                                     "monitor 0x10 (none) 60"}));
    Queue forgotten("monitor=60"), plain;
    asked.take();
    EXPECT_EQ(qrn_event_queue_unmonitor(other_controller, watched), 0);
    EXPECT_TRUE(watched->mon_sctl == controller && watched->automonitor == 1);
    EXPECT_EQ(qrn_event_queue_monitor(other_controller, watched), 0);
    EXPECT_EQ(watched->mon_sctl, other_controller);
    EXPECT_EQ(qrn_event_queue_unmonitor(controller, forgotten), 0);
    EXPECT_EQ(forgotten->mon_sctl, nullptr);
    EXPECT_EQ(qrn_event_queue_monitor(controller, plain), 0);
    EXPECT_EQ(plain->mon_sctl, nullptr);
    const strings ending = {what("unmonitor", other_controller, watched.evq), "destroy"};
    for (Queue *queue : {&watched, &forgotten, &plain})
        queue->end();
    EXPECT_EQ(asked.take(), ending);
}

TEST_F(EvqTest, DiscardedEventsReleaseWhatTheyCarry)
{
    for (int type = MSG; type <= BUNDLE; ++type)
        for (bool deletion : {false, true}) { // or shutdown
            SCOPED_TRACE(text("type %d, deletion %d", type, deletion));
            Queue queue("count size=9 age");
            ASSERT_EQ(world.enqueue(queue, type), 0);
            const strings expected = deletion ? strings{} : world.discarded(type);
            done.take();
            if (!deletion) {
                EXPECT_EQ(qrn_event_queue_shutdown(queue), 0);
                EXPECT_TRUE(queue->shutdown == 1 && first_event(queue) == nullptr);
                EXPECT_EQ(queue->qsz, 0);
                EXPECT_EQ(counts_of(queue), counts{});
            }
            queue.end();
            EXPECT_EQ(done.take(), expected);
            EXPECT_EQ(qrn_msg_live(), 0);
        }
}

TEST_F(EvqTest, DisposalFreesOnlyWhatIsOwned)
{
    long other = 0;
    for (int type : {QRN_EVQ_SRC_TYPE, QRN_EVQ_CTX_SRC_TYPE, QRN_EVQ_CANCEL_TYPE, 99}) {
        qrn_event_t *ev = hand_made(nullptr, type);
        (type == SRC ? ev->info.src.eventd : ev->info.ctx_src.eventd) = &other;
        if (type == CANCEL)
            ev->info.cancel = {&other, 0};
        EXPECT_EQ(qrn_event_delete(ev), 0);
    }
}

TEST_F(EvqTest, BundleReleasesAsUndeliveredWhatItStillHolds)
{
    qrn_event_bundle_t *bundle = world.new_bundle({});
    EXPECT_EQ(bundle->max_num_events, 32);
    for (int i = 0; i < 32; ++i)
        world.add(bundle, i % 2 == 0 ? MSG : WRCV);
    bundle->events[1].ctx = nullptr; // a purged entry, and one of a type without a message
    bundle->events[2].type = TIMER;
    qrn_msg_t *left[] = {bundle->events[1].info.wrcv_msg.msg, bundle->events[2].info.msg.msg};
    EXPECT_EQ(qrn_event_bundle_delete(bundle), 0);
    EXPECT_EQ(done.take(), strings{});
    EXPECT_EQ(qrn_msg_live(), 2);
    for (qrn_msg_t *msg : left)
        qrn_msg_delete(msg);
}

} // namespace
