// SPDX-License-Identifier: Apache-2.0
//
// Statistics: snapshots, resets, and figures that stay true while options are switched.
#include <random>

#include "objects.h"

using namespace test;

namespace {

using StatsTest = EventFixture;

// The queue's own block has the fields in the order of a snapshot: groups of a current count, a total, a
// minimum, a mean and a maximum, but unblock events have no times.
TEST_F(StatsTest, SnapshotConvertsAndSumsResetKeepsWhatIsQueued)
{
    constexpr size_t fields = 57, unblock = 35, events = 47;
    using block = std::array<qrn_ulong_t, fields>;
    static_assert(sizeof(block) == sizeof(qrn_event_queue_stats_t));
    Queue queue;
    auto &own = reinterpret_cast<block &>(queue->data_msgs);
    for (bool sampled : {false, true}) {
        block shown, reset;
        qrn_ulong_t sum[2] = {};
        for (size_t i = 0; i < fields; ++i) {
            const size_t place = (i < unblock + 2 ? i : i - 2) % 5;
            const bool is_sum = i == events || i == events + 1, none = place == 2 && !sampled;
            own[i] = none ? no_sample : is_sum ? 0 : (i + 1) * 1'000'001;
            shown[i] = place < 2 || none ? own[i] : own[i] / ticks_per_usec;
            reset[i] = place == 0 ? own[i] : place == 2 ? no_sample : 0;
            if (place < 2)
                sum[place] += own[i];
        }
        shown[events] = sum[0];
        shown[events + 1] = sum[1];
        qrn_event_queue_stats_t stats;
        EXPECT_EQ(qrn_event_queue_retrieve_stats(queue, &stats), 0);
        EXPECT_EQ(reinterpret_cast<block &>(stats), shown);
        EXPECT_EQ(qrn_event_queue_reset_stats(queue), 0);
        EXPECT_EQ(own, reset);
    }
}

int reports;

int on_report(qrn_event_queue_t *, int report, size_t sz, qrn_ulong_t delay, void *)
{
    reports += report == QRN_EVQ_MON_ENQUEUE_NOTIFICATION && sz == 1 && delay == 0;
    return 0;
}

// Events are enqueued, dispatched and purged while the options change at random. Each is taken out of
// the figures that it was put in, and of no others.
TEST_F(StatsTest, FiguresStayTrueWhileOptionsAreSwitched)
{
    for (unsigned seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const bool monitored = seed % 3 != 0;
        Queue queue("", monitored ? on_report : nullptr);
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
                model.push_back(
                    {type, counting, sizing && (monitored || age), age || (delays && monitored)});
                count(total, type, counting);
                stamps = reports = 0;
                ASSERT_EQ(world.enqueue(queue, type), 0);
                EXPECT_EQ(stamps, model.back().stamped);
                EXPECT_EQ(reports, monitored && notify);
            } else if (choice == 12) {
                EXPECT_EQ(qrn_evq_purge_src(queue, &world.src), 0);
                std::erase_if(model, [](const entry &e) { return e.type == SRC; });
            } else if (!model.empty()) {
                queue->age_min = no_sample;
                EXPECT_EQ(qrn_event_dispatch(queue, 0), 1);
                EXPECT_EQ(queue->age_min != no_sample, age && model.front().stamped);
                model.erase(model.begin());
            }
            counts expected{};
            long size = 0;
            for (const entry &e : model) {
                count(expected, e.type, e.counted);
                size += e.sized * (e.type == BUNDLE ? 3 : 1);
            }
            ASSERT_EQ(counts_of(queue), expected);
            ASSERT_EQ(counts_of(queue, &figures::tot), total);
            ASSERT_EQ(queue->qsz, size);
            ASSERT_EQ(qrn_event_queue_size(queue), sizing ? size : -1);
        }
    }
}

} // namespace
