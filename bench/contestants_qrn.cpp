// SPDX-License-Identifier: Apache-2.0
#include "contestants.hpp"
#include "qrn_queues.hpp"

std::vector<bench::contestant> bench::ours()
{
    return {enter<callback_queue<plain>>("qrn", role::subject),
            enter<message_queue>("qrn message", role::variant),
            enter<bundle_queue>("qrn bundle", role::variant)};
}

std::vector<bench::contestant> bench::setups()
{
    return {enter<callback_queue<plain>>("options off", role::subject),
            enter<callback_queue<statistics>>("all statistics", role::variant),
            enter<callback_queue<counts>>("counts", role::variant),
            enter<callback_queue<ages>>("ages", role::variant),
            enter<callback_queue<service_times>>("service times", role::variant),
            enter<callback_queue<tracked>>("thread tracking", role::variant),
            enter<callback_queue<sized>>("size warning", role::variant),
            enter<callback_queue<finite>>("finite timeout", role::variant)};
}
