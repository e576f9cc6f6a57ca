// SPDX-License-Identifier: Apache-2.0
/* The transports: one UDP datagram a record. The socket is not connected, so a receiver that is
 * gone is never reported back to it, and every send is told not to wait: the sampled process
 * notices nothing of its receiver. Weak definitions: a program may put its own in their place. */
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <system_error>
#include <unistd.h>

#include "qrnmon_layer.h"

namespace qrnmon {

namespace {

int parse_port(std::string_view text, unsigned &port)
{
    const char *end = text.data() + text.size();
    auto parsed = std::from_chars(text.data(), end, port);
    if (parsed.ec != std::errc() || parsed.ptr != end || port == 0 || port > 65535)
        return fail(error_argument,
                    "transport options: port must be a number from 1 to 65535: '%.*s'",
                    static_cast<int>(text.size()), text.data());
    return 0;
}

int parse_item(std::string_view item, endpoint &into)
{
    std::size_t equals = item.find('=');
    std::string_view key = item.substr(0, equals);
    std::string_view value = equals == item.npos ? "" : item.substr(equals + 1);
    if (key != "host" && key != "port")
        return fail(error_argument, "transport options: expected host=NAME or port=NUMBER: '%.*s'",
                    static_cast<int>(item.size()), item.data());
    if (key == "port")
        return parse_port(value, into.port);
    if (value.empty())
        return fail(error_argument, "transport options: host is empty");
    into.host = value;
    return 0;
}

using addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

/* IPv4 first: "localhost" then means the address that receivers listen on by default. */
int resolve(const endpoint &to, addresses &found)
{
    int result = 0;
    std::string port = std::to_string(to.port);
    for (int family : {AF_INET, AF_INET6}) {
        addrinfo hints{};
        hints.ai_family = family;
        hints.ai_socktype = SOCK_DGRAM;
        hints.ai_flags = AI_NUMERICSERV;
        addrinfo *list = nullptr;
        result = getaddrinfo(to.host.c_str(), port.c_str(), &hints, &list);
        if (result == 0) {
            found.reset(list);
            return 0;
        }
    }
    return fail(error_address, "host '%.128s' does not resolve: %s", to.host.c_str(),
                gai_strerror(result));
}

} // namespace

int parse_endpoint(const char *opts, endpoint &into)
{
    constexpr std::string_view separators = ",; \t";
    std::string_view rest = opts != nullptr ? opts : "";
    while (!rest.empty()) {
        std::size_t end = std::min(rest.find_first_of(separators), rest.size());
        if (end != 0 && parse_item(rest.substr(0, end), into) != 0)
            return -1;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return 0;
}

udp_sender::~udp_sender()
{
    if (fd_ >= 0)
        close(fd_);
}

int udp_sender::open(const endpoint &to)
{
    addresses found(nullptr, freeaddrinfo);
    if (resolve(to, found) != 0)
        return -1;
    addr_len_ = found->ai_addrlen;
    std::memcpy(&addr_, found->ai_addr, addr_len_);
    fd_ = socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0)
        return fail(error_system, "no socket for host '%.128s': %s", to.host.c_str(),
                    std::generic_category().message(errno).c_str());
    return 0;
}

void udp_sender::send(std::string_view datagram) const
{
    [[maybe_unused]] ssize_t ignored =
        sendto(fd_, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&addr_), addr_len_);
}

constexpr qrnmon_transport_func_t transport_qrn = {default_port_qrn};
constexpr qrnmon_transport_func_t transport_qrnsnmp = {default_port_qrnsnmp};

} // namespace qrnmon

[[gnu::weak]] const qrnmon_transport_func_t *qrnmon_transport_qrn_module(void)
{
    return &qrnmon::transport_qrn;
}

[[gnu::weak]] const qrnmon_transport_func_t *qrnmon_transport_qrnsnmp_module(void)
{
    return &qrnmon::transport_qrnsnmp;
}
