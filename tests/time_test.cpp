// SPDX-License-Identifier: Apache-2.0
// Timers, without queues: what would be enqueued is recorded.
#include <gtest/gtest.h>

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "qrntime.h"

namespace {

std::mutex lock;
std::vector<int> expired; // ids
int enqueue_result;

int record(qrn_event_queue_t *, qrn_context_t *, int id, void *, qrn_timer_cb_proc,
           qrn_ulong_t recurring)
{
    std::lock_guard guard(lock);
    EXPECT_EQ(recurring, 0u) << "else nobody tells when the expiry has ended";
    expired.push_back(id);
    return enqueue_result;
}

class Timers : public testing::Test {
protected:
    ~Timers() override
    {
        expired.clear();
        enqueue_result = 0;
        qrn_timer_delete(timer);
    }
    int schedule(qrn_ulong_t delay, qrn_ulong_t period = 0, int *first = nullptr)
    {
        const auto callback = [](qrn_context_t *, const void *) { return 0; };
        return qrn_timer_schedule(timer, queue, callback, nullptr, delay, period, first);
    }
    int end(int id) { return qrn_timer_push_free_id(timer, id); }
    bool cancel(int id) // and gives it back
    {
        return qrn_timer_cancel(timer, id) == QRN_OK && (qrn_timer_release(timer, id, 0), true);
    }
    timeval due_time(int id) { return timer->hp->timers[id]->tv; }
    bool marked(int id) { return timer->hp->xmap[QRN_TIMER_XMAP_WORD(id)] >> (id % 32) & 1; }
    // Expires what is due until so many expiries were recorded; the last one's id.
    int expire_until(size_t count)
    {
        for (; expired.size() < count; qrn_timer_expire(timer, record))
            poll(nullptr, 0, std::max(0, qrn_timer_next_msec(timer)));
        return expired.back();
    }

    qrn_timer_t *const timer = qrn_timer_create(nullptr);
    qrn_event_queue_t *queue = reinterpret_cast<qrn_event_queue_t *>(this); // never looked into
};

TEST(NormalizeTv, CarriesWholeSecondsBothWays)
{
    for (const long usec :
         {0, 999'999, 1'000'000, 1'998'000, 5'500'000, -1, -250'000, -3'000'000}) {
        timeval tv = {10, usec};
        qrn_timer_normalize_tv(&tv);
        EXPECT_TRUE(tv.tv_usec >= 0 && tv.tv_usec < 1'000'000) << usec;
        EXPECT_EQ((tv.tv_sec - 10) * 1'000'000 + tv.tv_usec, usec);
    }
}

TEST_F(Timers, ExpireInTheOrderOfTheirDueTimesAndNotBefore)
{
    std::mt19937 random(1);
    std::vector<std::tuple<long, long, int>> due; // and id
    for (int i = 0; i < 500; ++i) {
        ASSERT_EQ(schedule(random() % 8), i);
        due.emplace_back(due_time(i).tv_sec, due_time(i).tv_usec, i);
    }
    std::sort(due.begin(), due.end());
    for (int i = 0; i < 200; ++i) { // out of the middle of the heap
        const auto at = due.begin() + static_cast<long>(random() % due.size());
        ASSERT_TRUE(cancel(std::get<2>(*at)));
        due.erase(at);
    }
    expire_until(due.size());
    for (size_t i = 0; i < due.size(); ++i)
        ASSERT_EQ(expired[i], std::get<2>(due[i])) << i;
    for (const int delay : {INT_MAX, 3'600'000, 7'200'000, 1'800'000}) {
        int first;
        schedule(static_cast<qrn_ulong_t>(delay), ULONG_MAX, &first);
        EXPECT_EQ(first, delay != 7'200'000);
    }
    EXPECT_EQ(qrn_timer_expire(timer, record), 0);
}

TEST_F(Timers, AnIdIsReusedOnceNothingNamesItAnyMore)
{
    for (const std::string ending : {"end", "end release", "release end", "purge"}) {
        const int id = schedule(0);
        EXPECT_EQ(end(id), QRN_FAILURE) << "it has no expiry yet";
        qrn_timer_expire(timer, record);
        const bool cancelled = ending != "end";
        ASSERT_FALSE(cancelled && qrn_timer_cancel(timer, id) != QRN_OK);
        EXPECT_TRUE(marked(id) == cancelled && timer->in_limbo_ref_cnt == cancelled);
        EXPECT_FALSE(cancelled && cancel(id)) << "once";
        std::istringstream steps(ending);
        for (std::string step; steps >> step;) {
            EXPECT_NE(schedule(60'000), id);
            if (step != "end")
                qrn_timer_release(timer, id, step == "purge");
            EXPECT_EQ(step == "end" ? end(id) : QRN_OK, QRN_OK);
        }
        EXPECT_EQ(end(id), QRN_FAILURE);
        EXPECT_EQ(schedule(60'000), id);
        EXPECT_TRUE(cancel(id) && !marked(id)) << "before it is due: at once";
        EXPECT_EQ(schedule(60'000), id);
    }
}

TEST_F(Timers, RecurringOnesSkipTheBeatsThatWereMissedAndNoOther)
{
    const int id = schedule(1, 1), slow = schedule(5, 60'000);
    expire_until(1);
    EXPECT_EQ(expire_until(2), slow) << "not enqueued twice";
    EXPECT_LE(qrn_timer_next_msec(timer), 2);
    const timeval before = due_time(id);
    EXPECT_EQ(end(id), QRN_OK);
    EXPECT_EQ(expire_until(3), id);
    EXPECT_EQ((due_time(id).tv_usec - before.tv_usec) % 1000, 0) << "beats stay where they are";
    EXPECT_TRUE(cancel(id));
    EXPECT_LE(qrn_timer_next_msec(timer), 60'001);
}

TEST_F(Timers, AnExpiryThatIsNotEnqueuedIsTriedAgainOrDropped)
{
    for (const qrn_ulong_t period : {0UL, 1UL}) {
        expired.clear();
        enqueue_result = -1;
        const int id = schedule(0, period);
        EXPECT_EQ(expire_until(2), id);
        enqueue_result = 1;
        expire_until(3);
        EXPECT_EQ(qrn_timer_next_msec(timer), -1);
        EXPECT_TRUE(cancel(id) && !marked(id));
    }
}

TEST_F(Timers, ThatDoNotExistAreRefused)
{
    EXPECT_EQ(schedule(ULONG_MAX / 2), 0);
    EXPECT_EQ(qrn_timer_next_msec(timer), INT_MAX);
    ASSERT_TRUE(cancel(0));
    for (const int id : {-1, 0, 1}) {
        qrn_timer_release(timer, id, 1);
        EXPECT_EQ(qrn_timer_cancel(timer, id), QRN_FAILURE);
        EXPECT_EQ(qrn_timer_queue_of(timer, id), nullptr);
        EXPECT_EQ(end(id), QRN_FAILURE);
    }
    EXPECT_EQ(qrn_timer_push_free_id(nullptr, 0), QRN_FAILURE);
    EXPECT_EQ(qrn_timer_next_id(timer, 0), -1);
}

// Owners schedule and cancel, one thread expires, others end expiries as dispatching threads do.
TEST_F(Timers, EveryIdComesBackUnderLoad)
{
    std::mutex feed; // keeps expiries and cancellations apart
    std::atomic<int> left{2};
    const auto end_expiries = [&] {
        std::unique_lock guard(lock);
        const auto taken = std::exchange(expired, {});
        guard.unlock();
        for (const int id : taken)
            EXPECT_EQ(end(id), QRN_OK);
        std::this_thread::yield();
    };
    std::vector<std::jthread> team;
    for (unsigned t = 0; t < 2; ++t)
        team.emplace_back([&, random = std::mt19937(t)]() mutable {
            for (int i = 0; i < 2'000; ++i) {
                const int id = schedule(random() % 2, random() % 2);
                std::this_thread::yield();
                if ((std::lock_guard<std::mutex>(feed), qrn_timer_cancel(timer, id)) == QRN_OK)
                    qrn_timer_release(timer, id, 0);
            }
            --left;
        });
    for (int t = 0; t < 2; ++t)
        team.emplace_back([&] {
            while (left > 0)
                end_expiries();
        });
    for (; left > 0; std::this_thread::yield()) {
        std::lock_guard guard(feed);
        qrn_timer_expire(timer, record);
    }
    team.clear();
    end_expiries();
    // An owner may lose a one-shot timer's id to its next owner, whose timer it then stops.
    for (int id = -1; (id = qrn_timer_next_id(timer, id + 1)) >= 0;)
        EXPECT_TRUE(cancel(id));
    EXPECT_EQ(timer->hp->numfreeidxs, timer->hp->maxnumidxs);
    EXPECT_EQ(timer->in_limbo_ref_cnt, 0);
    for (int i = 0; i < 5'000; ++i)
        schedule(60'000);
    for (int id = 0; id < 5'000; ++id) // each once, none wasted
        ASSERT_TRUE(!marked(id) && cancel(id)) << id;
}

} // namespace
