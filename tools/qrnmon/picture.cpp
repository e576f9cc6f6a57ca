// SPDX-License-Identifier: Apache-2.0
#include "picture.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include "files.h"
#include "table.h"
#include "terminal.h"

namespace tool {

namespace {

// One line a queue, of one colour in all three panels. More than these cannot be told apart.
constexpr std::array<const char *, 8> line_colours = {"#0072b2", "#d55e00", "#009e73", "#cc79a7",
                                                      "#56b4e9", "#7f7f7f", "#8c564b", "#000000"};

// The queues with most events.
std::vector<const book::map::value_type *> plotted(const book &of)
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
std::string plot_data(const source &of)
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
std::string plot_text(const std::string &text)
{
    std::string out = "'";
    for (char c : text)
        out += c == '\'' ? std::string("''") : std::string(1, c);
    return out + "'";
}

// The same span of time in all panels, with ticks at round times.
std::string plot_times(const std::vector<const book::map::value_type *> &chosen)
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
std::string plot_panel(std::size_t lines, const char *label, int figure, int second = 0)
{
    std::ostringstream out;
    out << "set ylabel '" << label << "'\nplot ";
    for (std::size_t i = 0; i < lines; ++i) {
        auto draw = [&](int column, const char *look) -> std::ostream & {
            return out << "$q" << i << " using 1:" << column << " with lines lc rgb '"
                       << line_colours[i] << "' " << look;
        };
        out << (i == 0 ? "" : ", ");
        draw(figure, "lw 2 title title") << i;
        if (second != 0) {
            out << ", ";
            draw(second, "lw 1 dt 2 notitle");
        }
    }
    out << "\n";
    return out.str();
}

// Names the process once when all the queues are of one.
std::string plot_titles(const std::vector<const book::map::value_type *> &chosen)
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

std::string plot_script(const book &of, const std::string &output)
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
int run_gnuplot(const std::string &script)
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

} // namespace

bool can_plot()
{
    return run_gnuplot("") == 0;
}

std::string draw_picture(const book &of, const std::string &path)
{
    if (plotted(of).empty())
        return path + " was not drawn: fewer than two records of any queue";
    std::string aside = aside_of(path);
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
