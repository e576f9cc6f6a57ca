// SPDX-License-Identifier: Apache-2.0
//
// The memory of a schedule. Blocks come from an arena at the same addresses each time, are filled with
// a pattern, are never used twice within a schedule and are overwritten when they are freed. With a
// sanitizer they come from its allocator, which does the same better.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "explorer.h"

#if defined(SCHED_ASAN) || defined(SCHED_TSAN)
#include <unordered_set>
#endif

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_aligned_alloc(size_t alignment, size_t size);
void __real_free(void *block);
}

namespace sched {

namespace {

constexpr size_t granule = 16;

#if defined(SCHED_ASAN) || defined(SCHED_TSAN)

std::unordered_set<void *> live;

void *obtain(size_t alignment, size_t size)
{
    void *block = alignment > granule ? __real_aligned_alloc(alignment, size) : __real_malloc(size);
    live.insert(block);
    return block;
}

void give_back(void *block)
{
    live.erase(block);
    __real_free(block);
}

#else

constexpr size_t arena_size = 1 << 20;
alignas(4096) unsigned char arena[arena_size];

enum state : unsigned char { unused, alive, freed };
state states[arena_size / granule];
uint32_t sizes[arena_size / granule]; // at a block's first granule, in granules
size_t used = 0;                      // granules
size_t blocks = 0;

bool is_in_arena(const void *p)
{
    auto address = reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(arena);
    return address < arena_size;
}

size_t index_of(const void *p)
{
    return static_cast<size_t>(static_cast<const unsigned char *>(p) - arena) / granule;
}

// Blocks lie a granule apart.
void *obtain(size_t alignment, size_t size)
{
    const size_t step = alignment > granule ? alignment / granule : 1;
    const size_t first = (used + 1 + step - 1) / step * step;
    const size_t count = (size + granule - 1) / granule;
    check(first + count < arena_size / granule, "out of memory");
    used = first + count;
    ++blocks;
    sizes[first] = static_cast<uint32_t>(count);
    std::memset(states + first, alive, count);
    return std::memset(arena + first * granule, 0xA5, count * granule);
}

void give_back(void *block)
{
    if (!is_in_arena(block))
        return __real_free(block);
    const size_t first = index_of(block);
    check(states[first] == alive && sizes[first] != 0, "what is freed is no block");
    --blocks;
    std::memset(states + first, freed, sizes[first]);
    std::memset(block, 0xDD, sizes[first] * granule);
}

#endif

bool active = false;

} // namespace

#if defined(SCHED_ASAN) || defined(SCHED_TSAN)

void touch(const void *object)
{
    static_cast<void>(*static_cast<const volatile char *>(object));
}

void forget_blocks()
{
    live.clear();
    active = true;
}

bool blocks_left()
{
    active = false;
    return !live.empty();
}

#else

void touch(const void *object)
{
    check(!is_in_arena(object) || states[index_of(object)] == alive, "freed memory is used");
}

void forget_blocks()
{
    std::memset(states, unused, used);
    std::memset(sizes, 0, used * sizeof *sizes);
    used = 0;
    blocks = 0;
    active = true;
}

bool blocks_left()
{
    active = false;
    return blocks != 0;
}

#endif

} // namespace sched

using namespace sched;

extern "C" {

void *__wrap_malloc(size_t size)
{
    return active ? obtain(granule, size) : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    return active ? std::memset(obtain(granule, count * size), 0, count * size)
                  : __real_calloc(count, size);
}

void *__wrap_aligned_alloc(size_t alignment, size_t size)
{
    return active ? obtain(alignment, size) : __real_aligned_alloc(alignment, size);
}

void __wrap_free(void *block)
{
    if (block == nullptr)
        return;
    point();
    give_back(block);
}

} // extern "C"
