// SPDX-License-Identifier: Apache-2.0
// What is measured, written once for every queue.
//
// A queue type Q gives
//     Q(dispatchers)         made before the clock starts, destroyed after it stopped
//     enqueue<handler>(arg)  queues one event that runs handler(arg); any thread
//     flush()                optional: sends what the calling thread has gathered
//     dispatch()             runs events, waiting in the queue's natural way, until it takes a stop
//     stop(dispatchers)      ends one dispatch() each, behind everything queued before
//     rearm()                optional: makes dispatch() usable once more after a stop
//
// Every event carries its producer and its number. A dispatcher notes what it sees; at the end each
// producer's numbers must have been seen exactly once, and each dispatcher must have seen them in
// order.
#ifndef BENCH_HARNESS_HPP
#define BENCH_HARNESS_HPP

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <semaphore>
#include <thread>
#include <vector>

#include "clock.hpp"

namespace bench {

inline constexpr unsigned max_producers = 8;

struct shape {
    unsigned producers;
    unsigned dispatchers;
};

// One run of a queue: the state that its dispatchers share.
struct run {
    std::uint64_t last_number; // of each producer
    std::atomic<unsigned> producers_left;
    std::atomic<bool> ending{false};
    std::binary_semaphore ended{0};
};

// What one dispatcher saw.
struct alignas(64) observer {
    struct source {
        std::uint64_t next = 0, count = 0, sum = 0;
    };
    run *of = nullptr;
    bool disorder = false;
    tick last = 0;
    std::array<source, max_producers> sources{};
};

inline thread_local observer *self;

inline void *event_id(unsigned producer, std::uint64_t number)
{
    return reinterpret_cast<void *>(std::uint64_t{producer} << 48 | number);
}

// Notes the last event of a producer, and the time of the last callbacks: the other dispatchers may
// still run one when the last event of the last producer has begun.
[[gnu::noinline]] inline void note_end(std::uint64_t number)
{
    run &r = *self->of;
    self->last = now();
    if (number == r.last_number && r.producers_left.fetch_sub(1) == 1) {
        r.ending = true;
        r.ended.release();
    }
}

// The callback of every event whose throughput is measured.
inline void count_event(void *arg)
{
    const auto id = reinterpret_cast<std::uint64_t>(arg);
    const std::uint64_t number = id & 0xFFFFFFFFFFFF;
    auto &source = self->sources[id >> 48];
    self->disorder |= number < source.next;
    source.next = number + 1;
    source.count++;
    source.sum += number;
    if (number == self->of->last_number || self->of->ending.load(std::memory_order_relaxed))
        [[unlikely]]
        note_end(number);
}

[[noreturn]] inline void fail(const char *what)
{
    std::fprintf(stderr, "qrnbench: %s\n", what);
    std::exit(2);
}

// Ends the program unless each producer's events were seen exactly once and in order.
inline void check(const std::vector<observer> &seen, unsigned producers, std::uint64_t each)
{
    for (unsigned p = 0; p < producers; p++) {
        std::uint64_t count = 0, sum = 0;
        for (const observer &o : seen) {
            count += o.sources[p].count;
            sum += o.sources[p].sum;
        }
        if (count != each || sum != each * (each - 1) / 2)
            fail("events were lost or ran more than once");
    }
    if (std::ranges::any_of(seen, &observer::disorder))
        fail("a producer's events were taken out of order");
}

template <class Q>
void produce(Q &queue, unsigned producer, std::uint64_t from, std::uint64_t to)
{
    for (std::uint64_t number = from; number < to; number++)
        queue.template enqueue<count_event>(event_id(producer, number));
    if constexpr (requires { queue.flush(); })
        queue.flush();
}

// Nanoseconds an event when one thread enqueues a batch, then dispatches it, again and again.
template <class Q>
double solo(std::uint64_t batch, std::uint64_t events)
{
    const std::uint64_t batches = std::max<std::uint64_t>(events / batch, 1);
    run state{.last_number = batches * batch - 1, .producers_left = 1};
    std::vector<observer> seen(1);
    self = &seen[0];
    self->of = &state;
    Q queue{1};
    const tick start = now();
    for (std::uint64_t i = 0; i < batches; i++) {
        produce(queue, 0, i * batch, (i + 1) * batch);
        queue.stop(1);
        queue.dispatch();
        if constexpr (requires { queue.rearm(); })
            queue.rearm();
    }
    const tick end = now();
    check(seen, 1, batches * batch);
    return to_ns(end - start) / static_cast<double>(batches * batch);
}

// Nanoseconds an event with producers and dispatchers side by side: free-running producers, no bound
// on the backlog, from the moment that lets all threads start until the end of the last callback.
template <class Q>
double side_by_side(shape threads, std::uint64_t events)
{
    const std::uint64_t each = events / threads.producers;
    run state{.last_number = each - 1, .producers_left = threads.producers};
    std::vector<observer> seen(threads.dispatchers);
    Q queue{threads.dispatchers};
    std::latch ready{threads.producers + threads.dispatchers}, go{1};
    std::vector<std::jthread> team;
    auto add_thread = [&](auto work) {
        team.emplace_back([&, work] {
            ready.count_down();
            go.wait();
            work();
        });
    };
    for (observer &mine : seen)
        add_thread([&] {
            self = &mine;
            mine.of = &state;
            queue.dispatch();
        });
    for (unsigned p = 0; p < threads.producers; p++)
        add_thread([&, p] { produce(queue, p, 0, each); });
    ready.wait();
    const tick start = now();
    go.count_down();
    state.ended.acquire();
    queue.stop(threads.dispatchers);
    team.clear();
    check(seen, threads.producers, each);
    const tick end = std::ranges::max(seen, {}, &observer::last).last;
    return to_ns(end - start) / static_cast<double>(each * threads.producers);
}

// Latencies of one run, written by the dispatcher, and how many there are.
struct latencies {
    std::vector<tick> taken;
    alignas(64) std::atomic<std::size_t> count{0};
};

inline latencies *sink;

// The callback of every event whose latency is measured; the event carries the time it was queued.
inline void time_event(void *arg)
{
    const tick arrived = now();
    const std::size_t i = sink->count.load(std::memory_order_relaxed);
    const tick sent = reinterpret_cast<tick>(arg);
    sink->taken[i] = arrived > sent ? arrived - sent : 0;
    sink->count.store(i + 1, std::memory_order_release);
}

// One-way latencies, in ticks, from just before the enqueue on one thread to the start of the
// callback on another. One event is under way at a time: the next one is sent `silence` ticks after
// the last one's callback, give or take a quarter so that nothing locks into step. The sender spins
// meanwhile, so only the dispatcher can have gone to sleep.
template <class Q>
std::vector<tick> hand_off(tick silence, std::size_t samples)
{
    latencies result{.taken = std::vector<tick>(samples)};
    sink = &result;
    Q queue{1};
    std::jthread dispatcher{[&] { queue.dispatch(); }};
    std::uint64_t noise = 1;
    for (std::size_t i = 0; i < samples; i++) {
        while (result.count.load(std::memory_order_acquire) != i)
            relax();
        noise = noise * 6364136223846793005U + 1442695040888963407U;
        const tick pause = silence * 3 / 4 + (noise >> 33) % (silence / 2 + 1);
        for (const tick start = now(); now() - start < pause;)
            relax();
        queue.template enqueue<time_event>(reinterpret_cast<void *>(now()));
    }
    while (result.count.load(std::memory_order_acquire) != samples)
        relax();
    queue.stop(1);
    dispatcher.join();
    return std::move(result.taken);
}

} // namespace bench

#endif
