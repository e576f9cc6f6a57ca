/* SPDX-License-Identifier: Apache-2.0 */
/* Blocks that an attribute record owns: made by copying, ended by release. Private to qrnev*. */
#ifndef QRNEV_ATTR_H
#define QRNEV_ATTR_H

#include "kfx.h"

namespace qrnev {

/* Frees a block and forgets it. */
template <class T>
void release(T *&block)
{
    std::free(block);
    block = nullptr;
}

/* A copy of a text; of null, null. */
inline char *copy_text(const char *text, kfx::place where = kfx::place::current())
{
    return text == nullptr ? nullptr : kfx::dup(text, where);
}

/* A copy of `size` bytes; of null, null. */
inline char *copy_bytes(const void *bytes, size_t size, kfx::place where = kfx::place::current())
{
    if (bytes == nullptr)
        return nullptr;
    char *copy = kfx::alloc<char>(size, where);
    std::memcpy(copy, bytes, size);
    return copy;
}

} // namespace qrnev

#endif
