// SPDX-License-Identifier: Apache-2.0
//
// The depot behind the threads' stashes of event records. A stash holds two batches at most: when it is
// full, one of them goes to the depot; when it is empty, one comes from there. The depot is full at
// `depot_batches`; what does not fit goes back to the allocator.
//
// `depot_lock` is a leaf.

#include "qrnev_record.h"

#include <utility>

namespace qrnev {

namespace {

constexpr int batch_records = 32;
constexpr int stash_records = 2 * batch_records;
constexpr int depot_batches = 128;
static_assert(sizeof(qrn_event_t) * batch_records * depot_batches < 524288,
              "what stays behind after a burst is small");

// The address sanitizer can only watch records that end in free at once, and where a test build plays
// through the schedules, its threads have no storage of their own.
#if defined(__SANITIZE_ADDRESS__) || defined(KFX_SCHED_POINTS)
constexpr bool used_again = false;
#else
constexpr bool used_again = true;
#endif

kfx_mutex_t depot_lock = PTHREAD_MUTEX_INITIALIZER;
idle_record *depot; // a list of batches; under depot_lock, but for a look whether there is any
int depot_size;     // under depot_lock

void free_batch(idle_record *r)
{
    while (r != nullptr) {
        idle_record *next = r->next;
        std::free(r);
        r = next;
    }
}

idle_record *take_batch()
{
    if (kfx::load(depot) == nullptr)
        return nullptr;
    kfx::lock_guard lock(depot_lock);
    idle_record *batch = depot;
    if (batch == nullptr)
        return nullptr;
    kfx::store(depot, batch->next_batch);
    --depot_size;
    return batch;
}

// Whether the depot has taken the batch.
bool give_batch(idle_record *batch)
{
    kfx::lock_guard lock(depot_lock);
    if (depot_size == depot_batches)
        return false;
    batch->next_batch = depot;
    kfx::store(depot, batch);
    ++depot_size;
    return true;
}

// Cuts a batch off a full stash.
idle_record *cut_batch()
{
    idle_record *batch = stash.first;
    idle_record *last = batch;
    for (int i = 1; i < batch_records; ++i)
        last = last->next;
    stash.first = last->next;
    last->next = nullptr;
    stash.room += batch_records;
    return batch;
}

void empty_stash(int room)
{
    free_batch(std::exchange(stash.first, nullptr));
    stash.room = room;
}

// Made when a thread first takes or gives a batch: frees its stash when the thread ends.
struct stash_owner {
    stash_owner() { stash.room = stash_records; }
    ~stash_owner()
    {
        empty_stash(0);
        ended = true;
    }
    bool ended = false;
};

// Whether the thread's stash may hold records from now on.
bool open_stash()
{
    static thread_local stash_owner owner;
    return !owner.ended;
}

} // namespace

qrn_event_t *refill_records()
{
    idle_record *batch = used_again && open_stash() ? take_batch() : nullptr;
    if (batch == nullptr)
        return kfx::alloc<qrn_event_t>();
    stash.first = batch->next;
    stash.room = stash_records - (batch_records - 1);
    return new (batch) qrn_event_t;
}

void spill_records(qrn_event_t *ev)
{
    if (!used_again || !open_stash()) {
        std::free(ev);
        return;
    }
    if (stash.room == 0) {
        idle_record *batch = cut_batch();
        if (!give_batch(batch))
            free_batch(batch);
    }
    put_record(ev);
}

void trim_records()
{
    if (stash.first != nullptr)
        empty_stash(stash_records);
    while (idle_record *batch = take_batch())
        free_batch(batch);
}

} // namespace qrnev
