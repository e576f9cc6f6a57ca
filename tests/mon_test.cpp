// SPDX-License-Identifier: Apache-2.0
//
// The monitoring layer, received on a real socket: what records hold, how long controllers live,
// and that a queue is left alone once its monitoring has stopped.
#include <arpa/inet.h>
#include <clocale>
#include <filesystem>
#include <fstream>
#include <future>
#include <locale>
#include <map>
#include <memory>
#include <semaphore>
#include <set>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "qrnmon_layer.h"
#include "support.h"

using namespace test;
using qrnmon::columns;
namespace fs = std::filesystem;

namespace {

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

    // Fields of the next record as "a|b|", by the names of their columns, headers passed over and
    // counted; empty when none comes, or none is there.
    std::string row(const std::string &names, int flags = 0)
    {
        char bytes[65536];
        ssize_t size;
        while ((size = recv(fd_, bytes, sizeof bytes, flags)) > 0 && bytes[0] == 's')
            ++headers;
        std::istringstream line(std::string(bytes, size > 0 ? static_cast<size_t>(size) : 0));
        std::map<std::string, std::string> values;
        for (const auto &column : columns)
            std::getline(line, values[column.name.data()], ',');
        EXPECT_TRUE(line.eof() && size != 0) << line.str();
        std::istringstream words(names);
        std::string out;
        for (std::string name; size > 0 && words >> name;)
            out += values[name] + "|";
        return out;
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

long samplers()
{
    return std::ranges::count_if(fs::directory_iterator("/proc/self/task"), [](const auto &task) {
        std::string name;
        return std::getline(std::ifstream(task.path() / "comm"), name) && name == "qrnmon";
    });
}

void post(qrn_event_queue_t *evq, int count)
{
    const auto nothing = [](qrn_event_queue_t *, void *) {};
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(qrn_evq_enq_callback(evq, nothing, nullptr, nullptr), 0);
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

TEST_F(Mon, ARecordHoldsTheFiguresOfTheQueue)
{
    Queue q("count svc age size=1 delay=1000000000 name=orders",
            [](qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *) { return 0; });
    post(q, 4);
    EXPECT_EQ(qrn_event_dispatch(q, QRN_EVQ_DISPATCH_POLL), 1);
    Controller by(in.options, q, "an app");
    EXPECT_EQ(in.row("schema seq interval_s app queue depth warning callback_events "
                     "callback_events_tot events events_tot data_msgs data_msgs_tot "
                     "data_msgs_svc_min data_msgs_svc_mean data_msgs_svc_max pid"),
              "1|1|1|an app|orders|3|1|3|4|3|4|0|0||||" + std::to_string(getpid()) + "|");
    EXPECT_EQ(in.row("age_min age_mean age_max callback_events_svc_mean").find("||"),
              std::string::npos);
    qrn_event_queue_reset_stats(q); // totals go on
    post(q, 2);
    EXPECT_EQ(in.row("callback_events_tot events_tot callback_events seq"), "6|6|5|3|");
    EXPECT_EQ(in.headers, 1);
}

TEST_F(Mon, WhatAQueueDoesNotKeepIsAnEmptyField)
{
    Queue q("age size=9");
    post(q, 2);
    Controller by(in.options, q);
    EXPECT_EQ(in.row("depth events events_tot age_min app"), "2|||||");
}

// A locale that groups digits and has a comma for the decimal point.
struct foreign : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    std::string do_grouping() const override { return "\1"; }
};

TEST_F(Mon, ARecordIsOneLineOfBoundedFieldsInAnyLocale)
{
    const std::string accents = "\xc3\xa9", longest(126, 'x');
    const std::pair<std::string, std::string> texts[] = {{"", ""},
                                                         {"say, \"x\"", "\"say, \"\"x\"\"\""},
                                                         {" two\nlines\t", "\" two lines \""},
                                                         {longest + accents, longest + accents},
                                                         {longest + "x" + accents, longest + "x"}};
    qrnmon::sample sample{};
    sample.real = {1'700'000'000, 123'456'789};
    sample.mono = {1'000'000, 5000};
    sample.pid = 4'194'304;
    sample.counted = true;
    sample.stats.fill(sample.seq = sample.queue_id = sample.interval = 1234567);
    qrnmon::record_buffer out;
    const std::locale before = std::locale::global({std::locale(), new foreign});
    setlocale(LC_ALL, "de_DE.UTF-8"); // where there is one
    for (auto &[given, written] : texts) {
        sample.app = sample.queue = given;
        const std::string line(qrnmon::csv_record(out, sample));
        EXPECT_EQ(line.substr(0, line.find(",0,0,0,0,")),
                  "1,1700000000.123456,2023-11-14T22:13:20.123Z,1000000.000005,1234567,4194304," +
                      written + "," + written + ",1234567,1234567");
        EXPECT_TRUE(line.ends_with(",1234567,1234567\n")) << line;
    }
    std::locale::global(before);
    setlocale(LC_ALL, "C");
    const std::string quotes(500, '"');
    sample.app = sample.queue = quotes;
    sample.stats.fill(sample.seq = sample.queue_id = sample.interval = sample.depth = ~0UL >> 1);
    const std::string most(qrnmon::csv_record(out, sample));
    EXPECT_LT(most.size(), qrnmon::max_record);
    EXPECT_NE(most.find(',' + std::string(258, '"') + ','), most.npos) << "128, each twice";
}

TEST_F(Mon, QueuesOfOneDestinationShareAController)
{
    Controller first("host=localhost,port=9");
    for (const char *same :
         {"port=9;host=localhost", "  host=localhost\tport=9,", "port=1,port=9 host=localhost"})
        EXPECT_EQ(Controller(same).sctl, first.sctl) << same;
    Controller by_default(""), named("host=127.0.0.1 port=14390");
    EXPECT_EQ(by_default.sctl, named.sctl);
    EXPECT_NE(by_default.sctl, first.sctl);
    EXPECT_EQ(samplers(), 2);
}

TEST_F(Mon, MisuseIsAnError)
{
    Queue q, other;
    Controller by(in.options, q);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, other, nullptr, 0), -1);
    EXPECT_EQ(qrnmon_errnum(), 1);
    EXPECT_EQ(qrnmon_evq_unmonitor(by.sctl, other), -1);
    EXPECT_EQ(qrnmon_evq_monitor(by.sctl, q, nullptr, 1), -1);
    EXPECT_EQ(qrnmon_errnum(), 4);
}

std::binary_semaphore entered(0), go_on(0);
std::atomic<bool> left_queue;

// The sampler is held inside the queue; stopping waits until it has left.
TEST_F(Mon, StoppingWaitsForASampleInProgress)
{
    Queue q;
    kfx_set_log_sink([](int, const char *) {
        kfx::store(log_state.dmask, 0);
        entered.release();
        go_on.acquire();
        left_queue = true;
    });
    auto by = std::make_unique<Controller>(in.options, q);
    kfx::store(log_state.dmask, KFX_DBG_API);
    entered.acquire();
    auto stopped = std::async(std::launch::async, [&] {
        by.reset();
        EXPECT_TRUE(left_queue);
    });
    EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    go_on.release();
}

// Queues come and go on several threads while they are sampled; nobody reads what is sent.
TEST_F(Mon, QueuesComeAndGoWhileTheyAreSampled)
{
    Receiver other;
    Queue sampled("monitor=1 topts=" + in.options);
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&, thread] {
            for (int i = 0; i < 100; ++i)
                post(Queue("monitor=1 topts=" + ((thread + i) % 3 == 0 ? other : in).options), 1);
        });
    threads.clear();
    EXPECT_EQ(samplers(), 1) << "the other's last queue is gone";
    sampled.end();
    std::set<std::string> seen;
    for (std::string row; !(row = in.row("queue_id seq", MSG_DONTWAIT)).empty();)
        EXPECT_TRUE(seen.insert(row).second) << row;
}

} // namespace
