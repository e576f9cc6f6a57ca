// SPDX-License-Identifier: Apache-2.0
//
// Where lines come from: a file, a stream (pipe, terminal), or UDP datagrams.
#ifndef QRNFEED_INPUT_H
#define QRNFEED_INPUT_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "settings.h"

namespace feeder {

// Takes a line without its end; empty for one that was too long.
using line_proc = std::function<void(std::string_view)>;

// Cuts blocks into lines.
class line_cutter {
public:
    static constexpr size_t longest = 65536;

    void add(std::string_view block, const line_proc &on_line);
    // The end of the input, which also ends a line that was begun.
    void end(const line_proc &on_line);

private:
    void append(std::string_view part);
    void emit(const line_proc &on_line);

    std::string begun_;
    bool too_long_ = false;
};

// Closes what it holds, but for standard input.
class descriptor {
public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    ~descriptor() { reset(-1); }
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;

    int get() const { return fd_; }
    void reset(int fd);

private:
    int fd_;
};

class input {
public:
    // Opens what the settings name, or throws a refusal.
    explicit input(const settings &wanted);

    // Whether read() must wait until the descriptor is ready; else there is always something.
    bool is_watched() const { return kind_ != kind::file; }
    int fd() const { return fd_.get(); }

    // Hands over the lines of the next block, or of the datagrams that have arrived. False at the end.
    bool read(const line_proc &on_line);

    // What ended the input early; empty when nothing did.
    const std::string &trouble() const { return trouble_; }
    // The address that datagrams are received on; empty for other inputs.
    const std::string &address() const { return address_; }
    // Datagrams that found no room in the socket. Known from the next one that did.
    unsigned long dropped() const { return dropped_; }

private:
    enum class kind { file, stream, datagrams };

    void open_file(const std::string &name);
    void open_udp(const std::string &where);
    bool read_block(const line_proc &on_line);
    bool read_datagrams(const line_proc &on_line);
    long receive();
    bool fail();

    kind kind_ = kind::file;
    descriptor fd_;
    std::string name_;
    std::string address_;
    std::string trouble_;
    unsigned long dropped_ = 0;
    line_cutter cutter_;
    std::vector<char> room_;
};

} // namespace feeder

#endif
