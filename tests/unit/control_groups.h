// A folder that stands for /sys/fs/cgroup.
#pragma once

#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace Tavrin::SplatProgram {

class ControlGroupTest : public testing::Test {
protected:
    support::Scratch scratch;

    // A file of a group, by its path.
    void write(const std::string& name, const std::string& text) const {
        const std::filesystem::path file = scratch / name;
        std::filesystem::create_directories(file.parent_path());
        support::writeFile(file, text);
    }
};

} // namespace Tavrin::SplatProgram
