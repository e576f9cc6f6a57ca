// SPDX-License-Identifier: Apache-2.0
// A program of its own, since it counts what the whole process allocates: it takes the place of the
// C library's allocator and passes everything on. Prints for the queue that the argument names, as
// one line: bytes asked for an event, bytes usable, bytes with the allocator's own header, then bytes
// more than before a burst when the burst has been dispatched, and resident bytes more.
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "peers.hpp"
#include "qrn_queues.hpp"

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);
}

namespace {

constexpr long header = sizeof(size_t);

// Relaxed: only one thread works while the figures are read.
std::atomic<long> asked{0}, usable{0}, blocks{0};

void *note(void *block, size_t size)
{
    if (block != nullptr) {
        asked.fetch_add(static_cast<long>(size), std::memory_order_relaxed);
        usable.fetch_add(static_cast<long>(malloc_usable_size(block)), std::memory_order_relaxed);
        blocks.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}

void forget(void *block)
{
    if (block != nullptr) {
        usable.fetch_sub(static_cast<long>(malloc_usable_size(block)), std::memory_order_relaxed);
        blocks.fetch_sub(1, std::memory_order_relaxed);
    }
}

} // namespace

extern "C" {

void *malloc(size_t size)
{
    return note(__libc_malloc(size), size);
}

void *calloc(size_t count, size_t size)
{
    return note(__libc_calloc(count, size), count * size);
}

void *realloc(void *block, size_t size)
{
    forget(block);
    return note(__libc_realloc(block, size), size);
}

void *memalign(size_t alignment, size_t size)
{
    return note(__libc_memalign(alignment, size), size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return memalign(alignment, size);
}

int posix_memalign(void **block, size_t alignment, size_t size)
{
    *block = memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

void free(void *block)
{
    forget(block);
    __libc_free(block);
}
}

namespace bench {

namespace {

constexpr std::uint64_t burst = 1'000'000;
constexpr std::uint64_t warm_up = 1000;

long resident()
{
    long total = 0, pages = 0;
    std::FILE *f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr || std::fscanf(f, "%ld %ld", &total, &pages) != 2)
        fail("cannot read /proc/self/statm");
    std::fclose(f);
    return pages * sysconf(_SC_PAGESIZE);
}

template <class Q>
void dispatch_all(Q &queue)
{
    queue.stop(1);
    queue.dispatch();
    if constexpr (requires { queue.rearm(); })
        queue.rearm();
}

template <class Q>
void measure()
{
    run state{.last_number = warm_up + burst, .producers_left = 1};
    std::vector<observer> seen(1);
    self = &seen[0];
    self->of = &state;
    Q queue{1};
    produce(queue, 0, 0, warm_up);
    dispatch_all(queue);

    const long resident_before = resident();
    const long asked_before = asked, usable_before = usable, blocks_before = blocks;
    produce(queue, 0, warm_up, warm_up + burst);
    const long asked_by = asked - asked_before, usable_by = usable - usable_before;
    const long with_headers = usable_by + (blocks - blocks_before) * header;
    dispatch_all(queue);
    const long left = usable - usable_before, resident_left = resident() - resident_before;
    check(seen, 1, warm_up + burst);

    const auto each = [](long bytes) { return static_cast<double>(bytes) / burst; };
    std::printf("%.2f %.2f %.2f %ld %ld\n", each(asked_by), each(usable_by), each(with_headers),
                left, resident_left);
}

struct entry {
    const char *name;
    void (*measure)();
};

constexpr entry entries[] = {
    {"qrn", measure<callback_queue<plain>>},
    {"qrn message", measure<message_queue>},
    {"qrn bundle", measure<bundle_queue>},
    {"oneTBB", measure<tbb_queue>},
    {"moodycamel", measure<moodycamel_queue>},
    {"GLib", measure<glib_queue>},
    {"Asio", measure<asio_queue>},
    {"mutex+cv", measure<condvar_queue>},
};

} // namespace

} // namespace bench

int main(int argc, char **argv)
{
    for (const bench::entry &e : bench::entries)
        if (argc == 2 && std::strcmp(argv[1], e.name) == 0) {
            e.measure();
            return 0;
        }
    std::fprintf(stderr, "usage: qrnbench_memory QUEUE\n");
    return 1;
}
