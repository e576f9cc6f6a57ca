/* SPDX-License-Identifier: Apache-2.0 */
/* The last error of a thread. Recording allocates nothing; a text longer than the record is cut off.
 *
 * The recording operations are weak: a program may put its own in their place at link time. */
#include "qrnerr.h"

#include <cstdarg>
#include <cstdio>

namespace {

struct last_error {
    int code;
    char text[1024];
};

constinit thread_local last_error last_ = {};

} // namespace

extern "C" {

[[gnu::weak]] void qrn_seterr(int code, const char *msg)
{
    qrn_seterrf(code, "%s", msg == nullptr ? "" : msg);
}

[[gnu::weak]] void qrn_seterrf(int code, const char *fmt, ...)
{
    last_error made; // apart: an argument may be the text of the last error
    made.code = code;
    va_list args;
    va_start(args, fmt);
    if (std::vsnprintf(made.text, sizeof made.text, fmt, args) < 0)
        made.text[0] = '\0';
    va_end(args);
    last_.code = made.code;
    std::snprintf(last_.text, sizeof last_.text, "%s", made.text);
}

int qrn_errnum(void)
{
    return last_.code;
}

const char *qrn_errmsg(void)
{
    return last_.text;
}

} // extern "C"
