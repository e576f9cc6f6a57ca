// SPDX-License-Identifier: Apache-2.0
//
// Queues from creation to deletion, with automatic monitoring; bundles, recorded errors, traces.
#include "objects.h"
#include "qrnerr.h"
#include "qrnmon.h"

using namespace test;

namespace {

// What the layers around the module were asked, and what they are to answer.
journal asked;
int config_result, sctl_result, monitor_result;
bool no_blocking_queue;

const char *shown(const char *t)
{
    return t == nullptr ? "-" : t;
}
auto *const controller = reinterpret_cast<qrnmon_sctl_t *>(0x10UL);
auto *const other_controller = reinterpret_cast<qrnmon_sctl_t *>(0x20UL);

} // namespace

extern "C" {

int qrn_xmlcfg_check_event_queue(const char *name, qrn_event_queue_attr_t *)
{
    return asked.note("config", shown(name)) + config_result;
}
qrn_tl_queue_t *__real_qrn_tl_queue_create(void);
qrn_tl_queue_t *__wrap_qrn_tl_queue_create(void)
{
    return no_blocking_queue ? nullptr : __real_qrn_tl_queue_create();
}
int qrn_automon_sctl_create(qrnmon_sctl_t **sctl, const qrnmon_format_func_t *, const void *,
                            const qrnmon_transport_func_t *transport, const char *opts)
{
    *sctl = controller;
    return asked.note("create", transport, shown(opts)) + sctl_result;
}
void qrn_automon_sctl_destroy(void)
{
    asked.note("destroy");
}
int qrnmon_evq_monitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *, const char *appid, unsigned ivl)
{
    return asked.note("monitor", sctl, shown(appid), ivl) + monitor_result;
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
        qrn_event_queue_t *evq;
        qrn_seterr(0, "");
        EXPECT_EQ(qrn_event_queue_create(&evq, nullptr, nullptr, attr.attr), -1);
        EXPECT_EQ(qrn_errnum(), code);
        EXPECT_STREQ(qrn_errmsg(), error);
        EXPECT_EQ(asked.take(), layers);
    }
};

TEST_F(EvqTest, ErrorsOfNullArgumentsAreRecorded)
{
    Queue q;
    qrn_event_queue_stats_t stats;
    const auto valid = "evq must be valid", evq = "evq must not be NULL",
               sctl = "sctl must not be NULL";
    qrn_event_queue_attr_t *attr = q->attr;
    qrn_config_option_t entry;
    int none = 0;
    const auto at = "attr must be valid", size = "value at size must be greater than 0";
    const std::tuple<int, const char *, std::function<int()>> rows[] = {
        {289, at, [] { return qrn_event_queue_attr_create(nullptr); }},
        {290, at, [] { return qrn_event_queue_attr_create_default(nullptr); }},
        {291, at, [] { return qrn_event_queue_attr_delete(nullptr); }},
        {292, at, [] { return qrn_event_queue_attr_dup(nullptr, nullptr); }},
        {293, "original must be valid", [&] { return qrn_event_queue_attr_dup(&attr, {}); }},
        {294, valid, [&] { return qrn_event_queue_dump(nullptr, &none, &entry); }},
        {295, "eattr must be valid", [&] { return qrn_event_queue_attr_dump({}, &none, &entry); }},
        {296, "opts must be valid", [&] { return qrn_event_queue_attr_dump(attr, &none, {}); }},
        {297, size, [&] { return qrn_event_queue_dump(q, &none, &entry); }},
        {386, "evqp must be valid", [&] { return qrn_event_queue_create({}, {}, {}, {}); }},
        {389, valid, [&] { return qrn_event_dispatch(nullptr, 0); }},
        {391, valid, [&] { return qrn_event_queue_shutdown(nullptr); }},
        {392, valid, [&] { return qrn_event_queue_delete(nullptr); }},
        {393, valid, [&] { return qrn_event_queue_retrieve_stats(nullptr, &stats); }},
        {394, "stats must be valid", [&] { return qrn_event_queue_retrieve_stats(q, nullptr); }},
        {395, valid, [&] { return qrn_event_queue_reset_stats(nullptr); }},
        {396, valid, [&] { return qrn_event_queue_size(nullptr); }},
        {397, "evq must have queue_size_warning > 0", [&] { return qrn_event_queue_size(q); }},
        {398, valid, [&] { return qrn_event_dispatch_unblock(nullptr); }},
        {399, sctl, [&] { return qrn_event_queue_monitor(nullptr, q); }},
        {400, evq, [&] { return qrn_event_queue_monitor(controller, nullptr); }},
        {401, sctl, [&] { return qrn_event_queue_unmonitor(nullptr, q); }},
        {402, evq, [&] { return qrn_event_queue_unmonitor(controller, nullptr); }},
        {406, valid, [&] { return qrn_event_queue_retrieve_warnings(nullptr, {}, {}); }},
    };
    for (auto &[code, message, call] : rows) {
        qrn_seterr(0, "");
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(qrn_errnum(), 1);
        EXPECT_EQ(qrn_errmsg(), text("CoreApi-5688-%d: ", code) + message);
    }
}

// Traces of each kind, in the life of a queue.
TEST_F(EvqTest, TracesTellOfCallsAndEvents)
{
    qrn_event_queue_t *evq;
    ASSERT_EQ(qrn_event_queue_create(&evq, nullptr, nullptr, nullptr), 0);
    const void *q = evq, *timer = &world.timer;
    log_state.dmask = KFX_DBG_API | KFX_DBG_LIFE | KFX_DBG_EVENT | KFX_DBG_OPTION;
    EXPECT_EQ(qrn_event_queue_str_setopt(evq, "queue_age_enabled", "1"), 0);
    ASSERT_EQ(world.enqueue(evq, TIMER), 0);
    EXPECT_EQ(dispatch(evq), 1);
    EXPECT_EQ(qrn_event_queue_shutdown(evq), 0);
    const char *const option = "qrn_event_queue_str_setopt";
    EXPECT_EQ(
        logged.take(),
        (strings{text("[%s] evq[%p] optname[queue_age_enabled] optval[1]\n", option, q),
                 text("evq %p %s [queue_age_enabled] optval[1]\n", q, option),
                 text("evq %p enq TIMER id %d\n", q, 37),
                 text("[qrn_event_dispatch] evq[%p] tmo[0]\n", q),
                 text("evq %p dispatch TIMER id 37 x 0\n", q),
                 text("timer evq %p freeidx 37\n", timer),
                 text("[qrn_event_queue_shutdown] evq[%p]\n", q), text("evq %p shutdown\n", q)}));
    EXPECT_EQ(qrn_event_queue_delete(evq), 0);
    EXPECT_EQ(logged.take().back(), text("#a#Cob#des qrn_event_queue_t %p\n", q));
}

// Whatever a creation had made before it failed is released: the leak checker looks.
TEST_F(EvqTest, CreationThatFailsLeavesNothing)
{
    Attr plain("name=x"), monitored("monitor=3 appid=app topts=port=1"), odd("monitor=3");
    odd.attr->mon_transport_module = 3;
    const std::string create = what("create", qrnmon_transport_qrn_module(), "port=1");
    for (config_result = -1; config_result <= 0; ++config_result)
        expect_no_queue(plain, 0, "", {"config x"});
    no_blocking_queue = true;
    expect_no_queue(plain, 0, "", {"config x"});
    no_blocking_queue = false;
    expect_no_queue(odd, 1, "CoreApi-5688-387: monitor_transport is not supported", {"config -"});
    sctl_result = -1;
    expect_no_queue(monitored, 0, "", {"config -", create});
    sctl_result = 0;
    monitor_result = -1;
    expect_no_queue(monitored, 4, "CoreApi-5688-388: automatic monitoring failed [17] [no route]",
                    {"config -", create, "monitor 0x10 app 3", "destroy"});
    EXPECT_EQ(qrn_evq_purge_io_all(&world.ctx, 7, 1), 0); // none is in the registry
}

TEST_F(EvqTest, AutomaticMonitoringLastsAsLongAsTheQueue)
{
    Queue watched("monitor=60 transport=qrnsnmp");
    const auto create = what("create", qrnmon_transport_qrnsnmp_module(), "-");
    EXPECT_EQ(asked.take(), (strings{"config -", create, "monitor 0x10 - 60"}));
    Queue forgotten("monitor=60"), plain;
    asked.take();
    EXPECT_EQ(qrn_event_queue_unmonitor(other_controller, watched), 0); // not its own
    EXPECT_EQ(watched->mon_sctl, controller);
    EXPECT_EQ(qrn_event_queue_monitor(other_controller, watched), 0);
    EXPECT_EQ(qrn_event_queue_unmonitor(controller, forgotten), 0);
    EXPECT_EQ(qrn_event_queue_monitor(controller, plain), 0);
    const strings ending = {what("unmonitor", other_controller, watched.evq), "destroy"};
    for (Queue *queue : {&watched, &forgotten, &plain})
        queue->end();
    EXPECT_EQ(asked.take(), ending);
}

} // namespace
