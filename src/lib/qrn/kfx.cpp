/* SPDX-License-Identifier: Apache-2.0 */
/* Failed checks, fatal errors, allocation.
 *
 * The C operations are weak: a program may put its own in their place at link time. */
#include "kfx.h"

#include <cstdarg>
#include <cstdio>

#include "kfxlog.h"
#include "kfxsync.h"

namespace {

void report_and_abort(const char *expr, const char *file, int line, int fatal)
{
    if (fatal)
        kfx_abort("failed check: %s [%s:%d]\n", expr, file, line);
    kfx_logf(KFX_LOG_ERROR, "failed check: %s [%s:%d]\n", expr, file, line);
}

/* Acquire and release pair up, so that a handler sees what its installer prepared. */
constinit kfx_fail_assert_proc handler_ = report_and_abort;

const char *base_name(const char *path)
{
    const char *slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

} // namespace

extern "C" {

[[gnu::weak]] void kfx_fail_assert(const char *expr, const char *file, int line, int fatal)
{
    kfx::load(handler_, std::memory_order_acquire)(expr, file, line, fatal);
}

[[gnu::weak]] kfx_fail_assert_proc kfx_set_fail_assert_handler(kfx_fail_assert_proc handler)
{
    return kfx::exchange(handler_, handler == nullptr ? report_and_abort : handler,
                         std::memory_order_acq_rel);
}

[[gnu::weak]] void kfx_abort(const char *fmt, ...)
{
    char text[1024]; // on the stack: this also reports that memory ran out
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    kfx_logf(KFX_LOG_FATAL, "%s", text);
    std::abort();
}

[[gnu::weak]] int kfx_snprintf(char *buf, size_t size, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int wanted = std::vsnprintf(buf, size, fmt, args);
    va_end(args);
    if (wanted < 0 || size == 0)
        return 0;
    return static_cast<size_t>(wanted) < size ? wanted : static_cast<int>(size - 1);
}

} // extern "C"

void kfx::alloc_failed(size_t size, place where)
{
    kfx_abort("Core-5688-13: could not allocate %lu bytes [%s:%d]", size, base_name(where.file),
              where.line);
}

char *kfx::dup(const char *text, place where)
{
    const size_t size = std::strlen(text) + 1;
    auto *copy = static_cast<char *>(std::malloc(size));
    if (copy == nullptr) [[unlikely]]
        kfx_abort("Core-9566-1: could not allocate %u bytes for string dup [%s:%d]",
                  static_cast<unsigned>(size), base_name(where.file), where.line);
    std::memcpy(copy, text, size);
    return copy;
}
