// The library's conversion of a small file, as the fuzz targets run it.
#pragma once

#include "fuzz/target.h"

#include <cstdint>
#include <filesystem>
#include <string>

namespace fuzz {

// A scene is cut into cells only above 1,000,000 splats. Here a small one is regrouped as if it had so many.
// 0: as it is.
inline constexpr std::int64_t statedCounts[] = {0, 1'000'001, 8'000'001, 100'000'001};

struct Job {
    std::filesystem::path input = scratch() / "scene.ply";
    std::filesystem::path output = scratch() / "out";
    std::int64_t countAs = 0;
};

// The steps of plyConvert, but for the count from which the grid and the cells follow.
std::int32_t convertAs(const Job& job);

// Every file of a dataset after its name, the guid's digits left out.
std::string filesOf(const std::filesystem::path& folder);

} // namespace fuzz
