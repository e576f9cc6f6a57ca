// SPDX-License-Identifier: Apache-2.0
#include "files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "terminal.h"

namespace tool {

std::string with_reason(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

std::string aside_of(const std::string &path)
{
    return path + ".new." + std::to_string(getpid());
}

bool can_replace(const std::string &path)
{
    std::string aside = aside_of(path);
    descriptor file(open(aside.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    return file.get() >= 0 && unlink(aside.c_str()) == 0;
}

bool replace_file(const std::string &path, std::string_view text)
{
    std::string aside = aside_of(path);
    descriptor file(open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (file.get() < 0)
        return false;
    bool written = write_all(file.get(), text) && file.reset();
    if (written && rename(aside.c_str(), path.c_str()) == 0)
        return true;
    int reason = errno;
    unlink(aside.c_str());
    errno = reason;
    return false;
}

bool csv_file::open(const std::string &path)
{
    path_ = path;
    file_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    if (file_.get() < 0)
        return false;
    std::string header;
    for (const auto &column : columns)
        header += (header.empty() ? "" : ",") + std::string(column.name);
    return append(header);
}

void csv_file::add(const record &rec, book &notes)
{
    if (append(rec.line)) {
        if (missing_ != 0)
            notes.note(path_ + " is written again; " + std::to_string(missing_) +
                       " records are missing");
        missing_ = 0;
        return;
    }
    if (missing_++ == 0)
        notes.note(with_reason(path_ + " cannot be written, records are left out"));
    failed_ = true;
}

bool csv_file::append(const std::string &line)
{
    struct stat before {};
    bool regular = fstat(file_.get(), &before) == 0 && S_ISREG(before.st_mode);
    if (write_all(file_.get(), line + "\n"))
        return true;
    int reason = errno;
    // A row that was written in part would spoil the next one.
    if (regular && ftruncate(file_.get(), before.st_size) != 0)
        reason = errno;
    errno = reason;
    return false;
}

} // namespace tool
