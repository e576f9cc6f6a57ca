// SPDX-License-Identifier: Apache-2.0
// Timers, without queues: what would be enqueued is recorded.
#include <algorithm>
#include <climits>
#include <poll.h>
#include <random>

#include "qrntime.h"
#include "support.h"

namespace {

std::vector<int> expired; // ids
int enqueue_result;

int record(qrn_event_queue_t *, qrn_context_t *, int id, void *, qrn_timer_cb_proc,
           qrn_ulong_t recurring)
{
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
    int schedule(qrn_ulong_t delay, qrn_ulong_t period = 0)
    {
        const auto callback = [](qrn_context_t *, const void *) { return 0; };
        return qrn_timer_schedule(timer, queue, callback, nullptr, delay, period, nullptr);
    }
    int end(int id) { return qrn_timer_push_free_id(timer, id); }
    bool cancel(int id) // and gives it back
    {
        return qrn_timer_cancel(timer, id) == QRN_OK && (qrn_timer_release(timer, id, 0), true);
    }
    timeval due_time(int id) { return timer->hp->timers[id]->tv; }
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
}

TEST_F(Timers, AnIdIsReusedOnceNothingNamesItAnyMore)
{
    for (const std::string ending : {"e", "er", "re", "p"}) { // end, release, purge
        const int id = schedule(0);
        EXPECT_EQ(end(id), QRN_FAILURE) << "it has no expiry yet";
        qrn_timer_expire(timer, record);
        const int cancelled = ending == "e" ? QRN_FAILURE : qrn_timer_cancel(timer, id);
        EXPECT_FALSE(cancelled == QRN_OK && cancel(id)) << "once";
        for (char step : ending) {
            EXPECT_NE(schedule(60'000), id);
            if (step != 'e')
                qrn_timer_release(timer, id, step == 'p');
            EXPECT_EQ(step == 'e' ? end(id) : QRN_OK, QRN_OK);
        }
        EXPECT_EQ(end(id), QRN_FAILURE);
        EXPECT_EQ(schedule(60'000), id);
        EXPECT_TRUE(cancel(id)) << "before it is due: at once";
        EXPECT_EQ(schedule(60'000), id);
    }
}

TEST_F(Timers, RecurringOnesSkipTheBeatsThatWereMissedAndNoOther)
{
    const int id = schedule(1, 1), slow = schedule(5, 60'000);
    expire_until(1);
    EXPECT_EQ(expire_until(2), slow) << "not enqueued twice";
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
        EXPECT_TRUE(cancel(id));
    }
}

TEST_F(Timers, MomentsAreNormalizedToWholeMicroseconds)
{
    for (const long usec : {-2'000'001L, -1L, 0L, 999'999L, 3'000'000L}) {
        timeval tv = {5, usec};
        qrn_timer_normalize_tv(&tv);
        EXPECT_TRUE(tv.tv_usec >= 0 && tv.tv_usec < 1'000'000);
        EXPECT_EQ(tv.tv_sec * 1'000'000 + tv.tv_usec, 5'000'000 + usec);
    }
}

TEST_F(Timers, ThatDoNotExistAreRefused)
{
    EXPECT_EQ(schedule(ULONG_MAX / 2), 0);
    EXPECT_EQ(qrn_timer_next_msec(timer), INT_MAX);
    qrn_timer_release(timer, 0, 1); // nobody holds it
    EXPECT_TRUE(cancel(0) && qrn_timer_push_free_id(nullptr, 0) == QRN_FAILURE);
    for (const int id : {-1, 0, 1}) {
        qrn_timer_release(timer, id, 1);
        EXPECT_EQ(qrn_timer_queue_of(timer, id), nullptr);
        EXPECT_FALSE(cancel(id) || end(id) != QRN_FAILURE);
    }
}

} // namespace
