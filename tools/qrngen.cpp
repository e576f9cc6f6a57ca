// SPDX-License-Identifier: Apache-2.0
// Makes sample input: lines "topic TAB payload", on standard output or as one UDP datagram each, with
// an empty datagram at the end.
//
// The same seed gives the same lines on every machine. Most topics fall in the families "orders."
// and "quotes."; one line in 16 has a topic of the family "debug.", and one in 512 is malformed: the
// tab or the topic is missing.
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::string_view topics[] = {"orders.new",   "orders.fill",  "orders.cancel",
                                       "quotes.alpha", "quotes.bravo", "quotes.charlie",
                                       "quotes.delta", "quotes.echo"};

struct settings {
    unsigned lines = 20000;
    unsigned seed = 1;
    unsigned port = 0; // 0: standard output
    unsigned rate = 4000;
};

// The standard distributions differ between libraries; a remainder does not.
unsigned pick(std::mt19937 &random, unsigned below)
{
    return static_cast<unsigned>(random() % below);
}

std::string make_line(std::mt19937 &random, unsigned number)
{
    std::string topic(topics[pick(random, std::size(topics))]);
    if (pick(random, 16) == 0)
        topic = "debug.trace";
    std::string payload = "id=" + std::to_string(number);
    payload += " px=" + std::to_string(9000 + pick(random, 2000));
    payload += " qty=" + std::to_string(1 + pick(random, 500));
    if (pick(random, 512) != 0)
        return topic + '\t' + payload;
    return pick(random, 2) == 0 ? topic + ' ' + payload : '\t' + payload;
}

bool print_lines(const settings &wanted, std::mt19937 &random)
{
    for (unsigned i = 1; i <= wanted.lines; i++)
        if (std::puts(make_line(random, i).c_str()) == EOF)
            return false;
    return std::fflush(stdout) == 0;
}

// Sends at a steady rate, since datagrams that arrive faster than they are read get lost.
bool send_lines(const settings &wanted, std::mt19937 &random)
{
    using namespace std::chrono;
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(wanted.port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
        return false;

    const auto start = steady_clock::now();
    bool sent = true;
    for (unsigned i = 1; sent && i <= wanted.lines; i++) {
        const std::string line = make_line(random, i);
        sent = send(socket, line.data(), line.size(), 0) == static_cast<ssize_t>(line.size());
        std::this_thread::sleep_until(start +
                                      microseconds(std::uint64_t{i} * 1000000 / wanted.rate));
    }
    sent = sent && send(socket, "", 0, 0) == 0;
    close(socket);
    return sent;
}

std::optional<settings> parse(int argc, char **argv)
{
    settings wanted;
    for (int i = 1; i < argc; i += 2) {
        const std::string_view flag = argv[i], text = i + 1 < argc ? argv[i + 1] : "";
        unsigned *value = flag == "--lines"  ? &wanted.lines
                          : flag == "--seed" ? &wanted.seed
                          : flag == "--udp"  ? &wanted.port
                          : flag == "--rate" ? &wanted.rate
                                             : nullptr;
        if (value == nullptr)
            return std::nullopt;
        const auto [end, error] = std::from_chars(text.begin(), text.end(), *value);
        if (error != std::errc() || end != text.end())
            return std::nullopt;
    }
    if (wanted.rate == 0 || wanted.port > 65535)
        return std::nullopt;
    return wanted;
}

} // namespace

int main(int argc, char **argv)
{
    const auto wanted = parse(argc, argv);
    if (!wanted) {
        std::fputs(
            "usage: qrngen [--lines N] [--seed N] [--udp LOOPBACK-PORT] [--rate PER-SECOND]\n",
            stderr);
        return 2;
    }
    std::mt19937 random(wanted->seed);
    if (!(wanted->port == 0 ? print_lines : send_lines)(*wanted, random)) {
        std::fprintf(stderr, "qrngen: %s\n", std::strerror(errno));
        return 1;
    }
    return 0;
}
