// SPDX-License-Identifier: Apache-2.0
#include "report.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

namespace bench {

double quantile(std::span<const double> sorted, double p)
{
    const auto rank = static_cast<std::size_t>(std::ceil(p * static_cast<double>(sorted.size())));
    return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

double median(std::vector<double> values)
{
    std::ranges::sort(values);
    const std::size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

const report::series *report::find(std::string_view cell, std::string_view who) const
{
    const auto at =
        std::ranges::find_if(all_, [&](const series &s) { return s.cell == cell && s.who == who; });
    return at == all_.end() ? nullptr : &*at;
}

void report::add(std::string_view cell, std::string_view who, double value)
{
    const series *known = find(cell, who);
    if (known == nullptr)
        all_.push_back({std::string{cell}, std::string{who}, {value}});
    else
        all_[static_cast<std::size_t>(known - all_.data())].values.push_back(value);
}

bool report::has(std::string_view cell, std::string_view who) const
{
    return find(cell, who) != nullptr;
}

double report::median_of(std::string_view cell, std::string_view who) const
{
    return median(find(cell, who)->values);
}

void report::print(const std::string &cell, const std::string &meaning,
                   std::span<const std::string> names, const std::string &reference) const
{
    std::printf("\n%s: %s\n  %-22s %12s %12s %12s %8s\n", cell.c_str(), meaning.c_str(), "",
                "median", "least", "most", has(cell, reference) ? "ratio" : "");
    for (const std::string &name : names) {
        const series &s = *find(cell, name);
        const auto [least, most] = std::ranges::minmax(s.values);
        std::printf("  %-22s %12.2f %12.2f %12.2f", name.c_str(), median(s.values), least, most);
        if (has(cell, reference))
            std::printf(" %8.2f", median(s.values) / median_of(cell, reference));
        std::printf("\n");
    }
}

void report::print_beside(const std::string &meaning, std::span<const std::string> cells,
                          std::span<const std::string> names) const
{
    std::printf("\n%s\n  %-22s", meaning.c_str(), "");
    for (const std::string &cell : cells)
        std::printf(" %16s", cell.c_str());
    for (const std::string &name : names) {
        std::printf("\n  %-22s", name.c_str());
        for (const std::string &cell : cells)
            std::printf(" %16.2f", median_of(cell, name));
    }
    std::printf("\n");
}

void report::print(const verdict &v)
{
    std::printf("  %-4s %-60s %10.2f  goal: at most %.2f\n", v.holds() ? "PASS" : "FAIL",
                v.what.c_str(), v.value, v.limit);
    std::fflush(stdout);
}

void report::judge(const std::string &what, double value, double limit)
{
    verdicts_.push_back({what, value, limit});
    print(verdicts_.back());
}

void report::print_verdicts() const
{
    const auto held = std::ranges::count_if(verdicts_, &verdict::holds);
    std::printf("\nverdicts: %td of %zu hold\n", held, verdicts_.size());
    for (const verdict &v : verdicts_)
        print(v);
}

void report::write_series(const std::string &directory) const
{
    std::ofstream rounds{directory + "/rounds.csv"}, medians{directory + "/medians.csv"};
    rounds << "cell,contestant,round,value\n";
    medians << "cell,contestant,median,least,most,rounds\n";
    for (const series &s : all_) {
        for (std::size_t i = 0; i < s.values.size(); i++)
            rounds << s.cell << ',' << s.who << ',' << i + 1 << ',' << s.values[i] << '\n';
        const auto [least, most] = std::ranges::minmax(s.values);
        medians << s.cell << ',' << s.who << ',' << median(s.values) << ',' << least << ',' << most
                << ',' << s.values.size() << '\n';
    }
}

void report::write_medians(const std::string &path, std::span<const std::string> cells,
                           std::span<const std::string> names) const
{
    std::ofstream file{path};
    file << "cell";
    for (const std::string &name : names)
        file << ',' << name;
    for (const std::string &cell : cells) {
        file << '\n' << cell;
        for (const std::string &name : names)
            file << ',' << median_of(cell, name);
    }
    file << '\n';
}

void report::write_verdicts(const std::string &directory) const
{
    std::ofstream verdicts{directory + "/verdicts.csv"};
    verdicts << "what,value,at most,verdict\n";
    for (const verdict &v : verdicts_)
        verdicts << '"' << v.what << "\"," << v.value << ',' << v.limit << ','
                 << (v.holds() ? "pass" : "fail") << '\n';
}

void report::write(const std::string &directory) const
{
    write_series(directory);
    write_verdicts(directory);
}

} // namespace bench
