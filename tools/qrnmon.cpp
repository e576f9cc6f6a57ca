// SPDX-License-Identifier: Apache-2.0
//
// qrnmon: receives the monitoring records of event queues and shows them.
//
// One thread. It waits for datagrams, keys, signals and the next full second; each second it looks
// for silent sources, writes the metrics and draws. On a terminal it draws a live table, elsewhere
// it prints what happens as lines and the table at the end.
#include <charconv>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <getopt.h>
#include <memory>
#include <poll.h>
#include <sys/signalfd.h>

#include "qrnmon/files.h"
#include "qrnmon/metrics.h"
#include "qrnmon/picture.h"
#include "qrnmon/record.h"
#include "qrnmon/sockets.h"
#include "qrnmon/sources.h"
#include "qrnmon/table.h"
#include "qrnmon/terminal.h"

namespace {

using namespace tool;

constexpr const char *usage = R"(usage: qrnmon [OPTION]...

Shows the event queues whose monitoring records arrive here.

  --listen ADDRESS   address to receive on (127.0.0.1)
  --port PORT        port to receive on, may be repeated (14390 and 14391; 0: any free one)
  --once             collect for 2.5 seconds, print the table, end
  --for SECONDS      end after so long
  --csv FILE         append the records to FILE
  --prom FILE        keep the current figures in FILE, in the format of a text-file collector
  --plot FILE.png    draw depth, age and rates at the end (needs gnuplot)
  --sort KEY         sort by: n name, p app, d depth, i in, o out, a age, s service time,
                     w warnings, l lost, h last heard
  --help             print this

Keys: the sort keys above, r to reverse, q to quit. A '!' stands before a queue that is above a
warning threshold, a '?' before one that is silent. WARN gives the thresholds it is above (S size,
D delay) and the number of warnings raised. Exit status: 0, or 2 when something could not be done.
)";

struct options {
    std::string listen = "127.0.0.1";
    std::vector<unsigned> ports;
    bool once = false;
    double seconds = 0; // 0: no end
    std::string csv;
    std::string prom;
    std::string plot;
    char sort = 'n';
    bool help = false;
};

// --- Options -------------------------------------------------------------------------------------

unsigned parse_port(const std::string &text)
{
    unsigned port = 0;
    auto parsed = std::from_chars(text.data(), text.data() + text.size(), port);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size() || port > 65535)
        throw failure("--port must be a number from 0 to 65535: '" + text + "'");
    return port;
}

double parse_seconds(const std::string &text)
{
    double value = 0;
    auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size() ||
        !(value > 0 && value < 1e9))
        throw failure("--for must be a number of seconds above 0: '" + text + "'");
    return value;
}

char parse_sort(const std::string &text)
{
    if (text.size() != 1 || !is_sort_key(text[0]))
        throw failure("--sort must be one of n p d i o a s w l h: '" + text + "'");
    return text[0];
}

std::string parse_picture(const std::string &text)
{
    if (!text.ends_with(".png"))
        throw failure("--plot must name a .png file: '" + text + "'");
    return text;
}

void take_option(int option, const char *value, options &into)
{
    switch (option) {
    case 'a':
        into.listen = value;
        break;
    case 'p':
        into.ports.push_back(parse_port(value));
        break;
    case 'o':
        into.once = true;
        break;
    case 'f':
        into.seconds = parse_seconds(value);
        break;
    case 'c':
        into.csv = value;
        break;
    case 'm':
        into.prom = value;
        break;
    case 'g':
        into.plot = parse_picture(value);
        break;
    case 's':
        into.sort = parse_sort(value);
        break;
    default:
        into.help = true;
        break;
    }
}

options parse(int argc, char **argv)
{
    static const option known[] = {
        {"listen", required_argument, nullptr, 'a'}, {"port", required_argument, nullptr, 'p'},
        {"once", no_argument, nullptr, 'o'},         {"for", required_argument, nullptr, 'f'},
        {"csv", required_argument, nullptr, 'c'},    {"prom", required_argument, nullptr, 'm'},
        {"plot", required_argument, nullptr, 'g'},   {"sort", required_argument, nullptr, 's'},
        {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0},
    };
    options out;
    opterr = 0;
    for (int option; (option = getopt_long(argc, argv, ":", known, nullptr)) != -1;) {
        if (option == '?' || option == ':')
            throw failure(
                std::string(option == '?' ? "unknown option" : "a value is missing after") + " '" +
                argv[optind - 1] + "'");
        take_option(option, optarg, out);
    }
    if (optind < argc)
        throw failure(std::string("unexpected argument '") + argv[optind] + "'");
    if (out.ports.empty())
        out.ports = {qrnmon::default_port_qrn, qrnmon::default_port_qrnsnmp};
    if (out.once && out.seconds == 0)
        out.seconds = 2.5;
    return out;
}

// --- The program ---------------------------------------------------------------------------------

// Signals arrive as reads, in the one place where nothing else goes on.
descriptor take_signals()
{
    sigset_t taken;
    sigemptyset(&taken);
    for (int number : {SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGTSTP})
        sigaddset(&taken, number);
    sigprocmask(SIG_BLOCK, &taken, nullptr);
    // Writing to what is gone, or beyond a limit, is then an error like others.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    return descriptor(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
}

std::string time_of_day()
{
    std::time_t now = std::time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    std::array<char, 16> text{};
    std::strftime(text.data(), text.size(), "%H:%M:%SZ", &utc);
    return text.data();
}

class program {
public:
    explicit program(const options &opts) : opts_(opts), signals_(take_signals())
    {
        for (unsigned port : opts.ports)
            receivers_.push_back(std::make_unique<receiver>(opts.listen, port));
        how_.sort = opts.sort;
        open_files();
        bool live = !opts.once && can_draw();
        for (const auto &each : receivers_)
            if (!live || opts.ports == std::vector<unsigned>{0})
                say("listening on " + each->name());
        if (live)
            screen_ = std::make_unique<live_screen>();
    }

    int run()
    {
        end_ = steady::now() + std::chrono::duration_cast<steady::duration>(seconds(opts_.seconds));
        next_tick_ = steady::now();
        while (!done_) {
            if (steady::now() >= next_tick_)
                tick();
            wait();
            done_ = done_ || (opts_.seconds > 0 && steady::now() >= end_);
        }
        return finish();
    }

private:
    void say(const std::string &line) { std::fprintf(stderr, "qrnmon: %s\n", line.c_str()); }

    // Whatever cannot be written is found out before anything else is done.
    void open_files()
    {
        if (!opts_.csv.empty() && !csv_.open(opts_.csv))
            throw failure(with_reason("cannot write " + opts_.csv));
        if (!opts_.prom.empty() && !replace_file(opts_.prom, metrics_text(book_)))
            throw failure(with_reason("cannot write " + opts_.prom));
        if (opts_.plot.empty())
            return;
        if (!can_replace(opts_.plot))
            throw failure(with_reason("cannot write " + opts_.plot));
        if (!can_plot())
            throw failure("cannot draw " + opts_.plot + ": gnuplot cannot be run");
    }

    // Until something arrives or is due.
    void wait()
    {
        steady::time_point until = opts_.seconds > 0 ? std::min(next_tick_, end_) : next_tick_;
        auto left = std::chrono::ceil<std::chrono::milliseconds>(until - steady::now()).count();
        std::vector<pollfd> watched = {{signals_.get(), POLLIN, 0}};
        bool keys = screen_ != nullptr && screen_->has_keys() && keys_open_;
        watched.push_back({keys ? STDIN_FILENO : -1, POLLIN, 0});
        for (const auto &each : receivers_)
            watched.push_back({each->fd(), POLLIN, 0});
        if (poll(watched.data(), watched.size(), static_cast<int>(std::max(left, 0L))) <= 0)
            return;
        if (watched[0].revents != 0)
            take_signal();
        if (watched[1].revents != 0)
            take_keys();
        for (std::size_t i = 0; i < receivers_.size(); ++i)
            if (watched[i + 2].revents != 0)
                receive(*receivers_[i]);
    }

    void receive(receiver &from)
    {
        from.drain([this](std::string_view datagram, const sockaddr_storage &sender) {
            content what = reader_.read(datagram);
            if (what == content::bad)
                book_.malformed(address_of(sender).full, reader_.why());
            if (what != content::row)
                return;
            if (csv_.is_open())
                csv_.add(reader_.result(), book_);
            book_.take(reader_.result(), address_of(sender).host, steady::now());
        });
    }

    void take_signal()
    {
        signalfd_siginfo info{};
        if (read(signals_.get(), &info, sizeof info) != sizeof info)
            return;
        if (info.ssi_signo == SIGTSTP)
            stop();
        else if (info.ssi_signo != SIGWINCH)
            done_ = true;
        draw();
    }

    // Gives the terminal back for as long as the program is stopped.
    void stop()
    {
        if (screen_ != nullptr)
            screen_->leave();
        std::raise(SIGSTOP);
        if (screen_ != nullptr)
            screen_->enter();
    }

    void take_keys()
    {
        std::array<char, 64> keys{};
        ssize_t count = read(STDIN_FILENO, keys.data(), keys.size());
        keys_open_ = count > 0;
        for (ssize_t i = 0; i < count; ++i) {
            char key = keys[static_cast<std::size_t>(i)];
            if (key == 'q')
                done_ = true;
            else if (key == 'r')
                how_.reverse = !how_.reverse;
            else if (is_sort_key(key))
                how_.sort = key;
        }
        draw();
    }

    void tick()
    {
        next_tick_ += std::chrono::seconds(1);
        if (next_tick_ < steady::now())
            next_tick_ = steady::now() + std::chrono::seconds(1);
        book_.tick(steady::now());
        write_metrics();
        take_notices();
        draw();
    }

    void write_metrics()
    {
        if (opts_.prom.empty())
            return;
        if (replace_file(opts_.prom, metrics_text(book_))) {
            prom_failing_ = false;
            return;
        }
        if (!std::exchange(prom_failing_, true))
            book_.note(with_reason(opts_.prom + " cannot be written and is out of date"));
        failed_ = true;
    }

    void take_notices()
    {
        for (const std::string &line : book_.take_notices()) {
            happened_.push_back(time_of_day() + " " + line);
            if (screen_ == nullptr)
                say(happened_.back());
        }
        constexpr std::size_t kept = 100;
        if (happened_.size() > kept)
            happened_.erase(happened_.begin(), happened_.end() - kept);
    }

    void draw()
    {
        if (screen_ == nullptr)
            return;
        screen_size size = size_of_terminal();
        how_.width = size.width;
        how_.height = size.height;
        how_.colour = can_colour();
        auto lines = compose(book_, how_, time_of_day(), happened_, steady::now());
        if (!screen_->draw(lines, how_.colour))
            throw failure(with_reason("the terminal is gone"));
    }

    // The table as plain lines.
    void print_table()
    {
        how_.width = size_of_terminal().width;
        auto lines = table_lines(book_, how_, 0, steady::now());
        lines.insert(lines.begin(),
                     {heading_line(book_, time_of_day(), how_.width, steady::now()), style::plain});
        std::string out;
        for (const screen_line &line : lines)
            out += line.text.substr(0, line.text.find_last_not_of(' ') + 1) + "\n";
        if (!write_all(STDOUT_FILENO, out))
            throw failure(with_reason("cannot write to standard output"));
    }

    int finish()
    {
        bool live = screen_ != nullptr;
        screen_.reset();
        if (live && !happened_.empty())
            for (const std::string &line : happened_)
                say(line);
        happened_.clear();
        book_.tick(steady::now());
        write_metrics();
        take_notices();
        if (!live)
            print_table();
        if (!opts_.plot.empty()) {
            std::string trouble = draw_picture(book_, opts_.plot);
            failed_ = failed_ || !trouble.empty();
            if (!trouble.empty())
                book_.note(trouble);
        }
        take_notices();
        if (opts_.once && book_.records() == 0)
            throw failure("no record arrived");
        return failed_ || csv_.failed() ? 2 : 0;
    }

    options opts_;
    descriptor signals_;
    std::vector<std::unique_ptr<receiver>> receivers_;
    reader reader_;
    book book_;
    csv_file csv_;
    view how_;
    std::unique_ptr<live_screen> screen_; // null: no live table
    std::vector<std::string> happened_;
    steady::time_point end_;
    steady::time_point next_tick_;
    bool keys_open_ = true;
    bool prom_failing_ = false;
    bool failed_ = false; // something could not be written
    bool done_ = false;
};

} // namespace

int main(int argc, char **argv)
{
    try {
        options opts = parse(argc, argv);
        if (opts.help)
            return write_all(STDOUT_FILENO, usage) ? 0 : 2;
        return program(opts).run();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "qrnmon: %s\n", e.what());
        return 2;
    }
}
