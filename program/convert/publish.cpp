#include "program/convert/publish.h"

#include "program/system/exit_status.h"
#include "program/system/flush_folders.h"
#include "program/system/interrupt.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view partialMark = ".partial-";
constexpr std::string_view replacedMark = ".replaced-";
constexpr std::string_view lockMark = ".lock";

fs::path beside(const fs::path& folder, std::string_view mark, std::uint64_t process,
                std::string_view end = "") {
    return folder.parent_path() /
           pathFromText(fmt::format("{}{}{}{}", textFromPath(folder.filename()), mark, process, end));
}

// The process id in a name that a run made beside this folder; nothing for other names.
std::optional<std::uint64_t> processOf(const fs::path& folder, const std::string& name) {
    std::string_view rest = name;
    const std::string own = textFromPath(folder.filename());
    if (!rest.starts_with(own)) {
        return std::nullopt;
    }
    rest.remove_prefix(own.size());
    if (rest.starts_with(partialMark)) {
        rest.remove_prefix(partialMark.size());
        if (rest.ends_with(lockMark)) {
            rest.remove_suffix(lockMark.size());
        }
    } else if (rest.starts_with(replacedMark)) {
        rest.remove_prefix(replacedMark.size());
    } else {
        return std::nullopt;
    }
    std::uint64_t process = 0;
    const auto [stop, error] = std::from_chars(rest.data(), rest.data() + rest.size(), process);
    const bool isNumber = error == std::errc() && stop == rest.data() + rest.size();
    return isNumber ? std::optional(process) : std::nullopt;
}

void cleanUpDeadRun(const fs::path& folder, std::uint64_t process) {
    const fs::path lockPath = beside(folder, partialMark, process, lockMark);
    std::error_code error;
    std::unique_ptr<LockFile> lock;
    if (fs::exists(fs::symlink_status(lockPath, error))) {
        lock = LockFile::take(lockPath, error);
        if (!lock) {
            return; // a run is alive, or the file belongs to another user
        }
    } else if (processMayExist(process)) {
        return; // the lock file is gone; the process may still be that run
    }
    const fs::path replaced = beside(folder, replacedMark, process);
    if (fs::exists(fs::symlink_status(replaced, error)) && !fs::exists(fs::symlink_status(folder, error))) {
        renameFolder(replaced, folder);
    }
    removeDataset(replaced);
    removeDataset(partialPath(folder, process));
}

} // namespace

fs::path partialPath(const fs::path& folder, std::uint64_t process) {
    return beside(folder, partialMark, process);
}

void cleanUpDeadRuns(const fs::path& folder) {
    std::set<std::uint64_t> processes;
    std::error_code error;
    for (fs::directory_iterator entry(folder.parent_path(), error), end; !error && entry != end;
         entry.increment(error)) {
        if (const auto process = processOf(folder, textFromPath(entry->path().filename()))) {
            processes.insert(*process);
        }
    }
    for (const std::uint64_t process : processes) {
        cleanUpDeadRun(folder, process);
    }
}

PartialFolder::PartialFolder(OutputPlace place)
    : place_(std::move(place)), path_(partialPath(place_.folder, ownProcessId())),
      replaced_(beside(place_.folder, replacedMark, ownProcessId())) {
    createParents();
    const fs::path lockPath = beside(place_.folder, partialMark, ownProcessId(), lockMark);
    std::error_code error;
    lock_ = LockFile::take(lockPath, error);
    if (!lock_) {
        removeCreatedParents();
        throw Failure(ExitStatus::outputRefused,
                      error
                          ? fmt::format("{}: cannot be created: {}: choose another place",
                                        textFromPath(lockPath), error.message())
                          : fmt::format("{}: another run holds it, perhaps on another machine: wait for its "
                                        "end, or remove the file if there is none",
                                        textFromPath(lockPath)));
    }
    for (const fs::path& path : {path_, replaced_}) {
        if (fs::exists(fs::symlink_status(path, error))) {
            lock_.reset();
            throw Failure(ExitStatus::outputRefused,
                          fmt::format("{}: is in the way: move it elsewhere", textFromPath(path)));
        }
    }
}

PartialFolder::~PartialFolder() {
    flush_.reset();
    if (!isPublished_) {
        removeDataset(path_);
        lock_.reset();
        removeCreatedParents();
    }
}

void PartialFolder::createParents() {
    std::vector<fs::path> missing;
    for (fs::path parent = place_.folder.parent_path(); !fs::exists(parent); parent = parent.parent_path()) {
        missing.insert(missing.begin(), parent);
    }
    for (const fs::path& parent : missing) {
        std::error_code error;
        if (fs::create_directory(parent, error)) {
            createdParents_.push_back(parent);
        }
        if (error) {
            removeCreatedParents();
            throw Failure(ExitStatus::outputRefused,
                          fmt::format("{}: cannot be created: {}: choose another place", textFromPath(parent),
                                      error.message()));
        }
    }
}

void PartialFolder::removeCreatedParents() noexcept {
    for (; !createdParents_.empty(); createdParents_.pop_back()) {
        std::error_code error;
        fs::remove(createdParents_.back(), error); // fails when something else is in it by now, as it should
    }
}

void PartialFolder::create() const {
    std::error_code error;
    if (!fs::create_directory(path_, error)) {
        throw Failure(ExitStatus::outputRefused,
                      fmt::format("{}: cannot be created: {}: choose another place", textFromPath(path_),
                                  error ? error.message() : "something is in the way"));
    }
}

void PartialFolder::beginFlush() {
    std::vector<fs::path> paths;
    for (const fs::directory_entry& entry : fs::directory_iterator(path_)) {
        paths.push_back(entry.path());
    }
    std::ranges::sort(paths);
    paths.push_back(path_); // last: its entries must only name files that are already on the disk
    flush_ = std::make_unique<DiskFlush>(std::move(paths));
}

void PartialFolder::flush(const std::function<void(double)>& progress) {
    if (!flush_) {
        beginFlush();
    }
    constexpr std::chrono::milliseconds patience(20);
    while (!flush_->waitFor(patience)) {
        throwIfInterrupted();
        progress(flush_->share());
    }
    throwIfInterrupted();
    const FlushEnd end = flush_->end();
    flush_.reset();
    if (end.error) {
        throw Failure(tellsOfFullDisk(end.error) ? ExitStatus::doesNotFit : ExitStatus::conversionFailed,
                      fmt::format("{}: cannot be written to the disk: {}: check the disk and its free space",
                                  textFromPath(end.path), end.error.message()));
    }
}

std::optional<std::string> PartialFolder::publish(const std::vector<std::string>& inputs, bool force) {
    checkAgain(inputs, force);
    throwIfInterrupted();
    replace();
    isPublished_ = true;
    flushNames();
    std::error_code error;
    for (const fs::path& old : {path_, replaced_}) {
        if (place_.content == FolderContent::other) {
            fs::remove_all(old, error); // --force allows that
        } else {
            error = removeDataset(old);
        }
        if (error) {
            return fmt::format("{}: the earlier content of {} could not be removed: {}", textFromPath(old),
                               place_.name, error.message());
        }
    }
    return std::nullopt;
}

void PartialFolder::flushNames() {
    std::vector<fs::path> folders = {place_.folder.parent_path()};
    // Without its own entry on the disk, a new parent folder could not be found again.
    for (const fs::path& parent : createdParents_) {
        folders.push_back(parent.parent_path());
    }
    // What was replaced must stay until the new names are on the disk: they may be lost until then. The other
    // process removes no tree of other files, which --force allows; so this one waits for it.
    const bool mayLeave = place_.content != FolderContent::other;
    AfterFlush after;
    after.lock = lock_->handle();
    if (mayLeave) {
        for (const fs::path& old : {path_, replaced_}) {
            const std::vector<fs::path> files = filesOfDataset(old);
            after.removals.insert(after.removals.end(), files.begin(), files.end());
            after.removals.push_back(old);
        }
        after.removals.push_back(lock_->path());
    }
    if (!flushFolders(folders, after, [&] { return mayLeave && interrupted(); })) {
        lock_->leave();
        throw Failure(
            ExitStatus::interrupted,
            fmt::format("interrupted: {} holds the new dataset, but the disk has not confirmed it yet",
                        place_.name));
    }
}

// Changes of the place since the conversion began make the run fail (ConversionFailed). OutputRefused would
// mean that nothing was done.
void PartialFolder::checkAgain(const std::vector<std::string>& inputs, bool force) {
    try {
        OutputPlace now = resolveOutput(textFromPath(place_.folder));
        if (now.folder != place_.folder) {
            throw Failure(ExitStatus::conversionFailed,
                          fmt::format("{}: became a link during the conversion: remove it", place_.name));
        }
        now.name = place_.name;
        for (const std::string& input : inputs) {
            checkOutput(now, input, force);
        }
        place_ = now;
    } catch (const Failure& failure) {
        throw Failure(ExitStatus::conversionFailed, failure.what());
    }
}

void PartialFolder::replace() {
    const auto fail = [&](const std::error_code& error) {
        throw Failure(
            ExitStatus::conversionFailed,
            fmt::format("{}: cannot be replaced: {}: close what uses it", place_.name, error.message()));
    };
    if (!place_.exists) {
        if (const std::error_code error = renameFolder(path_, place_.folder)) {
            fail(error);
        }
        return;
    }
    const std::error_code error = exchangeNames(path_, place_.folder);
    if (error == std::errc::function_not_supported) {
        if (const std::error_code aside = renameFolder(place_.folder, replaced_)) {
            fail(aside);
        }
        if (const std::error_code into = renameFolder(path_, place_.folder)) {
            renameFolder(replaced_, place_.folder);
            fail(into);
        }
    } else if (error) {
        fail(error);
    }
}

} // namespace Tavrin::SplatProgram
