// SPDX-License-Identifier: Apache-2.0
/* The layer's errors, one a thread. Weak definitions: a program may put its own in their place. */
#include <cstdarg>
#include <cstdio>

#include "qrnerr.h"
#include "qrnmon_layer.h"

namespace {

struct last_error {
    int number;
    char text[256];
};

thread_local last_error last;

} // namespace

namespace qrnmon {

int fail(error number, const char *fmt, ...)
{
    last.number = number;
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(last.text, sizeof last.text, fmt, args);
    va_end(args);
    return -1;
}

int fail_creation()
{
    qrn_seterrf(last.number == error_argument ? QRN_ERR_INVALID : QRN_ERR_MONITOR,
                "automatic monitoring failed: %s", last.text);
    return -1;
}

} // namespace qrnmon

[[gnu::weak]] int qrnmon_errnum(void)
{
    return last.number;
}

[[gnu::weak]] const char *qrnmon_errmsg(void)
{
    return last.text;
}
