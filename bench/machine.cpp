// SPDX-License-Identifier: Apache-2.0
#include "machine.hpp"

#include <gnu/libc-version.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "clock.hpp"

namespace bench {

namespace {

std::string processor_name()
{
    std::ifstream info{"/proc/cpuinfo"};
    for (std::string line; std::getline(info, line);)
        if (line.starts_with("model name"))
            return line.substr(line.find(':') + 2);
    return "unknown processor";
}

double seconds(const timeval &t)
{
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

double own_seconds(int who)
{
    rusage use{};
    getrusage(who, &use);
    return seconds(use.ru_utime) + seconds(use.ru_stime);
}

} // namespace

void print_machine()
{
    utsname system{};
    uname(&system);
    std::printf("machine: %u x %s, %s %s %s, glibc %s, compiler %s\n",
                std::thread::hardware_concurrency(), processor_name().c_str(), system.sysname,
                system.release, system.machine, gnu_get_libc_version(), __VERSION__);
}

neighbours::reading neighbours::reading::take()
{
    std::ifstream stat{"/proc/stat"};
    std::string name;
    double user = 0, nice = 0, kernel = 0, idle = 0, iowait = 0, irq = 0, softirq = 0, steal = 0;
    stat >> name >> user >> nice >> kernel >> idle >> iowait >> irq >> softirq >> steal;
    const double busy = user + nice + kernel + irq + softirq + steal;
    return {static_cast<double>(steady_ns()) / 1e9,
            busy / static_cast<double>(sysconf(_SC_CLK_TCK)),
            own_seconds(RUSAGE_SELF) + own_seconds(RUSAGE_CHILDREN)};
}

double neighbours::seconds_used() const
{
    const reading end = reading::take();
    return std::max(0.0, (end.busy - start_.busy) - (end.own - start_.own));
}

double neighbours::share_used() const
{
    const double there = (reading::take().elapsed - start_.elapsed) *
                         static_cast<double>(std::thread::hardware_concurrency());
    return seconds_used() / there;
}

} // namespace bench
