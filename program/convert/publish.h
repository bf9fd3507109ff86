// The folder that a dataset is written to, and how it replaces an earlier dataset.
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

// Restores an earlier dataset that a dead run had renamed but not yet replaced. Removes what dead runs left
// beside the output folder. The files of live runs, and files that no conversion writes, stay.
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

    // Starts to flush the files and the folder to the disk, in a thread of its own. The files must be
    // complete.
    void beginFlush();

    // Waits until the files and the folder are on the disk. `progress` gets the share that is done, 0 to 1,
    // and may throw. Throws a Failure: DoesNotFit when the disk is full, otherwise ConversionFailed.
    void flush(const std::function<void(double)>& progress);

    // Puts the folder in place of the output folder, in one step if the file system can, and removes what was
    // there. Checks the place again first. Throws a Failure (ConversionFailed) when a dataset may no longer
    // be put there or when renaming fails; the place is then unchanged. Returns a warning when the replaced
    // folder could not be removed. After an interrupt it does not wait long for the disk to confirm the new
    // names, and throws a Failure (Interrupted): then the new dataset stands, and another process removes
    // what was there once the names are on the disk.
    std::optional<std::string> publish(const std::vector<std::string>& inputs, bool force);

private:
    void createParents();
    void checkAgain(const std::vector<std::string>& inputs, bool force);
    void replace();
    void flushNames();
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
