#include "program/convert/publish.h"

#include "program/system/exit_status.h"
#include "program/system/interrupt.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
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

// The process id of a name that one of the runs made for this folder.
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
            return; // a live run, or not ours to touch
        }
    } else if (processMayExist(process)) {
        return; // someone took the lock file away; the process may be that run
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
    : m_place(std::move(place)), m_path(partialPath(m_place.folder, ownProcessId())),
      m_replaced(beside(m_place.folder, replacedMark, ownProcessId())) {
    createParents();
    const fs::path lockPath = beside(m_place.folder, partialMark, ownProcessId(), lockMark);
    std::error_code error;
    m_lock = LockFile::take(lockPath, error);
    if (!m_lock) {
        removeCreatedParents();
        throw Failure(ExitStatus::OutputRefused,
                      fmt::format("{}: cannot be created: {}: choose another place", textFromPath(lockPath),
                                  error ? error.message() : "another run holds it"));
    }
    // The converter deletes what stands in its way.
    for (const fs::path& path : {m_path, m_replaced}) {
        if (fs::exists(fs::symlink_status(path, error))) {
            m_lock.reset();
            throw Failure(ExitStatus::OutputRefused,
                          fmt::format("{}: stands in the way: move it elsewhere", textFromPath(path)));
        }
    }
}

PartialFolder::~PartialFolder() {
    if (!m_isPublished) {
        removeDataset(m_path);
        m_lock.reset();
        removeCreatedParents();
    }
}

void PartialFolder::createParents() {
    std::vector<fs::path> missing;
    for (fs::path parent = m_place.folder.parent_path(); !fs::exists(parent); parent = parent.parent_path()) {
        missing.insert(missing.begin(), parent);
    }
    for (const fs::path& parent : missing) {
        std::error_code error;
        if (fs::create_directory(parent, error)) {
            m_createdParents.push_back(parent);
        }
        if (error) {
            removeCreatedParents();
            throw Failure(ExitStatus::OutputRefused,
                          fmt::format("{}: cannot be created: {}: choose another place", textFromPath(parent),
                                      error.message()));
        }
    }
}

void PartialFolder::removeCreatedParents() noexcept {
    for (; !m_createdParents.empty(); m_createdParents.pop_back()) {
        std::error_code error;
        fs::remove(m_createdParents.back(), error); // fails, as it should, when something stands in it by now
    }
}

void PartialFolder::flush(const std::function<void(double)>& progress) const {
    std::vector<fs::path> paths;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_path)) {
        paths.push_back(entry.path());
    }
    std::ranges::sort(paths);
    paths.push_back(m_path); // last: its entries lead to what is on the disk by then
    for (std::size_t i = 0; i < paths.size(); ++i) {
        throwIfInterrupted();
        progress(static_cast<double>(i) / static_cast<double>(paths.size()));
        if (const std::error_code error = flushToDisk(paths[i])) {
            throw Failure(
                ExitStatus::ConversionFailed,
                fmt::format("{}: cannot be written to the disk: {}: check the disk and its free space",
                            textFromPath(paths[i]), error.message()));
        }
    }
}

std::optional<std::string> PartialFolder::publish(const std::string& input, bool force) {
    OutputPlace now = resolveOutput(textFromPath(m_place.folder));
    if (now.folder != m_place.folder) {
        throw Failure(ExitStatus::OutputRefused,
                      fmt::format("{}: became a link during the conversion: remove it", m_place.name));
    }
    now.name = m_place.name;
    checkOutput(now, input, force);
    throwIfInterrupted();
    m_place = now;
    replace();
    m_isPublished = true;
    flushToDisk(m_place.folder.parent_path());
    for (const fs::path& parent :
         m_createdParents) { // nothing leads to a folder whose name is not on the disk
        flushToDisk(parent.parent_path());
    }
    std::error_code error;
    for (const fs::path& old : {m_path, m_replaced}) {
        if (m_place.content == FolderContent::Other) {
            fs::remove_all(old, error); // asked for with --force
        } else {
            error = removeDataset(old);
        }
        if (error) {
            return fmt::format("{}: what stood at {} before could not be removed: {}", textFromPath(old),
                               m_place.name, error.message());
        }
    }
    return std::nullopt;
}

void PartialFolder::replace() {
    const auto fail = [&](const std::error_code& error) {
        throw Failure(ExitStatus::OutputRefused, fmt::format("{}: cannot be replaced: {}: see who uses it",
                                                             m_place.name, error.message()));
    };
    if (!m_place.exists) {
        if (const std::error_code error = renameFolder(m_path, m_place.folder)) {
            fail(error);
        }
        return;
    }
    const std::error_code error = exchangeNames(m_path, m_place.folder);
    if (error == std::errc::function_not_supported) {
        if (const std::error_code aside = renameFolder(m_place.folder, m_replaced)) {
            fail(aside);
        }
        if (const std::error_code into = renameFolder(m_path, m_place.folder)) {
            renameFolder(m_replaced, m_place.folder);
            fail(into);
        }
    } else if (error) {
        fail(error);
    }
}

} // namespace Tavrin::SplatProgram
