// SPDX-License-Identifier: Apache-2.0
#ifndef QRNSOAK_STATION_H
#define QRNSOAK_STATION_H

#include <algorithm>
#include <array>
#include <random>
#include <shared_mutex>

#include "ledger.h"
#include "qrnctx.h"

namespace soak {

class random_source {
public:
    explicit random_source(unsigned long seed) : engine_(seed) {}
    unsigned below(size_t n) { return static_cast<unsigned>(engine_() % n); }
    bool one_in(unsigned n) { return below(n) == 0; }
    // One of a table, the last one as often as `of` lets it.
    template <class T, size_t n>
    const T &pick(const T (&table)[n], size_t of = n)
    {
        return table[std::min<size_t>(below(of), n - 1)];
    }

private:
    std::mt19937_64 engine_;
};

// A queue with random options and a context of its own, with objects of every kind. Each of the three
// operations in the middle does one random thing, and may run on any number of threads at once.
class station {
public:
    // With `exact` nobody resets or switches the counts, so that the totals can be told.
    station(random_source &random, bool exact);
    station(const station &) = delete;
    station &operator=(const station &) = delete;

    void produce(random_source &random);
    void dispatch(random_source &random);
    void disturb(random_source &random); // as deleting threads and operators do

    // Ends it, when nobody else uses it any more, and checks what it has counted.
    void finish();

private:
    static constexpr unsigned objects = 3;

    void create_queue(random_source &random);
    void create_objects();
    void drain();
    void check_statistics() const;
    void check_tokens() const;
    int post_bundle(unsigned n);
    int post_callback();
    int live_shortly();
    void cancel(qrn_rcv_t *rcv);
    void shut_down();
    void observe();
    void switch_option(random_source &random);

    const bool exact_;
    const bool cancels_;
    account account_;
    qrn_event_queue_t *evq_ = nullptr;
    qrn_context_t *ctx_ = nullptr;
    std::array<qrn_rcv_t *, objects> rcvs_{};
    std::array<qrn_wildcard_rcv_t *, objects> wrcvs_{};
    std::array<qrn_src_t *, objects> srcs_{};
    std::array<qrn_request_t *, objects> reqs_{};
    int fds_[2]{};

    // A queue that is shut down leaves what it declines with the one who enqueues, so shutting it down
    // excludes those.
    std::shared_mutex shutdown_lock_;
};

} // namespace soak

#endif
