// SPDX-License-Identifier: Apache-2.0
//
// The monitoring layer, received on a real socket: what records hold, how long controllers live,
// and that a queue is left alone once its monitoring has stopped.
#include <algorithm>
#include <arpa/inet.h>
#include <dirent.h>
#include <fstream>
#include <future>
#include <latch>
#include <map>
#include <set>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "qrnmon_layer.h"
#include "support.h"

using namespace test;

namespace {

using fields = std::map<std::string, std::string>;

// The fields of a line, by the names of the columns, with quotes undone.
fields split(const std::string &line)
{
    strings values(1);
    bool quoted = false;
    for (size_t i = 0; i + 1 < line.size(); ++i) {
        if (line[i] == '"') {
            if (!quoted && i > 0 && line[i - 1] == '"')
                values.back() += '"'; // the second of two
            quoted = !quoted;
        } else if (line[i] == ',' && !quoted) {
            values.emplace_back();
        } else {
            values.back() += line[i];
        }
    }
    EXPECT_EQ(values.size(), qrnmon::columns.size()) << line;
    EXPECT_TRUE(line.ends_with('\n') && !quoted) << line;
    values.resize(qrnmon::columns.size());
    fields out;
    for (size_t i = 0; i < values.size(); ++i)
        out[std::string(qrnmon::columns[i].name)] = values[i];
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
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof addr;
        auto *any = reinterpret_cast<sockaddr *>(&addr);
        EXPECT_EQ(bind(fd_, any, size), 0);
        EXPECT_EQ(getsockname(fd_, any, &size), 0);
        port_ = ntohs(addr.sin_port);
        timeval patience{30, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~Receiver() { close(fd_); }
    Receiver(const Receiver &) = delete;

    std::string options() const { return "port=" + std::to_string(port_); }

    // The next datagram; empty when none comes, or none is there.
    std::string next(int flags = 0)
    {
        std::string bytes(65536, '\0');
        ssize_t size = recv(fd_, bytes.data(), bytes.size(), flags);
        bytes.resize(size < 0 ? 0 : static_cast<size_t>(size));
        return bytes;
    }

    // The next record, headers passed over and counted.
    fields row()
    {
        for (;;) {
            std::string line = next();
            if (!line.starts_with("schema,"))
                return split(line);
            ++headers;
        }
    }

    int headers = 0;

private:
    int fd_;
    int port_ = 0;
};

// A controller, acquired for a scope.
struct Controller {
    qrnmon_sctl_t *sctl = nullptr;

    explicit Controller(const std::string &options)
    {
        EXPECT_EQ(qrn_automon_sctl_create(&sctl, qrnmon_format_csv_module(), nullptr,
                                          qrnmon_transport_qrn_module(), options.c_str()),
                  0)
            << qrn_errmsg();
    }
    ~Controller() { release(); }
    Controller(const Controller &) = delete;
    void release()
    {
        if (std::exchange(sctl, nullptr) != nullptr)
            qrn_automon_sctl_destroy();
    }
};

// A queue that a controller watches.
struct Watch {
    Controller by;
    qrn_event_queue_t *evq;

    Watch(Receiver &to, qrn_event_queue_t *queue, const char *app = nullptr)
        : by(to.options()), evq(queue)
    {
        EXPECT_EQ(qrnmon_evq_monitor(by.sctl, evq, app, 1), 0) << qrnmon_errmsg();
    }
    ~Watch() { EXPECT_EQ(qrnmon_evq_unmonitor(by.sctl, evq), 0); }
};

int samplers()
{
    int count = 0;
    DIR *tasks = opendir("/proc/self/task");
    while (dirent *task = readdir(tasks)) {
        std::ifstream comm(std::string("/proc/self/task/") + task->d_name + "/comm");
        std::string name;
        count += std::getline(comm, name) && name == "qrnmon" ? 1 : 0;
    }
    closedir(tasks);
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
    Watch watch(in, q, "an app, \"quoted\"");
    std::string header = in.next();
    EXPECT_EQ(split(header).size(), qrnmon::columns.size());
    for (auto &[name, title] : split(header))
        EXPECT_EQ(name, title);
    fields row = in.row();
    const fields expected = {
        {"schema", "1"},
        {"seq", "1"},
        {"pid", std::to_string(getpid())},
        {"interval_s", "1"},
        {"app", "an app, \"quoted\""},
        {"queue", "orders"},
        {"depth", "3"},
        {"warning", "1"},
        {"callback_events", "3"},
        {"callback_events_tot", "4"},
        {"events", "3"},
        {"events_tot", "4"},
        {"data_msgs", "0"},
        {"data_msgs_tot", "0"},
        {"data_msgs_svc_min", ""},
        {"data_msgs_svc_mean", ""},
        {"data_msgs_svc_max", ""},
        {"unblock_events_tot", "0"},
    };
    for (auto &[name, value] : expected)
        EXPECT_EQ(row[name], value) << name;
    for (const char *name : {"age_min", "age_mean", "age_max", "callback_events_svc_mean"})
        EXPECT_EQ(form(row[name]), std::string(std::max(row[name].size(), size_t{1}), '9')) << name;
    EXPECT_EQ(form(row["epoch_s"]), "9999999999.999999");
    EXPECT_EQ(form(row["time_utc"]), "9999-99-99T99:99:99.999Z");
}

TEST_F(Mon, WhatAQueueDoesNotKeepIsAnEmptyField)
{
    struct {
        const char *options;
        const char *depth;
    } const table[] = {{"", ""}, {"svc", ""}, {"age size=9", "2"}, {"count", "2"}};
    for (auto &each : table) {
        Queue q(each.options);
        post(q, 2);
        Watch watch(in, q);
        fields row = in.row();
        EXPECT_EQ(row["depth"], each.depth) << each.options;
        const char *counted = std::string(each.options) == "count" ? "2" : "";
        for (const char *name : {"events", "events_tot", "callback_events_tot"})
            EXPECT_EQ(row[name], counted) << each.options << " " << name;
        for (const char *name : {"age_min", "callback_events_svc_max", "app", "queue"})
            EXPECT_EQ(row[name], "") << each.options << " " << name;
    }
}

TEST_F(Mon, TotalsGoOnWhenTheStatisticsAreReset)
{
    Queue q("count");
    post(q, 5);
    Watch watch(in, q);
    EXPECT_EQ(in.row()["callback_events_tot"], "5");
    qrn_event_queue_reset_stats(q);
    post(q, 2);
    fields row = in.row();
    EXPECT_EQ(row["callback_events_tot"], "7");
    EXPECT_EQ(row["events_tot"], "7");
    EXPECT_EQ(row["callback_events"], "7");
    EXPECT_EQ(row["seq"], "2");
}

TEST_F(Mon, TheHeaderComesAgainForLateReceivers)
{
    Queue q;
    Watch watch(in, q);
    for (int seq = 1; in.headers < 2 && seq < 30; ++seq)
        EXPECT_EQ(in.row()["seq"], std::to_string(seq));
    EXPECT_EQ(in.headers, 2);
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

TEST_F(Mon, ARecordFitsItsBounds)
{
    qrnmon::record_buffer out;
    EXPECT_EQ(qrnmon::csv_header(out).size(), 1163U + 1);
    const std::string longest(500, '"');
    const std::string plain(128, 'x');
    EXPECT_LT(qrnmon::csv_record(out, full_sample(999'999'999'999'999, plain)).size(), 1400U);
    std::string_view line = qrnmon::csv_record(out, full_sample(~0UL >> 1, longest));
    EXPECT_LT(line.size(), qrnmon::max_record);
    EXPECT_EQ(line.back(), '\n');
    EXPECT_EQ(split(std::string(line))["app"], std::string(128, '"'));
}

TEST_F(Mon, ATextStaysOneFieldOfOneLine)
{
    const std::string accents = "\xc3\xa9";
    struct {
        std::string text, written;
    } const table[] = {
        {"plain", "plain"},
        {"", ""},
        {"a,b", "\"a,b\""},
        {"say \"x\"", "\"say \"\"x\"\"\""},
        {" lead", "\" lead\""},
        {"two\nlines\t", "\"two lines \""},
        {std::string(127, 'x') + accents, std::string(127, 'x')},
        {std::string(126, 'x') + accents, std::string(126, 'x') + accents},
    };
    for (auto &each : table) {
        qrnmon::record_buffer out;
        std::string line(qrnmon::csv_record(out, full_sample(1, each.text)));
        EXPECT_EQ(line.substr(0, line.find(",1,1,1,")),
                  "1,1700000000.123456,2023-11-14T22:13:20.123Z,1000000.000005,1,4194304," +
                      each.written + "," + each.written);
    }
}

const char *kind_name(qrnmon::kind what)
{
    switch (what) {
    case qrnmon::kind::label:
        return "label";
    case qrnmon::kind::clock:
        return "clock";
    case qrnmon::kind::counter:
    case qrnmon::kind::total:
    case qrnmon::kind::total_sum:
        return "counter";
    default:
        return "gauge";
    }
}

// docs/monitoring.md has the columns, in order, with their kinds.
TEST_F(Mon, TheDocumentDescribesEveryColumn)
{
    char self[4096] = "";
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    std::string root = self;
    std::ifstream doc;
    while (!root.empty() && (doc.open(root + "/docs/monitoring.md"), !doc.is_open()))
        root.resize(root.rfind('/'));
    if (!doc.is_open())
        GTEST_SKIP() << "built outside of the source tree";
    strings documented, written;
    for (std::string line; std::getline(doc, line);) {
        std::istringstream words(line);
        std::string first, name, between, what;
        words >> first >> name >> between >> what;
        if (what == "label" || what == "clock" || what == "gauge" || what == "counter")
            documented.push_back(name.substr(1, name.size() - 2) + " " + what);
    }
    for (auto &[name, what] : qrnmon::columns)
        written.push_back(std::string(name) + " " + kind_name(what));
    EXPECT_EQ(documented, written);
}

// --- Options -------------------------------------------------------------------------------------

TEST_F(Mon, CreationTellsWhatIsWrongWithTheOptions)
{
    struct {
        const char *options;
        int number;
        const char *part;
    } const table[] = {
        {"prot=1", 1, "expected host=NAME or port=NUMBER: 'prot=1'"},
        {"port=1,x", 1, "expected host=NAME or port=NUMBER: 'x'"},
        {"host=", 1, "host is empty"},
        {"port", 1, "port must be a number from 1 to 65535: ''"},
        {"port=0", 1, "from 1 to 65535: '0'"},
        {"port=65536", 1, "from 1 to 65535: '65536'"},
        {"port=-1", 1, "from 1 to 65535: '-1'"},
        {"port=12x", 1, "from 1 to 65535: '12x'"},
        {"host=no.such.host.invalid", 4, "host 'no.such.host.invalid' does not resolve"},
        {"host=300.1.1.1", 4, "host '300.1.1.1' does not resolve"},
    };
    for (auto &each : table) {
        Attr attr("monitor=1 topts=" + std::string(each.options));
        qrn_event_queue_t *evq = nullptr;
        EXPECT_EQ(qrn_event_queue_create(&evq, nullptr, nullptr, attr), -1) << each.options;
        EXPECT_EQ(evq, nullptr);
        EXPECT_EQ(qrn_errnum(), each.number) << each.options;
        EXPECT_NE(std::string(qrn_errmsg()).find(each.part), std::string::npos) << qrn_errmsg();
        EXPECT_NE(std::string(qrnmon_errmsg()).find(each.part), std::string::npos);
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
    Queue staying("monitor=1 topts=" + in.options());
    {
        Queue going("monitor=1 topts=" + other.options());
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
    Controller by(in.options());
    qrnmon_sctl_t *none = nullptr;
    auto create = [&](const qrnmon_format_func_t *format, const void *opts,
                      const qrnmon_transport_func_t *transport) {
        return qrn_automon_sctl_create(&none, format, opts, transport, nullptr);
    };
    EXPECT_EQ(create(nullptr, nullptr, qrnmon_transport_qrn_module()), -1);
    EXPECT_EQ(create(qrnmon_format_csv_module(), "x", qrnmon_transport_qrn_module()), -1);
    EXPECT_EQ(create(qrnmon_format_csv_module(), nullptr, nullptr), -1);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, nullptr, nullptr, 1), -1);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, q, nullptr, 0), -1);
    EXPECT_EQ(qrnmon_evq_monitor(nullptr, q, nullptr, 1), -1);
    EXPECT_EQ(qrnmon_errnum(), 1);
    EXPECT_EQ(qrnmon_evq_unmonitor(by.sctl, q), -1);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, q, nullptr, 1), 0);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, q, nullptr, 1), -1);
    EXPECT_EQ(qrnmon_errnum(), 4);
    EXPECT_EQ(qrnmon_evq_unmonitor(nullptr, q), 0);
    by.release();
    qrn_automon_sctl_destroy(); // one too many
}

double seconds_of(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// No burst overruns the receiver. Prints what sampling costs.
TEST_F(Mon, AHundredQueuesAreSampledEachSecond)
{
    std::vector<std::unique_ptr<Queue>> queues;
    for (int i = 0; i < 100; ++i)
        queues.push_back(std::make_unique<Queue>("count svc age monitor=1 topts=" + in.options()));
    double real = seconds_of(CLOCK_MONOTONIC);
    double used = seconds_of(CLOCK_PROCESS_CPUTIME_ID);
    std::map<std::string, int> next;
    for (int received = 0; received < 500; ++received) {
        fields row = in.row();
        EXPECT_EQ(row["seq"], std::to_string(++next[row["queue_id"]])) << row["queue_id"];
    }
    real = seconds_of(CLOCK_MONOTONIC) - real;
    used = seconds_of(CLOCK_PROCESS_CPUTIME_ID) - used;
    EXPECT_EQ(next.size(), 100U);
    std::printf("100 queues sampled and received for %.1f s: %.2f %% of a processor\n", real,
                100 * used / real);
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
    Controller by(in.options());
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
    Queue sampled("monitor=1 topts=" + in.options());
    auto churn = [&](int thread) {
        for (int i = 0; i < 100; ++i) {
            const Receiver &to = (thread + i) % 3 == 0 ? other : in;
            Queue q("count monitor=1 topts=" + to.options());
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
    for (std::string line; !(line = in.next(MSG_DONTWAIT)).empty();)
        if (!line.starts_with("schema,")) {
            fields row = split(line);
            EXPECT_TRUE(seen.insert(row["queue_id"] + " " + row["seq"]).second) << line;
        }
}

} // namespace
