/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of attributes and options share: the error that a call recorded, captured logs. */
#ifndef OPTIONS_COMMON_H
#define OPTIONS_COMMON_H

#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <utility>

#include "kfx.h"
#include "kfxlog.h"
#include "qrnerr.h"
#include "qrnev.h"

/* Runs `call` and expects it to be refused with `message`, or to succeed and record nothing when that
 * is null. */
template <class Call>
void expect_result(const char *message, Call call)
{
    qrn_seterr(0, "");
    EXPECT_EQ(message == nullptr ? QRN_OK : QRN_FAILURE, call());
    EXPECT_EQ(message == nullptr ? 0 : QRN_ERR_INVALID, qrn_errnum());
    EXPECT_STREQ(message == nullptr ? "" : message, qrn_errmsg());
}

/* Collects what is logged while it lives, with the traces of `mask` on. */
class captured_log {
public:
    explicit captured_log(uint64_t mask = 0) : mask_(log_state.dmask), sink_(kfx_set_log_sink(add))
    {
        text_.clear();
        log_state.dmask = mask;
    }
    ~captured_log()
    {
        log_state.dmask = mask_;
        kfx_set_log_sink(sink_);
    }
    captured_log(const captured_log &) = delete;
    captured_log &operator=(const captured_log &) = delete;

    /* The lines since the last call. */
    std::string take() { return std::exchange(text_, ""); }

private:
    static void add(int level, const char *line)
    {
        text_ += level == KFX_LOG_WARNING ? std::string("warning ") + line : line;
    }

    static inline std::string text_;
    uint64_t mask_;
    kfx_log_sink_proc sink_;
};

/* The text that printf makes. */
__attribute__((format(printf, 1, 2))) inline std::string text_of(const char *format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

#endif
