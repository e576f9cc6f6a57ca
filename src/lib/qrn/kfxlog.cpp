/* SPDX-License-Identifier: Apache-2.0 */
/* The log.
 *
 * Lines are formatted on the stack, so that logging works when memory has run out; what does not fit
 * is cut off. The operations and the mask are weak: a program may put its own in their place at link
 * time. */
#include "kfxlog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "kfxsync.h"

namespace {

constexpr size_t max_line = 4096;

/* Ends the line where its writer did not. One call, so that lines of several threads do not mix. */
void write_to_stderr(int, const char *line)
{
    const size_t len = std::strlen(line);
    const bool ended = len > 0 && line[len - 1] == '\n';
    std::fprintf(stderr, ended ? "%s" : "%s\n", line);
}

/* Acquire and release pair up, so that a sink sees what its installer prepared. */
constinit kfx_log_sink_proc sink_ = write_to_stderr;

void write_line(int level, const char *fmt, va_list args)
{
    char line[max_line];
    if (std::vsnprintf(line, sizeof line, fmt, args) >= 0)
        kfx::load(sink_, std::memory_order_acquire)(level, line);
}

} // namespace

extern "C" {

[[gnu::weak]] kfx_log_state_t log_state = {};

[[gnu::weak]] void kfx_logf(int level, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    write_line(level, fmt, args);
    va_end(args);
}

[[gnu::weak]] void kfx_debug_logf(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    write_line(KFX_LOG_DEBUG, fmt, args);
    va_end(args);
}

[[gnu::weak]] kfx_log_sink_proc kfx_set_log_sink(kfx_log_sink_proc sink)
{
    return kfx::exchange(sink_, sink == nullptr ? write_to_stderr : sink,
                         std::memory_order_acq_rel);
}

} // extern "C"
