// SPDX-License-Identifier: Apache-2.0
//
// What became of everything, counted from outside the library: events where they enter and leave a
// queue's container, messages and callbacks by what they call, blocks of memory.
#ifndef QRNSOAK_LEDGER_H
#define QRNSOAK_LEDGER_H

#include <array>
#include <atomic>

#include "qrnev.h"
#include "qrnmsg.h"

namespace soak {

// Events that a queue accepted, by type; a bundle counts as its messages. The client data of each
// queue's monitor callback is its account.
struct account {
    std::array<std::atomic<long>, QRN_EVQ_MSG_BUNDLE_TYPE> accepted{};
};

// Of all queues.
struct ledger {
    std::atomic<long> enqueued, delivered, purged, discarded; // events
    std::atomic<long> messages, consumed, cleared; // made; released by delivery; discarded
    std::atomic<long> callbacks, called, dropped;  // posted; run; discarded
    std::atomic<long> cancels, cancelled;          // cancellation callbacks asked for, and made
    std::atomic<long> blocks; // of memory that the library and this program hold
};
inline ledger total;

// Ends the program with a report unless `a` equals `b`.
void expect_equal(const char *what, long a, long b);

// A message that the ledger follows.
qrn_msg_t *new_message(unsigned n, const char *topic);

// Everything that began has ended, once.
void check_ledger();

} // namespace soak

#endif
