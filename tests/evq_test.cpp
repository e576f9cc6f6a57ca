// SPDX-License-Identifier: Apache-2.0
//
// Queues from creation to deletion, with automatic monitoring; bundles, recorded errors, traces.
#include "objects.h"
#include "qrnerr.h"
#include "qrnmon.h"

using namespace test;

namespace {

journal asked; // of the monitoring layer
int config_result = 1, monitor_result = 0;
bool no_blocking_queue = false;
auto *const controller = reinterpret_cast<qrnmon_sctl_t *>(0x10UL);
auto *const other_controller = reinterpret_cast<qrnmon_sctl_t *>(0x20UL);

} // namespace

extern "C" {

int qrn_xmlcfg_check_event_queue(const char *, qrn_event_queue_attr_t *)
{
    return config_result;
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
    return asked.note("create", transport == qrnmon_transport_qrn_module(), opts);
}
const qrnmon_transport_func_t *qrnmon_transport_qrnsnmp_module(void)
{
    return nullptr; // only the monitoring layer looks at it
}
void qrn_automon_sctl_destroy(void)
{
    asked.note("destroy");
}
int qrnmon_evq_monitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *, const char *appid, unsigned ivl)
{
    return asked.note("monitor", sctl, appid, ivl) + monitor_result;
}
int qrnmon_evq_unmonitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *)
{
    return asked.note("unmonitor", sctl);
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

using EvqTest = EventFixture;

TEST_F(EvqTest, ErrorsOfNullArgumentsAreRecorded)
{
    Queue q, shut;
    EXPECT_EQ(qrn_event_queue_shutdown(shut), 0);
    qrn_event_queue_stats_t stats;
    qrn_event_queue_attr_t *attr = q->attr;
    qrn_config_option_t entry;
    int none = 0;
    const auto valid = "evq must be valid", evq = "evq must not be NULL", at = "attr must be valid",
               sctl = "sctl must not be NULL", size = "value at size must be greater than 0";
    const std::tuple<int, const char *, std::function<int()>> rows[] = {
        {289, at, [] { return qrn_event_queue_attr_create(nullptr); }},
        {290, at, [] { return qrn_event_queue_attr_create_default(nullptr); }},
        {291, at, [] { return qrn_event_queue_attr_delete(nullptr); }},
        {292, at, [] { return qrn_event_queue_attr_dup(nullptr, nullptr); }},
        {293, "original must be valid", [&] { return qrn_event_queue_attr_dup(&attr, nullptr); }},
        {294, valid, [&] { return qrn_event_queue_dump(nullptr, &none, &entry); }},
        {295, "eattr must be valid", [&] { return qrn_event_queue_attr_dump({}, &none, &entry); }},
        {296, "opts must be valid", [&] { return qrn_event_queue_attr_dump(attr, &none, {}); }},
        {297, size, [&] { return qrn_event_queue_dump(q, &none, &entry); }},
        {386, "evqp must be valid", [&] { return qrn_event_queue_create({}, {}, {}, {}); }},
        {389, valid, [&] { return qrn_event_dispatch(nullptr, 0); }},
        {391, valid, [] { return qrn_event_queue_shutdown(nullptr); }},
        {392, valid, [] { return qrn_event_queue_delete(nullptr); }},
        {393, valid, [&] { return qrn_event_queue_retrieve_stats(nullptr, &stats); }},
        {394, "stats must be valid", [&] { return qrn_event_queue_retrieve_stats(q, nullptr); }},
        {395, valid, [] { return qrn_event_queue_reset_stats(nullptr); }},
        {396, valid, [&] { return qrn_event_queue_size(nullptr); }},
        {397, "evq must have queue_size_warning > 0", [&] { return qrn_event_queue_size(q); }},
        {398, valid, [] { return qrn_event_dispatch_unblock(nullptr); }},
        {399, sctl, [&] { return qrn_event_queue_monitor(nullptr, q); }},
        {400, evq, [&] { return qrn_event_queue_monitor(controller, nullptr); }},
        {401, sctl, [&] { return qrn_event_queue_unmonitor(nullptr, q); }},
        {402, evq, [&] { return qrn_event_queue_unmonitor(controller, nullptr); }},
        {403, valid, [] { return qrn_event_queue_fd(nullptr); }},
        {404, "evq is shut down", [&] { return qrn_event_queue_fd(shut); }},
        {406, valid, [&] { return qrn_event_queue_retrieve_warnings(nullptr, {}, {}); }},
    };
    log_state.dmask = KFX_DBG_API;
    for (auto &[code, message, call] : rows) {
        qrn_seterr(0, "");
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(qrn_errnum(), 1);
        EXPECT_EQ(qrn_errmsg(), text("CoreApi-5688-%d: ", code) + message);
    }
}

// Traces of each kind.
TEST_F(EvqTest, TracesTellOfCallsAndEvents)
{
    Queue queue;
    const void *q = queue.evq;
    log_state.dmask = KFX_DBG_API | KFX_DBG_LIFE | KFX_DBG_EVENT;
    ASSERT_EQ(world.enqueue(queue, TIMER), 0);
    EXPECT_EQ(dispatch(queue), 1);
    EXPECT_EQ(logged.take(), (strings{text("evq %p enq TIMER id 37\n", q),
                                      text("[qrn_event_dispatch] evq[%p] tmo[0]\n", q),
                                      text("evq %p dispatch TIMER id 37 x 0\n", q),
                                      text("timer evq %p freeidx 37\n", &world.timer)}));
    queue.end();
    EXPECT_EQ(logged.take().back(), text("#a#Cob#des qrn_event_queue_t %p\n", q));
}

// Whatever a creation had made before it failed is released: the leak checker looks.
TEST_F(EvqTest, CreationThatFailsLeavesNothing)
{
    Attr plain(""), odd("monitor=3"), monitored("monitor=3 appid=app topts=port=1");
    const auto fails = [](const Attr &attr, int code, const char *error) {
        qrn_event_queue_t *evq;
        qrn_seterr(0, "");
        EXPECT_EQ(qrn_event_queue_create(&evq, nullptr, nullptr, attr.attr), -1);
        EXPECT_EQ(qrn_errnum(), code);
        EXPECT_STREQ(qrn_errmsg(), error);
    };
    for (config_result = -1; config_result <= 0; ++config_result) // 1 accepts
        fails(plain, 0, "");
    no_blocking_queue = true;
    fails(plain, 0, "");
    no_blocking_queue = false;
    odd.attr->mon_transport_module = 3;
    fails(odd, 1, "CoreApi-5688-387: monitor_transport is not supported");
    monitor_result = -1;
    fails(monitored, 4, "CoreApi-5688-388: automatic monitoring failed [17] [no route]");
    monitor_result = 0;
    EXPECT_EQ(asked.take(), (strings{"create 1 port=1", "monitor 0x10 app 3", "destroy"}));
    EXPECT_EQ(qrn_evq_purge_io_all(&world.ctx, 7, 1), 0); // none is in the registry
}

// By the controller that was named last; a queue that is not monitored names none.
TEST_F(EvqTest, AutomaticMonitoringLastsAsLongAsTheQueue)
{
    Queue watched("monitor=60 transport=qrnsnmp topts=host=h appid=app"), plain;
    EXPECT_EQ(qrn_event_queue_unmonitor(other_controller, watched), 0); // not its own
    for (Queue *queue : {&watched, &plain}) {
        EXPECT_EQ(qrn_event_queue_monitor(other_controller, *queue), 0);
        queue->end();
    }
    EXPECT_EQ(asked.take(),
              (strings{"create 0 host=h", "monitor 0x10 app 60", "unmonitor 0x20", "destroy"}));
    Queue given_up("monitor=60 topts=host=h appid=app");
    EXPECT_EQ(qrn_event_queue_unmonitor(given_up->mon_sctl, given_up), 0);
    given_up.end();
    EXPECT_EQ(asked.take(), (strings{"create 1 host=h", "monitor 0x10 app 60"}));
}

} // namespace
