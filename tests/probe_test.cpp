// SPDX-License-Identifier: Apache-2.0
//
// The static probes: their notes in a binary that has them. Needs <sys/sdt.h> and readelf.
#if __has_include(<sys/sdt.h>)
#define QRN_PROBES 1
#endif
#include <cstdio>
#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "qrnprobe.h"

namespace {

TEST(Probes, EachLeavesANote)
{
#ifndef QRN_PROBES
    GTEST_SKIP() << "no <sys/sdt.h>";
#endif
    int queue = 0, event = 0;
    qrnev::probe::enqueue(&queue, &event, 1);
    qrnev::probe::take(&queue, &event, 1);
    qrnev::probe::delivered(&queue, &event, 1, 0);
    qrnev::probe::purged(&queue, &event, 1);
    qrnev::probe::cancelled(&event, 0);
    std::string notes;
    FILE *readelf = popen("LC_ALL=C readelf -n /proc/$PPID/exe", "r");
    for (int c; (c = std::fgetc(readelf)) != EOF;)
        notes += static_cast<char>(c);
    EXPECT_EQ(pclose(readelf), 0);
    std::set<std::string> found; // with as many '@' as arguments
    const std::regex note("Provider: qrn\\s+Name: (\\w+)\\n.*\\n *Arguments:(.*)"), other("[^@]");
    for (std::sregex_iterator i(notes.begin(), notes.end(), note), end; i != end; ++i)
        found.insert(i->str(1) + std::regex_replace(i->str(2), other, ""));
    EXPECT_EQ(found, (std::set<std::string>{"cancelled@@", "delivered@@@@", "enqueue@@@",
                                            "purged@@@", "take@@@"}));
}

} // namespace
