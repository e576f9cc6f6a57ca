// SPDX-License-Identifier: Apache-2.0
// Two threads post callbacks that own what they need, a third one dispatches them.
#include <cstdio>
#include <memory>
#include <qrn.h>
#include <string>
#include <thread>

namespace {

// Exactly one of these two runs for an accepted callback, and frees its text.
void print(qrn_event_queue_t *, void *clientd)
{
    std::unique_ptr<std::string> text(static_cast<std::string *>(clientd));
    std::puts(text->c_str());
}

void discard(qrn_event_queue_t *, void *clientd)
{
    delete static_cast<std::string *>(clientd);
}

void post(qrn_event_queue_t *evq, const char *name)
{
    for (int i = 1; i <= 5; i++) {
        auto text = std::make_unique<std::string>(name + std::string(" ") + std::to_string(i));
        if (qrn_evq_enq_callback(evq, print, discard, text.get()) == 0)
            static_cast<void>(text.release()); // the queue's from now on
    }
}

} // namespace

int main()
{
    qrn_event_queue_t *evq = nullptr;
    if (qrn_event_queue_create(&evq, nullptr, nullptr, nullptr) != 0) {
        std::fprintf(stderr, "no queue: %s\n", qrn_errmsg());
        return 1;
    }
    std::jthread dispatcher([evq] { qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_BLOCK); });
    {
        std::jthread first(post, evq, "first");
        std::jthread second(post, evq, "second");
    } // both have posted everything

    qrn_event_dispatch_unblock(evq);
    dispatcher.join();
    qrn_event_queue_shutdown(evq);
    return qrn_event_queue_delete(evq);
}
