// SPDX-License-Identifier: Apache-2.0
//
// The faults that a queue outlives, one test each. Every test ends with a queue that works.

#include <atomic>
#include <chrono>
#include <latch>
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "objects.h"
#include "qrnctx.h"

namespace {

std::atomic<bool> no_memory = false, no_threads = false;
std::atomic<time_t> step = 0; // of the system clock, in seconds

// A producer that is to stop before it posts its next token.
thread_local bool stops = false;
std::latch stopped(1), goes_on(1);

} // namespace

extern "C" {

void *__real_aligned_alloc(size_t alignment, size_t size);
int __real_sem_post(sem_t *sem);
int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
int __real_clock_gettime(clockid_t clock, timespec *time);

void *__wrap_aligned_alloc(size_t alignment, size_t size)
{
    return no_memory ? nullptr : __real_aligned_alloc(alignment, size);
}
int __wrap_sem_post(sem_t *sem)
{
    if (std::exchange(stops, false)) {
        stopped.count_down();
        goes_on.wait();
    }
    return __real_sem_post(sem);
}
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*run)(void *),
                          void *arg)
{
    return no_threads ? EAGAIN : __real_pthread_create(thread, attr, run, arg);
}
int __wrap_clock_gettime(clockid_t clock, timespec *time)
{
    const int result = __real_clock_gettime(clock, time);
    if (clock == CLOCK_REALTIME)
        time->tv_sec += step;
    return result;
}

} // extern "C"

namespace {

using namespace test;

class FaultTest : public EventFixture {
protected:
    Queue queue{"count size=1 notify cancel", on_monitor, this};
    std::atomic<int> called = 0;
    int posted = 0; // from one thread
    int more = 0;   // events that the monitor callback enqueues

    static int on_monitor(Q *, int, size_t, qrn_ulong_t, void *test)
    {
        if (auto *self = static_cast<FaultTest *>(test); self->more > 0 && self->more--)
            self->post();
        return 0;
    }

    // Posts a callback that counts itself. Whether that worked.
    bool post(Q *evq = nullptr)
    {
        auto proc = [](Q *, void *n) { ++*static_cast<std::atomic<int> *>(n); };
        const int result = qrn_evq_enq_callback(evq ? evq : queue.evq, proc, proc, &called);
        posted += result == 0;
        return result == 0;
    }

    void expect_works(Q *evq)
    {
        while (dispatch(evq) != 0) {
        }
        called = 0;
        EXPECT_TRUE(post(evq));
        EXPECT_EQ(qrn_event_dispatch_unblock(evq), 0);
        EXPECT_EQ(dispatch(evq, QRN_EVQ_DISPATCH_BLOCK), 2);
        EXPECT_EQ(called, 1);
    }
    void TearDown() override
    {
        expect_works(queue);
        EXPECT_EQ(counts_of(queue), counts{});
        EXPECT_EQ(queue->qsz, 0);
        EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
        queue.end();
        EventFixture::TearDown();
    }

    // What needs threads and descriptors fails while there are none, and works afterwards.
    void expect_made(bool ok)
    {
        qrn_context_t *ctx = nullptr;
        Q *monitored = nullptr;
        Attr attr("monitor=60 topts=port=9");
        EXPECT_EQ(qrn_ctx_create(&ctx, nullptr), ok ? 0 : -1);
        EXPECT_EQ(qrn_event_queue_create(&monitored, nullptr, nullptr, attr), ok ? 0 : -1);
        expect_works(ok ? monitored : queue);
        EXPECT_EQ(ok ? qrn_event_queue_delete(monitored) | qrn_ctx_delete(ctx) : 0, 0);
    }
};

// tests/alloc_test.cpp lets every allocation fail; here a queue in use runs out for a while.
TEST_F(FaultTest, MemoryRunsOut)
{
    std::jthread dispatcher([&] { dispatch(queue, QRN_EVQ_DISPATCH_BLOCK); });
    for (int i = 0; i < 20'000; ++i) {
        no_memory = i / 1000 % 2 == 1;
        post();
    }
    no_memory = false;
    EXPECT_EQ(qrn_event_dispatch_unblock(queue), 0);
    dispatcher.join();
    EXPECT_EQ(called, posted);
    EXPECT_EQ(queue->callback_events_tot, posted);
}

TEST_F(FaultTest, DescriptorsRunOut)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    expect_works(queue); // a sanitizer checks a type for the first time with descriptors of its own
    setrlimit(RLIMIT_NOFILE, &none);
    expect_made(false);
    EXPECT_EQ(qrn_event_queue_fd(queue), -1);
    EXPECT_STREQ(qrn_errmsg(), "CoreApi-5688-405: no event descriptor [24] [Too many open files]");
    setrlimit(RLIMIT_NOFILE, &limit);
    expect_made(true);
    EXPECT_GE(qrn_event_queue_fd(queue), 0);
}

TEST_F(FaultTest, ThreadsAreRefused)
{
    no_threads = true;
    expect_made(false);
    no_threads = false;
    expect_made(true);
}

// An hour forwards ends no dispatch call early, an hour back makes none wait for it.
TEST_F(FaultTest, SystemClockIsStepped)
{
    for (time_t hours : {1, -1}) {
        const auto start = std::chrono::steady_clock::now();
        std::jthread dispatcher([&] { EXPECT_EQ(dispatch(queue, 100), 1); });
        step = hours * 3600;
        EXPECT_TRUE(post());
        dispatcher.join();
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
        step = 0;
    }
}

// In the midst of an append: what is queued can be taken all the same, and others go on.
TEST_F(FaultTest, ProducerStops)
{
    std::jthread producer([&] {
        for (stops = true; stops;)
            post();
    });
    stopped.wait();
    const int queued = posted + 1;
    for (int i = 0; i < queued; ++i)
        EXPECT_EQ(dispatch(queue), 1);
    EXPECT_EQ(called, queued);
    expect_works(queue);
    goes_on.count_down();
}

TEST_F(FaultTest, ConsumerIsSlow)
{
    constexpr int million = 1'000'000;
    for (int i = 0; i < million; ++i)
        ASSERT_TRUE(i % 100 == 50 ? world.enqueue(queue, TIMER) == 0 : post());
    EXPECT_EQ(qrn_event_queue_size(queue), million);
    EXPECT_EQ(qrn_evq_purge_timer(queue, &world.ctx, world.id), 0);
    EXPECT_EQ(qrn_event_queue_size(queue), posted);
    EXPECT_EQ(qrn_event_dispatch_unblock(queue), 0);
    EXPECT_EQ(dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), posted + 1);
    EXPECT_EQ(called, posted);
}

TEST_F(FaultTest, CallbacksThrow)
{
    world.act = [](int type) -> int { throw type; };
    for (int type = MSG; type <= BUNDLE; ++type) {
        if (!has_callback(type))
            continue;
        ASSERT_EQ(world.enqueue(queue, type), 0);
        EXPECT_EQ(dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), threw) << type;
    }
}

TEST_F(FaultTest, ObjectIsDeletedInItsCallback)
{
    int cancelled = 0;
    auto *rcv = kfx::alloc_zeroed<qrn_rcv_t>();
    rcv->ctx = &world.ctx;
    world.act = [&](int) {
        cancel_info info = {queue, [](int, void *n) { ++*static_cast<int *>(n); }, &cancelled};
        qrn_evq_purge_rcv(queue, rcv);
        qrn_evq_cancel_cb_rcv(rcv, &info);
        qrn_evq_enq_cancel(queue, rcv->ctx, rcv);
        return cancelled;
    };
    for (int i = 0; i < 3; ++i)
        qrn_evq_enq_msg_with_proc(queue, rcv, World::on<MSG>, world.new_msg(), &world);
    for (int taken : {1, 1, 0}) { // the second frees it
        EXPECT_EQ(dispatch(queue), taken);
        EXPECT_EQ(cancelled, 1);
    }
}

// Nobody listens, nobody is there, nobody reads.
TEST_F(FaultTest, MonitorTransportFails)
{
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    socklen_t len = sizeof addr;
    const int full = socket(AF_INET, SOCK_DGRAM, 0), least = 1;
    setsockopt(full, SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
    ASSERT_EQ(bind(full, reinterpret_cast<sockaddr *>(&addr), len), 0);
    getsockname(full, reinterpret_cast<sockaddr *>(&addr), &len);
    const std::string there = std::to_string(ntohs(addr.sin_port));
    for (const std::string &where : {std::string("9"), std::string("9,host=192.0.2.1"), there})
        for (int i = 0; i < 20; ++i)
            expect_works(Queue("count monitor=1 topts=port=" + where));
    close(full);
}

TEST_F(FaultTest, UnblocksStorm)
{
    constexpr int pairs = 4, each = 2500;
    std::atomic<long> taken = 0;
    std::vector<std::jthread> team;
    for (int t = 0; t < 2 * pairs; ++t)
        team.emplace_back([&, t] {
            for (int i = 0; i < each; ++i)
                t % 2 == 0 ? taken += dispatch(queue, QRN_EVQ_DISPATCH_BLOCK)
                           : qrn_event_dispatch_unblock(queue);
        });
    team.clear();
    EXPECT_EQ(taken, pairs * each);
}

// About each power of two that is no time to wait for in a test.
TEST_F(FaultTest, TimeoutsAreExtreme)
{
    EXPECT_EQ(dispatch(queue, 1), 0);
    for (qrn_ulong_t ones = ~0UL; ones > 1'000'000; ones >>= 1)
        for (qrn_ulong_t tmo : {ones - 1, ones, ones / 2 + 1, ones / 2 + 2}) {
            std::jthread dispatcher([&] { EXPECT_EQ(dispatch(queue, tmo), 2) << tmo; });
            EXPECT_TRUE(post());
            EXPECT_EQ(qrn_event_dispatch_unblock(queue), 0);
        }
}

TEST_F(FaultTest, MonitorCallbackEnqueues)
{
    for (more = 90; posted < 100;)
        EXPECT_TRUE(post());
    while (dispatch(queue) == 1) {
    }
    EXPECT_EQ(more, 0);
    EXPECT_EQ(called, posted);
}

} // namespace
