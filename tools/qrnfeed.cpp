// SPDX-License-Identifier: Apache-2.0
//
// Feeds lines "topic TAB payload" through an event queue and prints what became of them.
#include <cstdio>

#include "qrnfeed/report.h"

namespace {

using namespace feeder;

int feed_lines(const settings &wanted)
{
    input from(wanted);
    bool good;
    {
        feed lines(wanted, from);
        lines.run();
        good = print_report(lines, from);
    }
    if (!from.trouble().empty())
        std::fprintf(stderr, "qrnfeed: %s\n", from.trouble().c_str());
    if (qrn_msg_live() != 0)
        std::fprintf(stderr, "qrnfeed: %ld messages were not released\n", qrn_msg_live());
    return good && from.trouble().empty() && qrn_msg_live() == 0 ? 0 : 1;
}

int run(int argc, char **argv)
{
    const settings wanted = parse(argc, argv);
    if (wanted.show_help) {
        std::fputs(help().c_str(), stdout);
        return 0;
    }
    if (wanted.show_options) {
        print_options(make_attr("feed", wanted));
        return 0;
    }
    return feed_lines(wanted);
}

} // namespace

int main(int argc, char **argv)
try {
    const int status = run(argc, argv);
    if (std::fflush(stdout) == 0)
        return status;
    std::perror("qrnfeed: standard output");
    return 1;
} catch (const refusal &refused) {
    std::fprintf(stderr, "qrnfeed: %s\n", refused.why.c_str());
    return 2;
}
