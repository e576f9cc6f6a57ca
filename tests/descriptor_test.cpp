// SPDX-License-Identifier: Apache-2.0
// The queue's descriptor: readable exactly while something is queued, whoever empties the queue.

#include <gtest/gtest.h>

#include <poll.h>

#include "qrn.hpp"
#include "qrnev.h"

namespace {

bool readable(int fd)
{
    struct pollfd interest = {fd, POLLIN, 0};
    return poll(&interest, 1, 0) == 1;
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
    queue.post([] {});
    queue.shutdown();
    EXPECT_FALSE(readable(fd));
}

} // namespace
