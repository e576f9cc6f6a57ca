// SPDX-License-Identifier: Apache-2.0
//
// What the explorer plays. A scenario sets up a queue, starts threads, runs them until none can go on,
// checks what must hold then, and lets whoever still waits end. In every scenario each item or event
// ends once and in order, nothing is stranded, every block is freed once, every count comes back to 0.
//
// SCHED_RUNS sets the number of schedules a scenario, SCHED_SEED the first seed: with the seed of a
// failure and SCHED_RUNS=1 the same schedule is played again.

#include <array>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <map>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#if defined(SCHED_ASAN) || defined(SCHED_TSAN)
#include <sanitizer/common_interface_defs.h>
#endif

#include "explorer.h"
#include "qrnev.h"
#include "qrnobj.h"

using sched::check;
using sched::point;
using sched::spawn;
using sched::touch;

namespace {

// --- Running -------------------------------------------------------------------------------------

#if defined(SCHED_ASAN) || defined(SCHED_TSAN)
constexpr unsigned long default_runs = 2'000;
#else
constexpr unsigned long default_runs = 10'000;
#endif

unsigned long setting(const char *name, unsigned long otherwise)
{
    const char *text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoul(text, nullptr, 0);
}

uint64_t seed;

// When the code under test crashes, says where.
void say_seed()
{
    char line[64];
    int len = std::snprintf(line, sizeof line, "crash with SCHED_SEED=%lu SCHED_RUNS=1\n", seed);
    [[maybe_unused]] auto written = write(STDERR_FILENO, line, static_cast<size_t>(len));
}

void catch_crashes()
{
#if defined(SCHED_ASAN) || defined(SCHED_TSAN)
    __sanitizer_set_death_callback(say_seed);
#else
    static char stack[64 * 1024];
    const stack_t alternate = {stack, 0, sizeof stack};
    sigaltstack(&alternate, nullptr);
    struct sigaction action = {};
    action.sa_flags = static_cast<int>(SA_ONSTACK | SA_RESETHAND);
    action.sa_handler = [](int signal) {
        say_seed();
        raise(signal);
    };
    for (int signal : {SIGSEGV, SIGBUS, SIGABRT})
        sigaction(signal, &action, nullptr);
#endif
}

// The first failure of the schedules from `first` on, whose number is then `seed`; empty when all hold.
std::string failure_of(void (*scenario)(), uint64_t first, unsigned long runs)
{
    catch_crashes();
    for (seed = first; seed < first + runs; ++seed) {
        try {
            sched::begin(seed);
            qrn_evq_init();
            scenario();
            sched::end();
        } catch (const sched::failure &failed) {
            return failed.what;
        }
    }
    return "";
}

void explore(void (*scenario)())
{
    EXPECT_EQ(failure_of(scenario, setting("SCHED_SEED", 1), setting("SCHED_RUNS", default_runs)),
              "")
        << "SCHED_SEED=" << seed << " SCHED_RUNS=1";
}

// --- The blocking queue --------------------------------------------------------------------------

// Items are numbers; the tens say who appended them. Number 0 tells a taker to end.
class items {
public:
    // Some queues are not new: what happened before brings them to the turns of their memory.
    items()
    {
        for (unsigned i = sched::choose(8) == 0 ? 245 + sched::choose(10) : 0; i > 0; --i) {
            append(0);
            take(0);
        }
        sched::set_stranded([this] { return q_->head->next != nullptr; });
    }

    void producer(int first, int count)
    {
        spawn([=, this] {
            for (int i = 0; i < count; ++i)
                append(first + i);
        });
    }

    void taker()
    {
        spawn([this] {
            while (take(1) != 0)
                ;
        });
    }

    void poller(int polls)
    {
        spawn([=, this] {
            for (int i = 0; i < polls; ++i)
                take(0);
        });
    }

    void timed_taker(int takes)
    {
        spawn([=, this] {
            for (int i = 0; i < takes; ++i) {
                timespec deadline = {static_cast<time_t>(sched::now() / 1'000'000'000 + 1), 0};
                void *item = nullptr;
                int result = qrn_tl_queue_dequeue_timed(q_, &item, &hook_, &deadline);
                check((result == -1) == (item == nullptr), "the result says nothing of the item");
            }
        });
    }

    // Removes the even items below 20 and appends another one for each.
    void remover()
    {
        spawn([this] {
            auto differs = [](const void *item, const void *) {
                return number(item) % 2 == 0 && number(item) < 20 ? 0 : 1;
            };
            auto replace = [](const void *item) {
                self_->end(number(item));
                self_->append(number(item) + 20);
                return 0;
            };
            self_ = this;
            qrn_tl_queue_remove_all(q_, differs, replace, nullptr);
        });
    }

    // Polls when the queue's descriptor is readable, as an event loop does.
    void watcher(int looks)
    {
        spawn([=, this] {
            fd_ = qrn_tl_queue_fd(q_);
            for (int i = 0; i < looks; ++i) {
                if (is_readable())
                    take(0);
                else
                    point();
            }
        });
    }

    // Runs it all and ends the takers. `wanted` items, those of the remover aside, must have ended.
    void finish(int wanted)
    {
        int waiting = sched::run();
        check(waiting == 0 || q_->head->next == nullptr, "an item is stranded");
        check(fd_ == -1 || is_readable() || q_->head->next == nullptr, "an item is not shown");
        check_tokens();
        for (; waiting > 0; --waiting)
            append(0);
        check(sched::run() == 0, "a taker is not woken");
        while (take(0) != -1)
            ;
        check(fd_ == -1 || !is_readable(), "an empty queue is shown as one with items");
        check_tokens();
        check(ended_ == wanted + replaced_, "an item is lost");
        qrn_tl_queue_delete(q_);
    }

private:
    bool is_readable() const
    {
        pollfd look = {fd_, POLLIN, 0};
        return poll(&look, 1, 0) == 1;
    }

    static int number(const void *item) { return *static_cast<const int *>(item); }

    void append(int item)
    {
        replaced_ += item >= 20;
        check(qrn_tl_queue_enqueue(q_, &numbers_[static_cast<size_t>(item)]) == 0, "append fails");
    }

    // The item taken; -1 when a poll finds none.
    int take(int block)
    {
        void *item = nullptr;
        while (qrn_tl_queue_dequeue_ex(q_, &item, block, &hook_) == -1)
            check(block != 0 && item == nullptr, "a take asks in vain to be tried again");
        check(block == 0 || item != nullptr, "a blocking take comes back without an item");
        return item == nullptr ? -1 : number(item);
    }

    void end(int item)
    {
        check(item == 0 || ++seen_[static_cast<size_t>(item)] == 1, "an item leaves twice");
        ended_ += item != 0;
    }

    // The hook of the takes, which sees them in order.
    static void on_take(void *taken, void *clientd)
    {
        auto *self = static_cast<items *>(clientd);
        const int item = number(taken);
        int &last = self->last_[static_cast<size_t>(item) / 10];
        check(item == 0 || item > last, "items leave out of order");
        last = item;
        self->end(item);
    }

    // With no operation under way.
    void check_tokens()
    {
        int present = 0;
        auto count = [](const void *, const void *clientd, int *) {
            ++*static_cast<int *>(const_cast<void *>(clientd));
            return 0;
        };
        qrn_tl_queue_filter_all(q_, count, &present);
        int tokens = 0;
        sem_getvalue(&q_->sem_sz, &tokens);
        check(tokens >= present, "an item has no token");
    }

    static inline items *self_;
    std::array<int, 40> numbers_ = [] {
        std::array<int, 40> n;
        for (int i = 0; i < 40; ++i)
            n[static_cast<size_t>(i)] = i;
        return n;
    }();
    std::array<int, 40> seen_ = {};
    std::array<int, 4> last_ = {};
    int ended_ = 0;
    int replaced_ = 0;
    int fd_ = -1;
    qrn_tl_queue_t *q_ = qrn_tl_queue_create();
    qrn_tl_queue_dequeue_cb_info_t hook_ = {on_take, this};
};

TEST(Schedules, AppendAgainstBlockingTake)
{
    explore([] {
        items q;
        q.producer(1, 3);
        q.producer(11, 2);
        q.taker();
        q.finish(5);
    });
}

// Long enough for a flow in which takers offer their tokens, and for two of them.
TEST(Schedules, FullFlowAgainstAppendAndTake)
{
    explore([] {
        items q;
        q.producer(1, 7);
        q.producer(11, 5);
        q.taker();
        q.taker();
        q.finish(12);
    });
}

TEST(Schedules, TwoTakersOneItem)
{
    explore([] {
        items q;
        q.producer(1, 1);
        q.taker();
        q.taker();
        q.finish(1);
    });
}

TEST(Schedules, PollAgainstAppend)
{
    explore([] {
        items q;
        q.producer(1, 2);
        q.poller(3);
        q.taker();
        q.finish(2);
    });
}

TEST(Schedules, TimedTakeAgainstAppend)
{
    explore([] {
        items q;
        q.producer(1, 2);
        q.timed_taker(2);
        q.timed_taker(1);
        q.taker();
        q.finish(2);
    });
}

TEST(Schedules, RemovalAgainstAppendAndTake)
{
    explore([] {
        items q;
        q.producer(1, 4);
        q.producer(11, 2);
        q.remover();
        q.taker();
        q.taker();
        q.finish(6);
    });
}

TEST(Schedules, DescriptorAgainstAppendAndTake)
{
    explore([] {
        items q;
        q.producer(1, 3);
        q.watcher(4);
        q.poller(1);
        q.remover();
        q.finish(3);
    });
}

// --- Event queues --------------------------------------------------------------------------------

// A queue with every figure on, and objects that its events refer to. Callbacks look at their object
// all the time, so that it shows when it is freed too early.
class events {
public:
    explicit events(int cancel_cb = 0)
    {
        qrn_event_queue_attr_t *attr = nullptr;
        qrn_event_queue_attr_create_default(&attr);
        attr->q_cancel_cb = cancel_cb;
        attr->q_count = attr->q_age = attr->q_svc_time = attr->q_notify = 1;
        attr->q_sz_warn = attr->q_delay_warn = 1;
        auto monitor = [](qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *) { return 0; };
        qrn_event_queue_create(&evq, monitor, nullptr, attr);
        qrn_event_queue_attr_delete(attr);
        ctx.fdm = &fdm_;
        ctx.rcv_delivery_batching_cb = on_bundle;
        ctx.rcv_delivery_batching_clientd = this;
        sched::suspended = 0;
        sched::set_stranded([this] { return evq->q->head->next != nullptr; });
    }

    qrn_rcv_t *receiver()
    {
        auto *rcv = static_cast<qrn_rcv_t *>(std::malloc(sizeof(qrn_rcv_t)));
        *rcv = {};
        rcv->ctx = &ctx;
        return rcv;
    }

    qrn_msg_t *message() { return &messages.emplace_back(); }

    void post(qrn_rcv_t *rcv)
    {
        check(qrn_evq_enq_msg_with_proc(evq, rcv, on_message, message(), this) == 0, "not queued");
    }

    void post_bundle(std::initializer_list<qrn_rcv_t *> receivers)
    {
        qrn_event_bundle_t *bundle = qrn_event_bundle_create(&ctx);
        for (qrn_rcv_t *rcv : receivers) {
            qrn_event_t &entry = bundle->events[bundle->num_events++];
            entry = {QRN_EVQ_MSG_TYPE, evq, &ctx, {}, {}, 0};
            entry.info.msg = {rcv, message(), nullptr, nullptr};
            ++bundle->data_msgs;
        }
        check(qrn_evq_enq_msg_bundle(evq, bundle) == 0, "not queued");
    }

    void post_callback()
    {
        ++posted;
        auto proc = [](qrn_event_queue_t *, void *self) { ++static_cast<events *>(self)->called; };
        qrn_evq_enq_callback(evq, proc, proc, this);
    }

    // Ends with an unblock event; what a callback throws is caught.
    void dispatcher()
    {
        spawn([this] {
            for (;;) {
                try {
                    if (int n = qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_BLOCK); n != -1) {
                        taken += n;
                        return;
                    }
                } catch (const int &) {
                }
            }
        });
    }

    void cancel_callback(qrn_rcv_t *rcv)
    {
        qrn_event_queue_cancel_cb_info_t info = {evq, on_cancelled, this};
        cancelled_ = rcv;
        check(qrn_evq_cancel_cb_rcv(rcv, &info) == 0, "no cancellation");
    }

    // Runs it all, ends the dispatchers, and checks the accounts. A queue that was shut down may have
    // declined messages, which then stay with the caller.
    void finish(bool shut_down = false)
    {
        int waiting = sched::run();
        check(waiting == 0 || evq->q->head->next == nullptr, "an event is stranded");
        for (; waiting > 0; --waiting)
            qrn_event_dispatch_unblock(evq);
        check(sched::run() == 0, "a dispatcher is not woken");
        while (qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_POLL) != 0)
            ++taken;
        qrn_event_queue_stats_t stats;
        qrn_event_queue_retrieve_stats(evq, &stats);
        check(stats.events == 0 && evq->data_msgs == 0, "a count is off");
        check(evq->qsz == 0, "the size is off");
        check(called == posted, "a callback did not run");
        check(sched::suspended == 0, "a descriptor is not resumed");
        for (const qrn_msg_t &msg : messages)
            released += msg.refs;
        check(released == (shut_down ? evq->data_msgs_tot : static_cast<long>(messages.size())),
              "a message is not released");
        qrn_event_queue_delete(evq);
    }

    qrn_event_queue_t *evq = nullptr;
    qrn_context_t ctx = {};
    std::deque<qrn_msg_t> messages;
    std::function<int(qrn_rcv_t *)> in_callback; // what on_message() does besides
    int posted = 0;
    int called = 0; // callbacks that ran, for any reason
    int taken = 0;
    long released = 0;
    int delivered = 0;
    int cancellations = 0;

private:
    static int on_message(qrn_rcv_t *rcv, qrn_msg_t *msg, void *clientd)
    {
        auto *self = static_cast<events *>(clientd);
        ++self->inside_[rcv];
        ++self->delivered;
        for (int i = 0; i < 3; ++i) {
            touch(rcv);
            check(msg->refs == 0, "a message is released before its callback ends");
            point();
        }
        --self->inside_[rcv];
        return self->in_callback ? self->in_callback(rcv) : 0;
    }

    static int on_bundle(qrn_event_bundle_t *bundle, void *)
    {
        long present = 0;
        for (int i = 0; i < bundle->num_events; ++i) {
            const qrn_event_t &entry = bundle->events[i];
            if (entry.ctx == nullptr)
                continue;
            ++present;
            touch(entry.info.msg.rcv);
            point();
            touch(entry.info.msg.rcv);
            check(entry.ctx != nullptr && entry.info.msg.msg->refs == 0, "a purge is too late");
        }
        check(present > 0 && bundle->data_msgs == present, "a bundle's count is off");
        return 0;
    }

    static void on_cancelled(int, void *clientd)
    {
        auto *self = static_cast<events *>(clientd);
        ++self->cancellations;
        check(self->inside_[self->cancelled_] == 0, "a callback of the object still runs");
    }

    qrn_fd_t fdm_ = {};
    std::map<qrn_rcv_t *, int> inside_;
    qrn_rcv_t *cancelled_ = nullptr;
};

TEST(Schedules, FilterAgainstBundleDelivery)
{
    explore([] {
        events e;
        qrn_rcv_t *a = e.receiver();
        qrn_rcv_t *b = e.receiver();
        spawn([&] {
            e.post_bundle({a, b, a});
            e.post(a);
            e.post_bundle({a});
            e.post_bundle({b, a});
        });
        e.dispatcher();
        spawn([&] {
            qrn_evq_purge_rcv(e.evq, a);
            qrn_evq_purge_rcv(e.evq, b);
        });
        e.finish();
        std::free(a);
        std::free(b);
    });
}

TEST(Schedules, UnblockAgainstTwoDispatchers)
{
    explore([] {
        events e;
        qrn_rcv_t *a = e.receiver();
        e.dispatcher();
        e.dispatcher();
        spawn([&] { qrn_event_dispatch_unblock(e.evq); });
        spawn([&] {
            e.post(a);
            qrn_event_dispatch_unblock(e.evq);
            e.post(a);
        });
        check(sched::run() == 0, "an unblock event ends no dispatch call");
        e.finish();
        check(e.taken == 4 && e.delivered == 2, "dispatch miscounts");
        std::free(a);
    });
}

TEST(Schedules, CancelAgainstThreeDeliveries)
{
    explore([] {
        events e(1);
        qrn_rcv_t *a = e.receiver();
        for (int i = 0; i < 3; ++i)
            e.post(a);
        qrn_evq_enq_cancel(e.evq, &e.ctx, a);
        for (int i = 0; i < 4; ++i)
            e.dispatcher();
        e.finish();
        check(e.delivered == 3, "a message is not delivered");
    });
}

TEST(Schedules, TwoCancelsAgainstABundle)
{
    explore([] {
        events e(1);
        qrn_rcv_t *a = e.receiver();
        qrn_rcv_t *b = e.receiver();
        e.post_bundle({a, b});
        e.post_bundle({b, a});
        qrn_evq_enq_cancel(e.evq, &e.ctx, a);
        qrn_evq_enq_cancel(e.evq, &e.ctx, b);
        for (int i = 0; i < 3; ++i)
            e.dispatcher();
        e.finish();
    });
}

// Threads come and go: each polls, some callbacks throw or end their dispatch call.
TEST(Schedules, CancellationCallbackAgainstDelivery)
{
    explore([] {
        events e(1);
        qrn_rcv_t *a = e.receiver();
        qrn_rcv_t *b = e.receiver();
        e.in_callback = [](qrn_rcv_t *) {
            if (sched::choose(4) == 0)
                throw 1;
            return sched::choose(4) == 0 ? -1 : 0;
        };
        e.post(a);
        e.post(b);
        e.post(a);
        for (int i = 0; i < 3; ++i) {
            spawn([&] {
                for (int polls = 0; polls < 2; ++polls) {
                    try {
                        qrn_event_dispatch(e.evq, QRN_EVQ_DISPATCH_POLL);
                    } catch (const int &) {
                    }
                }
            });
        }
        spawn([&] {
            qrn_evq_purge_rcv(e.evq, a);
            e.cancel_callback(a);
        });
        check(sched::run() == 0, "a poll waits");
        e.in_callback = nullptr;
        e.finish();
        check(e.cancellations == 1, "the cancellation callback runs once");
        std::free(a);
        std::free(b);
    });
}

TEST(Schedules, ShutdownAgainstDispatchAndAppend)
{
    explore([] {
        events e;
        qrn_rcv_t *a = e.receiver();
        spawn([&] {
            e.post(a);
            e.post_callback();
            auto proc = [](qrn_context_t *, qrn_handle_t, qrn_ulong_t, void *) { return 0; };
            qrn_evq_enq_io(e.evq, &e.ctx, 1, 1, nullptr, proc);
            qrn_evq_enq_cancel(e.evq, &e.ctx, std::malloc(8));
            e.post(a);
            e.post_callback();
        });
        e.dispatcher();
        spawn([&] { qrn_event_queue_shutdown(e.evq); });
        e.finish(true);
        std::free(a);
    });
}

// The first callback deletes the receiver that it and the others are called for.
TEST(Schedules, DeletionInsideItsOwnCallback)
{
    explore([] {
        events e(1);
        qrn_rcv_t *a = e.receiver();
        bool deleted = false;
        e.in_callback = [&](qrn_rcv_t *rcv) {
            if (deleted)
                return 0;
            deleted = true;
            qrn_evq_purge_rcv(e.evq, rcv);
            e.cancel_callback(rcv);
            check(e.cancellations == 0, "a cancellation does not wait for its own thread");
            qrn_evq_enq_cancel(e.evq, &e.ctx, rcv);
            return 0;
        };
        for (int i = 0; i < 4; ++i)
            e.post(a);
        for (int i = 0; i < 3; ++i)
            e.dispatcher();
        e.finish();
        check(e.cancellations == 1, "the cancellation callback runs once");
    });
}

TEST(Schedules, OptionsSwitchedAgainstEverything)
{
    explore([] {
        events e;
        qrn_rcv_t *a = e.receiver();
        spawn([&] {
            e.post(a);
            e.post_bundle({a, a});
            e.post_callback();
        });
        e.dispatcher();
        spawn([&] { qrn_evq_purge_rcv(e.evq, a); });
        spawn([&] {
            for (const char *value : {"0", "1"})
                for (const char *name : {"queue_count_enabled", "queue_age_enabled",
                                         "queue_size_warning", "queue_delay_warning"})
                    qrn_event_queue_str_setopt(e.evq, name, value);
        });
        e.finish();
        std::free(a);
    });
}

// --- The explorer itself -------------------------------------------------------------------------

void deadlock()
{
    static pthread_mutex_t locks[2];
    for (pthread_mutex_t &lock : locks)
        pthread_mutex_init(&lock, nullptr);
    for (int first : {0, 1})
        spawn([=] {
            kfx::lock_guard outer(locks[first]);
            kfx::lock_guard inner(locks[1 - first]);
        });
    check(sched::run() == 0, "deadlock");
}

void lost_update()
{
    int count = 0;
    for (int i = 0; i < 2; ++i)
        spawn([&] { kfx::store(count, kfx::load(count) + 1); });
    sched::run();
    check(count == 2, "lost update");
}

[[maybe_unused]] void early_free()
{
    int *block = static_cast<int *>(std::calloc(1, sizeof(int)));
    spawn([=] { kfx::load(*block); });
    spawn([=] { std::free(block); });
    sched::run();
}

TEST(Explorer, FindsFaultsAndPlaysThemAgain)
{
    EXPECT_EQ(failure_of(deadlock, 1, 1000), "deadlock");
#if !defined(SCHED_ASAN) && !defined(SCHED_TSAN)
    EXPECT_EQ(failure_of(early_free, 1, 1000), "freed memory is used");
#endif
    EXPECT_EQ(failure_of(lost_update, 1, 1000), "lost update");
    const uint64_t failing = seed;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(failure_of(lost_update, failing, 1), "lost update");
}

} // namespace
