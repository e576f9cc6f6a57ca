// SPDX-License-Identifier: Apache-2.0
#include "costs.hpp"

#include <pthread.h>
#include <semaphore.h>

#include "qrn_queues.hpp"

namespace bench {

namespace {

int no_source_event(qrn_src_t *, int, void *, void *)
{
    return 0;
}

double purge_ns(event_queue &queue, qrn_src_t &source)
{
    const tick start = now();
    must(qrn_evq_purge_src(queue.get(), &source));
    return to_ns(now() - start);
}

tick thread_time_ns(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<tick>(t.tv_sec) * 1'000'000'000 + static_cast<tick>(t.tv_nsec);
}

// Nanoseconds a turn of `work`.
template <class Work>
double time_turns(std::uint64_t turns, Work work)
{
    const tick start = now();
    for (std::uint64_t i = 0; i < turns; i++)
        work();
    return to_ns(now() - start) / static_cast<double>(turns);
}

} // namespace

purge_cost purge(std::uint64_t size, std::uint64_t total)
{
    event_queue queue{plain};
    qrn_context_t context{};
    qrn_src_t one{}, other{}, absent{};
    one.ctx = other.ctx = absent.ctx = &context;
    purge_cost sum{};
    const std::uint64_t fills = std::max<std::uint64_t>(total / size, 1);
    for (std::uint64_t fill = 0; fill < fills; fill++) {
        for (std::uint64_t i = 0; i < size; i++)
            must(qrn_evq_enq_src(queue.get(), i % 2 == 0 ? &one : &other, 0, nullptr, nullptr, 0,
                                 no_source_event));
        sum.none += purge_ns(queue, absent);
        sum.half += purge_ns(queue, one);
        sum.all += purge_ns(queue, other);
        if (qrn_event_dispatch(queue.get(), QRN_EVQ_DISPATCH_POLL) != 0)
            fail("a purge left events behind");
    }
    const auto elements = static_cast<double>(fills * size);
    return {sum.none / elements, sum.half / elements, sum.all / (elements / 2)};
}

double idle_processor_time(unsigned dispatchers, unsigned seconds)
{
    struct sleeper {
        std::jthread thread;
        clockid_t clock{};
        tick before{};
    };
    latencies seen{.taken = std::vector<tick>(1000)};
    sink = &seen;
    callback_queue<plain> queue{dispatchers};
    std::vector<sleeper> team(dispatchers);
    const auto start = [&](sleeper &s) {
        s.thread = std::jthread{[&] { queue.dispatch(); }};
        pthread_getcpuclockid(s.thread.native_handle(), &s.clock);
    };
    // The first dispatcher runs the events alone: their callback is made for one.
    start(team[0]);
    for (std::size_t i = 0; i < seen.taken.size(); i++)
        queue.enqueue<time_event>(reinterpret_cast<void *>(now()));
    while (seen.count.load(std::memory_order_acquire) != seen.taken.size())
        relax();
    std::for_each(team.begin() + 1, team.end(), start);
    for (sleeper &s : team)
        s.before = thread_time_ns(s.clock);
    std::this_thread::sleep_for(std::chrono::seconds{seconds});
    tick most = 0;
    for (const sleeper &s : team)
        most = std::max(most, thread_time_ns(s.clock) - s.before);
    queue.stop(dispatchers);
    return static_cast<double>(most) / 1e6;
}

floor_cost measure_floor(std::uint64_t batch, std::uint64_t events)
{
    const std::uint64_t batches = std::max<std::uint64_t>(events / batch, 1);
    std::vector<void *> records(batch);
    pthread_mutex_t head = PTHREAD_MUTEX_INITIALIZER, tail = PTHREAD_MUTEX_INITIALIZER;
    sem_t tokens;
    sem_init(&tokens, 0, 0);
    floor_cost cost{};
    cost.allocation = time_turns(batches,
                                 [&] {
                                     for (void *&r : records)
                                         r = std::malloc(sizeof(qrn_event_t));
                                     for (void *r : records)
                                         std::free(r);
                                 }) /
                      static_cast<double>(batch);
    cost.locks = time_turns(batches * batch, [&] {
        for (pthread_mutex_t *m : {&tail, &head}) {
            pthread_mutex_lock(m);
            pthread_mutex_unlock(m);
        }
    });
    cost.semaphore = time_turns(batches * batch, [&] {
        sem_post(&tokens);
        sem_wait(&tokens);
    });
    sem_destroy(&tokens);
    return cost;
}

} // namespace bench
