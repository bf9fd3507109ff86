// The library's conversion of a small file, as the fuzz targets run it.
#pragma once

#include "fuzz/target.h"

#include <cstdint>
#include <filesystem>
#include <string>

namespace fuzz {

// A scene is divided into cells only above 1,000,000 splats. The fuzz targets group a small one as if it had
// one of these counts. 0: its own count.
inline constexpr std::int64_t statedCounts[] = {0, 1'000'001, 8'000'001, 100'000'001};

struct Job {
    std::filesystem::path input = scratch() / "scene.ply";
    std::filesystem::path output = scratch() / "out";
    std::int64_t countAs = 0;
};

// The steps of plyConvert, except that the grid and the cells follow from job.countAs.
std::int32_t convertAs(const Job& job);

// Every file of a dataset with its name in front, without the digits of the guid.
std::string filesOf(const std::filesystem::path& folder);

} // namespace fuzz
