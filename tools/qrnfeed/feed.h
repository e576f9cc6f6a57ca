// SPDX-License-Identifier: Apache-2.0
//
// The way of the lines from the input to the receivers.
#ifndef QRNFEED_FEED_H
#define QRNFEED_FEED_H

#include <atomic>
#include <chrono>
#include <csignal>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "deletion.h"
#include "input.h"
#include "queues.h"

namespace feeder {

struct receiver {
    receiver(const char *kind_, const std::string &name_, unsigned work_usec_)
        : kind(kind_), name(name_), work_usec(work_usec_)
    {
    }

    const char *const kind;
    const std::string name;
    const unsigned work_usec;
    std::atomic<unsigned long> delivered = 0; // callbacks that began
    std::unique_ptr<deletion> end;            // null: it is not deleted in mid-stream
    qrn_rcv_t *rcv = nullptr;                 // null for a pattern's
};

struct tally {
    unsigned long lines = 0;
    unsigned long malformed = 0;
    unsigned long first_malformed = 0; // its line number
    unsigned long unmatched = 0;
    unsigned long copies = 0; // deliveries beyond the first of a line
};

// Takes SIGINT and SIGTERM from their default action and makes them readable, while it lives.
class signal_watch {
public:
    signal_watch();
    ~signal_watch();
    signal_watch(const signal_watch &) = delete;
    signal_watch &operator=(const signal_watch &) = delete;

    int fd() const { return fd_.get(); }
    void clear() const; // the signals that came

private:
    sigset_t before_;
    descriptor fd_;
};

// The threads that dispatch a queue, each until it takes an unblock event.
class crew {
public:
    // The last one to leave ends a dispatch call of `then`.
    crew(qrn_event_queue_t *evq, qrn_event_queue_t *then, unsigned size);
    ~crew();
    crew(const crew &) = delete;
    crew &operator=(const crew &) = delete;

    // Behind everything that is queued now.
    void dismiss();
    void join();

private:
    void dispatch();

    qrn_event_queue_t *const evq_;
    qrn_event_queue_t *const then_;
    std::atomic<unsigned> present_;
    bool dismissed_ = false;
    std::vector<std::thread> threads_;
};

class feed {
public:
    // Makes everything, or throws a refusal; reads nothing yet.
    feed(const settings &wanted, input &from);

    // Reads the input to its end; returns when nothing is queued any more.
    void run();

    qrn_event_queue_t *messages() const { return messages_.get(); }
    qrn_event_queue_t *control() const { return control_.get(); }
    const std::deque<receiver> &receivers() const { return receivers_; }
    unsigned long delivered() const;
    unsigned long bundles() const { return bundles_; }
    const tally &counts() const { return counts_; }
    const warnings &reports() const { return reports_; }

private:
    void make_receivers(const settings &wanted);
    void start(unsigned seconds);
    void take_input();
    void take_line(std::string_view line);
    int send(const std::string &topic, std::string_view payload);
    void print_progress();
    void finish();

    static int on_message(qrn_rcv_t *, qrn_msg_t *msg, void *clientd);
    static int on_bundle(qrn_event_bundle_t *bundle, void *clientd);
    static int on_ready(qrn_context_t *, qrn_handle_t, qrn_ulong_t, void *clientd);
    static int on_signal(qrn_context_t *, qrn_handle_t, qrn_ulong_t, void *clientd);
    static int on_second(qrn_context_t *, const void *clientd);
    static int on_deadline(qrn_context_t *, const void *clientd);
    static void on_turn(qrn_event_queue_t *, void *clientd);

    input &from_;
    bool has_cancel_callbacks_ = false;
    std::deque<receiver> receivers_;
    std::map<std::string, receiver *> to_delete_; // by topic
    std::atomic<unsigned long> bundles_ = 0;
    tally counts_;
    warnings reports_;
    std::unique_ptr<signal_watch> signals_;
    queue_ptr messages_;
    queue_ptr control_;
    context_ptr ctx_; // ends before the queues and what its callbacks use
    std::unique_ptr<crew> crew_;
    int progress_timer_ = -1;
    int deadline_timer_ = -1;
    bool over_ = false; // no more input is taken

    std::chrono::steady_clock::time_point began_;
    std::chrono::steady_clock::time_point last_progress_;
    unsigned long last_delivered_ = 0;
};

} // namespace feeder

#endif
