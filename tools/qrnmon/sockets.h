// SPDX-License-Identifier: Apache-2.0
//
// The sockets that records come in on.
#ifndef QRNMON_TOOL_SOCKETS_H
#define QRNMON_TOOL_SOCKETS_H

#include <netdb.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <vector>

#include "files.h"

namespace tool {

// Ends the program with status 2 and one line.
struct failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A sender's or a socket's address as text, without and with its port.
struct address_text {
    std::string host;
    std::string full;
};

address_text address_of(const sockaddr_storage &addr);

class receiver {
public:
    // Throws `failure`.
    receiver(const std::string &host, unsigned port);

    int fd() const { return socket_.get(); }
    const std::string &name() const { return name_; }

    // Takes the datagrams that wait, up to a number, so that a flood leaves time for the rest.
    // Calls `each` with the bytes and the sender.
    template <class Each>
    void drain(Each each)
    {
        for (int i = 0; i < 1000; ++i) {
            sockaddr_storage from{};
            socklen_t length = sizeof from;
            ssize_t size = recvfrom(fd(), buffer_.data(), buffer_.size(), MSG_DONTWAIT,
                                    reinterpret_cast<sockaddr *>(&from), &length);
            if (size < 0)
                return;
            each(std::string_view(buffer_.data(), static_cast<std::size_t>(size)), from);
        }
    }

private:
    bool bind_to(const addrinfo &to);

    descriptor socket_;
    std::string name_;
    std::vector<char> buffer_ = std::vector<char>(65536);
};

} // namespace tool

#endif
