// SPDX-License-Identifier: Apache-2.0
// Figures by cell and contestant, their medians, the verdicts on them, and the files they end in.
#ifndef BENCH_REPORT_HPP
#define BENCH_REPORT_HPP

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

// The value below or at which the part `p` (0 to 1) of the sorted values lies.
double quantile(std::span<const double> sorted, double p);
double median(std::vector<double> values);

class report {
public:
    // One figure of one round.
    void add(std::string_view cell, std::string_view who, double value);

    bool has(std::string_view cell, std::string_view who) const;
    double median_of(std::string_view cell, std::string_view who) const;

    // Prints a cell in the order of `names`; ratios are to the median of `reference`, if there is one.
    void print(const std::string &cell, const std::string &meaning,
               std::span<const std::string> names, const std::string &reference) const;

    // Prints the medians of several cells as the columns of one table.
    void print_beside(const std::string &meaning, std::span<const std::string> cells,
                      std::span<const std::string> names) const;

    // Prints a verdict and keeps it: `value` is to be `limit` at most.
    void judge(const std::string &what, double value, double limit);
    // Prints all verdicts once more.
    void print_verdicts() const;

    // Writes rounds.csv, medians.csv and verdicts.csv.
    void write(const std::string &directory) const;
    // Writes the medians of some cells to a file, one row a cell, one column a name.
    void write_medians(const std::string &path, std::span<const std::string> cells,
                       std::span<const std::string> names) const;

private:
    struct series {
        std::string cell, who;
        std::vector<double> values;
    };
    struct verdict {
        std::string what;
        double value, limit;
        bool holds() const { return value <= limit; }
    };

    static void print(const verdict &v);
    const series *find(std::string_view cell, std::string_view who) const;
    void write_series(const std::string &directory) const;
    void write_verdicts(const std::string &directory) const;

    std::vector<series> all_;
    std::vector<verdict> verdicts_;
};

} // namespace bench

#endif
