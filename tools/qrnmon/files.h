// SPDX-License-Identifier: Apache-2.0
//
// What the tool leaves behind: records in a file, figures for a metrics collector, a picture.
#ifndef QRNMON_TOOL_FILES_H
#define QRNMON_TOOL_FILES_H

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sources.h"
#include "terminal.h"

namespace tool {

class descriptor {
public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    ~descriptor() { reset(); }
    descriptor(descriptor &&from) noexcept : fd_(std::exchange(from.fd_, -1)) {}
    descriptor &operator=(descriptor &&from) noexcept
    {
        std::swap(fd_, from.fd_);
        return *this;
    }

    // False when closing failed, which is how some file systems report a full disk.
    bool reset(int fd = -1)
    {
        int old = std::exchange(fd_, fd);
        return old < 0 || close(old) == 0;
    }
    int get() const { return fd_; }

private:
    int fd_;
};

inline std::string with_reason(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

// Writes a file aside and renames it into place, so that nobody sees half of it. False with errno.
inline bool replace_file(const std::string &path, std::string_view text)
{
    std::string aside = path + ".new." + std::to_string(getpid());
    descriptor file(open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (file.get() < 0)
        return false;
    bool written = write_all(file.get(), text) && file.reset();
    if (written && rename(aside.c_str(), path.c_str()) == 0)
        return true;
    int reason = errno;
    unlink(aside.c_str());
    errno = reason;
    return false;
}

// --- Records -------------------------------------------------------------------------------------

// Appends rows to a file. When the disk is full rows are left out, whole ones, until it is not.
class csv_file {
public:
    // False with errno when the file cannot be written.
    bool open(const std::string &path)
    {
        path_ = path;
        file_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
        if (file_.get() < 0)
            return false;
        std::string header;
        for (const auto &column : columns)
            header += (header.empty() ? "" : ",") + std::string(column.name);
        return append(header);
    }

    bool is_open() const { return file_.get() >= 0; }

    void add(const record &rec, book &notes)
    {
        if (append(rec.line)) {
            if (missing_ != 0)
                notes.note(path_ + " is written again; " + std::to_string(missing_) +
                           " records are missing");
            missing_ = 0;
            return;
        }
        if (missing_++ == 0)
            notes.note(with_reason(path_ + " cannot be written, records are left out"));
        failed_ = true;
    }

    // Whether any row was left out.
    bool failed() const { return failed_; }

private:
    bool append(const std::string &line)
    {
        struct stat before {};
        bool regular = fstat(file_.get(), &before) == 0 && S_ISREG(before.st_mode);
        if (write_all(file_.get(), line + "\n"))
            return true;
        int reason = errno;
        // A row that was written in part would spoil the next one.
        if (regular && ftruncate(file_.get(), before.st_size) != 0)
            reason = errno;
        errno = reason;
        return false;
    }

    descriptor file_;
    std::string path_;
    std::uint64_t missing_ = 0;
    bool failed_ = false;
};

// --- Metrics -------------------------------------------------------------------------------------

// The value of a label: backslash, quote and newline are escaped; a record has no newline.
inline std::string label_value(std::string_view text)
{
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '"')
            out += '\\';
        out += c;
    }
    return out;
}

inline std::string labels_of(const source_key &key, const source &of)
{
    return "host=\"" + label_value(key.host) + "\",pid=\"" + std::to_string(key.pid) + "\",app=\"" +
           label_value(of.last.app) + "\",queue=\"" + label_value(of.last.queue) +
           "\",queue_id=\"" + std::to_string(key.queue_id) + "\"";
}

// Microseconds as seconds, to the last digit.
inline std::string usec_as_seconds(std::uint64_t usec)
{
    std::string fraction = std::to_string(usec % 1'000'000);
    return std::to_string(usec / 1'000'000) + "." + std::string(6 - fraction.size(), '0') +
           fraction;
}

// Collects the samples of each metric, since a metric's samples stand together.
class metrics {
public:
    void add(const std::string &name, const std::string &labels, const std::string &value)
    {
        samples_[name] += name + "{" + labels + "} " + value + "\n";
    }

    void add_source(const source_key &key, const source &of)
    {
        std::string labels = labels_of(key, of);
        add("qrn_queue_up", labels, of.silent ? "0" : "1");
        add("qrn_queue_samples_lost_total", labels, std::to_string(of.lost));
        if (of.silent)
            return; // its last figures are not those of now
        for (std::size_t i = 0; i < columns.size(); ++i)
            if (of.last[i] != unknown)
                add_figure(i, labels, of.last[i]);
    }

    std::string text() const
    {
        static constexpr struct {
            const char *name;
            const char *type;
            const char *help;
        } all[] = {
            {"qrn_queue_up", "gauge", "1 while records of the queue come in time, else 0."},
            {"qrn_queue_samples_lost_total", "counter", "Records of the queue that were lost."},
            {"qrn_queue_samples_total", "counter", "Records that the queue's process sent."},
            {"qrn_queue_depth", "gauge", "Events queued now."},
            {"qrn_queue_warning", "gauge", "Thresholds exceeded now: 1 size, 2 delay, 3 both."},
            {"qrn_queue_size_warnings_total", "counter", "Size warnings raised."},
            {"qrn_queue_delay_warnings_total", "counter", "Delay warnings raised."},
            {"qrn_queue_queued", "gauge", "Events of one type queued now."},
            {"qrn_queue_events_total", "counter", "Events of one type accepted."},
            {"qrn_queue_service_seconds", "gauge", "Time that callbacks of one type took."},
            {"qrn_queue_age_seconds", "gauge", "Time that events waited."},
        };
        std::string out;
        for (const auto &metric : all) {
            auto found = samples_.find(metric.name);
            if (found != samples_.end())
                out += std::string("# HELP ") + metric.name + " " + metric.help + "\n# TYPE " +
                       metric.name + " " + metric.type + "\n" + found->second;
        }
        return out;
    }

private:
    void add_figure(std::size_t column, const std::string &labels, std::uint64_t value)
    {
        switch (column) {
        case at::seq:
            return add("qrn_queue_samples_total", labels, std::to_string(value));
        case at::depth:
            return add("qrn_queue_depth", labels, std::to_string(value));
        case at::warning:
            return add("qrn_queue_warning", labels, std::to_string(value));
        case at::size_warnings:
            return add("qrn_queue_size_warnings_total", labels, std::to_string(value));
        case at::delay_warnings:
            return add("qrn_queue_delay_warnings_total", labels, std::to_string(value));
        default:
            return add_statistic(column, labels, value);
        }
    }

    // "data_msgs_svc_min" becomes type="data_msgs",stat="min".
    void add_statistic(std::size_t column, const std::string &labels, std::uint64_t value)
    {
        std::string name(columns[column].name);
        std::size_t cut = name.rfind('_');
        std::string stem = name.substr(0, cut);
        std::string last = name.substr(cut + 1);
        switch (columns[column].what) {
        case kind::current: // the sum is the depth
            if (column != at::events)
                add("qrn_queue_queued", labels + ",type=\"" + name + "\"", std::to_string(value));
            break;
        case kind::total:
            add("qrn_queue_events_total", labels + ",type=\"" + stem + "\"", std::to_string(value));
            break;
        case kind::minimum:
        case kind::mean:
        case kind::maximum:
            if (stem == "age")
                add("qrn_queue_age_seconds", labels + ",stat=\"" + last + "\"",
                    usec_as_seconds(value));
            else
                add("qrn_queue_service_seconds",
                    labels + ",type=\"" + stem.substr(0, stem.size() - 4) + "\",stat=\"" + last +
                        "\"",
                    usec_as_seconds(value));
            break;
        default:
            break;
        }
    }

    std::map<std::string, std::string> samples_;
};

inline std::string metrics_text(const book &of)
{
    metrics out;
    for (const auto &[key, each] : of.sources())
        out.add_source(key, each);
    return out.text() +
           "# HELP qrnmon_malformed_total Datagrams that are no records.\n"
           "# TYPE qrnmon_malformed_total counter\nqrnmon_malformed_total " +
           std::to_string(of.bad()) + "\n";
}

// --- Picture -------------------------------------------------------------------------------------

// One line a queue, of one colour in all three panels. More than these cannot be told apart.
constexpr std::array<const char *, 8> line_colours = {"#0072b2", "#d55e00", "#009e73", "#cc79a7",
                                                      "#56b4e9", "#7f7f7f", "#8c564b", "#000000"};

// The queues with most events.
inline std::vector<const book::map::value_type *> plotted(const book &of)
{
    std::vector<const book::map::value_type *> chosen;
    for (const auto &each : of.sources())
        if (each.second.history.size() > 1)
            chosen.push_back(&each);
    auto events = [](const book::map::value_type *each) {
        return known(each->second.last[at::events_tot]);
    };
    std::ranges::stable_sort(chosen, std::ranges::greater(), events);
    chosen.resize(std::min(chosen.size(), line_colours.size()));
    return chosen;
}

// The data of one queue; '?' stands for a figure that is not known.
inline std::string plot_data(const source &of)
{
    std::string out;
    std::array<char, 64> text{};
    for (const point &p : of.history) {
        for (double value : {p.time, p.depth, p.age < 0 ? p.age : p.age / 1000, p.in, p.out}) {
            std::snprintf(text.data(), text.size(), value < 0 ? "? " : "%.3f ", value);
            out += text.data();
        }
        out += '\n';
    }
    return out;
}

// Text between single quotes.
inline std::string plot_text(const std::string &text)
{
    std::string out = "'";
    for (char c : text)
        out += c == '\'' ? std::string("''") : std::string(1, c);
    return out + "'";
}

// The same span of time in all panels, with ticks at round times.
inline std::string plot_times(const std::vector<const book::map::value_type *> &chosen)
{
    double first = chosen[0]->second.history.front().time;
    double last = first;
    for (const auto *each : chosen)
        for (const point &p : each->second.history) {
            first = std::min(first, p.time);
            last = std::max(last, p.time);
        }
    last = std::max(last, first + 1);
    double step = 86400;
    for (double shorter : {43200, 21600, 7200, 3600, 1800, 600, 300, 120, 60, 30, 10, 5, 2, 1})
        if (shorter * 10 >= last - first)
            step = shorter;
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "set xrange [%.3f:%.3f]\nset xtics %.0f\n", first, last,
                  step);
    return text.data();
}

// Columns `figure` and, dashed, `second` of the data of all queues.
inline std::string plot_panel(std::size_t lines, const char *label, int figure, int second = 0)
{
    std::string out = std::string("set ylabel '") + label + "'\nplot ";
    for (std::size_t i = 0; i < lines; ++i) {
        std::string number = std::to_string(i);
        std::string data = "$q" + number + " using 1:";
        std::string look = " with lines lc rgb '" + std::string(line_colours[i]) + "' ";
        out += (i == 0 ? "" : ", ") + data + std::to_string(figure) + look + "lw 2 title title" +
               number;
        if (second != 0)
            out += ", " + data + std::to_string(second) + look + "lw 1 dt 2 notitle";
    }
    return out + "\n";
}

// Names the process once when all the queues are of one.
inline std::string plot_titles(const std::vector<const book::map::value_type *> &chosen)
{
    std::string process = process_name(chosen[0]->first, chosen[0]->second);
    bool one = std::ranges::all_of(chosen, [&](const book::map::value_type *each) {
        return process_name(each->first, each->second) == process;
    });
    std::string out;
    for (std::size_t i = 0; i < chosen.size(); ++i) {
        const auto &[key, each] = *chosen[i];
        out += "title" + std::to_string(i) + " = " +
               plot_text(one ? queue_name(key, each) : title(key, each)) + "\n";
    }
    if (one)
        out += "set label 1 " + plot_text(process) + " at screen 0.53, 0.982 center\n";
    return out;
}

inline std::string plot_script(const book &of, const std::string &output)
{
    auto chosen = plotted(of);
    std::string out = "set terminal pngcairo size 1000,840 font 'sans,11' noenhanced\nset output " +
                      plot_text(output) +
                      "\nset datafile missing '?'\nset xdata time\nset timefmt '%s'\n"
                      "set grid lt 1 lc rgb '#dddddd'\nset border 3 lc rgb '#666666'\n"
                      "set tics nomirror\nset yrange [0:*]\nset format x ''\n"
                      "set key at screen 0.09, 0.965 left top horizontal Left reverse\n" +
                      plot_times(chosen) + plot_titles(chosen);
    for (std::size_t i = 0; i < chosen.size(); ++i)
        out += "$q" + std::to_string(i) + " << EOD\n" + plot_data(chosen[i]->second) + "EOD\n";
    out += "set multiplot layout 3,1 margins 0.09,0.97,0.08,0.9 spacing 0.03\n";
    out += plot_panel(chosen.size(), "depth (events)", 2) + "set nokey\nunset label 1\n";
    out += plot_panel(chosen.size(), "mean age (ms)", 3) + "set format x '%H:%M:%S'\n";
    out += "set xlabel 'time of day, UTC'\n";
    out += plot_panel(chosen.size(), "rate in, out dashed (events/s)", 4, 5);
    return out + "unset multiplot\n";
}

// Runs gnuplot with a script on its standard input; its exit status, or 127.
inline int run_gnuplot(const std::string &script)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return 127;
    descriptor input(ends[0]);
    descriptor output(ends[1]);
    pid_t child = fork();
    if (child == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        descriptor nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
        dup2(ends[0], STDIN_FILENO);
        dup2(nowhere.get(), STDOUT_FILENO);
        dup2(nowhere.get(), STDERR_FILENO);
        execlp("gnuplot", "gnuplot", nullptr);
        _exit(127);
    }
    if (child < 0)
        return 127;
    input.reset();
    write_all(output.get(), script);
    output.reset();
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        ;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

// Draws the picture aside and renames it into place; what went wrong, or nothing.
inline std::string draw_picture(const book &of, const std::string &path)
{
    if (plotted(of).empty())
        return path + " was not drawn: fewer than two records of any queue";
    std::string aside = path + ".new." + std::to_string(getpid());
    int status = run_gnuplot(plot_script(of, aside));
    if (status == 127)
        return path + " was not drawn: gnuplot cannot be run";
    if (status == 0 && rename(aside.c_str(), path.c_str()) == 0)
        return {};
    std::string why = status == 0 ? std::strerror(errno) : "gnuplot failed";
    unlink(aside.c_str());
    return path + " was not drawn: " + why;
}

} // namespace tool

#endif
