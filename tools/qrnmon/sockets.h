// SPDX-License-Identifier: Apache-2.0
//
// The sockets that records come in on.
#ifndef QRNMON_TOOL_SOCKETS_H
#define QRNMON_TOOL_SOCKETS_H

#include <arpa/inet.h>
#include <cerrno>
#include <netdb.h>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "files.h"
#include "sources.h"

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

inline address_text address_of(const sockaddr_storage &addr)
{
    std::array<char, INET6_ADDRSTRLEN> host{};
    bool six = addr.ss_family == AF_INET6;
    const auto &v4 = reinterpret_cast<const sockaddr_in &>(addr);
    const auto &v6 = reinterpret_cast<const sockaddr_in6 &>(addr);
    const void *number = six ? static_cast<const void *>(&v6.sin6_addr) : &v4.sin_addr;
    inet_ntop(addr.ss_family, number, host.data(), host.size());
    std::string port = std::to_string(ntohs(six ? v6.sin6_port : v4.sin_port));
    std::string text = host.data();
    return {text, (six ? "[" + text + "]" : text) + ":" + port};
}

class receiver {
public:
    receiver(const std::string &host, unsigned port)
    {
        addrinfo hints{};
        hints.ai_socktype = SOCK_DGRAM;
        hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
        addrinfo *found = nullptr;
        int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
        if (result != 0)
            throw failure("'" + host + "' does not resolve: " + gai_strerror(result));
        bool bound = bind_to(*found);
        int reason = errno;
        freeaddrinfo(found);
        errno = reason;
        if (!bound)
            throw failure(
                with_reason("cannot listen on " + host + " port " + std::to_string(port)));
        sockaddr_storage addr{};
        socklen_t length = sizeof addr;
        getsockname(fd(), reinterpret_cast<sockaddr *>(&addr), &length);
        name_ = address_of(addr).full;
    }

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
    bool bind_to(const addrinfo &to)
    {
        socket_.reset(::socket(to.ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (fd() < 0)
            return false;
        // Room for the bursts of many queues, as far as the system allows.
        int room = 4 << 20;
        setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        return bind(fd(), to.ai_addr, to.ai_addrlen) == 0;
    }

    descriptor socket_;
    std::string name_;
    std::vector<char> buffer_ = std::vector<char>(65536);
};

} // namespace tool

#endif
