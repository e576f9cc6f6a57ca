// SPDX-License-Identifier: Apache-2.0
//
// The terminal: its size, its modes, and a screen drawn at one go.
#ifndef QRNMON_TOOL_TERMINAL_H
#define QRNMON_TOOL_TERMINAL_H

#include <string>
#include <string_view>
#include <termios.h>
#include <vector>

#include "table.h"

namespace tool {

// Writes all of a text, or fails with errno.
bool write_all(int fd, std::string_view text);

struct screen_size {
    std::size_t width = 80;
    std::size_t height = 24;
};

// What the terminal says, else the environment, else 80 by 24.
screen_size size_of_terminal();

// Whether there is something that a screen can be drawn on.
bool can_draw();

// Whether it may be drawn in colours.
bool can_colour();

// Takes over the screen and the keys, and gives them back at the end.
class live_screen {
public:
    live_screen() { enter(); }
    ~live_screen() { leave(); }
    live_screen(const live_screen &) = delete;
    live_screen &operator=(const live_screen &) = delete;

    void enter();
    void leave();
    bool has_keys() const { return has_keys_; }
    // False when the terminal is gone.
    bool draw(const std::vector<screen_line> &lines, bool colour);

private:
    termios before_{};
    bool has_keys_ = false;
};

// The whole screen: heading, table, what happened last, keys. What there is no room for is left out
// from the bottom.
std::vector<screen_line> compose(const book &of, const view &how, const std::string &time,
                                 const std::vector<std::string> &happened, steady::time_point now);

} // namespace tool

#endif
