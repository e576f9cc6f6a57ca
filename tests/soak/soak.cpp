// SPDX-License-Identifier: Apache-2.0
//
// Random operations of every kind from many threads on many queues, for a number of seconds. A round
// makes queues and contexts, runs producers, dispatchers and deleting threads on them with options
// switched live, shuts some of the queues down on the way, and ends with everything deleted. Then each
// event must have ended once, every figure must be exact, and memory and descriptors as before.
//
// usage: soak SECONDS [SEED]

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qrnctx.h"
#include "qrnev.h"
#include "qrnmsg.h"

namespace {

std::atomic<long> blocks = 0; // that the library and this program hold

void *counted(void *block)
{
    blocks += block != nullptr;
    return block;
}

} // namespace

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_aligned_alloc(size_t alignment, size_t size);
void __real_free(void *block);

void *__wrap_malloc(size_t size)
{
    return counted(__real_malloc(size));
}
void *__wrap_calloc(size_t count, size_t size)
{
    return counted(__real_calloc(count, size));
}
void *__wrap_aligned_alloc(size_t alignment, size_t size)
{
    return counted(__real_aligned_alloc(alignment, size));
}
void __wrap_free(void *block)
{
    blocks -= block != nullptr;
    __real_free(block);
}

} // extern "C"

namespace {

using steady = std::chrono::steady_clock;

struct tally {
    std::atomic<long> messages, consumed, cleared;  // posted; released by delivery; discarded
    std::atomic<long> callbacks, called, discarded; // posted; run; discarded
    std::atomic<long> cancels, cancelled;           // cancellation callbacks asked for, and made
    std::atomic<long> delivered;                    // application callbacks that ran
} t;

void expect(bool ok, const char *what, long a, long b)
{
    if (ok)
        return;
    std::fprintf(stderr, "soak: %s: %ld, %ld\n", what, a, b);
    std::abort();
}

class random_source {
public:
    explicit random_source(uint64_t seed) : engine_(seed) {}
    unsigned below(unsigned n) { return static_cast<unsigned>(engine_() % n); }
    bool one_in(unsigned n) { return below(n) == 0; }

private:
    std::mt19937_64 engine_;
};

// What callbacks return: now and then -1, which ends the dispatch call.
int result_of(long n)
{
    return n % 1000 == 999 ? -1 : 0;
}

// Any callback of an event.
template <class... Args>
int on(Args...)
{
    return result_of(t.delivered++);
}

int on_monitor(qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *)
{
    return 0;
}

void on_discard(qrn_event_queue_t *, void *)
{
    ++t.discarded;
}

int on_ready(qrn_context_t *, qrn_handle_t handle, qrn_ulong_t, void *)
{
    char byte;
    [[maybe_unused]] auto got = read(handle, &byte, 1);
    return result_of(t.delivered++);
}

void on_callback(qrn_event_queue_t *evq, void *)
{
    if (++t.called % 64 == 0) { // from inside, too
        ++t.callbacks;
        qrn_evq_enq_callback(
            evq, [](qrn_event_queue_t *, void *) { ++t.called; }, on_discard, nullptr);
    }
}

void on_cancelled(int, void *)
{
    ++t.cancelled;
}

qrn_msg_t *new_message(unsigned n, const char *topic = "topic")
{
    qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, topic, "payload", 7, n);
    qrn_msg_set_wqx_cr(
        msg, [](qrn_msg_t *, void *) { ++t.consumed; }, nullptr);
    ++t.messages;
    return msg;
}

// A queue with a context of its own. Deleting the queue excludes all others; shutting it down
// excludes those that enqueue, since a queue that is shut down leaves what it declines with them.
class station {
public:
    station(random_source &random, bool plain) : plain_(plain)
    {
        qrn_event_queue_attr_t *attr = nullptr;
        qrn_event_queue_attr_create_default(&attr);
        attr->q_count = 1;
        attr->q_cancel_cb = cancels_ = plain || random.one_in(2);
        attr->q_purge_on_close = random.below(2);
        expect(qrn_event_queue_create(&evq_, random.one_in(2) ? on_monitor : nullptr, nullptr,
                                      attr) == 0,
               "no queue", 0, 0);
        qrn_event_queue_attr_delete(attr);
        const qrn_ctx_attr_t bundling = {2, 3, on, nullptr};
        expect(qrn_ctx_create(&ctx_, plain ? nullptr : &bundling) == 0, "no context", 0, 0);
        ctx_->rcv_delivery_batching_cb = on;
        expect(pipe2(fds_, O_NONBLOCK) == 0, "no pipe", 0, 0);
        qrn_ctx_watch(ctx_, fds_[0], QRN_FD_READ, evq_, on_ready, nullptr);
        qrn_ctx_schedule(ctx_, evq_, on, nullptr, 1, 1);
        qrn_ctx_bind_src(ctx_, evq_, on, nullptr);
        for (unsigned i = 0; i < objects; ++i) {
            qrn_rcv_create(&rcvs_[i], ctx_, i == 0 ? "topic" : "other", evq_, on, nullptr);
            qrn_wildcard_rcv_create(&wrcvs_[i], ctx_, "none*", evq_, on, nullptr);
            qrn_src_create(&srcs_[i], ctx_, evq_, on, nullptr);
            qrn_request_create(&reqs_[i], ctx_, evq_, on, nullptr);
        }
    }

    // The end of a round: nobody else uses it.
    void finish()
    {
        qrn_ctx_detach(ctx_, evq_);
        drain();
        qrn_ctx_delete(ctx_);
        drain(); // what the deletions enqueued
        qrn_event_queue_stats_t stats;
        qrn_event_queue_retrieve_stats(evq_, &stats);
        for (const qrn_ulong_t *now :
             {&stats.data_msgs, &stats.resp_msgs, &stats.topicless_im_msgs, &stats.wrcv_msgs,
              &stats.io_events, &stats.timer_events, &stats.source_events, &stats.unblock_events,
              &stats.cancel_events, &stats.context_source_events, &stats.callback_events})
            expect(*now == 0, "a count is left", static_cast<long>(*now), now - &stats.data_msgs);
        expect(evq_->qsz == 0, "the size is off", evq_->qsz, 0);
        if (plain_) {
            const auto accepted =
                static_cast<long>(stats.data_msgs_tot + stats.wrcv_msgs_tot + stats.resp_msgs_tot +
                                  stats.topicless_im_msgs_tot);
            expect(accepted == posted_, "the totals are off", accepted, posted_);
        }
        qrn_event_queue_delete(evq_);
        close(fds_[0]);
        close(fds_[1]);
    }

    void produce(random_source &random)
    {
        std::shared_lock enqueuing(shutdown_lock_);
        if (evq_->shutdown != 0)
            return post_callback();
        const unsigned i = random.below(objects);
        switch (random.below(16)) {
        case 0:
            return post(1, qrn_evq_enq_msg_with_proc(evq_, rcvs_[i], on, new_message(i), this));
        case 1:
            return post(1, qrn_evq_enq_wrcv_msg(evq_, wrcvs_[i], new_message(i)));
        case 2:
            return post(1, qrn_evq_enq_req(evq_, reqs_[i], new_message(i)));
        case 3:
            return post(1, qrn_evq_enq_imsg(evq_, ctx_, new_message(i), nullptr, on));
        case 4:
            return post_bundle(1 + random.below(4));
        case 5:
            return post(0, qrn_src_raise(srcs_[i], 1, std::malloc(8), 1));
        case 6:
            return post(0, qrn_ctx_src_raise(ctx_, 1, std::malloc(8), 1));
        case 7:
            return post(0, qrn_evq_enq_cancel(evq_, ctx_, std::malloc(8)));
        case 8:
            return post(0, qrn_event_dispatch_unblock(evq_));
        case 9:
            return post(0, write(fds_[1], "x", 1) >= -1 ? 0 : -1); // a full pipe is as good
        case 10:
            return post(0, qrn_ctx_schedule(ctx_, evq_, on, nullptr, random.below(3), 0) < 0);
        case 11:
            return plain_ ? post_callback() : live_shortly();
        default:
            return post_callback();
        }
    }

    void dispatch(random_source &random)
    {
        const qrn_ulong_t timeouts[] = {QRN_EVQ_DISPATCH_POLL, 1, 3};
        qrn_event_dispatch(evq_, timeouts[random.below(3)]);
    }

    // What deleting threads and operators do.
    void disturb(random_source &random)
    {
        const unsigned i = random.below(objects);
        qrn_event_queue_cancel_cb_info_t info = {evq_, on_cancelled, nullptr};
        switch (random.below(12)) {
        case 0:
            qrn_evq_purge_rcv(evq_, rcvs_[i]);
            break;
        case 1:
            qrn_evq_purge_wrcv(evq_, wrcvs_[i]);
            break;
        case 2:
            qrn_evq_purge_src(evq_, srcs_[i]);
            break;
        case 3:
            qrn_evq_purge_req(evq_, reqs_[i]);
            break;
        case 4:
            qrn_evq_purge_ctx_src(evq_, ctx_);
            break;
        case 5:
            qrn_evq_purge_io(evq_, ctx_, fds_[0], QRN_FD_READ);
            break;
        case 6:
            if (cancels_) {
                ++t.cancels;
                qrn_evq_cancel_cb_rcv(rcvs_[i], &info);
            }
            break;
        case 7:
            qrn_event_queue_size(evq_);
            break;
        case 8:
            observe();
            break;
        case 9:
            if (random.one_in(2000)) {
                std::unique_lock nobody_enqueues(shutdown_lock_);
                qrn_event_queue_shutdown(evq_);
            }
            break;
        default:
            switch_option(random);
        }
    }

private:
    static constexpr unsigned objects = 3;

    void drain()
    {
        while (qrn_event_dispatch(evq_, QRN_EVQ_DISPATCH_POLL) != 0)
            ;
    }

    void post(long messages, int result)
    {
        expect(result == 0, "not accepted", result, messages);
        posted_ += messages;
    }

    void post_bundle(unsigned n)
    {
        qrn_event_bundle_t *bundle = qrn_event_bundle_create(ctx_);
        for (unsigned i = 0; i < n; ++i) {
            qrn_event_t &entry = bundle->events[bundle->num_events++];
            entry = {QRN_EVQ_MSG_TYPE, evq_, ctx_, {}, {}, 0};
            entry.info.msg = {rcvs_[i % objects], new_message(i), nullptr, on};
            ++bundle->data_msgs;
        }
        post(n, qrn_evq_enq_msg_bundle(evq_, bundle));
    }

    // A receiver that gets one message, and is deleted while that waits or is delivered.
    void live_shortly()
    {
        qrn_rcv_t *rcv = nullptr;
        qrn_rcv_create(&rcv, ctx_, "short", evq_, on, nullptr);
        qrn_msg_t *msg = new_message(1, "short");
        qrn_ctx_deliver(ctx_, msg); // perhaps in a bundle that is enqueued later
        qrn_msg_delete(msg);
        const qrn_cancel_t cancel = {evq_, on_cancelled, nullptr};
        t.cancels += cancels_;
        post(0, qrn_rcv_delete(rcv, cancels_ ? &cancel : nullptr));
    }

    void post_callback()
    {
        ++t.callbacks;
        post(0, qrn_evq_enq_callback(evq_, on_callback, on_discard, nullptr));
    }

    void observe()
    {
        qrn_event_queue_stats_t stats;
        qrn_event_queue_retrieve_stats(evq_, &stats);
        if (!plain_)
            qrn_event_queue_reset_stats(evq_);
        qrn_config_option_t options[15];
        int n = 15;
        qrn_event_queue_dump(evq_, &n, options);
    }

    void switch_option(random_source &random)
    {
        static constexpr const char *names[] = {
            "queue_service_time_enabled", "queue_age_enabled",   "queue_enqueue_notification",
            "queue_size_warning",         "queue_delay_warning", "queue_count_enabled"};
        qrn_event_queue_str_setopt(evq_, names[random.below(plain_ ? 5 : 6)],
                                   random.one_in(2) ? "1" : "0");
    }

    const bool plain_; // the option of counting stays on
    bool cancels_ = false;
    qrn_event_queue_t *evq_ = nullptr;
    qrn_context_t *ctx_ = nullptr;
    qrn_rcv_t *rcvs_[objects];
    qrn_wildcard_rcv_t *wrcvs_[objects];
    qrn_src_t *srcs_[objects];
    qrn_request_t *reqs_[objects];
    int fds_[2];
    std::atomic<long> posted_ = 0; // messages
    std::shared_mutex shutdown_lock_;
};

// A round of some seconds.
void play(uint64_t seed, steady::time_point end)
{
    random_source random(seed);
    std::vector<std::unique_ptr<station>> stations;
    for (int i = 0; i < 6; ++i)
        stations.push_back(std::make_unique<station>(random, i % 2 == 0));
    {
        std::vector<std::jthread> all;
        auto add = [&](auto act) {
            all.emplace_back([&stations, act, end, mine = random_source(++seed * 7919)]() mutable {
                while (steady::now() < end)
                    for (int i = 0; i < 32; ++i)
                        act(*stations[mine.below(static_cast<unsigned>(stations.size()))], mine);
            });
        };
        for (int i = 0; i < 3; ++i)
            add([](station &s, random_source &r) { s.produce(r); });
        for (int i = 0; i < 5; ++i)
            add([](station &s, random_source &r) { s.dispatch(r); });
        for (int i = 0; i < 2; ++i)
            add([](station &s, random_source &r) { s.disturb(r); });
    }
    for (auto &s : stations)
        s->finish();
}

void check_tally()
{
    expect(qrn_msg_live() == 0, "messages live on", qrn_msg_live(), 0);
    expect(t.messages == t.consumed + t.cleared, "messages posted, ended", t.messages,
           t.consumed + t.cleared);
    expect(t.callbacks == t.called + t.discarded, "callbacks posted, ended", t.callbacks,
           t.called + t.discarded);
    expect(t.cancels == t.cancelled, "cancellations asked for, made", t.cancels, t.cancelled);
}

long descriptors()
{
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

} // namespace

// A message that is discarded has its report cleared once.
int qrn_msg_clr_wqx_cr(qrn_msg_t *msg)
{
    if (msg->consumed != nullptr)
        ++t.cleared;
    msg->consumed = nullptr;
    return 0;
}

int main(int argc, char **argv)
{
    const long seconds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 300;
    const uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : std::random_device{}();
    std::printf("soak: %ld seconds, seed %lu\n", seconds, seed);
    const auto start = steady::now();
    const auto end = start + std::chrono::seconds(seconds);
    const long open = descriptors();
    for (uint64_t round = 0; steady::now() < end; ++round) {
        play(seed + round * 1000, std::min(end, steady::now() + std::chrono::seconds(2)));
        check_tally();
        expect(blocks == 0, "blocks of memory are left", blocks, 0);
        expect(descriptors() == open, "descriptors are left", descriptors(), open);
        const auto passed = std::chrono::duration_cast<std::chrono::seconds>(steady::now() - start);
        std::printf("soak: %4ld s, %ld messages, %ld callbacks, %ld discarded, nothing left\n",
                    passed.count(), t.messages.load(), t.callbacks.load(), t.cleared + t.discarded);
        std::fflush(stdout);
    }
    std::printf("soak: passed\n");
    return 0;
}
