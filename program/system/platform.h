// What the program needs of the system beyond the standard library. Each function has one definition a
// system, in platform_*_SYSTEM.cpp.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace Tavrin::SplatProgram {

// Command-line words, messages and JSON are UTF-8 on every system.
std::filesystem::path pathFromText(std::string_view text);
std::string textFromPath(const std::filesystem::path& path);

// The path in the bytes that the converter takes; nothing when they cannot hold it.
std::optional<std::string> converterPath(const std::filesystem::path& path);

// The words of the command line, without the program's own name. The arguments are those of main, which some
// systems give in another form.
std::vector<std::string> commandLineWords(int argc, char** argv);

// The absolute path with the links followed in what exists of it.
std::filesystem::path resolvedPath(const std::filesystem::path& path, std::error_code& error);

// Which file or folder a path leads to, links followed: two paths with equal identities are one and the same,
// whatever their spelling, and through whichever mount they go.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t number = 0;
    bool operator==(const FileIdentity&) const = default;
};

// Nothing when the path leads nowhere.
std::optional<FileIdentity> identityOf(const std::filesystem::path& path);

// A file system (or a bind of a folder) is mounted exactly there, so the folder cannot be renamed. On Windows
// also a junction or a link to a folder.
bool isMountPoint(const std::filesystem::path& folder);

// No error when this process may create and rename entries of the folder.
std::error_code checkWritable(const std::filesystem::path& folder);

// No error when this process may read the file.
std::error_code checkReadable(const std::filesystem::path& file);

// Lets this process have as many files open as the system allows it, where that is more than it has now.
void allowManyFiles();

// The error is that a disk has no room left, or that its user has used up a share of it.
bool tellsOfFullDisk(const std::error_code& error);

// The most memory that this process has had resident so far, in bytes; 0 where the system does not tell.
std::uint64_t peakMemory();

// Bytes of memory that a process started now can take without swapping: what the machine has free or can free
// at once, the limits of the control group, of the job
// (job_limits.h) and of the process counted in.
std::uint64_t availableMemory();

// Returns when the file's or folder's content is on the disk itself; at once for a folder whose system keeps
// the order of its entries by itself.
std::error_code flushToDisk(const std::filesystem::path& path);

// The same in steps, where the system has them: `goesOn` is told of the bytes that a step has brought to the
// disk, and ends the flush by false (std::errc::operation_canceled).
std::error_code flushToDisk(const std::filesystem::path& path,
                            const std::function<bool(std::uint64_t bytes)>& goesOn);

// Exchanges the names of two existing folders in one step that nobody can see half done.
// std::errc::function_not_supported when the system or the file system has no such step.
std::error_code exchangeNames(const std::filesystem::path& one, const std::filesystem::path& other);

// Renames a folder in place of nothing or of an empty folder; in one step where the system allows it.
std::error_code renameFolder(const std::filesystem::path& from, const std::filesystem::path& to);

// A file that exists and is locked while this object lives. The system drops the lock when the process ends,
// however it ends; the file then stays and tells of a dead run.
class LockFile {
public:
    // Creates the file, or takes over that of a dead run. Nothing, and no error, when a live process holds
    // it.
    static std::unique_ptr<LockFile> take(const std::filesystem::path& path, std::error_code& error);

    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;
    // Removes the file, then drops the lock.
    ~LockFile();

private:
    LockFile(std::filesystem::path path, std::intptr_t handle) : path_(std::move(path)), handle_(handle) {}

    std::filesystem::path path_;
    std::intptr_t handle_;
};

// What a line feed of a text file becomes on the disk.
std::uint64_t lineEndBytes();

std::uint64_t ownProcessId();

// False only when the system is sure that no process has this id.
bool processMayExist(std::uint64_t id);

bool standardOutputIsTerminal();

bool standardErrorIsTerminal();

// The terminal on standard error acts on control sequences instead of showing them.
bool standardErrorTakesSequences();

// Asks the system to show the address in the user's browser, and does not wait for it. False when this
// session has no screen to show it on. Whether the browser comes nobody tells.
bool openInBrowser(const std::string& address);

// Becomes plyconvert-geo, with these words as its command line: the one beside this program, or that of its
// package. Returns only where there is none. Not there on Windows, whose build has no such program.
void runGeoProgram(const std::vector<std::string>& words);

// Columns of the terminal on standard error, or else on standard output; 80 when neither tells.
unsigned terminalColumns();

// While it lives, a terminal takes what is written to it as UTF-8, and control sequences on standard error.
// On Windows both must be asked for, and are put back afterwards.
class TerminalText {
public:
    TerminalText();
    TerminalText(const TerminalText&) = delete;
    TerminalText& operator=(const TerminalText&) = delete;
    ~TerminalText();

private:
    // Windows alone reads them.
    [[maybe_unused]] unsigned codePage_;  // of the terminal before; 0 without one
    [[maybe_unused]] unsigned long mode_; // of the terminal on standard error before
    [[maybe_unused]] bool isModeSet_;
};

} // namespace Tavrin::SplatProgram
