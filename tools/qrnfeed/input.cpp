// SPDX-License-Identifier: Apache-2.0
#include "input.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace feeder {

namespace {

constexpr size_t block_size = 16384;
constexpr size_t datagram_size = 65536; // more than the longest
constexpr int datagrams_at_once = 64;
constexpr int socket_room = 1 << 22; // the system may grant less

std::string reason(int error)
{
    return std::generic_category().message(error);
}

using addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

addresses resolve(const std::string &where)
{
    const size_t colon = where.rfind(':');
    if (colon == where.npos || colon == 0)
        throw refusal{"--udp '" + where + "': expected ADDRESS:PORT"};
    std::string host = where.substr(0, colon);
    const std::string port = where.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != port.npos ||
        std::stoi(port) > 65535)
        throw refusal{"--udp '" + where + "': expected a port from 0 to 65535"};
    if (host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);

    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo *found = nullptr;
    if (const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found); error != 0)
        throw refusal{"--udp '" + where + "': " + gai_strerror(error)};
    return {found, freeaddrinfo};
}

std::string address_of(int socket)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr *>(&address), &length);
    char host[NI_MAXHOST] = "";
    char port[NI_MAXSERV] = "";
    getnameinfo(reinterpret_cast<const sockaddr *>(&address), length, host, sizeof host, port,
                sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
    const bool six = address.ss_family == AF_INET6;
    return (six ? "[" : "") + std::string(host) + (six ? "]:" : ":") + port;
}

} // namespace

void descriptor::reset(int fd)
{
    if (fd_ > STDIN_FILENO)
        close(fd_);
    fd_ = fd;
}

void line_cutter::add(std::string_view block, const line_proc &on_line)
{
    size_t end;
    while ((end = block.find('\n')) != block.npos) {
        append(block.substr(0, end));
        emit(on_line);
        block.remove_prefix(end + 1);
    }
    append(block);
}

void line_cutter::end(const line_proc &on_line)
{
    if (!begun_.empty() || too_long_)
        emit(on_line);
}

void line_cutter::append(std::string_view part)
{
    if (begun_.size() + part.size() > longest) {
        too_long_ = true;
        begun_.clear();
    }
    if (!too_long_)
        begun_ += part;
}

void line_cutter::emit(const line_proc &on_line)
{
    on_line(begun_);
    begun_.clear();
    too_long_ = false;
}

input::input(const settings &wanted) : room_(std::max(block_size, datagram_size))
{
    if (!wanted.udp.empty())
        open_udp(wanted.udp);
    else
        open_file(wanted.file.empty() ? "-" : wanted.file);
}

void input::open_file(const std::string &name)
{
    name_ = name == "-" ? "standard input" : "'" + name + "'";
    fd_.reset(name == "-" ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (fd() < 0 || fstat(fd(), &status) != 0)
        throw refusal{"cannot open " + name_ + ": " + reason(errno)};
    if (S_ISDIR(status.st_mode))
        throw refusal{"cannot read " + name_ + ": " + reason(EISDIR)};
    if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || isatty(fd()) != 0)
        kind_ = kind::stream;
}

void input::open_udp(const std::string &where)
{
    const addresses found = resolve(where);
    kind_ = kind::datagrams;
    name_ = "--udp '" + where + "'";
    fd_.reset(socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd() < 0 || bind(fd(), found->ai_addr, found->ai_addrlen) != 0)
        throw refusal{name_ + ": " + reason(errno)};
    const int on = 1;
    setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &socket_room, sizeof socket_room);
    setsockopt(fd(), SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    address_ = address_of(fd());
}

bool input::read(const line_proc &on_line)
{
    return kind_ == kind::datagrams ? read_datagrams(on_line) : read_block(on_line);
}

bool input::fail()
{
    if (errno == EAGAIN || errno == EINTR)
        return true;
    trouble_ = "cannot read " + name_ + ": " + reason(errno);
    return false;
}

bool input::read_block(const line_proc &on_line)
{
    const ssize_t length = ::read(fd(), room_.data(), block_size);
    if (length < 0)
        return fail();
    cutter_.add({room_.data(), static_cast<size_t>(length)}, on_line);
    if (length == 0)
        cutter_.end(on_line);
    return length != 0;
}

bool input::read_datagrams(const line_proc &on_line)
{
    for (int i = 0; i < datagrams_at_once; ++i) {
        const long length = receive();
        if (length < 0)
            return fail();
        if (length == 0)
            return false;
        cutter_.add({room_.data(), static_cast<size_t>(length)}, on_line);
        cutter_.end(on_line);
    }
    return true;
}

// One datagram, and the number of those that were dropped before it.
long input::receive()
{
    iovec part{room_.data(), room_.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(std::uint32_t))];
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(fd(), &header, MSG_DONTWAIT);
    if (length < 0)
        return -1;
    for (cmsghdr *c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c))
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL) {
            std::uint32_t dropped = 0;
            std::memcpy(&dropped, CMSG_DATA(c), sizeof dropped);
            dropped_ = dropped;
        }
    return length;
}

} // namespace feeder
