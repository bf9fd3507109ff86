// Where a dataset grows, and how it takes the place of an earlier one.
#pragma once

#include "program/convert/output_check.h"
#include "program/system/disk_flush.h"
#include "program/system/platform.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// Names beside an output folder OUT, all ending in the process id of the run that made them:
//   OUT.partial-PID       the dataset being written; after the exchange of names, the one that was replaced
//   OUT.partial-PID.lock  locked while that run lives, so that a later one knows what is left over
//   OUT.replaced-PID      the earlier dataset, for the moment between two renames on file systems without an
//                         exchange of names

// OUT.partial-PID of an output folder and a process id.
std::filesystem::path partialPath(const std::filesystem::path& folder, std::uint64_t process);

// Puts back an earlier dataset that a dead run had renamed but not yet replaced, and removes what dead runs
// left beside the output folder. What live runs write, and files that no conversion writes, stay.
void cleanUpDeadRuns(const std::filesystem::path& folder);

// The folder that a conversion writes to, beside the output folder and on the same file system. Unless it is
// published, it is removed with this object, and so are missing parents that were created for it.
class PartialFolder {
public:
    // Creates missing parents and takes the lock. Throws a Failure (OutputRefused) when that fails.
    explicit PartialFolder(OutputPlace place);
    PartialFolder(const PartialFolder&) = delete;
    PartialFolder& operator=(const PartialFolder&) = delete;
    ~PartialFolder();

    const std::filesystem::path& path() const { return path_; }

    // Creates the folder, empty. Throws a Failure (OutputRefused).
    void create() const;

    // Begins to bring files and folder to the disk itself, while the caller goes on. Their content must be
    // complete.
    void beginFlush();

    // Returns when files and folder are on the disk. `progress` gets the share that is done, 0 to 1, and may
    // throw. Throws a Failure: DoesNotFit where the disk is full, else ConversionFailed.
    void flush(const std::function<void(double)>& progress);

    // Puts the folder in the place of the output folder, in one step where the file system has it, and
    // removes what stood there. Checks once more what stands there now, and throws a Failure
    // (ConversionFailed) when a dataset may not take the place any more or when renaming fails; the place is
    // then as it was. Returns what
    // remains to be said: a replaced folder that could not be removed.
    std::optional<std::string> publish(const std::vector<std::string>& inputs, bool force);

private:
    void createParents();
    void checkAgain(const std::vector<std::string>& inputs, bool force);
    void replace();
    void removeCreatedParents() noexcept;

    OutputPlace place_;
    std::vector<std::filesystem::path> createdParents_; // outermost first
    std::filesystem::path path_;
    std::filesystem::path replaced_;
    std::unique_ptr<LockFile> lock_;
    std::unique_ptr<DiskFlush> flush_;
    bool isPublished_ = false;
};

} // namespace Tavrin::SplatProgram
