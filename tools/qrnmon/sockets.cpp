// SPDX-License-Identifier: Apache-2.0
#include "sockets.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <netinet/in.h>

namespace tool {

address_text address_of(const sockaddr_storage &addr)
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

receiver::receiver(const std::string &host, unsigned port)
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
        throw failure(with_reason("cannot listen on " + host + " port " + std::to_string(port)));
    sockaddr_storage addr{};
    socklen_t length = sizeof addr;
    getsockname(fd(), reinterpret_cast<sockaddr *>(&addr), &length);
    name_ = address_of(addr).full;
}

bool receiver::bind_to(const addrinfo &to)
{
    socket_.reset(::socket(to.ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd() < 0)
        return false;
    // Room for the bursts of many queues, as far as the system allows.
    int room = 4 << 20;
    setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    return bind(fd(), to.ai_addr, to.ai_addrlen) == 0;
}

} // namespace tool
