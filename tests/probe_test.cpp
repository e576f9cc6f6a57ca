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

// The provider, name and number of arguments of each note of this program.
std::vector<std::string> notes()
{
    std::vector<std::string> out;
    std::string provider, name;
    FILE *readelf = popen("LC_ALL=C readelf -n /proc/$PPID/exe", "r");
    for (char line[512]; std::fgets(line, sizeof line, readelf) != nullptr;) {
        std::string text = line;
        text.pop_back();
        size_t colon = text.find(": ");
        if (text.starts_with("    Provider"))
            provider = text.substr(colon + 2);
        if (text.starts_with("    Name"))
            name = text.substr(colon + 2);
        if (text.starts_with("    Arguments"))
            out.push_back(provider + ":" + name + " " +
                          std::to_string(std::ranges::count(text, '@')));
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
    const std::vector<std::string> expected = {"qrn:cancelled 2", "qrn:delivered 4",
                                               "qrn:enqueue 3", "qrn:purged 3", "qrn:take 3"};
    EXPECT_EQ(notes(), expected);
#else
    GTEST_SKIP() << "no <sys/sdt.h>";
#endif
}

} // namespace
