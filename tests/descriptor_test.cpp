// SPDX-License-Identifier: Apache-2.0
// The queue's descriptor: readable exactly while something is queued, whoever empties the queue.

#include <gtest/gtest.h>

#include <atomic>
#include <poll.h>
#include <sys/resource.h>
#include <thread>

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
    const int fd = queue.descriptor();
    EXPECT_EQ(queue.descriptor(), fd);
    EXPECT_TRUE(readable(fd)) << "queued before the first use";
    queue.post([] {});
    queue.poll();
    EXPECT_TRUE(readable(fd)) << "one is left";
    queue.poll();
    EXPECT_FALSE(readable(fd));
    queue.unblock();
    queue.dispatch_until_unblocked();
    EXPECT_FALSE(readable(fd));
    qrn_context_t ctx{};
    auto never = [](qrn_context_t *, int, void *, void *) { return 0; };
    EXPECT_EQ(qrn_evq_enq_ctx_src(queue.get(), &ctx, 1, nullptr, nullptr, 0, never), 0);
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
    const struct rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(qrn_event_queue_fd(queue.get()), -1);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_STREQ(qrn_errmsg(), "CoreApi-5688-405: no event descriptor [24] [Too many open files]");
    EXPECT_GE(queue.descriptor(), 0);
    EXPECT_EQ(qrn_event_queue_fd(nullptr), -1);
    EXPECT_STREQ(qrn_errmsg(), "CoreApi-5688-403: evq must be valid");
}

// A loop that only ever polls when the descriptor says so must see everything, and then rest.
TEST(Descriptor, LosesNoWakeUpAndHasNoEndlessOne)
{
    for (int loops : {1, 2}) {
        qrn::event_queue queue;
        const int fd = queue.descriptor();
        std::atomic<int> ran = 0;
        std::vector<std::jthread> team;
        for (int t = 0; t < 3 + loops; ++t)
            team.emplace_back([&, t] {
                for (int i = 0; t < 3 && i < 3000; ++i)
                    queue.post([&ran] { ++ran; });
                while (t >= 3 && ran < 3 * 3000)
                    if (readable(fd, 100))
                        queue.poll();
            });
        team.clear();
        EXPECT_EQ(ran, 3 * 3000);
        EXPECT_FALSE(readable(fd));
    }
}

} // namespace
