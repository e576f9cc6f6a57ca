// SPDX-License-Identifier: Apache-2.0
//
// A picture of the history of queues, drawn by gnuplot.
#ifndef QRNMON_TOOL_PICTURE_H
#define QRNMON_TOOL_PICTURE_H

#include <string>

#include "sources.h"

namespace tool {

// Whether gnuplot can be run.
bool can_plot();

// Draws the picture aside and renames it into place; what went wrong, or nothing.
std::string draw_picture(const book &of, const std::string &path);

} // namespace tool

#endif
