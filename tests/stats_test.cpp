// SPDX-License-Identifier: Apache-2.0
//
// Statistics: snapshots, resets, and figures that stay true while options are switched.
#include <numeric>
#include <random>

#include "objects.h"

using namespace test;

namespace {

class StatsTest : public EventFixture {};

constexpr size_t fields = sizeof(qrn_event_queue_stats_t) / sizeof(qrn_ulong_t);
using block = std::array<qrn_ulong_t, fields>;

block snapshot(qrn_event_queue_t *evq)
{
    qrn_event_queue_stats_t stats;
    block out;
    log_state.dmask = KFX_DBG_API;
    EXPECT_EQ(qrn_event_queue_retrieve_stats(evq, &stats), 0);
    EXPECT_EQ(logged.take(), strings{text("[qrn_event_queue_retrieve_stats] evq[%p] stats[%p]\n",
                                          static_cast<void *>(evq), static_cast<void *>(&stats))});
    std::memcpy(out.data(), &stats, sizeof stats);
    return out;
}

// Where a field lies in a group: 0 now, 1 total, 2 minimum, 3 mean, 4 maximum.
size_t place_of(size_t field)
{
    constexpr size_t unblock = 35;
    return field < unblock + 2 ? field % 5 : (field - 2) % 5;
}

// The queue's own block has the fields in the same order.
TEST_F(StatsTest, SnapshotConvertsAndSumsResetKeepsWhatIsQueued)
{
    static_assert(fields == 57);
    constexpr size_t events = 47;
    Queue queue;
    block own, shown, reset;
    for (bool sampled : {false, true}) {
        qrn_ulong_t sum[2] = {};
        for (size_t i = 0; i < fields; ++i) {
            const size_t place = place_of(i);
            own[i] = place >= 2                       ? (i + 1) * 101
                     : i == events || i == events + 1 ? 0
                                                      : i + (1UL << 40);
            if (place == 2 && !sampled)
                own[i] = no_sample;
            shown[i] = place < 2 || own[i] == no_sample ? own[i] : own[i] / ticks_per_usec;
            reset[i] = place == 0 ? own[i] : place == 2 ? no_sample : 0;
            if (place < 2)
                sum[place] += own[i];
        }
        shown[events] = sum[0];
        shown[events + 1] = sum[1];
        std::memcpy(static_cast<void *>(&queue->data_msgs), own.data(), sizeof own);
        EXPECT_EQ(snapshot(queue), shown);
        EXPECT_EQ(qrn_event_queue_reset_stats(queue), 0);
        EXPECT_EQ(logged.take(), strings{text("[qrn_event_queue_reset_stats] evq[%p]\n",
                                              static_cast<void *>(queue.evq))});
        log_state.dmask = 0;
        block left;
        std::memcpy(left.data(), static_cast<void *>(&queue->data_msgs), sizeof left);
        EXPECT_EQ(left, reset);
    }
}

journal reports;
int on_report(qrn_event_queue_t *evq, int report, size_t sz, qrn_ulong_t delay, void *clientd)
{
    return reports.note("report", evq, report, sz, delay, clientd);
}

// Events are enqueued, dispatched and purged while the options change at random. Each is taken out of
// the figures that it was put in, and of no others.
TEST_F(StatsTest, FiguresStayTrueWhileOptionsAreSwitched)
{
    for (unsigned seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const bool monitored = seed % 3 != 0;
        Queue queue("", monitored ? on_report : nullptr, this);
        struct entry {
            int type;
            bool counted, sized, stamped;
        };
        std::vector<entry> model;
        counts total{};
        bool counting = false, sizing = false, delays = false, age = false, notify = false;
        for (int step = 0; step < 300; ++step) {
            const auto choice = random() % 16;
            if (choice < 4) {
                for (bool *option : {&counting, &sizing, &delays, &age, &notify})
                    *option = random() % 2;
                queue.set(text("count=%d size=%d delay=%d age=%d notify=%d", counting, sizing,
                               delays, age, notify));
            } else if (choice < 12) {
                const int type = static_cast<int>(random() % BUNDLE) + 1;
                const entry e{type, counting, sizing && (monitored || age),
                              age || (delays && monitored)};
                model.push_back(e);
                if (counting)
                    count(total, type);
                stamps = 0;
                ASSERT_EQ(world.enqueue(queue, type), 0);
                EXPECT_EQ(stamps, e.stamped);
                EXPECT_EQ(reports.take(), monitored && notify
                                              ? strings{what("report", queue.evq, 3, 1, 0, this)}
                                              : strings{});
            } else if (choice == 12) {
                EXPECT_EQ(qrn_evq_purge_src(queue, &world.src), 0);
                std::erase_if(model, [](const entry &e) { return e.type == SRC; });
            } else if (!model.empty()) {
                queue->age_min = no_sample;
                EXPECT_EQ(qrn_event_dispatch(queue, 0), 1);
                EXPECT_EQ(queue->age_min != no_sample, age && model.front().stamped);
                model.erase(model.begin());
                reports.take();
            }
            counts expected{};
            long size = 0;
            for (const entry &e : model) {
                if (e.counted)
                    count(expected, e.type);
                size += e.sized ? e.type == BUNDLE ? 3 : 1 : 0;
            }
            ASSERT_EQ(counts_of(queue), expected);
            ASSERT_EQ(counts_of(queue, &figures::tot), total);
            ASSERT_EQ(queue->qsz, size);
            ASSERT_EQ(qrn_event_queue_size(queue), sizing ? size : -1);
        }
    }
}

} // namespace
