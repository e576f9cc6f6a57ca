/* SPDX-License-Identifier: Apache-2.0 */
/* Timers, without queues: what would be enqueued is recorded. */
#include <gtest/gtest.h>

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "qrntime.h"

namespace {

struct expiry {
    int id;
    void *clientd;
};

std::mutex lock;
std::vector<expiry> expiries;
int enqueue_result;

int record(qrn_event_queue_t *, qrn_context_t *, int id, void *clientd, qrn_timer_cb_proc,
           qrn_ulong_t recurring)
{
    std::lock_guard guard(lock);
    EXPECT_EQ(recurring, 0u) << "else nobody tells when the expiry has ended";
    expiries.push_back({id, clientd});
    return enqueue_result;
}

int callback(qrn_context_t *, const void *)
{
    return 0;
}

class Timers : public testing::Test {
protected:
    Timers() : timer(qrn_timer_create(nullptr))
    {
        expiries.clear();
        enqueue_result = 0;
    }
    ~Timers() override { qrn_timer_delete(timer); }

    int schedule(qrn_ulong_t delay, qrn_ulong_t period = 0, void *clientd = nullptr)
    {
        return qrn_timer_schedule(timer, queue, callback, clientd, delay, period, nullptr);
    }
    bool marked(int id) const
    {
        return (timer->hp->xmap[QRN_TIMER_XMAP_WORD(id)] >> (id % 32) & 1) != 0;
    }
    /* Waits for due times and expires until so many expiries were recorded. */
    void expire_until(size_t count)
    {
        while (expiries.size() < count) {
            poll(nullptr, 0, std::max(0, qrn_timer_next_msec(timer)));
            qrn_timer_expire(timer, record);
        }
    }
    int expire_one_shot()
    {
        const int id = schedule(0);
        qrn_timer_expire(timer, record);
        return id;
    }

    qrn_timer_t *timer;
    qrn_event_queue_t *queue = reinterpret_cast<qrn_event_queue_t *>(this); // never looked into
};

TEST(NormalizeTv, CarriesWholeSecondsBothWays)
{
    const struct {
        timeval in, out;
    } table[] = {
        {{10, 1'998'000}, {11, 998'000}}, {{10, -250'000}, {9, 750'000}}, {{10, 0}, {10, 0}},
        {{10, 999'999}, {10, 999'999}},   {{10, 1'000'000}, {11, 0}},     {{10, -1}, {9, 999'999}},
        {{0, -3'000'000}, {-3, 0}},       {{0, 5'500'000}, {5, 500'000}},
    };
    for (const auto &row : table) {
        timeval tv = row.in;
        qrn_timer_normalize_tv(&tv);
        EXPECT_EQ(tv.tv_sec, row.out.tv_sec) << row.in.tv_usec;
        EXPECT_EQ(tv.tv_usec, row.out.tv_usec) << row.in.tv_usec;
    }
}

TEST_F(Timers, ExpireInTheOrderOfTheirDueTimes)
{
    std::mt19937 random(1);
    struct due {
        timeval tv;
        int order, id;
    };
    std::vector<due> expected;
    for (int i = 0; i < 500; ++i) {
        const int id = schedule(random() % 8);
        expected.push_back({timer->hp->timers[id]->tv, i, id});
    }
    for (int i = 0; i < 200; ++i) { // out of the middle of the heap
        const size_t at = random() % expected.size();
        ASSERT_EQ(qrn_timer_cancel(timer, expected[at].id), QRN_OK);
        expected.erase(expected.begin() + static_cast<long>(at));
    }
    std::sort(expected.begin(), expected.end(), [](const due &a, const due &b) {
        return std::tie(a.tv.tv_sec, a.tv.tv_usec, a.order) <
               std::tie(b.tv.tv_sec, b.tv.tv_usec, b.order);
    });
    expire_until(expected.size());
    ASSERT_EQ(expiries.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(expiries[i].id, expected[i].id) << i;
    EXPECT_EQ(qrn_timer_next_msec(timer), -1);
}

TEST_F(Timers, AreNotDueBeforeTheirTime)
{
    int first = 0;
    qrn_timer_schedule(timer, queue, callback, nullptr, ULONG_MAX, 0, &first);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(qrn_timer_next_msec(timer), INT_MAX);
    qrn_timer_schedule(timer, queue, callback, nullptr, 3'600'000, ULONG_MAX, &first);
    EXPECT_EQ(first, 1);
    qrn_timer_schedule(timer, queue, callback, nullptr, 7'200'000, 0, &first);
    EXPECT_EQ(first, 0);
    EXPECT_GT(qrn_timer_next_msec(timer), 0);
    EXPECT_LE(qrn_timer_next_msec(timer), 3'600'001);
    EXPECT_EQ(qrn_timer_expire(timer, record), 0);
}

TEST_F(Timers, AnIdIsReusedOnceNothingNamesItAnyMore)
{
    enum step { push, release, release_purged };
    const std::vector<std::vector<step>> endings = {
        {push}, {push, release}, {release, push}, {release_purged}};
    for (const auto &ending : endings) {
        const int id = expire_one_shot();
        const bool cancelled = ending.size() > 1 || ending[0] == release_purged;
        if (cancelled) {
            ASSERT_EQ(qrn_timer_cancel(timer, id), QRN_OK);
            EXPECT_TRUE(marked(id));
            EXPECT_EQ(timer->in_limbo_ref_cnt, 1);
            EXPECT_EQ(qrn_timer_cancel(timer, id), QRN_FAILURE);
        }
        for (const step what : ending) {
            const int other = schedule(60'000);
            EXPECT_NE(other, id);
            if (what == push) {
                EXPECT_EQ(qrn_timer_push_free_id(timer, id), QRN_OK);
            } else {
                qrn_timer_release(timer, id, what == release_purged);
            }
        }
        EXPECT_EQ(timer->in_limbo_ref_cnt, 0);
        EXPECT_EQ(qrn_timer_push_free_id(timer, id), QRN_FAILURE);
        EXPECT_EQ(schedule(60'000), id);
        EXPECT_FALSE(marked(id));
        EXPECT_EQ(qrn_timer_push_free_id(timer, id), QRN_FAILURE) << "it has no expiry yet";
    }
}

TEST_F(Timers, CancelledBeforeExpiryGiveTheirIdBackAtOnce)
{
    const int id = schedule(0);
    EXPECT_EQ(qrn_timer_queue_of(timer, id), queue);
    ASSERT_EQ(qrn_timer_cancel(timer, id), QRN_OK);
    EXPECT_FALSE(marked(id));
    EXPECT_EQ(qrn_timer_queue_of(timer, id), nullptr);
    qrn_timer_release(timer, id, 0);
    EXPECT_EQ(qrn_timer_expire(timer, record), 0);
    EXPECT_EQ(schedule(60'000), id);
    EXPECT_EQ(qrn_timer_cancel(timer, id + 1), QRN_FAILURE);
    EXPECT_EQ(qrn_timer_push_free_id(timer, -1), QRN_FAILURE);
    qrn_timer_t blank = {};
    EXPECT_EQ(qrn_timer_push_free_id(&blank, id), QRN_FAILURE);
}

TEST_F(Timers, RecurringOnesSkipBeatsWhileAnExpiryIsInFlight)
{
    const int id = schedule(1, 1);
    expire_until(1);
    const int slow = schedule(5);
    expire_until(2);
    EXPECT_EQ(expiries[1].id, slow) << "not enqueued twice";
    const timeval before = timer->hp->timers[id]->tv;
    EXPECT_EQ(qrn_timer_push_free_id(timer, id), QRN_OK);
    expire_until(3);
    EXPECT_EQ(expiries[2].id, id);
    const timeval after = timer->hp->timers[id]->tv;
    const long moved = (after.tv_sec - before.tv_sec) * 1'000'000 + after.tv_usec - before.tv_usec;
    EXPECT_GE(moved, 0);
    EXPECT_EQ(moved % 1000, 0) << "beats stay where they are";
    ASSERT_EQ(qrn_timer_cancel(timer, id), QRN_OK);
    qrn_timer_release(timer, id, 0);
    EXPECT_EQ(qrn_timer_push_free_id(timer, id), QRN_OK);
    EXPECT_EQ(schedule(60'000), id);
}

TEST_F(Timers, AnExpiryThatIsNotEnqueuedIsTriedAgainOrDropped)
{
    for (const qrn_ulong_t period : {0UL, 1UL}) {
        expiries.clear();
        const int id = schedule(0, period);
        enqueue_result = -1;
        expire_until(2);
        EXPECT_EQ(expiries[1].id, id);
        enqueue_result = 1;
        expire_until(3);
        EXPECT_EQ(qrn_timer_next_msec(timer), -1);
        ASSERT_EQ(qrn_timer_cancel(timer, id), QRN_OK);
        EXPECT_FALSE(marked(id));
        qrn_timer_release(timer, id, 0);
        EXPECT_EQ(schedule(0), id);
        ASSERT_EQ(qrn_timer_cancel(timer, id), QRN_OK);
        qrn_timer_release(timer, id, 0);
    }
}

TEST_F(Timers, IdsAreDistinctAndNotWasted)
{
    for (int round = 0; round < 3; ++round) {
        std::set<int> ids;
        for (int i = 0; i < 5'000; ++i)
            ids.insert(schedule(60'000));
        EXPECT_EQ(ids.size(), 5'000u);
        EXPECT_EQ(*ids.rbegin(), 4'999);
        for (int id = -1, seen = 0; (id = qrn_timer_next_id(timer, id + 1)) >= 0; ++seen) {
            ASSERT_EQ(id, seen);
            ASSERT_EQ(qrn_timer_cancel(timer, id), QRN_OK);
            qrn_timer_release(timer, id, 0);
        }
    }
    EXPECT_EQ(timer->hp->sz, 0);
}

/* Owners schedule and cancel, one thread expires, others end expiries as dispatching threads do. */
TEST_F(Timers, EveryIdComesBackUnderLoad)
{
    constexpr int owners = 2, rounds = 2'000;
    std::mutex feed; // keeps expiries and cancellations apart
    std::atomic<int> left{owners};
    std::vector<std::thread> team;
    for (int t = 0; t < owners; ++t)
        team.emplace_back([&, t] {
            std::mt19937 random(static_cast<unsigned>(t));
            for (int i = 0; i < rounds; ++i) {
                const int id = schedule(random() % 2, random() % 2);
                ASSERT_GE(id, 0);
                if (random() % 2 == 0)
                    std::this_thread::yield();
                int found;
                {
                    std::lock_guard guard(feed);
                    found = qrn_timer_cancel(timer, id);
                }
                if (found == QRN_OK)
                    qrn_timer_release(timer, id, 0);
            }
            --left;
        });
    const auto end_expiries = [&] {
        std::vector<expiry> taken;
        {
            std::lock_guard guard(lock);
            taken.swap(expiries);
        }
        for (const expiry &e : taken)
            EXPECT_EQ(qrn_timer_push_free_id(timer, e.id), QRN_OK);
        return taken.size();
    };
    for (int t = 0; t < 2; ++t)
        team.emplace_back([&] {
            while (left > 0)
                if (end_expiries() == 0)
                    std::this_thread::yield();
        });
    while (left > 0) {
        {
            std::lock_guard guard(feed);
            qrn_timer_expire(timer, record);
        }
        std::this_thread::yield();
    }
    for (auto &thread : team)
        thread.join();
    end_expiries();
    // An owner may lose the race for a one-shot timer's id to its next owner, whose timer it then stops.
    for (int id = -1; (id = qrn_timer_next_id(timer, id + 1)) >= 0;) {
        qrn_timer_cancel(timer, id);
        qrn_timer_release(timer, id, 0);
    }
    EXPECT_EQ(timer->in_limbo_ref_cnt, 0);
    EXPECT_EQ(timer->hp->numfreeidxs, timer->hp->maxnumidxs);
    for (int word = 0; word < QRN_TIMER_XMAP_WORDS; ++word)
        ASSERT_EQ(timer->hp->xmap[word], 0u) << word;
}

} // namespace
