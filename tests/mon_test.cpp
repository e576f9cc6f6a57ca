// SPDX-License-Identifier: Apache-2.0
//
// The monitoring layer, received on a real socket: what records hold, how long controllers live,
// and that a queue is left alone once its monitoring has stopped.
#include <algorithm>
#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <latch>
#include <map>
#include <set>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "qrnmon_layer.h"
#include "support.h"

using namespace test;
namespace fs = std::filesystem;

// Seconds that a test puts the monotonic clock forward.
static std::atomic<long> ahead;

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    const auto result = syscall(SYS_clock_gettime, clock, now);
    now->tv_sec += clock == CLOCK_MONOTONIC ? ahead.load() : 0;
    return static_cast<int>(result);
}

namespace {

using fields = std::map<std::string, std::string>;

// The fields of a line, by the names of the columns, with quotes undone.
fields split(const std::string &line)
{
    strings values(1);
    bool quoted = false;
    for (size_t i = 0; i + 1 < line.size(); ++i) {
        if (line[i] == ',' && !quoted)
            values.emplace_back();
        else if (line[i] != '"' || (!quoted && i > 0 && line[i - 1] == '"'))
            values.back() += line[i]; // of two quotes the second
        quoted ^= line[i] == '"';
    }
    EXPECT_TRUE(line.ends_with('\n') && !quoted) << line;
    EXPECT_EQ(values.size(), qrnmon::columns.size()) << line;
    fields out;
    for (size_t i = 0; i < std::min(values.size(), qrnmon::columns.size()); ++i)
        out[std::string(qrnmon::columns[i].name)] = values[i];
    return out;
}

// The values of some columns, as "a|b".
std::string values(const fields &row, const std::string &columns)
{
    std::istringstream names(columns);
    std::string out;
    for (std::string name; names >> name;)
        out += (row.contains(name) ? row.at(name) : "no " + name) + "|";
    out.pop_back();
    return out;
}

// The form of a text: each digit as '9'.
std::string form(std::string text)
{
    std::ranges::replace_if(
        text, [](char c) { return c >= '0' && c <= '9'; }, '9');
    return text;
}

// A receiver on a free port.
class Receiver {
public:
    Receiver() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof addr;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&addr), size), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&addr), &size), 0);
        options = "port=" + std::to_string(ntohs(addr.sin_port));
        timeval patience{30, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~Receiver() { close(fd_); }
    Receiver(const Receiver &) = delete;

    // The next record, headers passed over and counted; empty when none comes, or none is there.
    fields row(int flags = 0)
    {
        char bytes[65536];
        ssize_t size = 0;
        while ((size = recv(fd_, bytes, sizeof bytes, flags)) > 0) {
            fields line = split({bytes, static_cast<size_t>(size)});
            if (line["schema"] != "schema")
                return line;
            ++headers;
            for (auto &[name, title] : line)
                EXPECT_EQ(name, title);
        }
        return {};
    }

    std::string options;
    int headers = 0;

private:
    int fd_;
};

// A controller, acquired for a scope, and the queue that it watches there.
struct Controller {
    qrnmon_sctl_t *sctl = nullptr;
    qrn_event_queue_t *watched;

    explicit Controller(const std::string &options, qrn_event_queue_t *evq = nullptr,
                        const char *app = nullptr)
        : watched(evq)
    {
        EXPECT_EQ(qrn_automon_sctl_create(&sctl, qrnmon_format_csv_module(), nullptr,
                                          qrnmon_transport_qrn_module(), options.c_str()),
                  0)
            << qrn_errmsg();
        EXPECT_EQ(evq == nullptr ? 0 : qrnmon_evq_monitor(sctl, evq, app, 1), 0);
    }
    ~Controller()
    {
        EXPECT_EQ(watched == nullptr ? 0 : qrnmon_evq_unmonitor(sctl, watched), 0);
        qrn_automon_sctl_destroy();
    }
    Controller(const Controller &) = delete;
};

int samplers()
{
    int count = 0;
    for (const auto &task : fs::directory_iterator("/proc/self/task")) {
        std::string name;
        count += std::getline(std::ifstream(task.path() / "comm"), name) && name == "qrnmon";
    }
    return count;
}

void post(qrn_event_queue_t *evq, int count)
{
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(qrn_evq_enq_callback(
                      evq, [](qrn_event_queue_t *, void *) {}, nullptr, nullptr),
                  0);
}

class Mon : public Fixture {
protected:
    void TearDown() override
    {
        EXPECT_EQ(samplers(), 0);
        Fixture::TearDown();
    }

    Receiver in;
};

// --- Records -------------------------------------------------------------------------------------

TEST_F(Mon, ARecordHoldsTheFiguresOfTheQueue)
{
    Queue q("count svc age size=1 delay=1000000000 name=orders",
            [](qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *) { return 0; });
    post(q, 4);
    EXPECT_EQ(qrn_event_dispatch(q, QRN_EVQ_DISPATCH_POLL), 1);
    Controller by(in.options, q, "an app, \"quoted\"");
    fields row = in.row();
    EXPECT_EQ(in.headers, 1);
    EXPECT_EQ(values(row, "schema seq interval_s app queue depth warning callback_events "
                          "callback_events_tot events events_tot data_msgs data_msgs_tot "
                          "data_msgs_svc_min data_msgs_svc_mean data_msgs_svc_max"),
              "1|1|1|an app, \"quoted\"|orders|3|1|3|4|3|4|0|0|||");
    EXPECT_EQ(row["pid"], std::to_string(getpid()));
    for (const char *name : {"age_min", "age_mean", "age_max", "callback_events_svc_mean"})
        EXPECT_EQ(form(row[name]), std::string(std::max(row[name].size(), size_t{1}), '9')) << name;
    EXPECT_EQ(form(values(row, "epoch_s time_utc")), "9999999999.999999|9999-99-99T99:99:99.999Z");
}

TEST_F(Mon, WhatAQueueDoesNotKeepIsAnEmptyField)
{
    for (const std::string options : {"", "svc", "age size=9", "count"}) {
        Queue q(options);
        post(q, 2);
        Controller by(in.options, q);
        const char *count = options == "count" ? "2" : "";
        EXPECT_EQ(
            values(in.row(), "depth events events_tot age_min callback_events_svc_max app queue"),
            text("%s|%s|%s||||", options.size() < 4 ? "" : "2", count, count));
    }
}

TEST_F(Mon, TotalsGoOnWhenTheStatisticsAreReset)
{
    Queue q("count");
    post(q, 5);
    Controller by(in.options, q);
    EXPECT_EQ(in.row()["callback_events_tot"], "5");
    qrn_event_queue_reset_stats(q);
    post(q, 2);
    EXPECT_EQ(values(in.row(), "callback_events_tot events_tot callback_events seq"), "7|7|7|2");
    EXPECT_EQ(in.headers, 1);
}

TEST_F(Mon, TheHeaderComesAgainForLateReceivers)
{
    Queue q;
    Controller by(in.options, q);
    EXPECT_EQ(in.row()["seq"], "1");
    ahead = 10;
    EXPECT_EQ(in.row()["seq"], "2");
    EXPECT_EQ(in.headers, 2);
    ahead = 0;
}

// --- The format ----------------------------------------------------------------------------------

qrnmon::sample full_sample(qrn_ulong_t figure, std::string_view name)
{
    qrnmon::sample out{};
    out.real = {1'700'000'000, 123'456'789};
    out.mono = {1'000'000, 5000};
    out.seq = out.queue_id = out.interval = figure;
    out.depth = out.warning = out.size_warnings = out.delay_warnings = figure;
    out.pid = 4'194'304;
    out.app = out.queue = name;
    out.counted = true;
    out.stats.fill(figure);
    return out;
}

TEST_F(Mon, ARecordIsOneLineOfBoundedFields)
{
    const std::string accents = "\xc3\xa9", longest(500, '"');
    const std::pair<std::string, std::string> texts[] = {
        {"", ""},
        {"a,b", "\"a,b\""},
        {"say \"x\"", "\"say \"\"x\"\"\""},
        {" lead", "\" lead\""},
        {"two\nlines\t", "\"two lines \""},
        {std::string(127, 'x') + accents, std::string(127, 'x')},
        {std::string(126, 'x') + accents, std::string(126, 'x') + accents},
    };
    qrnmon::record_buffer out;
    for (auto &[given, written] : texts) {
        const std::string line(qrnmon::csv_record(out, full_sample(1, given)));
        EXPECT_EQ(line.substr(0, line.find(",1,1,1,")),
                  "1,1700000000.123456,2023-11-14T22:13:20.123Z,1000000.000005,1,4194304," +
                      written + "," + written);
    }
    EXPECT_EQ(qrnmon::csv_header(out).size(), 1163U + 1);
    const std::string most(qrnmon::csv_record(out, full_sample(~0UL >> 1, longest)));
    EXPECT_LT(most.size(), qrnmon::max_record);
    EXPECT_EQ(split(most)["app"], std::string(128, '"'));
}

// docs/monitoring.md has the columns, in order, with their kinds.
TEST_F(Mon, TheDocumentDescribesEveryColumn)
{
    using enum qrnmon::kind;
    fs::path root = fs::read_symlink("/proc/self/exe");
    while (root.has_relative_path() && !fs::exists(root / "docs" / "monitoring.md"))
        root = root.parent_path();
    std::ifstream doc(root / "docs" / "monitoring.md");
    if (!doc.is_open())
        GTEST_SKIP() << "built outside of the source tree";
    strings documented, written;
    for (std::string line; std::getline(doc, line);) {
        std::istringstream words(line);
        std::string first, name, between, as;
        words >> first >> name >> between >> as;
        if (as == "label" || as == "clock" || as == "gauge" || as == "counter")
            documented.push_back(name.substr(1, name.size() - 2) + " " + as);
    }
    for (auto &[name, what] : qrnmon::columns) {
        const bool counts = what == counter || what == total || what == total_sum;
        written.push_back(std::string(name) + (what == label   ? " label"
                                               : what == clock ? " clock"
                                               : counts        ? " counter"
                                                               : " gauge"));
    }
    EXPECT_EQ(documented, written);
}

// --- Options -------------------------------------------------------------------------------------

TEST_F(Mon, CreationTellsWhatIsWrongWithTheOptions)
{
    const std::tuple<const char *, int, std::string> cases[] = {
        {"port=1,x", 1, "expected host=NAME or port=NUMBER: 'x'"},
        {"host=", 1, "host is empty"},
        {"port", 1, "port must be a number from 1 to 65535: ''"},
        {"port=0", 1, "from 1 to 65535: '0'"},
        {"port=65536", 1, "from 1 to 65535: '65536'"},
        {"port=12x", 1, "from 1 to 65535: '12x'"},
        {"host=no.such.host.invalid", 4, "host 'no.such.host.invalid' does not resolve"},
    };
    for (auto &[options, number, part] : cases) {
        qrn_event_queue_t *evq = nullptr;
        Attr attr("monitor=1 topts=" + std::string(options));
        EXPECT_EQ(qrn_event_queue_create(&evq, nullptr, nullptr, attr), -1) << options;
        EXPECT_EQ(qrn_errnum(), number) << options;
        EXPECT_NE(std::string(qrn_errmsg()).find(part), std::string::npos) << qrn_errmsg();
        EXPECT_NE(std::string(qrnmon_errmsg()).find(part), std::string::npos);
    }
}

TEST_F(Mon, QueuesOfOneDestinationShareAController)
{
    Controller first("host=localhost,port=9");
    for (const char *same :
         {"port=9;host=localhost", "  host=localhost\tport=9,", "port=1,port=9 host=localhost"})
        EXPECT_EQ(Controller(same).sctl, first.sctl) << same;
    Controller by_default("");
    Controller named("host=127.0.0.1 port=14390");
    EXPECT_EQ(by_default.sctl, named.sctl);
    EXPECT_NE(by_default.sctl, first.sctl);
    EXPECT_EQ(samplers(), 2);
    qrnmon_sctl_t *other = nullptr;
    EXPECT_EQ(qrn_automon_sctl_create(&other, qrnmon_format_csv_module(), nullptr,
                                      qrnmon_transport_qrnsnmp_module(), nullptr),
              0);
    EXPECT_NE(other, by_default.sctl);
    qrn_automon_sctl_destroy();
}

// --- Life ----------------------------------------------------------------------------------------

// Two queues, two destinations: the end of one leaves the other's controller.
TEST_F(Mon, AControllerEndsWithItsLastQueue)
{
    Receiver other;
    Queue staying("monitor=1 topts=" + in.options);
    {
        Queue going("monitor=1 topts=" + other.options);
        EXPECT_EQ(other.row()["seq"], "1");
        EXPECT_EQ(samplers(), 2);
    }
    EXPECT_EQ(samplers(), 1);
    EXPECT_EQ(in.row()["seq"], "1");
    EXPECT_EQ(in.row()["seq"], "2");
}

TEST_F(Mon, MisuseIsAnError)
{
    Queue q;
    Controller by(in.options);
    auto create = [](const qrnmon_format_func_t *format, const void *opts,
                     const qrnmon_transport_func_t *transport) {
        qrnmon_sctl_t *none = nullptr;
        return qrn_automon_sctl_create(&none, format, opts, transport, nullptr);
    };
    EXPECT_EQ(create(nullptr, nullptr, qrnmon_transport_qrn_module()), -1);
    EXPECT_EQ(create(qrnmon_format_csv_module(), "x", qrnmon_transport_qrn_module()), -1);
    EXPECT_EQ(create(qrnmon_format_csv_module(), nullptr, nullptr), -1);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, nullptr, nullptr, 1), -1);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, q, nullptr, 0), -1);
    EXPECT_EQ(qrnmon_evq_monitor(nullptr, q, nullptr, 1), -1);
    EXPECT_EQ(qrnmon_errnum(), 1);
    EXPECT_EQ(qrnmon_evq_unmonitor(by.sctl, q), -1);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, q, nullptr, 1), 0);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, q, nullptr, 1), -1);
    EXPECT_EQ(qrnmon_errnum(), 4);
    EXPECT_EQ(qrnmon_evq_unmonitor(nullptr, q), 0);
    qrn_automon_sctl_destroy(); // the one of `by` is one too many
}

// No burst overruns the receiver.
TEST_F(Mon, AHundredQueuesAreSampledEachSecond)
{
    std::vector<std::unique_ptr<Queue>> queues;
    for (int i = 0; i < 100; ++i)
        queues.push_back(std::make_unique<Queue>("count svc age monitor=1 topts=" + in.options));
    std::map<std::string, int> last;
    for (int received = 0; received < 200; ++received) {
        fields row = in.row();
        EXPECT_EQ(row["seq"], std::to_string(++last[row["queue_id"]])) << row["queue_id"];
    }
    EXPECT_EQ(last.size(), 100U);
}

std::latch *entered, *go_on;
std::atomic<bool> left_queue;

// The sampler is held inside the queue; stopping waits until it has left.
TEST_F(Mon, StoppingWaitsForASampleInProgress)
{
    std::latch inside(1), leave(1);
    entered = &inside;
    go_on = &leave;
    left_queue = false;
    Queue q;
    Controller by(in.options);
    kfx_set_log_sink([](int, const char *line) {
        if (std::string(line).starts_with("[qrn_event_queue_retrieve_stats]")) {
            entered->count_down();
            go_on->wait();
            left_queue = true;
        }
    });
    kfx::store(log_state.dmask, KFX_DBG_API);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, q, nullptr, 1000), 0);
    inside.wait();
    kfx::store(log_state.dmask, 0);
    auto stopped = std::async(std::launch::async, [&] {
        EXPECT_EQ(qrnmon_evq_unmonitor(by.sctl, q), 0);
        EXPECT_TRUE(left_queue);
    });
    EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    leave.count_down();
    stopped.wait();
}

// Queues come and go on several threads while they are sampled; nobody reads what is sent.
TEST_F(Mon, QueuesComeAndGoWhileTheyAreSampled)
{
    Receiver other;
    Queue sampled("monitor=1 topts=" + in.options);
    auto churn = [&](int thread) {
        for (int i = 0; i < 100; ++i) {
            const Receiver &to = (thread + i) % 3 == 0 ? other : in;
            Queue q("count monitor=1 topts=" + to.options);
            post(q, 1);
            if (i % 4 == 0)
                std::this_thread::yield();
        }
    };
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back(churn, thread);
    threads.clear();
    sampled.end();
    EXPECT_EQ(samplers(), 0);
    std::set<std::string> seen;
    for (fields row; !(row = in.row(MSG_DONTWAIT)).empty();)
        EXPECT_TRUE(seen.insert(row["queue_id"] + " " + row["seq"]).second) << row["seq"];
}

} // namespace
