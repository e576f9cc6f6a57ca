// SPDX-License-Identifier: Apache-2.0
//
// The command line.
#ifndef QRNFEED_SETTINGS_H
#define QRNFEED_SETTINGS_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace feeder {

// Why the program does not begin, in one line. Thrown; ends with exit status 2.
struct refusal {
    std::string why;
};

// The receiver of `topic` is deleted once it was handed `after` messages.
struct deletion_wish {
    std::string topic;
    unsigned after;
};

struct settings {
    std::string file; // empty: standard input, unless `udp` is given
    std::string udp;  // ADDRESS:PORT
    std::vector<std::string> topics;
    std::vector<std::string> patterns;
    std::vector<std::pair<std::string, std::string>> options;
    std::vector<deletion_wish> deletions;
    unsigned dispatchers = 1;
    unsigned work_usec = 0;
    unsigned seconds = 0; // 0: no limit
    bool batch = false;
    bool show_options = false;
    bool show_help = false;
};

settings parse(int argc, char **argv);

std::string help();

} // namespace feeder

#endif
