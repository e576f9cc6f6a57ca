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

// Where a producer stops: in the one or the other of the two calls of an append.
struct stop {
    bool with_lock; // when it needs memory, else before it posts its token
    std::latch stopped{1}, goes_on{1};
};
thread_local stop *stops = nullptr;

void pass(bool with_lock)
{
    if (stops == nullptr || stops->with_lock != with_lock)
        return;
    stop *here = std::exchange(stops, nullptr);
    here->stopped.count_down();
    here->goes_on.wait();
}

} // namespace

extern "C" {

void *__real_aligned_alloc(size_t alignment, size_t size);
int __real_sem_post(sem_t *sem);
int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
int __real_clock_gettime(clockid_t clock, timespec *time);

void *__wrap_aligned_alloc(size_t alignment, size_t size)
{
    pass(true);
    return no_memory ? nullptr : __real_aligned_alloc(alignment, size);
}
int __wrap_sem_post(sem_t *sem)
{
    pass(false);
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
using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int million = 100'000;
#else
constexpr int million = 1'000'000;
#endif

class FaultTest : public EventFixture {
public:
    // Posts a callback that counts itself.
    int post(qrn_event_queue_t *evq)
    {
        auto proc = [](qrn_event_queue_t *, void *n) { ++*static_cast<std::atomic<int> *>(n); };
        return qrn_evq_enq_callback(evq, proc, proc, &called);
    }

    void expect_works(qrn_event_queue_t *evq)
    {
        while (qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_POLL) != 0) {
        }
        called = 0;
        EXPECT_EQ(post(evq) | qrn_event_dispatch_unblock(evq), 0);
        EXPECT_EQ(qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_BLOCK), 2);
        EXPECT_EQ(called, 1);
    }

    // What needs threads and descriptors fails while there are none, and works afterwards.
    void expect_made(bool ok)
    {
        qrn_context_t *ctx = nullptr;
        qrn_event_queue_t *monitored = nullptr;
        EXPECT_EQ(qrn_ctx_create(&ctx, nullptr), ok ? 0 : -1);
        Attr attr("monitor=60 topts=port=9");
        EXPECT_EQ(qrn_event_queue_create(&monitored, nullptr, nullptr, attr), ok ? 0 : -1);
        if (!ok) {
            EXPECT_STRNE(qrn_errmsg(), "");
            return;
        }
        expect_works(monitored);
        EXPECT_EQ(qrn_event_queue_delete(monitored) | qrn_ctx_delete(ctx), 0);
    }

    std::atomic<int> called = 0;
    int posted = 0; // from one thread
};

// tests/alloc_test.cpp lets every allocation fail; here a queue in use runs out for a while.
TEST_F(FaultTest, MemoryRunsOut)
{
    Queue queue("count");
    int failed = 0;
    std::jthread dispatcher([&] { qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK); });
    for (int round = 0; round < 20; ++round) {
        no_memory = round % 2 == 1;
        for (int i = 0; i < 1000; ++i)
            ++(post(queue) == 0 ? posted : failed);
    }
    no_memory = false;
    EXPECT_EQ(qrn_event_dispatch_unblock(queue), 0);
    dispatcher.join();
    EXPECT_EQ(called, posted);
    EXPECT_EQ(queue->callback_events_tot, posted);
    expect_works(queue);
}

TEST_F(FaultTest, DescriptorsRunOut)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    Queue queue;
    expect_works(queue); // a sanitizer checks a type for the first time with descriptors of its own
    setrlimit(RLIMIT_NOFILE, &none);
    expect_made(false);
    EXPECT_EQ(qrn_event_queue_fd(queue), -1);
    expect_works(queue);
    setrlimit(RLIMIT_NOFILE, &limit);
    expect_made(true);
    EXPECT_GE(qrn_event_queue_fd(queue), 0);
    expect_works(queue);
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
    Queue queue;
    for (time_t hours : {1, -1}) {
        const auto start = steady::now();
        std::jthread dispatcher([&] { EXPECT_EQ(qrn_event_dispatch(queue, 100), 1); });
        step = hours * 3600;
        EXPECT_EQ(post(queue), 0);
        dispatcher.join();
        EXPECT_GE(steady::now() - start, milliseconds(100));
        step = 0;
    }
    expect_works(queue);
}

// A producer stops in the midst of an append, one time with the lock of the tail in its hands: what is
// queued can be taken all the same, and without that lock others go on.
TEST_F(FaultTest, ProducerStops)
{
    for (bool with_lock : {true, false}) {
        Queue queue;
        stop here = {with_lock};
        posted = 0;
        std::jthread producer([&] {
            for (stops = &here; stops != nullptr; ++posted)
                post(queue);
        });
        here.stopped.wait();
        const int queued = posted + (with_lock ? 0 : 1);
        called = 0;
        for (int i = 0; i < queued; ++i)
            EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_POLL), 1);
        EXPECT_EQ(called, queued);
        if (!with_lock)
            expect_works(queue);
        here.goes_on.count_down();
        producer.join();
        expect_works(queue);
    }
}

TEST_F(FaultTest, ConsumerIsSlow)
{
    auto monitor = [](qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *) { return 0; };
    Queue queue("count size=1", monitor);
    for (int i = 0; i < million; ++i)
        ASSERT_EQ(i % 100 == 50 ? world.enqueue(queue, TIMER) : post(queue), 0);
    EXPECT_EQ(qrn_event_queue_size(queue), million);
    EXPECT_EQ(qrn_evq_purge_timer(queue, &world.ctx, world.id), 0);
    EXPECT_EQ(qrn_event_queue_size(queue), million - million / 100);
    EXPECT_EQ(qrn_event_dispatch_unblock(queue), 0);
    EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK), million - million / 100 + 1);
    EXPECT_EQ(called, million - million / 100);
    EXPECT_EQ(qrn_event_queue_size(queue), 0);
    expect_works(queue);
}

TEST_F(FaultTest, CallbacksThrow)
{
    Queue queue("count size=1 cancel");
    world.act = [](int type) -> int { throw type; };
    for (int type = MSG; type <= BUNDLE; ++type) {
        if (!has_callback(type))
            continue;
        ASSERT_EQ(world.enqueue(queue, type), 0);
        try {
            qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK);
            ADD_FAILURE() << "type " << type << " was swallowed";
        } catch (int thrown) {
            EXPECT_EQ(thrown, type);
        }
    }
    EXPECT_EQ(counts_of(queue, &figures::now), counts{});
    EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
    expect_works(queue);
}

TEST_F(FaultTest, ObjectIsDeletedInItsCallback)
{
    Queue queue("cancel count");
    int cancelled = 0;
    auto *rcv = kfx::alloc_zeroed<qrn_rcv_t>();
    rcv->ctx = &world.ctx;
    world.act = [&](int) {
        cancel_info info = {queue, [](int, void *n) { ++*static_cast<int *>(n); }, &cancelled};
        qrn_evq_purge_rcv(queue, rcv);
        qrn_evq_cancel_cb_rcv(rcv, &info);
        qrn_evq_enq_cancel(queue, rcv->ctx, rcv);
        EXPECT_EQ(cancelled, 0);
        return 0;
    };
    for (int i = 0; i < 3; ++i)
        qrn_evq_enq_msg_with_proc(queue, rcv, World::on<MSG>, world.new_msg(), &world);
    EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_POLL), 1);
    EXPECT_EQ(cancelled, 1);
    EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_POLL), 1); // frees it
    EXPECT_EQ(qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_POLL), 0);
    expect_works(queue);
}

// Nobody listens, nobody is there, nobody reads.
TEST_F(FaultTest, MonitorTransportFails)
{
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    const int full = socket(AF_INET, SOCK_DGRAM, 0), least = 1;
    setsockopt(full, SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
    ASSERT_EQ(bind(full, reinterpret_cast<sockaddr *>(&addr), len), 0);
    getsockname(full, reinterpret_cast<sockaddr *>(&addr), &len);
    for (const std::string &where : {std::string("port=9"), std::string("host=192.0.2.1,port=9"),
                                     "port=" + std::to_string(ntohs(addr.sin_port))}) {
        for (int i = 0; i < 20; ++i) {
            Queue queue("count monitor=1 topts=" + where);
            expect_works(queue);
        }
    }
    close(full);
}

TEST_F(FaultTest, UnblocksStorm)
{
    constexpr int pairs = 4, each = 2500;
    Queue queue("count");
    std::atomic<long> taken = 0;
    std::vector<std::jthread> team;
    for (int t = 0; t < pairs; ++t) {
        team.emplace_back([&] {
            for (int i = 0; i < each; ++i)
                taken += qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_BLOCK);
        });
        team.emplace_back([&] {
            for (int i = 0; i < each; ++i)
                qrn_event_dispatch_unblock(queue);
        });
    }
    team.clear();
    EXPECT_EQ(taken, pairs * each);
    EXPECT_EQ(queue->unblock_events, 0);
    expect_works(queue);
}

TEST_F(FaultTest, TimeoutsAreExtreme)
{
    Queue queue;
    EXPECT_EQ(qrn_event_dispatch(queue, 1), 0);
    for (int bits : {31, 32, 33, 53, 62, 63, 64}) {
        const qrn_ulong_t edge = bits == 64 ? 0 : 1UL << bits;
        for (qrn_ulong_t tmo : {edge - 2, edge - 1, edge, edge + 1}) {
            if (tmo <= 1) // of the round that goes over the edge
                continue;
            std::jthread dispatcher([&] { EXPECT_EQ(qrn_event_dispatch(queue, tmo), 2) << tmo; });
            EXPECT_EQ(post(queue), 0);
            EXPECT_EQ(qrn_event_dispatch_unblock(queue), 0);
        }
    }
    expect_works(queue);
}

TEST_F(FaultTest, MonitorCallbackEnqueues)
{
    static thread_local int depth = 0;
    auto monitor = [](qrn_event_queue_t *evq, int, size_t, qrn_ulong_t, void *clientd) {
        auto *self = static_cast<FaultTest *>(clientd);
        if (++depth <= 3 && self->posted < 100)
            self->posted += self->post(evq) == 0;
        --depth;
        return 0;
    };
    Queue queue("count size=1 notify", monitor, this);
    for (int i = 0; i < 10; ++i)
        posted += post(queue) == 0;
    int taken = 0;
    while (qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_POLL) == 1)
        ++taken;
    EXPECT_GE(posted, 100);
    EXPECT_EQ(taken, posted);
    EXPECT_EQ(called, posted);
    EXPECT_EQ(qrn_event_queue_size(queue), 0);
}

} // namespace
