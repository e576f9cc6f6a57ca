// SPDX-License-Identifier: Apache-2.0
//
// The schedule explorer. Logical threads are fibers of one thread; one runs at a time, and at every
// scheduling point a seeded choice says which goes on. Points are the library's accesses to shared
// fields (kfxsync.h), its calls of mutexes and semaphores, which end in a model here, the release of
// memory, and point(). So a seed names a schedule, and the same seed plays it again.
//
// What is explored are interleavings: every access takes effect at once, in one order. Reordering by
// processors is left to the thread sanitizer, which sees the fibers as threads and knows only the
// orders that the library itself states.
#ifndef QRN_TESTS_EXPLORER_H
#define QRN_TESTS_EXPLORER_H

#include <cstdint>
#include <functional>
#include <string>

namespace sched {

// A schedule that went wrong: thrown by the calls below, except in a thread, which just stops.
struct failure {
    std::string what;
};

// Starts schedule number `seed`: time, memory and choices begin anew.
void begin(uint64_t seed);
// Adds a thread, which does not run before run().
void spawn(std::function<void()> body);
// Runs the threads until none can go on. Number of those that have not ended.
int run();
// Ends the schedule: every thread has ended, every block that was allocated in it is free.
void end();

// A scheduling point.
void point();
// The number of the running thread; they are counted as they are added, the main thread is the last.
unsigned self();
// A number below `n`.
unsigned choose(unsigned n);
void check(bool ok, const char *what);
// Fails the schedule when the object lies in freed memory.
void touch(const void *object);
// Is asked when only a timer can move the threads on: true when a wake-up was lost, that is when
// something to take lies there.
extern std::function<bool()> stranded;
// Virtual time in nanoseconds.
extern int64_t now;
constexpr int64_t second = 1'000'000'000;

// Of memory.cpp, for the scheduler: forgets every block; whether blocks are left.
void forget_blocks();
bool blocks_left();

} // namespace sched

#endif
