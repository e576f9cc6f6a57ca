// SPDX-License-Identifier: Apache-2.0
//
// The blocking queue and the ordered list, each by itself and mostly on one thread.
#include <algorithm>
#include <numeric>
#include <random>
#include <thread>

#include "qrnqueue.h"
#include "support.h"

namespace {

using numbers = std::vector<long>;

// Items are numbers above 0; what they point to is never looked at.
void *item(long n)
{
    return reinterpret_cast<void *>(n);
}
long number(const void *value)
{
    return reinterpret_cast<long>(value);
}

// Now, or a little later.
timespec monotonic(long add_nsec = 0)
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const long nsec = ts.tv_nsec + add_nsec;
    return {ts.tv_sec + nsec / 1'000'000'000, nsec % 1'000'000'000};
}

// Takes out the items whose bit is set in the mask; notes those that are looked at, or removed.
numbers passed;
qrn_tl_queue_t *growing; // when set, two items are appended at the third, one by another thread
int bit_cmp(const void *value, const void *mask)
{
    return (*static_cast<const unsigned long *>(mask) >> number(value) & 1) == 0;
}
int bit_rem(const void *value)
{
    passed.push_back(number(value));
    if (growing != nullptr && number(value) == 3) {
        qrn_tl_queue_enqueue(growing, item(4));
        std::thread([] { qrn_tl_queue_enqueue(growing, item(5)); }).join();
    }
    return 0;
}
int bit_filter(const void *value, const void *mask, int *remove)
{
    EXPECT_EQ(*remove, 0);
    *remove = !bit_cmp(value, mask);
    return bit_rem(value);
}

class QueueTest : public test::Fixture {
protected:
    qrn_tl_queue_t *q = qrn_tl_queue_create();

    ~QueueTest() override { qrn_tl_queue_delete(q); }

    void put(long from, long to)
    {
        for (long n = from; n <= to; ++n)
            ASSERT_EQ(qrn_tl_queue_enqueue(q, item(n)), 0);
    }
    void pass(bool filtering, unsigned long mask)
    {
        EXPECT_EQ(filtering ? qrn_tl_queue_filter_all(q, bit_filter, &mask)
                            : qrn_tl_queue_remove_all(q, bit_cmp, bit_rem, &mask),
                  0);
    }
    // Takes what is left without waiting.
    numbers drain()
    {
        numbers out;
        for (void *value = item(1);; out.push_back(number(value))) {
            EXPECT_NE(qrn_tl_queue_dequeue(q, &value, 0), -1);
            if (value == nullptr)
                return out;
        }
    }
};

// Every subset of up to six items, by either kind of pass.
TEST_F(QueueTest, PassesTakeOutWhatMatchesAndKeepTheRestInOrder)
{
    for (long n = 0; n <= 6; ++n)
        for (unsigned long mask = 0; mask < 2UL << n; mask += 2)
            for (bool filtering : {false, true}) {
                SCOPED_TRACE(test::text("%ld items, mask %lx, filter %d", n, mask, filtering));
                put(1, n);
                passed.clear();
                pass(filtering, mask);
                numbers all(static_cast<size_t>(n)), removed, kept;
                std::iota(all.begin(), all.end(), 1);
                for (long i : all)
                    (mask >> i & 1 ? removed : kept).push_back(i);
                EXPECT_EQ(passed, filtering ? all : removed);
                EXPECT_EQ(qrn_tl_queue_is_empty(q) != 0, kept.empty());
                put(n + 1, n + 1); // behind whatever the pass left at the tail
                kept.push_back(n + 1);
                int tokens; // nobody else is here, so the pass could give back all it had to
                EXPECT_EQ(sem_getvalue(&q->sem_sz, &tokens), 0);
                EXPECT_EQ(static_cast<size_t>(tokens), kept.size());
                EXPECT_EQ(drain(), kept);
                EXPECT_TRUE(qrn_tl_queue_is_empty(q));
            }
}

TEST_F(QueueTest, BoundedWaitEndsAtItsDeadlineAndNotBefore)
{
    void *value = item(9);
    const timespec deadline = monotonic(20'000'000);
    EXPECT_EQ(qrn_tl_queue_dequeue_timed(q, &value, nullptr, &deadline), -1);
    EXPECT_EQ(value, nullptr);
    const timespec now = monotonic();
    EXPECT_GE(std::pair(now.tv_sec, now.tv_nsec), std::pair(deadline.tv_sec, deadline.tv_nsec));
    put(1, 1);
    EXPECT_EQ(qrn_tl_queue_dequeue_timed(q, &value, nullptr, &deadline), 0); // it is there
    EXPECT_EQ(number(value), 1);
}

// The pass may see what is appended meanwhile, or not.
TEST_F(QueueTest, PassesDoNotStopProducers)
{
    growing = q;
    for (bool filtering : {false, true}) {
        put(1, 3);
        pass(filtering, 0xe);
        EXPECT_EQ(drain(), (numbers{4, 5}));
    }
    growing = nullptr;
}

TEST(OrderedList, GivesLowPrioritiesFirstAndEqualOnesInOrder)
{
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        qrn_queue_t *list = qrn_queue_create();
        std::vector<std::pair<qrn_ulong_t, long>> model;
        const auto take = [&] {
            const auto first = std::min_element(model.begin(), model.end());
            EXPECT_EQ(number(qrn_queue_dequeue(list)), first->second);
            model.erase(first);
        };
        for (long n = 1; n <= round % 20; ++n) {
            model.emplace_back(random() % 4 == 0 ? ~0UL : random() % 3, n);
            ASSERT_EQ(qrn_queue_enqueue(list, item(n), model.back().first), 0);
            if (random() % 3 == 0)
                take();
            EXPECT_EQ(list->sz, model.size());
        }
        while (round % 2 == 0 && !model.empty()) // else it is deleted with what is left
            take();
        EXPECT_TRUE(!model.empty() || qrn_queue_dequeue(list) == nullptr);
        qrn_queue_delete(list);
    }
}

} // namespace
