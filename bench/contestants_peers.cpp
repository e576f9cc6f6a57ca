// SPDX-License-Identifier: Apache-2.0
#include "contestants.hpp"
#include "peers.hpp"

std::vector<bench::contestant> bench::peers()
{
    return {enter<tbb_queue>("oneTBB", role::peer),
            enter<moodycamel_queue>("moodycamel", role::spinning_peer),
            enter<glib_queue>("GLib", role::peer), enter<asio_queue>("Asio", role::peer),
            enter<condvar_queue>("mutex+cv", role::peer)};
}
