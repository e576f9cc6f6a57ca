// SPDX-License-Identifier: Apache-2.0
//
// What the explorer plays. A scenario sets up a queue, starts threads, runs them until none can go on,
// checks what must hold then, and lets whoever still waits end. In every scenario each item or event
// ends once and in order, nothing is stranded, every block is freed once, every count comes back to 0.
//
// SCHED_RUNS sets the number of schedules a scenario, SCHED_SEED the first seed: with the seed of a
// failure and SCHED_RUNS=1 the same schedule is played again.

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <map>
#include <poll.h>
#include <sstream>

#include <gtest/gtest.h>

#include "explorer.h"
#include "kfxhrtime.h"
#include "kfxlog.h"
#include "qrnev.h"
#include "qrnobj.h"

using namespace sched;

namespace {

int suspended = 0; // suspensions of descriptors that last

} // namespace

// What the module calls outside itself checks how it is used, and needs no thread and no clock.
extern "C" {

void kfx_fail_assert(const char *expr, const char *, int, int)
{
    check(false, expr);
}
void kfx_hrtime_timestamp(kfx_hrtime_t *ts)
{
    ts->tsc_ticks = static_cast<uint64_t>(now);
}
void kfx_hrtime_delta_usec(const kfx_hrtime_ivl_t *ivl, qrn_ulong_t *usec)
{
    *usec = *ivl / 1000;
}
void kfx_current_tv(struct timeval *tv)
{
    *tv = {now / second, now / 1000 % 1'000'000};
}
int qrn_fd_suspend(qrn_fd_t *, qrn_handle_t, qrn_ulong_t)
{
    ++suspended;
    return 0;
}
int qrn_fd_resume(qrn_fd_t *, qrn_handle_t, qrn_ulong_t)
{
    check(--suspended >= 0, "resumed more often than suspended");
    return 0;
}
int __real_qrn_tl_queue_dequeue_ex(qrn_tl_queue_t *, void **, int,
                                   qrn_tl_queue_dequeue_cb_info_t *);
int __wrap_qrn_tl_queue_dequeue_ex(qrn_tl_queue_t *q, void **item, int block,
                                   qrn_tl_queue_dequeue_cb_info_t *hook)
{
    const int result = __real_qrn_tl_queue_dequeue_ex(q, item, block, hook);
    check(result == 0 && (block == 0 || *item != nullptr), "a wait ends without an item");
    return result;
}
// `refs` counts the releases of a message.
int qrn_msg_delete(qrn_msg_t *msg)
{
    point();
    check(++msg->refs == 1, "a message is released twice");
    return 0;
}
int qrn_msg_clr_wqx_cr(qrn_msg_t *msg)
{
    check(msg->refs == 0, "a message is used after its release");
    return 0;
}

} // extern "C"

namespace {

// --- Running -------------------------------------------------------------------------------------

unsigned long setting(const char *name, unsigned long otherwise)
{
    const char *text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoul(text, nullptr, 0);
}

uint64_t seed;

// When the code under test crashes, says where; the signal comes again.
void say_seed(int signal)
{
    std::fprintf(stderr, "crash with SCHED_SEED=%lu SCHED_RUNS=1\n", seed);
    std::signal(signal, SIG_DFL);
}

// The first failure of the schedules from `first` on, whose number is then `seed`; empty when all hold.
std::string failure_of(const std::function<void()> &play, uint64_t first, unsigned long runs)
{
    for (int signal : {SIGSEGV, SIGBUS, SIGABRT})
        std::signal(signal, say_seed);
    for (seed = first; seed < first + runs; ++seed) {
        try {
            begin(seed);
            qrn_evq_init();
            play();
            end();
        } catch (const failure &failed) {
            return failed.what;
        }
    }
    return "";
}

// --- A queue -------------------------------------------------------------------------------------

// A queue with no options; or with every figure on, without or with cancellation callbacks.
enum options { none, figures, tracked };

// A queue and two receivers, "a" and "b". Callbacks look at theirs all the time, so that it shows when
// it is freed too early; the first one performs the line `inside`. The words of a line are steps: "post:a"
// is the step "post" with "a".
class events {
public:
    events(options on, const std::string &inside) : inside_line_(inside)
    {
        qrn_event_queue_attr_t *attr = nullptr;
        qrn_event_queue_attr_create_default(&attr);
        attr->q_cancel_cb = on == tracked;
        attr->q_count = attr->q_age = attr->q_svc_time = attr->q_notify = on != none;
        attr->q_sz_warn = attr->q_delay_warn = on != none;
        auto monitor = [](qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *) { return 0; };
        qrn_event_queue_create(&evq_, on == none ? nullptr : +monitor, nullptr, attr);
        qrn_event_queue_attr_delete(attr);
        // Some queues are not new: what happened before brings them to the turns of their memory.
        for (unsigned i = choose(8) == 0 ? 245 + choose(10) : 0; i > 0; --i) {
            void *item = nullptr;
            qrn_tl_queue_enqueue(evq_->q, this);
            qrn_tl_queue_dequeue_ex(evq_->q, &item, 0, nullptr);
        }
        ctx_.fdm = &fdm_;
        ctx_.rcv_delivery_batching_cb = on_bundle;
        for (char name : {'a', 'b'}) {
            rcv_[name] = static_cast<qrn_rcv_t *>(std::calloc(1, sizeof(qrn_rcv_t)));
            rcv_[name]->ctx = &ctx_;
        }
        suspended = 0;
        stranded = [this] { return !is_empty(); };
    }

    // Runs it all, ends the dispatchers, and checks the accounts.
    void play(const std::string &before, const std::string &threads)
    {
        for (auto &step : steps_)
            performed_[step.first]; // so that no thread adds to the map
        perform(before);
        std::istringstream parts(threads);
        for (std::string line; std::getline(parts, line, '|');)
            spawn([line, this] { perform(line); });
        int waiting = run();
        check(waiting == 0 || is_empty(), "an event is stranded");
        check(is_readable() || is_empty(), "an event is not shown");
        check_tokens();
        check(waiting == performed_["dispatch"] - performed_["unblock"], "an unblock ends no call");
        failing_ = false;
        for (; waiting > 0; --waiting)
            perform("unblock");
        check(run() == 0, "a dispatcher is not woken");
        do
            perform("poll");
        while (!is_empty());
        check(!is_readable(), "an empty queue is shown as one with events");
        check_tokens();
        check_accounts();
        qrn_event_queue_delete(evq_);
        for (auto [name, rcv] : rcv_)
            std::free(rcv);
    }

private:
    bool is_empty() const { return evq_->q->head->next == nullptr; }

    void perform(const std::string &line)
    {
        std::istringstream words(line);
        for (std::string word; words >> word;) {
            const std::string step = word.substr(0, word.find(':'));
            ++performed_[step];
            steps_.at(step)(word.substr(std::min(step.size() + 1, word.size())));
        }
    }

    // By its descriptor, if it has one.
    bool is_readable() const
    {
        pollfd interest = {fd_, POLLIN, 0};
        return fd_ == -1 ? !is_empty() : poll(&interest, 1, 0) == 1;
    }

    // With no operation under way.
    void check_tokens()
    {
        int tokens = 0;
        sem_getvalue(&evq_->q->sem_sz, &tokens);
        for (auto *node = evq_->q->head->next; node != nullptr; node = node->next)
            --tokens;
        check(tokens >= 0, "an event has no token");
        check(tokens == static_cast<int>(evq_->q->owed + evq_->q->offered + evq_->q->credit),
              "stale tokens are not known of");
    }

    // A queue that was shut down may have declined messages, which then stay with the caller.
    void check_accounts()
    {
        qrn_event_queue_stats_t stats;
        qrn_event_queue_retrieve_stats(evq_, &stats);
        check(stats.events == 0 && evq_->data_msgs == 0 && evq_->qsz == 0, "a count is off");
        auto &n = performed_;
        const bool loses = n["purge"] + n["shutdown"] != 0;
        const int posted = posted_ + n["bundle"] + n["callback"] + n["free"] + n["unblock"];
        check(loses || taken_ == posted, "dispatch miscounts");
        check(loses || delivered_ == posted_, "a message is not delivered");
        check(called_ == n["callback"], "a callback did not run");
        check(cancelled_ == n["cancel"], "a cancellation callback runs once");
        check(suspended == 0, "a descriptor is not resumed");
        const auto released = std::ranges::count(messages_, 1, &qrn_msg_t::refs);
        check(released == (evq_->shutdown ? evq_->data_msgs_tot : std::ssize(messages_)),
              "a message is not released");
    }

    void post(const std::string &receivers)
    {
        for (char name : receivers) {
            qrn_msg_t *msg = &messages_.emplace_back();
            msg->sequence_number = self() * 1000 + static_cast<unsigned>(++posted_);
            qrn_evq_enq_msg_with_proc(evq_, rcv_.at(name), on_message, msg, this);
        }
    }

    void post_bundle(const std::string &receivers)
    {
        qrn_event_bundle_t *bundle = qrn_event_bundle_create(&ctx_);
        for (char name : receivers) {
            qrn_event_t &entry = bundle->events[bundle->num_events++];
            entry = {QRN_EVQ_MSG_TYPE, evq_, &ctx_, {}, {}, 0};
            entry.info.msg = {rcv_.at(name), &messages_.emplace_back(), nullptr, nullptr};
            ++bundle->data_msgs;
        }
        qrn_evq_enq_msg_bundle(evq_, bundle);
    }

    void cancel(qrn_rcv_t *rcv)
    {
        cancelled_rcv_ = rcv;
        auto on_cancelled = [](int, void *clientd) {
            auto *at = static_cast<events *>(clientd);
            ++at->cancelled_;
            check(at->inside_[at->cancelled_rcv_] == 0, "a callback of the object still runs");
        };
        qrn_event_queue_cancel_cb_info_t info = {evq_, on_cancelled, this};
        check(qrn_evq_cancel_cb_rcv(rcv, &info) == 0, "no cancellation");
    }

    void switch_options()
    {
        for (const char *value : {"0", "1"})
            for (const char *name : {"queue_count_enabled", "queue_age_enabled",
                                     "queue_size_warning", "queue_delay_warning"})
                qrn_event_queue_str_setopt(evq_, name, value);
    }

    // When a callback fails or throws it goes on, but a poll does not.
    void dispatch(qrn_ulong_t timeout)
    {
        for (int result = -1; result == -1;) {
            try {
                result = qrn_event_dispatch(evq_, timeout);
            } catch (const int &) {
            }
            taken_ += std::max(result, 0);
            if (timeout != QRN_EVQ_DISPATCH_BLOCK)
                return;
        }
    }

    // Polls when the queue's descriptor is readable, as an event loop does.
    void look()
    {
        if (fd_ == -1)
            fd_ = qrn_event_queue_fd(evq_);
        is_readable() ? dispatch(QRN_EVQ_DISPATCH_POLL) : point();
    }

    static int on_message(qrn_rcv_t *rcv, qrn_msg_t *msg, void *clientd)
    {
        auto *at = static_cast<events *>(clientd);
        unsigned &latest = at->latest_[{self(), msg->sequence_number / 1000}];
        check(msg->sequence_number > std::exchange(latest, msg->sequence_number), "out of order");
        ++at->inside_[rcv];
        ++at->delivered_;
        for (int i = 0; i < 3; ++i) {
            touch(rcv);
            check(msg->refs == 0, "a message is released before its callback ends");
            point();
        }
        at->perform(std::exchange(at->inside_line_, ""));
        --at->inside_[rcv];
        if (at->failing_ && choose(4) == 0)
            throw 1;
        return at->failing_ && choose(4) == 0 ? -1 : 0;
    }

    static int on_bundle(qrn_event_bundle_t *bundle, void *)
    {
        long present = 0;
        for (int i = 0; i < bundle->num_events; ++i) {
            const qrn_event_t &entry = bundle->events[i];
            if (entry.ctx == nullptr)
                continue;
            ++present;
            touch(entry.info.msg.rcv);
            point();
            touch(entry.info.msg.rcv);
            check(entry.ctx != nullptr && entry.info.msg.msg->refs == 0, "a purge is too late");
        }
        check(present > 0 && bundle->data_msgs == present, "a bundle's count is off");
        return 0;
    }

    static void on_callback(qrn_event_queue_t *, void *called) { ++*static_cast<int *>(called); }
    static int on_io(qrn_context_t *, qrn_handle_t, qrn_ulong_t, void *) { return 0; }

    qrn_event_queue_t *evq_ = nullptr;
    qrn_fd_t fdm_ = {};
    qrn_context_t ctx_ = {};
    std::map<char, qrn_rcv_t *> rcv_;
    std::deque<qrn_msg_t> messages_;
    std::string inside_line_;
    std::map<qrn_rcv_t *, int> inside_; // callbacks that run
    qrn_rcv_t *cancelled_rcv_ = nullptr;
    std::map<std::pair<unsigned, unsigned>, unsigned> latest_; // by dispatcher and producer
    int fd_ = -1;
    int posted_ = 0, taken_ = 0, delivered_ = 0, called_ = 0, cancelled_ = 0;
    bool failing_ = false; // callbacks throw, or end their dispatch call
    std::map<std::string, int> performed_;
    const std::map<std::string, std::function<void(const std::string &)>> steps_ = {
        {"post", [this](auto &names) { post(names); }},
        {"bundle", [this](auto &names) { post_bundle(names); }},
        {"callback",
         [this](auto &) { qrn_evq_enq_callback(evq_, on_callback, on_callback, &called_); }},
        {"io", [this](auto &) { qrn_evq_enq_io(evq_, &ctx_, 1, 1, nullptr, on_io); }},
        {"free",
         [this](auto &name) {
             qrn_evq_enq_cancel(evq_, &ctx_, std::exchange(rcv_.at(name[0]), nullptr));
         }},
        {"unblock", [this](auto &) { qrn_event_dispatch_unblock(evq_); }},
        {"purge", [this](auto &name) { qrn_evq_purge_rcv(evq_, rcv_.at(name[0])); }},
        {"cancel", [this](auto &name) { cancel(rcv_.at(name[0])); }},
        {"shutdown", [this](auto &) { qrn_event_queue_shutdown(evq_); }},
        {"options", [this](auto &) { switch_options(); }},
        {"dispatch", [this](auto &) { dispatch(QRN_EVQ_DISPATCH_BLOCK); }},
        {"poll", [this](auto &) { dispatch(QRN_EVQ_DISPATCH_POLL); }},
        {"timed", [this](auto &) { dispatch(1); }},
        {"look", [this](auto &) { look(); }},
        {"fail", [this](auto &) { failing_ = true; }},
    };
};

// --- The scenarios -------------------------------------------------------------------------------

const struct scenario {
    const char *name;
    options on;
    const char *threads, *before = "", *inside = "";
} scenarios[] = {
    {"AppendAgainstBlockingTake", none, "post:aaa | post:ab | dispatch"},
    // Long enough for a flow in which takers offer their tokens, and for two of them.
    {"FullFlowAgainstAppendAndTake", none, "post:aaaaaaa | post:aaaaa | dispatch | dispatch"},
    {"TwoTakersOneItem", none, "post:a | dispatch | dispatch"},
    {"PollAgainstAppend", none, "post:aa | poll poll poll | dispatch"},
    {"TimedTakeAgainstAppend", none, "post:aa | timed timed | timed | dispatch"},
    {"RemovalAgainstAppendAndTake", none, "post:abab | post:ab | purge:b | dispatch | dispatch"},
    {"DescriptorAgainstAppendAndTake", none, "post:aab | look look look look | poll | purge:b"},
    {"FilterAgainstBundleDelivery", figures,
     "bundle:aba post:a bundle:a bundle:ba | dispatch | purge:a purge:b"},
    {"UnblockAgainstTwoDispatchers", figures,
     "dispatch | dispatch | unblock | post:a unblock post:a"},
    {"CancelAgainstThreeDeliveries", tracked, "dispatch | dispatch | dispatch | dispatch",
     "post:aaa free:a"},
    {"TwoCancelsAgainstABundle", tracked, "dispatch | dispatch | dispatch",
     "bundle:ab bundle:ba free:a free:b"},
    // Threads come and go: each polls, some callbacks throw or end their dispatch call.
    {"CancellationCallbackAgainstDelivery", tracked,
     "poll poll | poll poll | poll poll | purge:a cancel:a", "fail post:aba"},
    {"ShutdownAgainstDispatchAndAppend", figures,
     "post:a callback io free:b post:a callback | dispatch | shutdown"},
    // The receiver is deleted that the callback and others are called for.
    {"DeletionInsideItsOwnCallback", tracked, "dispatch | dispatch | dispatch", "post:aaaa",
     "purge:a cancel:a free:a"},
    {"OptionsSwitchedAgainstEverything", figures,
     "post:a bundle:aa callback | dispatch | purge:a | options"},
};

struct Schedules : testing::Test {
    const scenario &s;
    explicit Schedules(const scenario &played) : s(played) {}
    void TestBody() override
    {
        const auto play = [this] { events(s.on, s.inside).play(s.before, s.threads); };
        EXPECT_EQ(failure_of(play, setting("SCHED_SEED", 1), setting("SCHED_RUNS", 10'000)), "")
            << "SCHED_SEED=" << seed << " SCHED_RUNS=1";
    }
};

[[maybe_unused]] const bool registered = [] {
    for (const scenario &s : scenarios)
        testing::RegisterTest("Schedules", s.name, nullptr, nullptr, __FILE__, __LINE__,
                              [&s] { return new Schedules(s); });
    return true;
}();

TEST(Explorer, FindsADeadlockAndPlaysItAgain)
{
    const auto lock_crosswise = [] {
        static pthread_mutex_t locks[2];
        for (int first : {0, 1}) {
            pthread_mutex_init(&locks[first], nullptr);
            spawn([=] {
                kfx::lock_guard outer(locks[first]);
                kfx::lock_guard inner(locks[1 - first]);
            });
        }
        run();
    };
    EXPECT_EQ(failure_of(lock_crosswise, 1, 1000), "a thread waits for ever");
    EXPECT_EQ(failure_of(lock_crosswise, seed, 1), "a thread waits for ever");
}

} // namespace
