// SPDX-License-Identifier: Apache-2.0
//
// Files that are written whole or not at all.
#ifndef QRNMON_TOOL_FILES_H
#define QRNMON_TOOL_FILES_H

#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "sources.h"

namespace tool {

class descriptor {
public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    ~descriptor() { reset(); }
    descriptor(descriptor &&from) noexcept : fd_(std::exchange(from.fd_, -1)) {}
    descriptor &operator=(descriptor &&from) noexcept
    {
        std::swap(fd_, from.fd_);
        return *this;
    }

    // False when closing failed, which is how some file systems report a full disk.
    bool reset(int fd = -1)
    {
        int old = std::exchange(fd_, fd);
        return old < 0 || close(old) == 0;
    }
    int get() const { return fd_; }

private:
    int fd_;
};

// What went wrong, with the reason that errno gives.
std::string with_reason(const std::string &what);

// Writes a file aside and renames it into place, so that nobody sees half of it. False with errno.
bool replace_file(const std::string &path, std::string_view text);

// Where a file is written before it is renamed to `path`.
std::string aside_of(const std::string &path);

// Whether a file can be written there. False with errno.
bool can_replace(const std::string &path);

// Appends rows to a file. When the disk is full rows are left out, whole ones, until it is not.
class csv_file {
public:
    // False with errno when the file cannot be written.
    bool open(const std::string &path);
    bool is_open() const { return file_.get() >= 0; }
    // Notes when rows begin to be left out, and when that is over.
    void add(const record &rec, book &notes);
    // Whether any row was left out.
    bool failed() const { return failed_; }

private:
    bool append(const std::string &line);

    descriptor file_;
    std::string path_;
    std::uint64_t missing_ = 0;
    bool failed_ = false;
};

} // namespace tool

#endif
