// SPDX-License-Identifier: Apache-2.0
//
// The operator's tool, run as a program: in terminals of several sizes, with files, with bad input.
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qrnmon_layer.h"
#include "support.h"

using namespace test;
namespace fs = std::filesystem;

namespace {

// What a terminal shows after the few things that the tool sends to it.
class Screen {
public:
    Screen(unsigned short width, unsigned short height) { resize(width, height); }

    void resize(unsigned short width, unsigned short height)
    {
        width_ = width;
        lines.assign(height, std::string(width, ' '));
    }

    void feed(char c)
    {
        if (!escape_.empty() || c == '\x1b') {
            escape_ += c;
            if (escape_.size() > 2 && c >= '@')
                obey(std::exchange(escape_, ""));
        } else if (c == '\r') {
            x_ = 0;
        } else if (c == '\n') {
            ++y_;
        } else {
            overrun = overrun || x_ >= width_ || y_ >= lines.size();
            if (!overrun)
                lines[y_][x_++] = c;
        }
    }

    // The lines without blanks at their ends.
    std::string text() const
    {
        std::string out;
        for (const std::string &line : lines)
            out += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
        return out;
    }

    strings lines;
    bool overrun = false; // something was written beyond an edge
    bool taken = false;   // the other screen is shown

private:
    void obey(const std::string &escape)
    {
        if (escape == "\x1b[H")
            x_ = y_ = 0;
        else if (escape == "\x1b[K" && y_ < lines.size())
            std::fill(lines[y_].begin() + static_cast<long>(x_), lines[y_].end(), ' ');
        else if (escape.starts_with("\x1b[?1049"))
            taken = escape.back() == 'h';
        else if (escape == "\x1b[J")
            for (size_t y = y_ + 1; y < lines.size(); ++y)
                lines[y].assign(width_, ' ');
    }

    size_t width_ = 0, x_ = 0, y_ = 0;
    std::string escape_;
};

fs::path tool_path()
{
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" / "qrnmon";
}

struct Size {
    unsigned short width = 0, height = 0;
};

// The running tool, in a terminal or, without a width, with its standard output in a file. It picks a
// free port and tells it.
class Tool {
public:
    explicit Tool(strings args, Size size = {}, rlim_t room = RLIM_INFINITY)
        : screen(size.width, size.height)
    {
        winsize window{size.height, size.width, 0, 0};
        pid_ = forkpty(&terminal_, nullptr, nullptr, &window);
        if (pid_ != 0)
            return;
        if (size.width == 0)
            dup2(out_, STDOUT_FILENO);
        dup2(err_, STDERR_FILENO);
        setenv("TERM", "xterm", 1);
        const rlimit limit{room, room};
        setrlimit(RLIMIT_FSIZE, &limit);
        args.insert(args.begin(), "qrnmon");
        std::vector<char *> argv;
        for (std::string &arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        execv(tool_path().c_str(), argv.data());
        _exit(127);
    }
    ~Tool()
    {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0)
            waitpid(pid_, nullptr, 0);
        for (int fd : {terminal_, out_, err_})
            close(fd);
    }
    Tool(const Tool &) = delete;

    std::string out() const { return contents_of(out_); }
    std::string err() const { return contents_of(err_); }

    // Reads on until `seen` holds; fails after half a minute.
    void until(const std::function<bool()> &seen)
    {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!seen()) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << screen.text() << out() << err();
            ASSERT_FALSE(ended_) << screen.text() << out() << err();
            pollfd fd{terminal_, POLLIN, 0};
            char bytes[4096];
            ssize_t size = poll(&fd, 1, 20) > 0 ? read(terminal_, bytes, sizeof bytes) : 0;
            for (ssize_t i = 0; i < size; ++i)
                screen.feed(bytes[i]);
            ended_ = size < 0;
        }
    }
    void until_shown(const std::string &text)
    {
        until([&] { return (screen.text() + err()).find(text) != std::string::npos; });
    }

    // The port it listens on.
    std::string port()
    {
        const std::string before = "listening on 127.0.0.1:";
        until([&] { return err().find(before) != std::string::npos && err().ends_with('\n'); });
        const std::string rest = err().substr(err().find(before) + before.size());
        return rest.substr(0, rest.find('\n'));
    }

    void send(const strings &datagrams)
    {
        sockaddr_in to{
            AF_INET, htons(static_cast<uint16_t>(std::stoi(port()))), {htonl(INADDR_LOOPBACK)}, {}};
        int fd = socket(AF_INET, SOCK_DGRAM, 0);
        for (const std::string &each : datagrams)
            EXPECT_EQ(sendto(fd, each.data(), each.size(), 0, reinterpret_cast<sockaddr *>(&to),
                             sizeof to),
                      static_cast<ssize_t>(each.size()));
        close(fd);
    }

    void press(char key) { EXPECT_EQ(write(terminal_, &key, 1), 1); }
    void resize(Size to)
    {
        screen.resize(to.width, to.height);
        winsize window{to.height, to.width, 0, 0};
        EXPECT_EQ(ioctl(terminal_, TIOCSWINSZ, &window), 0);
    }
    void terminate() { kill(pid_, SIGTERM); }

    // Its exit status, once it has ended by itself.
    int status()
    {
        until([this] { return ended_; });
        if (!ended_)
            return -1;
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    Screen screen;

private:
    static std::string contents_of(int fd)
    {
        std::string bytes(65536, '\0');
        bytes.resize(static_cast<size_t>(pread(fd, bytes.data(), bytes.size(), 0)));
        return bytes;
    }

    pid_t pid_ = -1;
    int terminal_ = -1;
    int out_ = memfd_create("out", MFD_CLOEXEC), err_ = memfd_create("err", MFD_CLOEXEC);
    bool ended_ = false;
};

// A record with figures of a queue that keeps everything.
struct Sample {
    std::string queue;
    uint64_t seq, total, depth, age = 1200, interval = 1000;
    unsigned warning = 0;
};

std::string record(const Sample &from)
{
    qrnmon::sample s{};
    s.stats.fill(0);
    auto set = [&](std::string_view name, uint64_t value) {
        auto found = std::ranges::find(qrnmon::columns, name, &qrnmon::column::name);
        s.stats[static_cast<size_t>(found - qrnmon::columns.begin()) - qrnmon::first_figure] =
            value;
    };
    s.real = {static_cast<time_t>(1'700'000'000 + from.seq), 0};
    s.mono = {static_cast<time_t>(1000 + from.seq), 0};
    s.seq = from.seq;
    s.pid = 4242;
    s.app = "feed";
    s.queue = from.queue;
    s.queue_id = from.queue[0] == 'o' ? 1 : from.queue[0] == 'q' ? 2 : 3;
    s.interval = from.interval;
    s.counted = true;
    s.depth = from.depth;
    s.warning = from.warning;
    s.size_warnings = from.warning * 40;
    set("data_msgs", from.depth);
    set("data_msgs_tot", from.total);
    set("data_msgs_svc_mean", 35);
    set("events", from.depth);
    set("events_tot", from.total);
    set("age_mean", from.age);
    set("age_max", 9 * from.age);
    qrnmon::record_buffer out;
    return std::string(qrnmon::csv_record(out, s));
}

// Two samples of three queues, a second apart.
strings three_queues()
{
    strings out;
    for (uint64_t seq : {1UL, 2UL})
        for (Sample s : {Sample{"orders", seq, 100 * seq, 3 * seq, 1200, 1000, 1},
                         Sample{"quotes-of-a-very-long-name", seq, 150'000 * seq, 0},
                         Sample{"audit", seq, 7, 7, 61'000'000}})
            out.push_back(record(s));
    return out;
}

class Qrnmon : public testing::Test {
protected:
    void SetUp() override
    {
        if (!fs::exists(tool_path()))
            GTEST_SKIP() << "built without the tools";
        char name[] = "/tmp/qrnmon-test-XXXXXX";
        folder = mkdtemp(name);
    }
    void TearDown() override { fs::remove_all(folder); }

    std::string file(const std::string &name) const { return folder / name; }
    std::string contents(const std::string &name) const
    {
        std::ifstream in(folder / name);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    fs::path folder;
};

// --- The terminal --------------------------------------------------------------------------------

TEST_F(Qrnmon, TheTableFitsTerminalsOfAnySize)
{
    struct {
        Size size;
        strings rows; // below the heading
    } const table[] = {
        {{120, 10},
         {" QUEUE                            APP               PID  DEPTH   IN/s  OUT/s    AGE  "
          "OLDEST    SVC    WARN   LOST  HEARD",
          " audit                            feed             4242      7      0      0   1.0m    "
          "9.2m   35us       0      0"}},
        {{80, 24},
         {" QUEUE      APP          DEPTH  IN/s OUT/s   AGE OLDEST   SVC   WARN  LOST HEARD",
          " audit      feed             7     0     0  1.0m   9.2m  35us      0     0",
          "!orders     feed             6   100    97 1.2ms   11ms  35us    S40     0",
          " quotes-of~ feed             0  150k  150k 1.2ms   11ms  35us      0     0"}},
        {{40, 8},
         {" QUEUE     DEPTH  IN/s OUT/s   AGE   SVC", " audit         7     0     0  1.0m  35us",
          "!orders        6   100    97 1.2ms  35us", " quotes-o~     0  150k  150k 1.2ms  35us"}},
        {{40, 4},
         {" QUEUE     DEPTH  IN/s OUT/s   AGE   SVC", " audit         7     0     0  1.0m  35us",
          " and 2 more"}},
        {{12, 3}, {" QUEUE    D~", " and 3 more"}},
        {{1, 1}, {}},
    };
    std::vector<std::unique_ptr<Tool>> tools;
    for (auto &each : table)
        tools.push_back(std::make_unique<Tool>(strings{"--port", "0"}, each.size));
    for (auto &tool : tools)
        tool->send(three_queues());
    for (size_t i = 0; i < std::size(table); ++i) {
        Tool &tool = *tools[i];
        tool.until([&] {
            const strings lines = tool.screen.lines;
            for (size_t row = 0; row < table[i].rows.size(); ++row)
                if (!lines[row + 1].starts_with(table[i].rows[row]))
                    return false;
            return lines[0].front() != ' ';
        });
        EXPECT_TRUE(tool.screen.taken);
        tool.press('q');
        EXPECT_EQ(tool.status(), 0);
        EXPECT_FALSE(tool.screen.overrun || tool.screen.taken) << tool.screen.text();
    }
}

TEST_F(Qrnmon, KeysSortAndTheTableFollowsTheTerminal)
{
    Tool tool({"--port", "0", "--sort", "i"}, {80, 12});
    tool.send(three_queues());
    const std::pair<char, strings> table[] = {
        {' ', {"quotes", "orders", "audit"}}, {'d', {"audit", "orders", "quotes"}},
        {'r', {"quotes", "orders", "audit"}}, {'n', {"quotes", "orders", "audit"}},
        {'r', {"audit", "orders", "quotes"}},
    };
    for (auto &[key, names] : table) {
        tool.press(key);
        tool.until([&, &order = names] {
            for (size_t i = 0; i < order.size(); ++i)
                if (tool.screen.lines[2 + i].find(order[i]) != 1)
                    return false;
            return true;
        });
    }
    tool.resize({40, 6});
    tool.until_shown(
        "\n QUEUE     DEPTH  IN/s OUT/s   AGE   SVC\n audit         7     0     0  1.0m  35us\n");
    tool.terminate();
    EXPECT_EQ(tool.status(), 0);
    EXPECT_FALSE(tool.screen.overrun);
}

TEST_F(Qrnmon, TellsOfLossSilenceAndForeignDatagrams)
{
    Tool tool({"--port", "0"}, {100, 14});
    const auto orders = [](uint64_t seq) { // with no interval, so that silence is soon
        return record({"orders", seq, 5 * seq, 0, 1, 0});
    };
    tool.send({orders(1), orders(5), orders(5), orders(4)});
    for (const char *text :
         {"orders (feed, pid 4242): 3 samples lost before sample 5",
          "orders (feed, pid 4242): silent for ", "1 queue  3 lost  1 silent", "?orders"})
        tool.until_shown(text);
    std::string good = record({"orders", 7, 40, 4});
    tool.send({orders(6), "", "hello\n", "1,2,3\n", good.substr(0, good.size() / 2), good + good,
               "2" + good.substr(1), std::string(3000, ','),
               good.substr(0, good.size() - 2) + "\"\n", std::string("\x1b[2J\0", 5), good});
    for (const char *text :
         {"orders (feed, pid 4242): back after", "9 malformed",
          "malformed datagram from 127.0.0.1:", " orders       feed             4242      4"})
        tool.until_shown(text);
    EXPECT_FALSE(tool.screen.overrun);
}

// --- Files ---------------------------------------------------------------------------------------

std::string header()
{
    qrnmon::record_buffer out;
    return std::string(qrnmon::csv_header(out));
}

TEST_F(Qrnmon, LeavesRecordsFiguresAndAPicture)
{
    bool gnuplot = std::system("command -v gnuplot >/dev/null") == 0;
    strings args = {"--port", "0", "--csv", file("a.csv"), "--prom", file("a.prom")};
    if (gnuplot)
        args.insert(args.end(), {"--plot", file("a.png")});
    Tool tool(args);
    strings sent = three_queues();
    sent.insert(sent.begin() + 1, {header(), "rubbish"});
    tool.send(sent);
    std::string rows = header();
    for (const std::string &each : three_queues())
        rows += each;
    tool.until([&] { return contents("a.csv") == rows; });
    tool.terminate();
    EXPECT_EQ(tool.status(), 0) << tool.err();
    const std::string labels =
        "{host=\"127.0.0.1\",pid=\"4242\",app=\"feed\",queue=\"orders\",queue_id=\"1\"";
    for (const std::string &line :
         {"qrn_queue_up" + labels + "} 1\n", "qrn_queue_depth" + labels + "} 6\n",
          "qrn_queue_events_total" + labels + ",type=\"data_msgs\"} 200\n",
          "qrn_queue_service_seconds" + labels + ",type=\"data_msgs\",stat=\"mean\"} 0.000035\n",
          "qrn_queue_age_seconds" + labels + ",stat=\"max\"} 0.010800\n",
          std::string("# TYPE qrn_queue_events_total counter\n"),
          std::string("qrnmon_malformed_total 1\n")})
        EXPECT_NE(contents("a.prom").find(line), std::string::npos) << line << contents("a.prom");
    EXPECT_NE(tool.out().find(
                  "\n!orders     feed             6   100    97 1.2ms   11ms  35us    S40     0"),
              std::string::npos)
        << tool.out();
    EXPECT_EQ(contents("a.png").substr(0, 4), gnuplot ? "\x89PNG" : "");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), gnuplot ? 3 : 2);
}

TEST_F(Qrnmon, GoesOnWhenADiskIsFull)
{
    rlim_t room = header().size() + 2 * record({"orders", 1, 0, 0}).size() + 10;
    Tool tool({"--port", "0", "--csv", file("a.csv")}, {}, room);
    strings sent;
    for (uint64_t seq = 1; seq < 6; ++seq)
        sent.push_back(record({"orders", seq, 0, 0}));
    tool.send(sent);
    tool.until_shown("a.csv cannot be written, records are left out: File too large");
    tool.terminate();
    EXPECT_EQ(tool.status(), 2);
    EXPECT_EQ(contents("a.csv"), header() + sent[0] + sent[1]);
    EXPECT_EQ(std::ranges::count(tool.err(), '\n'), 2) << tool.err();
    EXPECT_TRUE(tool.out().find("1 queue\n") != std::string::npos) << tool.out();
}

TEST_F(Qrnmon, SaysInOneLineWhatCannotBeDone)
{
    Tool first({"--port", "0"});
    const std::string taken = first.port();
    const std::pair<strings, std::string> table[] = {
        {{"--port", taken},
         "cannot listen on 127.0.0.1 port " + taken + ": Address already in use"},
        {{"--port", "65536"}, "--port must be a number from 0 to 65535: '65536'"},
        {{"--listen", "no.such.host.invalid"}, "'no.such.host.invalid' does not resolve: "},
        {{"--csv", "/dev/full", "--port", "0"}, "cannot write /dev/full: No space left on device"},
        {{"--csv", "/", "--port", "0"}, "cannot write /: Is a directory"},
        {{"--prom", "/proc/x", "--port", "0"}, "cannot write /proc/x: "},
        {{"--plot", "/proc/x.png", "--port", "0"}, "cannot "},
        {{"--plot", "x.jpg"}, "--plot must name a .png file: 'x.jpg'"},
        {{"--for", "-1"}, "--for must be a number of seconds above 0: '-1'"},
        {{"--sort", "x"}, "--sort must be one of "},
        {{"--csv"}, "a value is missing after '--csv'"},
        {{"--nonsense"}, "unknown option '--nonsense'"},
        {{"extra"}, "unexpected argument 'extra'"},
    };
    for (auto &[args, line] : table) {
        Tool tool(args);
        EXPECT_EQ(tool.status(), 2) << line;
        EXPECT_TRUE(tool.err().starts_with("qrnmon: " + line)) << tool.err();
        EXPECT_EQ(std::ranges::count(tool.err(), '\n'), 1) << tool.err();
        EXPECT_EQ(tool.out(), "");
    }
    Tool alone({"--once", "--for", "0.1", "--port", "0"});
    EXPECT_EQ(alone.status(), 2);
    EXPECT_TRUE(alone.err().ends_with("qrnmon: no record arrived\n")) << alone.err();
}

} // namespace
