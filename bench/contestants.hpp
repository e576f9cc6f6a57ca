// SPDX-License-Identifier: Apache-2.0
// The queues under measurement, each as a row of functions.
#ifndef BENCH_CONTESTANTS_HPP
#define BENCH_CONTESTANTS_HPP

#include "harness.hpp"

namespace bench {

// A spinning peer looks for an event for a while before its dispatcher goes to sleep.
enum class role { subject, variant, peer, spinning_peer };

struct contestant {
    const char *name;
    role as;
    double (*solo)(std::uint64_t batch, std::uint64_t events);
    double (*side_by_side)(shape threads, std::uint64_t events);
    std::vector<tick> (*hand_off)(tick silence, std::size_t samples);
};

template <class Q>
constexpr contestant enter(const char *name, role as)
{
    return {name, as, solo<Q>, side_by_side<Q>, hand_off<Q>};
}

// This library's queue with callbacks first, then with messages and bundles.
std::vector<contestant> ours();
std::vector<contestant> peers();
// This library's queue, options as they are at first, then one variant a set of options.
std::vector<contestant> setups();

} // namespace bench

#endif
