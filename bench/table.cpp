#include "bench/table.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <iostream>

namespace bench {

using measure::Run;

double medianOf(const std::vector<Run>& runs, const std::function<double(const Run&)>& value) {
    std::vector<double> values;
    values.reserve(runs.size());
    for (const Run& run : runs) {
        values.push_back(value(run));
    }
    return measure::median(values);
}

double wallOf(const Run& run) {
    return run.wall;
}

double cpuOf(const Run& run) {
    return run.cpu;
}

double peakOf(const Run& run) {
    return run.peak;
}

std::string spread(const std::vector<Run>& runs) {
    const auto [low, high] = std::minmax_element(runs.begin(), runs.end(),
                                                 [](const Run& a, const Run& b) { return a.wall < b.wall; });
    return fmt::format("{:.3f}-{:.3f}", low->wall, high->wall);
}

std::string sibling(const std::string& name) {
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
}

void printTable(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const std::vector<std::string>& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    for (std::size_t k = 0; k < rows.size(); ++k) {
        std::string line = "|";
        std::string rule = "|";
        for (std::size_t column = 0; column < widths.size(); ++column) {
            const std::string& text = rows[k][column];
            line += column == 0 ? fmt::format(" {:<{}} |", text, widths[column])
                                : fmt::format(" {:>{}} |", text, widths[column]);
            rule += fmt::format("{:-<{}}{}|", "", widths[column] + 1, column == 0 ? "-" : ":");
        }
        std::cout << line << "\n";
        if (k == 0) {
            std::cout << rule << "\n";
        }
    }
    std::cout << "\n";
}

} // namespace bench
