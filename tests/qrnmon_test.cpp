// SPDX-License-Identifier: Apache-2.0
//
// The operator's tool, run as a program: in a terminal of several sizes, with files, with bad input.
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <poll.h>
#include <pty.h>
#include <regex>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qrnmon_columns.h"
#include "support.h"

using namespace test;
namespace fs = std::filesystem;

namespace {

std::string contents(const std::string &file)
{
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

const fs::path tool_path =
    fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools/qrnmon";

// The running tool, in a terminal. It picks a free port and tells it. A shell starts it, so that its
// arguments can redirect.
class Tool {
public:
    explicit Tool(const std::string &args, const std::string &before = "true")
    {
        const winsize size{10, 100, 0, 0};
        pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ != 0)
            return;
        const std::string command =
            before + "; TERM=xterm exec " + tool_path.string() + " 2>err " + args;
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    ~Tool()
    {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0)
            waitpid(pid_, nullptr, 0);
        close(terminal_);
    }
    Tool(const Tool &) = delete;

    // The last picture on the terminal, without blanks at the ends of its lines.
    std::string screen() const
    {
        static const std::regex escape("\x1b\\[[?0-9;]*[A-Za-z]"), line_end(" *\r+\n");
        const std::string all = "\x1b[H" + drawn_, last = all.substr(all.rfind("\x1b[H")) + "\r\n";
        return std::regex_replace(std::regex_replace(last, escape, ""), line_end, "\n");
    }

    // Reads on until `seen` holds; fails after half a minute.
    template <class Seen>
    void until(Seen seen)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!seen()) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << screen() << contents("err");
            ASSERT_FALSE(ended_) << screen() << contents("err");
            pollfd fd{terminal_, POLLIN, 0};
            char bytes[4096];
            const ssize_t size = poll(&fd, 1, 20) > 0 ? read(terminal_, bytes, sizeof bytes) : 0;
            ended_ = size < 0;
            drawn_.append(bytes, static_cast<size_t>(std::max(size, ssize_t{0})));
        }
    }
    // Reads on until each pattern is shown, or told on standard error.
    void until_shown(const strings &patterns)
    {
        for (const std::string &each : patterns)
            until([&] { return std::regex_search(screen() + contents("err"), std::regex(each)); });
    }

    std::string port()
    {
        until_shown({"listening on 127.0.0.1:"});
        const std::string line = contents("err");
        return line.substr(line.rfind(':') + 1, line.rfind('\n') - line.rfind(':') - 1);
    }
    void send(const strings &datagrams)
    {
        const auto number = static_cast<uint16_t>(std::stoi(port()));
        const sockaddr_in to{AF_INET, htons(number), {htonl(INADDR_LOOPBACK)}, {}};
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
        for (const std::string &each : datagrams)
            EXPECT_EQ(write(fd, each.data(), each.size()), static_cast<ssize_t>(each.size()));
        close(fd);
    }
    void press(char key) { EXPECT_EQ(write(terminal_, &key, 1), 1); }
    void resize(winsize to) { EXPECT_EQ(ioctl(terminal_, TIOCSWINSZ, &to), 0); }

    // Its exit status, once it has ended, by itself or by a signal.
    int status(int signal = 0)
    {
        kill(pid_, signal);
        until([this] { return ended_; });
        int status = -1;
        waitpid(ended_ ? std::exchange(pid_, -1) : 0, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_;
    int terminal_ = -1;
    std::string drawn_;
    bool ended_ = false;
};

std::string record(const char *queue, unsigned long seq, unsigned long total, unsigned long depth,
                   unsigned long age = 1200, int interval = 1000)
{
    std::istringstream words(
        text("schema 1 epoch_s 17.000000 mono_s %lu.000000 seq %lu pid 4242 app feed queue %s"
             " queue_id %d interval_s %d warning %d size_warnings 40 delay_warnings 0"
             " depth %lu events %lu data_msgs %lu events_tot %lu data_msgs_tot %lu"
             " data_msgs_svc_mean 35 age_mean %lu age_max %lu",
             seq, seq, queue, *queue, interval, *queue == 'o', depth, depth, depth, total, total,
             age, 9 * age));
    std::map<std::string, std::string> values;
    for (std::string name; words >> name;)
        words >> values[name];
    std::string line;
    for (auto &column : qrnmon::columns)
        line += values[std::string(column.name)] + ",";
    return line.replace(line.size() - 1, 1, "\n");
}

// Two samples of three queues, a second apart.
strings three_queues()
{
    strings out;
    for (unsigned long seq : {1UL, 2UL}) {
        out.push_back(record("orders", seq, 100 * seq, 3 * seq));
        out.push_back(record("quotes-of-a-very-long-name", seq, 150'000 * seq, 0));
        out.push_back(record("audit", seq, 7, 7, 61'000'000));
    }
    return out;
}

// Each test has a folder of its own.
class Qrnmon : public testing::Test {
protected:
    void SetUp() override
    {
        if (!fs::exists(tool_path))
            GTEST_SKIP() << "built without the tools";
        char name[] = "/tmp/qrnmon-test-XXXXXX";
        fs::current_path(mkdtemp(name));
    }
    void TearDown() override
    {
        const fs::path folder = fs::current_path();
        fs::current_path("/");
        fs::remove_all(folder);
    }
};

TEST_F(Qrnmon, TheTableFollowsKeysAndTheTerminalsSize)
{
    Tool tool("--port 0 --sort i");
    tool.send(three_queues());
    const std::string down = "\n.q.*\n.o.*\n.a", up = "\n.a.*\n.o.*\n.q";
    const std::pair<char, std::string> keys[] = {
        {' ', down}, {'d', up}, {'r', down}, {'n', down}, {'r', up}};
    for (auto &[key, order] : keys) {
        tool.press(key);
        tool.until_shown({order});
    }
    const std::pair<winsize, strings> sizes[] = {
        {{10, 120, 0, 0}, {"\n audit    .* feed             4242      7      0      0"}},
        {{24, 80, 0, 0},
         {"\n QUEUE      APP          DEPTH  IN/s OUT/s   AGE OLDEST   SVC   WARN  LOST HEARD\n",
          "\n!orders     feed             6   100    97 1.2ms   11ms  35us    S40     0",
          "\n quotes-of~ feed             0  150k  150k 1.2ms   11ms  35us     40     0"}},
        {{4, 40, 0, 0}, {"\n audit         7     0     0  1.0m  35us\n and 2 more\n"}},
        {{3, 12, 0, 0}, {"\n QUEUE    D~\n and 3 more\n"}},
        {{1, 1, 0, 0}, {"^~\n"}},
    };
    for (auto &[size, texts] : sizes) {
        tool.resize(size);
        tool.until_shown(texts);
    }
    tool.press('q');
    EXPECT_EQ(tool.status(), 0);
}

TEST_F(Qrnmon, TellsOfLossSilenceAndForeignDatagrams)
{
    Tool tool("--port 0");
    const auto audit = [](unsigned long seq) { // with no interval, so that silence is soon
        return record("audit", seq, 5 * seq, 0, 1, 0);
    };
    tool.send({audit(1), audit(5), audit(5), audit(4)});
    tool.until_shown({"audit .feed, pid 4242.: 3 samples lost before sample 5",
                      "audit .feed, pid 4242.: silent for ", "1 queue  3 lost  1 silent",
                      "[?]audit"});
    const std::string good = record("audit", 7, 40, 4);
    tool.send({audit(6), "", "hello\n", "1,2,3\n", good.substr(0, good.size() / 2), good + good,
               "2" + good.substr(1), std::string(3000, ','),
               good.substr(0, good.size() - 2) + "\"\n", std::string("\x1b[2J\0", 5), good});
    tool.until_shown(
        {"audit .feed, pid 4242.: back after", "9 malformed",
         "malformed datagram from 127.0.0.1:", " audit        feed             4242      4"});
}

TEST_F(Qrnmon, LeavesRecordsFiguresAndAPicture)
{
    const bool gnuplot = std::system("command -v gnuplot >/dev/null") == 0;
    strings sent = three_queues();
    std::string header, rows;
    for (auto &column : qrnmon::columns)
        header += (header.empty() ? "" : ",") + std::string(column.name);
    for (const std::string &each : sent)
        rows += each;
    sent.insert(sent.begin() + 1, {header + "\n", "rubbish"});
    Tool tool(text("--port 0 --csv csv --prom prom %s >out", gnuplot ? "--plot a.png" : ""));
    tool.send(sent);
    tool.until([&] { return contents("csv") == header + "\n" + rows; });
    EXPECT_EQ(tool.status(SIGTERM), 0) << contents("err");
    const std::string of =
        "{host=\"127.0.0.1\",pid=\"4242\",app=\"feed\",queue=\"orders\",queue_id=\"111\"";
    const std::pair<const char *, std::string> left[] = {
        {"prom", "# TYPE qrn_queue_events_total counter\n"},
        {"prom", "qrn_queue_up" + of + "} 1\n"},
        {"prom", "qrn_queue_events_total" + of + ",type=\"data_msgs\"} 200\n"},
        {"prom", "qrn_queue_age_seconds" + of + ",stat=\"max\"} 0.010800\n"},
        {"prom", "qrnmon_malformed_total 1\n"},
        {"out", "\n!orders     feed             6   100    97 1.2ms   11ms"},
    };
    for (auto &[file, line] : left)
        EXPECT_NE(contents(file).find(line), std::string::npos) << line << contents(file);
    EXPECT_EQ(contents("a.png").substr(0, 4), gnuplot ? "\x89PNG" : "");
    EXPECT_EQ(std::distance(fs::directory_iterator("."), {}), gnuplot ? 5 : 4);
}

TEST_F(Qrnmon, GoesOnWhenADiskIsFull)
{
    Tool tool("--port 0 --csv csv >out", "ulimit -f 3"); // blocks of 512 bytes
    tool.send(strings(5, record("orders", 1, 0, 0)));
    tool.until_shown({"csv cannot be written, records are left out: File too large"});
    EXPECT_EQ(tool.status(SIGTERM), 2);
    EXPECT_TRUE(contents("csv").ends_with(record("orders", 1, 0, 0))) << "a whole record";
    EXPECT_NE(contents("out").find("1 queue\n"), std::string::npos) << contents("out");
}

TEST_F(Qrnmon, SaysInOneLineWhatCannotBeDone)
{
    Tool holder("--port 0");
    const std::string taken = holder.port();
    const std::pair<std::string, std::string> table[] = {
        {"--port " + taken,
         "cannot listen on 127.0.0.1 port " + taken + ": Address already in use"},
        {"--port 65536", "--port must be a number from 0 to 65535: '65536'"},
        {"--listen no.such.host.invalid", "'no.such.host.invalid' does not resolve: "},
        {"--port 0 --csv /dev/full", "cannot write /dev/full: No space left on device"},
        {"--port 0 --prom /proc/x", "cannot write /proc/x: "},
        {"--port 0 --plot x.jpg", "--plot must name a .png file: 'x.jpg'"},
        {"--for -1", "--for must be a number of seconds above 0: '-1'"},
        {"--sort x", "--sort must be one of "},
        {"--csv", "a value is missing after '--csv'"},
        {"--nonsense", "unknown option '--nonsense'"},
        {"extra", "unexpected argument 'extra'"},
    };
    for (auto &[args, line] : table) {
        fs::remove("err");
        EXPECT_EQ(Tool(args).status(), 2) << line;
        EXPECT_TRUE(contents("err").starts_with("qrnmon: " + line)) << contents("err");
        EXPECT_EQ(std::ranges::count(contents("err"), '\n'), 1) << contents("err");
    }
    EXPECT_EQ(Tool("--port 0 --once --for 0.1").status(), 2);
    EXPECT_TRUE(contents("err").ends_with("\nqrnmon: no record arrived\n")) << contents("err");
}

} // namespace
