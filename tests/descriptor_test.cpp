// SPDX-License-Identifier: Apache-2.0
// The queue's descriptor: readable exactly while something is queued, whoever empties the queue.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "qrn.hpp"
#include "qrnev.h"
#include "qrnobj.h"

namespace {

bool readable(int fd, int timeout_ms = 0)
{
    struct pollfd interest = {fd, POLLIN, 0};
    return poll(&interest, 1, timeout_ms) == 1;
}

TEST(Descriptor, ShowsWhetherSomethingIsQueued)
{
    qrn::event_queue queue;
    queue.post([] {});
    int fd = queue.descriptor();
    EXPECT_EQ(queue.descriptor(), fd);
    EXPECT_TRUE(readable(fd)) << "queued before the first use";
    queue.post([] {});
    queue.poll();
    EXPECT_TRUE(readable(fd)) << "one is left";
    queue.poll();
    EXPECT_FALSE(readable(fd));
    queue.poll();
    EXPECT_FALSE(readable(fd));
    queue.post([] {});
    EXPECT_TRUE(readable(fd));
    queue.unblock();
    queue.dispatch_until_unblocked();
    EXPECT_FALSE(readable(fd));
}

TEST(Descriptor, IsClearedByAPurgeAndAShutdown)
{
    qrn::event_queue queue;
    int fd = queue.descriptor();
    qrn_context_t ctx{};
    auto never = [](qrn_context_t *, int, void *, void *) { return 0; };
    ASSERT_EQ(qrn_evq_enq_ctx_src(queue.get(), &ctx, 1, nullptr, nullptr, 0, never), 0);
    EXPECT_TRUE(readable(fd));
    qrn_evq_purge_ctx_src(queue.get(), &ctx);
    EXPECT_FALSE(readable(fd));
    queue.post([] {});
    queue.shutdown();
    EXPECT_FALSE(readable(fd));
}

TEST(Descriptor, WhenThereIsNoneToBeHadTheErrorSaysSo)
{
    qrn::event_queue queue;
    struct rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    int next = fcntl(0, F_DUPFD, 0);
    ASSERT_GE(next, 0);
    close(next);
    struct rlimit none = {static_cast<rlim_t>(next), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    int fd = qrn_event_queue_fd(queue.get());
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(fd, -1);
    EXPECT_STREQ(qrn_errmsg(), "CoreApi-5688-405: no event descriptor [24] [Too many open files]");
    EXPECT_GE(queue.descriptor(), 0);
    EXPECT_EQ(qrn_event_queue_fd(nullptr), -1);
    EXPECT_STREQ(qrn_errmsg(), "CoreApi-5688-403: evq must be valid");
}

// A loop that only ever polls when the descriptor says so must see everything, and then rest.
TEST(Descriptor, LosesNoWakeUpAndHasNoEndlessOne)
{
    constexpr int producers = 3;
    constexpr int each = 3000;
    for (int loops : {1, 2}) {
        qrn::event_queue queue;
        int fd = queue.descriptor();
        std::atomic<int> ran = 0;
        std::vector<std::jthread> team;
        for (int p = 0; p < producers; ++p)
            team.emplace_back([&] {
                for (int i = 0; i < each; ++i)
                    queue.post([&ran] { ++ran; });
            });
        for (int l = 0; l < loops; ++l)
            team.emplace_back([&] {
                while (ran < producers * each)
                    if (readable(fd, 100))
                        queue.poll();
            });
        team.clear();
        EXPECT_EQ(ran, producers * each);
        EXPECT_FALSE(readable(fd));
    }
}

} // namespace
