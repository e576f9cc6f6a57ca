// SPDX-License-Identifier: Apache-2.0
// What the queue costs apart from enqueue and dispatch, and what no queue of its kind can avoid.
#ifndef BENCH_COSTS_HPP
#define BENCH_COSTS_HPP

#include <cstdint>

namespace bench {

// Nanoseconds an element that the queue held when the purge began.
struct purge_cost {
    double none; // nothing matched
    double half; // every second element matched
    double all;  // every element matched
};

// Fills a queue with `size` events of two sources and purges, again and again until `total` events
// went through.
purge_cost purge(std::uint64_t size, std::uint64_t total);

// Milliseconds of processor time that the busiest of `dispatchers` blocked threads used in `seconds`
// of silence, counted from the callback of the last event.
double idle_processor_time(unsigned dispatchers, unsigned seconds);

// Nanoseconds an event for the parts that one event cannot do without.
struct floor_cost {
    double allocation; // one record made and freed, in batches, as the solo cell does
    double locks;      // two uncontended lock round trips
    double semaphore;  // one post, one take of a token that is there
};

floor_cost measure_floor(std::uint64_t batch, std::uint64_t events);

} // namespace bench

#endif
