// What the tables of measurements share.
#pragma once

#include "bench/measure.h"

#include <functional>
#include <string>
#include <vector>

namespace bench {

double medianOf(const std::vector<measure::Run>& runs,
                const std::function<double(const measure::Run&)>& value);
double wallOf(const measure::Run& run);                    // seconds
double cpuOf(const measure::Run& run);                     // seconds
double peakOf(const measure::Run& run);                    // bytes
std::string spread(const std::vector<measure::Run>& runs); // of wall times: "0.123-0.456"

// The path of a program that was built beside this one.
std::string sibling(const std::string& name);

// Prints a Markdown table whose columns are padded to the same width. The first row is the header.
void printTable(const std::vector<std::vector<std::string>>& rows);

} // namespace bench
