// SPDX-License-Identifier: Apache-2.0
// Throws out of a dispatched callback; the result says whether it was caught as it was thrown.
#include <qrn.h>
#include <stdexcept>
#include <string>

int main()
{
    qrn_event_queue_t *evq = nullptr;
    if (qrn_event_queue_create(&evq, nullptr, nullptr, nullptr) != 0)
        return 1;
    const auto thrower = [](qrn_event_queue_t *, void *) { throw std::runtime_error("thrown"); };
    if (qrn_evq_enq_callback(evq, thrower, nullptr, nullptr) != 0)
        return 2;
    try {
        qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_POLL);
    } catch (const std::runtime_error &error) {
        return qrn_event_queue_delete(evq) == 0 && error.what() == std::string("thrown") ? 0 : 3;
    }
    return 4;
}
