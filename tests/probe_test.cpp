// SPDX-License-Identifier: Apache-2.0
//
// The static probes: their notes in a binary that has them. Needs <sys/sdt.h> and readelf.
#if __has_include(<sys/sdt.h>)
#define QRN_PROBES 1
#endif
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qrnprobe.h"

namespace {

// Each note of this program: provider, name and number of arguments.
std::vector<std::string> notes()
{
    std::vector<std::string> out;
    std::string note;
    FILE *readelf = popen("LC_ALL=C readelf -n /proc/$PPID/exe", "r");
    for (char line[512]; std::fgets(line, sizeof line, readelf) != nullptr;) {
        char word[64];
        if (std::sscanf(line, " Provider: %63s", word) == 1)
            note = word;
        else if (std::sscanf(line, " Name: %63s", word) == 1)
            note += std::string(":") + word;
        else if (std::sscanf(line, " %63s", word) == 1 && word == std::string("Arguments:"))
            out.push_back(note + " " + std::to_string(std::ranges::count(std::string(line), '@')));
    }
    EXPECT_EQ(pclose(readelf), 0);
    std::ranges::sort(out);
    return out;
}

TEST(Probes, EachLeavesANote)
{
#ifdef QRN_PROBES
    int queue = 0, event = 0;
    qrnev::probe::enqueue(&queue, &event, 1);
    qrnev::probe::take(&queue, &event, 1);
    qrnev::probe::delivered(&queue, &event, 1, 0);
    qrnev::probe::purged(&queue, &event, 1);
    qrnev::probe::cancelled(&event, 0);
    EXPECT_EQ(notes(), (std::vector<std::string>{"qrn:cancelled 2", "qrn:delivered 4",
                                                 "qrn:enqueue 3", "qrn:purged 3", "qrn:take 3"}));
#else
    GTEST_SKIP() << "no <sys/sdt.h>";
#endif
}

} // namespace
