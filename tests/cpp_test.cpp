// SPDX-License-Identifier: Apache-2.0
// The C++ interface: what is posted runs or is destroyed, once; errors and exceptions come out.

#include <gtest/gtest.h>

#include <latch>

#include "qrn.hpp"

namespace {

using namespace std::chrono_literals;

std::atomic<int> live, runs;

// Counts its live copies, and its runs.
struct counted {
    std::array<char, 64> bulk{};
    counted() { ++live; }
    counted(const counted &) { ++live; }
    ~counted() { --live; }
    void operator()() const { ++runs; }
};

TEST(Cpp, RunsOrDestroysEveryCallableOnce)
{
    {
        qrn::event_queue queue;
        for (int i = 0; i < 5; ++i)
            queue.post(counted());
        EXPECT_EQ(queue.poll(), 1);
        EXPECT_EQ(live, 4);
        qrn::event_queue moved = std::move(queue);
        EXPECT_EQ(moved.poll(), 1);
        moved.shutdown();
        EXPECT_EQ(live, 0);
        moved.post(counted()); // discarded with the queue
    }
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(live, 0);
}

TEST(Cpp, AnExceptionComesOutOfDispatchAndTheQueueGoesOn)
{
    qrn::event_queue queue;
    int after = 0;
    queue.post([] { throw std::runtime_error("from a callable"); });
    queue.post([&after] { ++after; });
    EXPECT_THROW(queue.dispatch(1h), std::runtime_error);
    EXPECT_EQ(queue.poll(), 1);
    EXPECT_EQ(after, 1);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(queue.dispatch(20ms), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 19ms);
}

TEST(Cpp, ErrorsCarryTheLibrarysText)
{
    qrn::attributes attr;
    attr.queue_size_warning(7).queue_count_enabled(true).event_queue_name("orders");
    EXPECT_EQ(attr.text("queue_size_warning"), "7");
    qrn::event_queue queue(attr);
    try {
        queue.set_text("event_queue_name", "other");
        FAIL();
    } catch (const std::system_error &error) {
        EXPECT_EQ(error.code(), std::error_code(1, qrn::error_category()));
        EXPECT_NE(std::string(error.what()).find("CoreApi-5688-"), std::string::npos);
    }
    EXPECT_THROW(attr.event_queue_name("not a name"), std::system_error);
}

TEST(Cpp, StatisticsComeInDurations)
{
    qrn::event_queue queue(qrn::attributes().queue_count_enabled(true).queue_age_enabled(true));
    for (int i = 0; i < 2; ++i)
        queue.post([] {});
    queue.poll();
    const qrn::statistics stats = queue.statistics();
    EXPECT_EQ(stats.callback_events.now + 2 * stats.events_total, 5U);
    EXPECT_LE(stats.age.min.value(), stats.age.max);
    queue.reset_statistics();
    EXPECT_EQ(queue.statistics().events_total, 0U);
}

TEST(Cpp, APoolRunsEverythingOnceAndEndsWithTheFirstException)
{
    for (unsigned threads : {1U, 5U}) {
        qrn::event_queue queue;
        EXPECT_THROW(qrn::dispatcher_pool(queue, 0), std::invalid_argument);
        std::array<std::atomic<int>, 2000> seen{};
        std::latch all(static_cast<std::ptrdiff_t>(seen.size()));
        qrn::dispatcher_pool pool(queue, threads);
        for (auto &slot : seen)
            queue.post([&] {
                ++slot;
                all.count_down();
            });
        all.wait();
        pool.stop();
        pool.join();
        for (auto &slot : seen)
            ASSERT_EQ(slot, 1);
        EXPECT_EQ(queue.poll(), 0) << "an unblock event was left behind";
    }
    qrn::event_queue queue;
    qrn::dispatcher_pool pool(queue, 3);
    queue.post([] { throw std::logic_error("in a pool"); });
    EXPECT_THROW(pool.join(), std::logic_error);
    EXPECT_TRUE(pool.stop_token().stop_requested());
}

} // namespace
