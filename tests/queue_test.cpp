// SPDX-License-Identifier: Apache-2.0
//
// The blocking queue and the ordered list, each by itself and mostly on one thread.
#include <numeric>
#include <random>
#include <set>

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

// Takes out the items whose bit is set in the mask; notes those that are looked at, or removed.
numbers passed;
int bit_cmp(const void *value, const void *mask)
{
    return (*static_cast<const unsigned long *>(mask) >> number(value) & 1) == 0;
}
int bit_rem(const void *value)
{
    passed.push_back(number(value));
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
    // Takes what is left without waiting.
    numbers drain()
    {
        numbers out;
        for (void *value; qrn_tl_queue_dequeue(q, &value, 0) == 0 && value != nullptr;)
            out.push_back(number(value));
        return out;
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
                EXPECT_EQ(filtering ? qrn_tl_queue_filter_all(q, bit_filter, &mask)
                                    : qrn_tl_queue_remove_all(q, bit_cmp, bit_rem, &mask),
                          0);
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

// An item is out of the queue before its callback runs.
TEST_F(QueueTest, CallbackThatThrowsEndsThePass)
{
    put(1, 3);
    unsigned long both = 6;
    const auto throws = [](const void *item) -> int { throw number(item); };
    EXPECT_THROW(qrn_tl_queue_remove_all(q, bit_cmp, throws, &both), long);
    EXPECT_EQ(drain(), (numbers{2, 3}));
}

TEST_F(QueueTest, TokenThatNobodyOwesEndsAWait)
{
    void *value = q;
    EXPECT_EQ(sem_post(&q->sem_sz), 0);
    EXPECT_EQ(qrn_tl_queue_dequeue(q, &value, 1), -1);
    EXPECT_EQ(value, nullptr);
}

// Wherever its nodes end in a segment, when the last ones were removed or one is left: the leak
// checker looks.
TEST_F(QueueTest, DeletionFreesEverySegment)
{
    for (long taken = 250; taken <= 260; ++taken)
        for (long left : {0, 1}) {
            put(1, taken);
            drain();
            put(1, 1);
            unsigned long one = 2;
            EXPECT_EQ(qrn_tl_queue_remove_all(q, bit_cmp, bit_rem, &one), 0);
            put(1, left);
            qrn_tl_queue_delete(std::exchange(q, qrn_tl_queue_create()));
        }
}

TEST(OrderedList, GivesLowPrioritiesFirstAndEqualOnesInOrder)
{
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        qrn_queue_t *list = qrn_queue_create();
        std::set<std::pair<qrn_ulong_t, long>> model;
        for (long n = 1; n <= 20; ++n) {
            const qrn_ulong_t priority = random() % 4 == 0 ? ~0UL : random() % 3;
            model.emplace(priority, n);
            ASSERT_EQ(qrn_queue_enqueue(list, item(n), priority), 0);
            for (; !model.empty() && random() % 2 == 0; model.erase(model.begin()))
                EXPECT_EQ(number(qrn_queue_dequeue(list)), model.begin()->second);
            EXPECT_EQ(list->sz, model.size());
        }
        EXPECT_TRUE(!model.empty() || qrn_queue_dequeue(list) == nullptr);
        qrn_queue_delete(list); // with what is left
    }
}

} // namespace
