// SPDX-License-Identifier: Apache-2.0
//
// Threads. The main thread dispatches the control queue until the end: input, timers and signals are
// its events, and it alone reads lines, makes messages and deletes receivers, so the state of the feed
// needs no lock. The crew dispatches the queue of messages; what its callbacks touch is atomic or has
// its own lock (deletion). The context's thread only enqueues.
//
// End. Whatever ends the input calls finish(), which queues one unblock event for each thread of the
// crew behind all messages. The last thread to leave unblocks the main thread.
#include "feed.h"

#include <cstdio>
#include <numeric>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace feeder {

namespace {

using clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

// Above so many queued messages reading pauses, so that a long file does not end up in memory.
constexpr qrn_ulong_t max_queued = 10000;

qrn_event_queue_stats_t stats_of(qrn_event_queue_t *evq)
{
    qrn_event_queue_stats_t stats{};
    qrn_event_queue_retrieve_stats(evq, &stats);
    return stats;
}

void must(int result, const char *what)
{
    if (result < 0)
        throw refusal{std::string(what) + ": " + qrn_errmsg()};
}

void work(unsigned usec)
{
    const auto until = clock::now() + microseconds(usec);
    while (usec != 0 && clock::now() < until)
        ;
}

} // namespace

// --- Signals -------------------------------------------------------------------------------------

signal_watch::signal_watch()
{
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGINT);
    sigaddset(&wanted, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &wanted, &before_);
    fd_.reset(signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
}

signal_watch::~signal_watch()
{
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void signal_watch::clear() const
{
    signalfd_siginfo info;
    while (read(fd(), &info, sizeof info) > 0)
        ;
}

// --- The dispatching threads ---------------------------------------------------------------------

crew::crew(qrn_event_queue_t *evq, qrn_event_queue_t *then, unsigned size)
    : evq_(evq), then_(then), present_(size)
{
    try {
        while (threads_.size() < size)
            threads_.emplace_back(&crew::dispatch, this);
    } catch (const std::system_error &) {
        dismiss();
        join();
        throw refusal{"--dispatchers '" + std::to_string(size) + "': so many threads do not start"};
    }
}

crew::~crew()
{
    dismiss();
    join();
}

void crew::dispatch()
{
    qrn_event_dispatch(evq_, QRN_EVQ_DISPATCH_BLOCK);
    if (--present_ == 0)
        qrn_event_dispatch_unblock(then_);
}

void crew::dismiss()
{
    if (dismissed_)
        return;
    dismissed_ = true;
    for (size_t i = 0; i < threads_.size(); ++i)
        qrn_event_dispatch_unblock(evq_);
}

void crew::join()
{
    for (std::thread &thread : threads_)
        if (thread.joinable())
            thread.join();
}

// --- Setting up ----------------------------------------------------------------------------------

feed::feed(const settings &wanted, input &from)
    : from_(from), signals_(std::make_unique<signal_watch>())
{
    const attr_ptr attr = make_attr("feed", wanted);
    has_cancel_callbacks_ = is_on(attr, "queue_cancellation_callbacks_enabled");
    messages_ = make_queue(attr, &reports_);
    control_ = make_queue(make_attr("control", {}), nullptr);

    qrn_ctx_attr_t how{};
    how.rcv_delivery_batching_cb = wanted.batch ? on_bundle : nullptr;
    how.rcv_delivery_batching_clientd = this;
    qrn_context_t *made = nullptr;
    must(qrn_ctx_create(&made, &how), "no context");
    ctx_.reset(made);
    make_receivers(wanted);
    crew_ = std::make_unique<crew>(messages_.get(), control_.get(), wanted.dispatchers);
    start(wanted.seconds);
}

void feed::make_receivers(const settings &wanted)
{
    for (const std::string &topic : wanted.topics) {
        receiver &to = receivers_.emplace_back("receive", topic, wanted.work_usec);
        must(qrn_rcv_create(&to.rcv, ctx_.get(), topic.c_str(), messages(), on_message, &to),
             "no receiver");
        for (const deletion_wish &wish : wanted.deletions)
            if (wish.topic == topic) {
                to.end = std::make_unique<deletion>(wish.after);
                to_delete_[topic] = &to;
            }
    }
    for (const std::string &pattern : wanted.patterns) {
        receiver &to = receivers_.emplace_back("match", pattern, wanted.work_usec);
        qrn_wildcard_rcv_t *ends_with_the_context = nullptr;
        must(qrn_wildcard_rcv_create(&ends_with_the_context, ctx_.get(), pattern.c_str(),
                                     messages(), on_message, &to),
             "no receiver");
    }
}

void feed::start(unsigned seconds)
{
    qrn_context_t *ctx = ctx_.get();
    must(qrn_ctx_watch(ctx, signals_->fd(), QRN_FD_READ, control(), on_signal, this), "signals");
    progress_timer_ = qrn_ctx_schedule(ctx, control(), on_second, this, 1000, 1000);
    must(progress_timer_, "no timer");
    if (seconds != 0) {
        deadline_timer_ = qrn_ctx_schedule(ctx, control(), on_deadline, this, seconds * 1000UL, 0);
        must(deadline_timer_, "no timer");
    }
    if (from_.is_watched())
        must(qrn_ctx_watch(ctx, from_.fd(), QRN_FD_READ, control(), on_ready, this), "input");
    else
        must(qrn_evq_enq_callback(control(), on_turn, nullptr, this), "input");
}

void feed::run()
{
    began_ = last_progress_ = clock::now();
    if (!from_.address().empty())
        std::fprintf(stderr, "qrnfeed: listening on %s\n", from_.address().c_str());
    qrn_event_dispatch(control(), QRN_EVQ_DISPATCH_BLOCK);
    crew_->join();
    qrn_ctx_cancel_timer(ctx_.get(), progress_timer_, nullptr);
    // A deletion that waited for a thread of the crew has queued the end of its receiver only now.
    while (qrn_event_dispatch(messages(), QRN_EVQ_DISPATCH_POLL) > 0)
        ;
}

void feed::finish()
{
    if (over_)
        return;
    over_ = true;
    if (from_.is_watched())
        qrn_ctx_unwatch(ctx_.get(), from_.fd(), QRN_FD_READ, nullptr);
    qrn_ctx_unwatch(ctx_.get(), signals_->fd(), QRN_FD_READ, nullptr);
    signals_.reset();
    qrn_ctx_cancel_timer(ctx_.get(), deadline_timer_, nullptr);
    qrn_ctx_flush(ctx_.get());
    crew_->dismiss();
}

// --- The lines -----------------------------------------------------------------------------------

void feed::take_input()
{
    if (over_)
        return;
    if (stats_of(messages()).events > max_queued) {
        std::this_thread::sleep_for(milliseconds(1));
        return;
    }
    const bool more = from_.read([this](std::string_view line) { take_line(line); });
    qrn_ctx_flush(ctx_.get());
    if (!more)
        finish();
}

void feed::take_line(std::string_view line)
{
    ++counts_.lines;
    const size_t tab = line.find('\t');
    const std::string topic(line.substr(0, tab));
    if (tab == line.npos || topic.empty() || topic.find('\0') != topic.npos) {
        if (counts_.malformed++ == 0)
            counts_.first_malformed = counts_.lines;
        return;
    }
    const int receivers = send(topic, line.substr(tab + 1));
    if (receivers == 0)
        ++counts_.unmatched;
    else
        counts_.copies += static_cast<unsigned long>(receivers - 1);
}

// Number of receivers that the message is for.
int feed::send(const std::string &topic, std::string_view payload)
{
    qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, topic.c_str(), payload.data(),
                                    payload.size(), static_cast<qrn_uint_t>(counts_.lines));
    const auto found = to_delete_.find(topic);
    if (found == to_delete_.end()) {
        const int receivers = qrn_ctx_deliver(ctx_.get(), msg);
        qrn_msg_delete(msg);
        return receivers;
    }
    receiver &to = *found->second;
    to.end->hand(msg);
    const int receivers = qrn_ctx_deliver(ctx_.get(), msg);
    qrn_msg_delete(msg);
    if (to.end->is_due()) {
        to.end->run(to.rcv, has_cancel_callbacks_);
        to_delete_.erase(found);
    }
    return receivers;
}

unsigned long feed::delivered() const
{
    return std::accumulate(
        receivers_.begin(), receivers_.end(), 0UL,
        [](unsigned long sum, const receiver &to) { return sum + to.delivered; });
}

void feed::print_progress()
{
    const auto now = clock::now();
    const unsigned long all = delivered();
    const qrn_event_queue_stats_t stats = stats_of(messages());
    const std::chrono::duration<double> running = now - began_, step = now - last_progress_;
    std::fprintf(stderr, "%4.0f s: %8.0f deliveries/s, %6lu queued, mean age %lu us\n",
                 running.count(), static_cast<double>(all - last_delivered_) / step.count(),
                 stats.events, stats.age_mean);
    last_progress_ = now;
    last_delivered_ = all;
}

// --- Callbacks -----------------------------------------------------------------------------------

int feed::on_message(qrn_rcv_t *, qrn_msg_t *msg, void *clientd)
{
    auto &to = *static_cast<receiver *>(clientd);
    ++to.delivered;
    if (to.end != nullptr)
        to.end->begin(msg);
    work(to.work_usec);
    return 0;
}

int feed::on_bundle(qrn_event_bundle_t *bundle, void *clientd)
{
    ++static_cast<feed *>(clientd)->bundles_;
    return qrn_ctx_run_bundle(bundle, nullptr);
}

int feed::on_ready(qrn_context_t *, qrn_handle_t, qrn_ulong_t, void *clientd)
{
    static_cast<feed *>(clientd)->take_input();
    return 0;
}

// One block at a turn, so that timers and signals have theirs.
void feed::on_turn(qrn_event_queue_t *evq, void *clientd)
{
    auto &self = *static_cast<feed *>(clientd);
    self.take_input();
    if (!self.over_)
        qrn_evq_enq_callback(evq, on_turn, nullptr, clientd);
}

int feed::on_signal(qrn_context_t *, qrn_handle_t, qrn_ulong_t, void *clientd)
{
    auto &self = *static_cast<feed *>(clientd);
    self.signals_->clear();
    self.finish();
    return 0;
}

int feed::on_second(qrn_context_t *, const void *clientd)
{
    static_cast<feed *>(const_cast<void *>(clientd))->print_progress();
    return 0;
}

int feed::on_deadline(qrn_context_t *, const void *clientd)
{
    static_cast<feed *>(const_cast<void *>(clientd))->finish();
    return 0;
}

} // namespace feeder
