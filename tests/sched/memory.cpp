// SPDX-License-Identifier: Apache-2.0
//
// The memory of a schedule. Blocks come from an arena, at the same addresses each time; they are filled
// with a pattern, never used twice within a schedule, and overwritten when they are freed.

#include <cstdlib>
#include <cstring>

#include "explorer.h"

extern "C" {
void *__real_malloc(size_t size);
void *__real_aligned_alloc(size_t alignment, size_t size);
void __real_free(void *block);
}

namespace sched {

namespace {

constexpr size_t granule = 16;
constexpr size_t granules = 65536;
alignas(4096) unsigned char arena[granules * granule];

enum state : unsigned char { unused, alive, freed };
state states[granules];
size_t used = 0; // granules
size_t blocks = 0;
bool active = false;

size_t index_of(const void *p)
{
    return (reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(arena)) / granule;
}

} // namespace

void touch(const void *object)
{
    const size_t i = index_of(object);
    check(i >= granules || states[i] == alive, "freed memory is used");
}

void forget_blocks()
{
    std::memset(states, unused, used);
    used = 0;
    blocks = 0;
    active = true;
}

bool blocks_left()
{
    active = false;
    return blocks != 0;
}

} // namespace sched

using namespace sched;

extern "C" {

// Blocks lie a granule apart.
void *__wrap_aligned_alloc(size_t alignment, size_t size)
{
    if (!active)
        return __real_aligned_alloc(alignment, size);
    const size_t step = alignment / granule;
    const size_t first = (used + 1 + step - 1) / step * step;
    const size_t count = (size + granule - 1) / granule;
    check(first + count < granules, "out of memory");
    used = first + count;
    ++blocks;
    std::memset(states + first, alive, count);
    return std::memset(arena + first * granule, 0xA5, count * granule);
}
void *__wrap_malloc(size_t size)
{
    return active ? __wrap_aligned_alloc(granule, size) : __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size)
{
    return std::memset(__wrap_malloc(count * size), 0, count * size);
}
void __wrap_free(void *block)
{
    point();
    const size_t first = index_of(block);
    if (first >= granules)
        return __real_free(block);
    check(states[first] == alive && states[first - 1] != alive, "what is freed is no block");
    --blocks;
    for (size_t i = first; states[i] == alive; ++i) {
        states[i] = freed;
        std::memset(arena + i * granule, 0xDD, granule);
    }
}

} // extern "C"
