// SPDX-License-Identifier: Apache-2.0
//
// Private to the module: event records that are used again.
//
// A record is made on one thread and ends on another, and for most allocators that round trip is the
// dearest part of an event. So a dispatch call that is in full flow keeps the records it is done with:
// each thread has a stash, and full batches of a stash go through one depot to the threads that
// enqueue. Every record is a block from malloc and ends in free, now or later: the bounds below are
// small, a thread's stash ends with the thread, and the depot with the last queue.
#ifndef QRNEV_RECORD_H
#define QRNEV_RECORD_H

#include <cstdlib>
#include <new>

#include "kfx.h"
#include "qrnev.h"

namespace qrnev {

// Stands at the beginning of a record that nobody uses.
struct idle_record {
    idle_record *next;
    idle_record *next_batch; // of the depot, in the first record of a batch
};

// The records of one thread.
struct record_stash {
    idle_record *first = nullptr;
    int room = 0; // how many more fit; 0 until the first overflow
};

inline constinit thread_local record_stash stash;

// The ways off the fast path: a batch from the depot or a fresh record, and a batch to the depot.
qrn_event_t *refill_records();
void spill_records(qrn_event_t *ev);

// Frees what the calling thread and the depot keep.
void trim_records();

// A record, not initialised. Running out of memory is fatal.
inline qrn_event_t *get_record()
{
    record_stash &mine = stash;
    idle_record *r = mine.first;
    if (r == nullptr) [[unlikely]]
        return refill_records();
    mine.first = r->next;
    __builtin_prefetch(r->next, 1);
    ++mine.room;
    return new (r) qrn_event_t;
}

// Gives a record back to be used again.
inline void put_record(qrn_event_t *ev)
{
    record_stash &mine = stash;
    if (mine.room == 0) [[unlikely]]
        return spill_records(ev);
    mine.first = new (ev) idle_record{mine.first, nullptr};
    --mine.room;
}

} // namespace qrnev

#endif
