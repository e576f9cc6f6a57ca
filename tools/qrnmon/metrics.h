// SPDX-License-Identifier: Apache-2.0
//
// The current figures in the text format of metrics collectors.
#ifndef QRNMON_TOOL_METRICS_H
#define QRNMON_TOOL_METRICS_H

#include <string>

#include "sources.h"

namespace tool {

// The whole text. Queues that are silent keep only what is true of them.
std::string metrics_text(const book &of);

} // namespace tool

#endif
