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
#include <set>

#include <gtest/gtest.h>

#include "explorer.h"
#include "qrnev.h"
#include "qrnobj.h"

#if defined(SCHED_ASAN) || defined(SCHED_TSAN)
#include <sanitizer/common_interface_defs.h>
constexpr bool is_sanitized = true;
#else
constexpr bool is_sanitized = false;
#endif

using namespace sched;

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

void catch_crashes()
{
#if defined(SCHED_ASAN) || defined(SCHED_TSAN)
    __sanitizer_set_death_callback([] { say_seed(SIGABRT); });
#else
    for (int signal : {SIGSEGV, SIGBUS, SIGABRT})
        std::signal(signal, say_seed);
#endif
}

// The first failure of the schedules from `first` on, whose number is then `seed`; empty when all hold.
std::string failure_of(const std::function<void()> &play, uint64_t first, unsigned long runs)
{
    catch_crashes();
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

// Calls `use` with each part of a text.
template <class Use>
void split(const std::string &text, char at, Use use)
{
    for (size_t from = 0, end; from < text.size(); from = end + 1) {
        end = std::min(text.find(at, from), text.size());
        if (end != from)
            use(text.substr(from, end - from));
    }
}

// What threads can do. They perform the words of a line: "post:a" is the step "post" with "a".
struct script {
    const std::map<std::string, std::function<void(const std::string &)>> steps;
    std::map<std::string, int> performed{};

    void perform(const std::string &line)
    {
        split(line, ' ', [this](const std::string &word) {
            const size_t colon = std::min(word.find(':'), word.size());
            const std::string step = word.substr(0, colon);
            ++performed[step];
            steps.at(step)(word.substr(std::min(colon + 1, word.size())));
        });
    }

    // One thread a part. Number of those that have not ended when none can go on.
    int run_parts(const std::string &threads)
    {
        for (auto &known : steps)
            performed[known.first]; // so that no thread adds to the map
        split(threads, '|',
              [this](const std::string &line) { spawn([line, this] { perform(line); }); });
        return run();
    }
};

// --- The blocking queue --------------------------------------------------------------------------

// Items are letters: those of one producer are small, those of the other are capitals, and either
// appends them in the order of the alphabet. A tilde tells a taker to end.
class items {
public:
    // Some queues are not new: what happened before brings them to the turns of their memory.
    items()
    {
        for (unsigned i = choose(8) == 0 ? 245 + choose(10) : 0; i > 0; --i) {
            append("~");
            take(0);
        }
        set_stranded([this] { return !is_empty(); });
    }

    // Runs it all and ends the takers.
    void play(const std::string &threads)
    {
        int waiting = script_.run_parts(threads);
        check(waiting == 0 || is_empty(), "an item is stranded");
        check(is_readable() || is_empty(), "an item is not shown");
        check_tokens();
        append(std::string(static_cast<size_t>(waiting), '~'));
        check(run() == 0, "a taker is not woken");
        while (take(0) != 0)
            ;
        check(!is_readable(), "an empty queue is shown as one with items");
        check_tokens();
        check(ended_.size() == appended_, "an item is lost");
        qrn_tl_queue_delete(q_);
    }

private:
    bool is_empty() const { return q_->head->next == nullptr; }

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
        sem_getvalue(&q_->sem_sz, &tokens);
        for (const qrn_tl_queue_node_t *node = q_->head->next; node != nullptr; node = node->next)
            --tokens;
        check(tokens >= 0, "an item has no token");
        check(tokens == static_cast<int>(q_->owed + q_->offered + q_->credit),
              "stale tokens are not known of");
    }

    void append(const std::string &letters)
    {
        for (long item : letters) {
            appended_ += item != '~';
            check(qrn_tl_queue_enqueue(q_, reinterpret_cast<void *>(item)) == 0, "append fails");
        }
    }

    // The item taken; 0 when a poll finds none.
    long take(int block)
    {
        void *item = nullptr;
        while (qrn_tl_queue_dequeue_ex(q_, &item, block, &hook_) == -1)
            check(block != 0 && item == nullptr, "a take asks in vain to be tried again");
        check(block == 0 || item != nullptr, "a blocking take comes back without an item");
        return reinterpret_cast<long>(item);
    }

    void take_in_time()
    {
        timespec deadline = {static_cast<time_t>(now() / 1'000'000'000 + 1), 0};
        void *item = nullptr;
        int result = qrn_tl_queue_dequeue_timed(q_, &item, &hook_, &deadline);
        check((result == -1) == (item == nullptr), "the result says nothing of the item");
    }

    // Polls when the queue's descriptor is readable, as an event loop does.
    void look()
    {
        if (fd_ == -1)
            fd_ = qrn_tl_queue_fd(q_);
        is_readable() ? static_cast<void>(take(0)) : point();
    }

    // Removes every other letter and appends a figure for each.
    void remove()
    {
        static items *self;
        self = this;
        auto stays = [](const void *item, const void *) {
            const auto letter = reinterpret_cast<long>(item);
            return letter % 2 != 0 || letter < 'A' || letter == '~' ? 1 : 0;
        };
        auto replace = [](const void *item) {
            self->end(reinterpret_cast<long>(item));
            self->append({self->replacement_++});
            return 0;
        };
        qrn_tl_queue_remove_all(q_, stays, replace, nullptr);
    }

    void end(long item) { check(ended_.insert(item).second, "an item leaves twice"); }

    // The hook of the takes, which sees them in order.
    static void on_take(void *taken, void *clientd)
    {
        auto *self = static_cast<items *>(clientd);
        const auto item = reinterpret_cast<long>(taken);
        if (item == '~')
            return;
        check(item > std::exchange(self->latest_[item / 32], item), "items leave out of order");
        self->end(item);
    }

    size_t appended_ = 0;
    std::set<long> ended_;
    std::map<long, long> latest_; // by sort of item
    char replacement_ = '0';
    int fd_ = -1;
    qrn_tl_queue_t *q_ = qrn_tl_queue_create();
    qrn_tl_queue_dequeue_cb_info_t hook_ = {on_take, this};
    script script_ = {{
        {"append", [this](auto &letters) { append(letters); }},
        {"take",
         [this](auto &) {
             while (take(1) != '~')
                 ;
         }},
        {"poll", [this](auto &) { take(0); }},
        {"timed", [this](auto &) { take_in_time(); }},
        {"look", [this](auto &) { look(); }},
        {"remove", [this](auto &) { remove(); }},
    }};
};

// --- Event queues --------------------------------------------------------------------------------

// A queue with every figure on, and two receivers, "a" and "b". Callbacks look at theirs all the time,
// so that it shows when it is freed too early; the first one performs the line `inside`.
class events {
public:
    events(bool tracked, const std::string &inside) : inside_line_(inside)
    {
        qrn_event_queue_attr_t *attr = nullptr;
        qrn_event_queue_attr_create_default(&attr);
        attr->q_cancel_cb = tracked;
        attr->q_count = attr->q_age = attr->q_svc_time = attr->q_notify = 1;
        attr->q_sz_warn = attr->q_delay_warn = 1;
        auto monitor = [](qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *) { return 0; };
        qrn_event_queue_create(&evq_, monitor, nullptr, attr);
        qrn_event_queue_attr_delete(attr);
        ctx_.fdm = &fdm_;
        ctx_.rcv_delivery_batching_cb = on_bundle;
        for (char name : {'a', 'b'}) {
            rcv_[name] = static_cast<qrn_rcv_t *>(std::calloc(1, sizeof(qrn_rcv_t)));
            rcv_[name]->ctx = &ctx_;
        }
        suspended = 0;
        set_stranded([this] { return !is_empty(); });
    }

    // Runs it all, ends the dispatchers, and checks the accounts.
    void play(const std::string &before, const std::string &threads)
    {
        script_.perform(before);
        int waiting = script_.run_parts(threads);
        check(waiting == 0 || is_empty(), "an event is stranded");
        check(waiting == count({"dispatch"}) - count({"unblock"}), "an unblock event ends no call");
        failing_ = false;
        for (; waiting > 0; --waiting)
            script_.perform("unblock");
        check(run() == 0, "a dispatcher is not woken");
        while (!is_empty())
            script_.perform("poll");
        check_accounts();
        qrn_event_queue_delete(evq_);
        for (auto [name, rcv] : rcv_)
            std::free(rcv);
    }

private:
    bool is_empty() const { return evq_->q->head->next == nullptr; }

    // How often these steps were performed.
    int count(std::initializer_list<const char *> steps)
    {
        int sum = 0;
        for (const char *step : steps)
            sum += script_.performed[step];
        return sum;
    }

    // A queue that was shut down may have declined messages, which then stay with the caller.
    void check_accounts()
    {
        qrn_event_queue_stats_t stats;
        qrn_event_queue_retrieve_stats(evq_, &stats);
        check(stats.events == 0 && evq_->data_msgs == 0, "a count is off");
        check(evq_->qsz == 0, "the size is off");
        const bool loses = count({"purge", "shutdown"}) != 0;
        const int posted = count({"post", "bundle", "callback", "free", "unblock"});
        check(loses || taken_ == posted, "dispatch miscounts");
        check(loses || delivered_ == count({"post"}), "a message is not delivered");
        check(called_ == count({"callback"}), "a callback did not run");
        check(cancelled_ == count({"cancel"}), "a cancellation callback runs once");
        check(suspended == 0, "a descriptor is not resumed");
        const auto released = std::ranges::count(messages_, 1, &qrn_msg_t::refs);
        check(released == (evq_->shutdown ? evq_->data_msgs_tot : std::ssize(messages_)),
              "a message is not released");
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
            if (timeout == QRN_EVQ_DISPATCH_POLL)
                return;
        }
    }

    static int on_message(qrn_rcv_t *rcv, qrn_msg_t *msg, void *clientd)
    {
        auto *self = static_cast<events *>(clientd);
        ++self->inside_[rcv];
        ++self->delivered_;
        for (int i = 0; i < 3; ++i) {
            touch(rcv);
            check(msg->refs == 0, "a message is released before its callback ends");
            point();
        }
        self->script_.perform(std::exchange(self->inside_line_, ""));
        --self->inside_[rcv];
        if (self->failing_ && choose(4) == 0)
            throw 1;
        return self->failing_ && choose(4) == 0 ? -1 : 0;
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

    static void on_cancelled(int, void *clientd)
    {
        auto *self = static_cast<events *>(clientd);
        ++self->cancelled_;
        check(self->inside_[self->cancelled_rcv_] == 0, "a callback of the object still runs");
    }

    static void on_callback(qrn_event_queue_t *, void *clientd)
    {
        ++static_cast<events *>(clientd)->called_;
    }

    static int on_io(qrn_context_t *, qrn_handle_t, qrn_ulong_t, void *) { return 0; }

    qrn_event_queue_t *evq_ = nullptr;
    qrn_fd_t fdm_ = {};
    qrn_context_t ctx_ = {};
    std::map<char, qrn_rcv_t *> rcv_;
    std::deque<qrn_msg_t> messages_;
    std::string inside_line_;
    std::map<qrn_rcv_t *, int> inside_; // callbacks that run
    qrn_rcv_t *cancelled_rcv_ = nullptr;
    int taken_ = 0, delivered_ = 0, called_ = 0, cancelled_ = 0;
    bool failing_ = false; // callbacks throw, or end their dispatch call
    script script_ = {{
        {"post",
         [this](auto &name) {
             qrn_msg_t *msg = &messages_.emplace_back();
             qrn_evq_enq_msg_with_proc(evq_, rcv_.at(name[0]), on_message, msg, this);
         }},
        {"bundle", [this](auto &names) { post_bundle(names); }},
        {"callback",
         [this](auto &) { qrn_evq_enq_callback(evq_, on_callback, on_callback, this); }},
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
        {"fail", [this](auto &) { failing_ = true; }},
    }};
};

// --- The scenarios -------------------------------------------------------------------------------

// The blocking queue alone, or an event queue without or with cancellation callbacks.
enum stage { queue, untracked, tracked };

const struct scenario {
    const char *name;
    stage on;
    const char *threads, *before = "", *inside = "";
} scenarios[] = {
    {"AppendAgainstBlockingTake", queue, "append:abc | append:AB | take"},
    // Long enough for a flow in which takers offer their tokens, and for two of them.
    {"FullFlowAgainstAppendAndTake", queue, "append:abcdefg | append:ABCDE | take | take"},
    {"TwoTakersOneItem", queue, "append:a | take | take"},
    {"PollAgainstAppend", queue, "append:ab | poll poll poll | take"},
    {"TimedTakeAgainstAppend", queue, "append:ab | timed timed | timed | take"},
    {"RemovalAgainstAppendAndTake", queue, "append:abcd | append:AB | remove | take | take"},
    {"DescriptorAgainstAppendAndTake", queue, "append:abc | look look look look | poll | remove"},
    {"FilterAgainstBundleDelivery", untracked,
     "bundle:aba post:a bundle:a bundle:ba | dispatch | purge:a purge:b"},
    {"UnblockAgainstTwoDispatchers", untracked,
     "dispatch | dispatch | unblock | post:a unblock post:a"},
    {"CancelAgainstThreeDeliveries", tracked, "dispatch | dispatch | dispatch | dispatch",
     "post:a post:a post:a free:a"},
    {"TwoCancelsAgainstABundle", tracked, "dispatch | dispatch | dispatch",
     "bundle:ab bundle:ba free:a free:b"},
    // Threads come and go: each polls, some callbacks throw or end their dispatch call.
    {"CancellationCallbackAgainstDelivery", tracked,
     "poll poll | poll poll | poll poll | purge:a cancel:a", "fail post:a post:b post:a"},
    {"ShutdownAgainstDispatchAndAppend", untracked,
     "post:a callback io free:b post:a callback | dispatch | shutdown"},
    // The receiver is deleted that the callback and others are called for.
    {"DeletionInsideItsOwnCallback", tracked, "dispatch | dispatch | dispatch",
     "post:a post:a post:a post:a", "purge:a cancel:a free:a"},
    {"OptionsSwitchedAgainstEverything", untracked,
     "post:a bundle:aa callback | dispatch | purge:a | options"},
};

class Schedules : public testing::Test {
public:
    explicit Schedules(const scenario &s) : scenario_(s) {}

private:
    void TestBody() override
    {
        const unsigned long runs = setting("SCHED_RUNS", is_sanitized ? 2'000 : 10'000);
        const auto play = [&s = scenario_] {
            if (s.on == queue)
                items().play(s.threads);
            else
                events(s.on == tracked, s.inside).play(s.before, s.threads);
        };
        EXPECT_EQ(failure_of(play, setting("SCHED_SEED", 1), runs), "")
            << "SCHED_SEED=" << seed << " SCHED_RUNS=1";
    }

    const scenario &scenario_;
};

[[maybe_unused]] const bool registered = [] {
    for (const scenario &s : scenarios)
        testing::RegisterTest("Schedules", s.name, nullptr, nullptr, __FILE__, __LINE__,
                              [&s] { return new Schedules(s); });
    return true;
}();

// --- The explorer itself -------------------------------------------------------------------------

void deadlock()
{
    static pthread_mutex_t locks[2];
    for (pthread_mutex_t &lock : locks)
        pthread_mutex_init(&lock, nullptr);
    for (int first : {0, 1})
        spawn([=] {
            kfx::lock_guard outer(locks[first]);
            kfx::lock_guard inner(locks[1 - first]);
        });
    check(run() == 0, "deadlock");
}

void lost_update()
{
    int count = 0;
    for (int i = 0; i < 2; ++i)
        spawn([&] { kfx::store(count, kfx::load(count) + 1); });
    run();
    check(count == 2, "lost update");
}

void early_free()
{
    int *block = static_cast<int *>(std::calloc(1, sizeof(int)));
    spawn([=] { kfx::load(*block); });
    spawn([=] { std::free(block); });
    run();
}

TEST(Explorer, FindsFaultsAndPlaysThemAgain)
{
    std::map<std::string, void (*)()> faults = {
        {"deadlock", deadlock}, {"lost update", lost_update}, {"freed memory is used", early_free}};
    if (is_sanitized) // which watches memory itself
        faults.erase("freed memory is used");
    for (auto &[what, play] : faults) {
        EXPECT_EQ(failure_of(play, 1, 1000), what);
        const uint64_t failing = seed;
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(failure_of(play, failing, 1), what);
    }
}

} // namespace
