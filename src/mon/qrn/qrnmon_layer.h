// SPDX-License-Identifier: Apache-2.0
/* Private to the monitoring layer: what its sampler, its format and its transports share. */
#ifndef QRNMON_LAYER_H
#define QRNMON_LAYER_H

#include <array>
#include <bit>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <sys/socket.h>

#include "qrnmon.h"
#include "qrnmon_columns.h"

namespace qrnmon {

/* Numbers of the layer's errors. */
enum error : int {
    error_argument = 1, // a null or unknown argument, a bad options string
    error_address = 2,  // a host that does not resolve
    error_system = 3,   // the system refused a socket, a thread or memory
    error_state = 4,    // the queue is watched already, or is not watched
};

/* Records the calling thread's error. -1. */
[[gnu::format(printf, 2, 3)]] int fail(error number, const char *fmt, ...);
/* Makes the thread's error of the layer its last error of the library too. -1. */
int fail_creation();

/* --- Format ----------------------------------------------------------------------------------- */

/* The statistics as an array, in the order of their record. */
using figures = std::array<qrn_ulong_t, figure_count>;
static_assert(sizeof(figures) == sizeof(qrn_event_queue_stats_t));

/* The value of a figure that is not known. */
constexpr std::uint64_t unknown = ~std::uint64_t{0};

/* One sample of one queue. */
struct sample {
    timespec real;
    timespec mono;
    std::uint64_t seq;
    int pid;
    std::string_view app;
    std::string_view queue;
    std::uint64_t queue_id;
    std::uint64_t interval; // seconds
    bool counted;           // the queue keeps counts
    std::uint64_t depth;
    std::uint64_t warning;
    std::uint64_t size_warnings;
    std::uint64_t delay_warnings;
    figures stats;
};

/* Texts are cut at this many bytes, so that a record has a bound. */
constexpr std::size_t max_text = 128;
/* No record and no header is longer, whatever the figures are. */
constexpr std::size_t max_record = 2048;
using record_buffer = std::array<char, max_record>;

/* Both write one line with its newline into `out` and return the line. */
std::string_view csv_header(record_buffer &out);
std::string_view csv_record(record_buffer &out, const sample &from);

/* --- Transport -------------------------------------------------------------------------------- */

/* Where records go. */
struct endpoint {
    std::string host = "127.0.0.1";
    unsigned port = 0;
    bool operator==(const endpoint &) const = default;
};

/* Reads "host=NAME,port=NUMBER" over the values that stand in `into`; null is an empty text. 0 or
 * -1. */
int parse_endpoint(const char *opts, endpoint &into);

/* An unconnected datagram socket with one destination. */
class udp_sender {
public:
    udp_sender() = default;
    ~udp_sender();
    udp_sender(const udp_sender &) = delete;
    udp_sender &operator=(const udp_sender &) = delete;

    /* Resolves the destination, which may wait for a name server, and opens the socket. 0 or -1. */
    int open(const endpoint &to);
    /* Hands a datagram to the system and never waits: one that finds no room is dropped. */
    void send(std::string_view datagram) const;

private:
    int fd_ = -1;
    sockaddr_storage addr_{};
    socklen_t addr_len_ = 0;
};

} // namespace qrnmon

struct qrnmon_format_func_t_stct {
    std::string_view (*header)(qrnmon::record_buffer &out);
    std::string_view (*record)(qrnmon::record_buffer &out, const qrnmon::sample &from);
};

struct qrnmon_transport_func_t_stct {
    unsigned default_port;
};

namespace qrnmon {

/* The modules there are. */
extern const qrnmon_format_func_t csv_format;
extern const qrnmon_transport_func_t transport_qrn;
extern const qrnmon_transport_func_t transport_qrnsnmp;

} // namespace qrnmon

#endif
