// A server in a thread of its own, and datasets to serve.
#pragma once

#include "program/serve/content.h"
#include "program/serve/server.h"
#include "tests/serve/raw_client.h"
#include "tests/support/dataset_writer.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Serving {

namespace Program = Tavrin::SplatProgram;

inline Program::Content contentOf(const std::vector<std::string>& folders) {
    std::vector<Program::ServedDataset> datasets;
    for (const std::string& folder : folders) {
        datasets.push_back(Program::ServedDataset::open(folder));
    }
    return Program::Content::ofDatasets(std::move(datasets));
}

class Running {
public:
    explicit Running(const std::vector<std::string>& folders, const Program::ServerLimits& limits = {})
        : content_(contentOf(folders)), server_(content_, 0, limits),
          thread_([this] { server_.run([this] { return shouldEnd_.load(); }); }) {}
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() { end(); }

    std::uint16_t port() const { return server_.port(); }

    // One request on a connection of its own.
    RawClient::Answer ask(const std::string& method, const std::string& target,
                          const std::string& fields = {}) const {
        return RawClient::Connection(port()).ask(method, target, fields);
    }

    // Ends the server's thread. The server keeps its sockets open.
    void end() {
        shouldEnd_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    std::atomic<bool> shouldEnd_ = false;
    Program::Content content_;
    Program::Server server_;
    std::thread thread_;
};

// Five splats in one cell.
inline std::string smallDataset(const std::filesystem::path& folder) {
    DatasetWriter::writeFiles(folder, DatasetWriter::oneCellFiles(DatasetWriter::smallScene()));
    return folder.string();
}

// More than the system buffers between a server and a client that does not read: 32 MB of data.bin, all
// zeros.
inline constexpr std::uint64_t manySplats = 1'000'000;
inline std::string largeDataset(const std::filesystem::path& folder) {
    DatasetWriter::MetaFields fields;
    fields.cellLengthX = fields.cellLengthY = 30;
    DatasetWriter::Files files = DatasetWriter::oneCellFiles({}, fields);
    fields.totalSplats = manySplats;
    files.meta = DatasetWriter::metaText(fields);
    files.index = DatasetWriter::indexEntry(0, {{manySplats, 0}});
    DatasetWriter::writeFiles(folder, files);
    std::filesystem::resize_file(folder / "data.bin", manySplats * 32);
    std::filesystem::resize_file(folder / "shcoef.bin", manySplats * 64);
    return folder.string();
}

} // namespace Serving
