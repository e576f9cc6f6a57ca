// SPDX-License-Identifier: Apache-2.0
// The machine that the figures come from, and whether it was idle otherwise.
#ifndef BENCH_MACHINE_HPP
#define BENCH_MACHINE_HPP

namespace bench {

// Prints processors, kernel, compiler, C library.
void print_machine();

// Watches from its construction how much processor time others use.
class neighbours {
public:
    // Seconds of processor time, of all processors, that went to other processes, to the kernel for
    // them, or to other virtual machines.
    double seconds_used() const;
    // The same as a part of all processor time that there was.
    double share_used() const;

private:
    struct reading {
        double elapsed, busy, own; // seconds
        static reading take();
    };
    reading start_ = reading::take();
};

} // namespace bench

#endif
