// SPDX-License-Identifier: Apache-2.0
#include "terminal.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tool {

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        ssize_t done = ::write(fd, text.data(), text.size());
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(done));
    }
    return true;
}

screen_size size_of_terminal()
{
    screen_size size;
    winsize reported{};
    if (const char *set = std::getenv("COLUMNS"); set != nullptr && std::atoi(set) > 0)
        size.width = static_cast<std::size_t>(std::atoi(set));
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &reported) == 0) {
        size.width = reported.ws_col > 0 ? reported.ws_col : size.width;
        size.height = reported.ws_row > 0 ? reported.ws_row : size.height;
    }
    return size;
}

bool can_draw()
{
    const char *term = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && term != nullptr && *term != '\0' &&
           std::strcmp(term, "dumb") != 0;
}

bool can_colour()
{
    return can_draw() && std::getenv("NO_COLOR") == nullptr;
}

void live_screen::enter()
{
    has_keys_ = tcgetattr(STDIN_FILENO, &before_) == 0;
    if (has_keys_) {
        termios keys = before_;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &keys);
    }
    // The other screen, no cursor, no wrapping.
    write_all(STDOUT_FILENO, "\x1b[?1049h\x1b[?25l\x1b[?7l");
}

void live_screen::leave()
{
    write_all(STDOUT_FILENO, "\x1b[?7h\x1b[?25h\x1b[?1049l");
    if (has_keys_)
        tcsetattr(STDIN_FILENO, TCSANOW, &before_);
}

bool live_screen::draw(const std::vector<screen_line> &lines, bool colour)
{
    std::string out = "\x1b[H";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        bool styled = colour && *lines[i].style != '\0';
        // Cleared first: after a full line it would be the last character that goes.
        out += i == 0 ? "\x1b[K" : "\r\n\x1b[K";
        out += styled ? lines[i].style + lines[i].text + "\x1b[0m" : lines[i].text;
    }
    return write_all(STDOUT_FILENO, out + "\x1b[J");
}

std::vector<screen_line> compose(const book &of, const view &how, const std::string &time,
                                 const std::vector<std::string> &happened, steady::time_point now)
{
    std::vector<screen_line> lines = {{heading_line(of, time, how.width, now), style::strong}};
    std::size_t below = how.height >= 8 ? std::min<std::size_t>(happened.size(), 3) : 0;
    std::size_t keys = how.height >= 6 ? 1 : 0;
    std::size_t room = how.height > 1 + below + keys ? how.height - 1 - below - keys : 1;
    for (screen_line &line : table_lines(of, how, room, now))
        lines.push_back(std::move(line));
    lines.resize(1 + room);
    for (std::size_t i = happened.size() - below; i < happened.size(); ++i)
        lines.push_back({fit(happened[i], how.width), style::plain});
    if (keys != 0)
        lines.push_back({fit("q quit  r reverse  sort by: n name p app d depth i in o out a age "
                             "s service w warn l lost h heard",
                             how.width),
                         style::silent});
    lines.resize(std::min(lines.size(), std::max<std::size_t>(how.height, 1)));
    return lines;
}

} // namespace tool
