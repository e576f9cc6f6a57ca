// SPDX-License-Identifier: Apache-2.0
//
// Statistics: snapshots and resets.
#include "objects.h"

using namespace test;

namespace {

using StatsTest = EventFixture;

// The queue's own block has the fields in the order of a snapshot: groups of a current count, a
// total, a minimum, a mean and a maximum, but unblock events have no times.
TEST_F(StatsTest, SnapshotConvertsAndSumsResetKeepsWhatIsQueued)
{
    constexpr size_t fields = 57, unblock = 35, events = 47;
    using block = std::array<qrn_ulong_t, fields>;
    static_assert(sizeof(block) == sizeof(qrn_event_queue_stats_t));
    log_state.dmask = KFX_DBG_API;
    Queue queue;
    auto &own = reinterpret_cast<block &>(queue->data_msgs);
    for (bool sampled : {false, true}) {
        block shown, reset;
        qrn_ulong_t sum[2] = {};
        for (size_t i = 0; i < fields; ++i) {
            const size_t place = (i < unblock + 2 ? i : i - 2) % 5;
            const bool is_sum = i == events || i == events + 1, none = place == 2 && !sampled;
            own[i] = none ? no_sample : (i + 1) * 1'000'001;
            shown[i] = place < 2 || none ? own[i] : own[i] / ticks_per_usec;
            reset[i] = place == 0 ? own[i] : place == 2 ? no_sample : 0;
            if (place < 2 && !is_sum)
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

} // namespace
