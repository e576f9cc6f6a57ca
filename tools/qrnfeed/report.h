// SPDX-License-Identifier: Apache-2.0
//
// What is printed on standard output.
#ifndef QRNFEED_REPORT_H
#define QRNFEED_REPORT_H

#include "feed.h"

namespace feeder {

// The options of a queue as a table.
void print_options(const attr_ptr &attr);

// What became of the lines. Whether everything adds up.
bool print_report(const feed &done, const input &from);

} // namespace feeder

#endif
