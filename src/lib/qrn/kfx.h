/* SPDX-License-Identifier: Apache-2.0 */
/* Utility layer: failed checks, fatal errors, allocation. */
#ifndef KFX_H
#define KFX_H

#include <stddef.h>

#include "qrn.h"

#ifdef __cplusplus
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>
extern "C" {
#endif

/* Reports a failed check: the expression's text, where, and whether it is fatal (1) or not (0).
 * Calls the installed handler. The default handler logs the failure and aborts when it is fatal.
 * When the handler returns, so does this. */
void kfx_fail_assert(const char *expr, const char *file, int line, int fatal);

typedef void (*kfx_fail_assert_proc)(const char *expr, const char *file, int line, int fatal);

/* Installs a handler of failed checks (null: the default) and returns the one it replaces. Any
 * thread. */
QRN_API kfx_fail_assert_proc kfx_set_fail_assert_handler(kfx_fail_assert_proc handler);

/* Reports a fatal error through the log and aborts. */
__attribute__((noreturn, format(printf, 1, 2))) void kfx_abort(const char *fmt, ...);

/* snprintf that returns the length of the text that `buf` holds. */
__attribute__((format(printf, 3, 4))) int kfx_snprintf(char *buf, size_t size, const char *fmt,
                                                       ...);

#ifdef __cplusplus
}

static_assert(sizeof(void *) == 8 && sizeof(long) == 8, "made for 64-bit Linux (LP64)");

/* Reports `text` when `cond` does not hold. The text is given apart, since what is reported is part
 * of the interface and must not follow the formatting of the code. */
#define KFX_ASSERT(cond, text) \
    (__builtin_expect(!(cond), 0) ? kfx_fail_assert(text, __FILE_NAME__, __LINE__, 1) : (void)0)
#define KFX_CHECK(cond, text) \
    (__builtin_expect(!(cond), 0) ? kfx_fail_assert(text, __FILE_NAME__, __LINE__, 0) : (void)0)

namespace kfx {

/* A place in the code: that of the call, as the default of an argument. */
struct place {
    const char *file;
    int line;

    static constexpr place current(const char *file = __builtin_FILE(), int line = __builtin_LINE())
    {
        return {file, line};
    }
};

/* Aborts with the report of an allocation of `size` bytes that failed at `where`. */
[[noreturn]] void alloc_failed(size_t size, place where);

/* The allocations below abort when memory runs out. What they return came from malloc and ends in
 * free. */

/* Room for `count` objects of a plain type, not initialised. */
template <class T>
T *alloc(size_t count = 1, place where = place::current())
{
    static_assert(std::is_trivial_v<T> && std::is_standard_layout_v<T>);
    void *block = std::malloc(count * sizeof(T));
    if (block == nullptr) [[unlikely]]
        alloc_failed(count * sizeof(T), where);
    return static_cast<T *>(block);
}

/* The same, zero-filled. */
template <class T>
T *alloc_zeroed(size_t count = 1, place where = place::current())
{
    static_assert(std::is_trivial_v<T> && std::is_standard_layout_v<T>);
    constexpr bool over_aligned = alignof(T) > alignof(std::max_align_t);
    void *block = over_aligned ? std::aligned_alloc(alignof(T), count * sizeof(T))
                               : std::calloc(count, sizeof(T));
    if (block == nullptr) [[unlikely]]
        alloc_failed(count * sizeof(T), where);
    if constexpr (over_aligned)
        std::memset(block, 0, count * sizeof(T));
    return static_cast<T *>(block);
}

/* A copy of a string. */
char *dup(const char *text, place where = place::current());

} // namespace kfx
#endif

#endif
