// System functions beyond the standard library. Each has one definition for each system, in a file
// *_posix.cpp or *_windows.cpp.
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

// The path in the encoding that the converter takes; nothing if it cannot be expressed in it.
std::optional<std::string> converterPath(const std::filesystem::path& path);

// The arguments of the command line in UTF-8, without the program's name. `argc` and `argv` are those of
// main; Windows asks the system instead.
std::vector<std::string> commandLineWords(int argc, char** argv);

// The absolute path, with links resolved in the part that exists.
std::filesystem::path resolvedPath(const std::filesystem::path& path, std::error_code& error);

// Identifies the file or folder that a path leads to, links resolved. Two paths with equal identities are the
// same file, whatever their spelling or mount.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t number = 0;
    bool operator==(const FileIdentity&) const = default;
};

// Nothing when the path does not exist.
std::optional<FileIdentity> identityOf(const std::filesystem::path& path);

// True if a file system (or a bind mount) is mounted exactly there, so that the folder cannot be renamed. On
// Windows also for a junction or a link to a folder.
bool isMountPoint(const std::filesystem::path& folder);

// No error if this process may create and rename entries of the folder.
std::error_code checkWritable(const std::filesystem::path& folder);

// No error if this process may read the file.
std::error_code checkReadable(const std::filesystem::path& file);

// Raises the limit of open files to the most that the system allows this process.
void allowManyFiles();

// True if the error means a full disk or an exhausted quota.
bool tellsOfFullDisk(const std::error_code& error);

// The peak resident memory of this process so far, in bytes; 0 if the system does not tell.
std::uint64_t peakMemory();

// Bytes of memory that this process can still take without swapping: the machine's free and reclaimable
// memory, within the limits of the control group, of the job (job_limits.h) and of the process.
std::uint64_t availableMemory();

// Returns when the content of the file or folder is on the disk. Returns at once for a folder on systems that
// order its entries by themselves.
std::error_code flushToDisk(const std::filesystem::path& path);

// The same in steps, on systems that can. `goesOn` gets the bytes that each step has written to the disk. If
// it returns false, the flush stops with std::errc::operation_canceled.
std::error_code flushToDisk(const std::filesystem::path& path,
                            const std::function<bool(std::uint64_t bytes)>& goesOn);

// Exchanges the names of two existing folders atomically. std::errc::function_not_supported if the system or
// the file system cannot.
std::error_code exchangeNames(const std::filesystem::path& one, const std::filesystem::path& other);

// Renames a folder. `to` must not exist or must be an empty folder. Atomic on systems that allow it.
std::error_code renameFolder(const std::filesystem::path& from, const std::filesystem::path& to);

// A file that exists and is locked while this object lives. The system drops the lock when the process ends,
// in whatever way. If the file is left over then, it marks a dead run, as far as the file system has locks.
class LockFile {
public:
    // Creates the file, or takes over the file of a dead run. Null without an error when a live process holds
    // it, or may hold it on another machine: on a network file system, for a day after it was taken.
    static std::unique_ptr<LockFile> take(const std::filesystem::path& path, std::error_code& error);

    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;
    // Removes the file, then drops the lock.
    ~LockFile();

    const std::filesystem::path& path() const { return path_; }

    // The open file, which this object closes.
    std::intptr_t handle() const { return handle_; }

    // Leaves file and lock to another process, which has the file open, too: the destructor only closes it.
    void leave() { isLeft_ = true; }

private:
    LockFile(std::filesystem::path path, std::intptr_t handle) : path_(std::move(path)), handle_(handle) {}

    std::filesystem::path path_;
    std::intptr_t handle_;
    bool isLeft_ = false;
};

// The bytes that a line end takes in a text file: 1, or 2 on Windows.
std::uint64_t lineEndBytes();

std::uint64_t ownProcessId();

// False only if certainly no process has this id.
bool processMayExist(std::uint64_t id);

bool standardOutputIsTerminal();

bool standardErrorIsTerminal();

// True if the terminal on standard error interprets control sequences instead of showing them.
bool standardErrorTakesSequences();

// Asks the system to open the address in the user's browser, and does not wait. False if this session has no
// screen. True does not mean that a browser appeared.
bool openInBrowser(const std::string& address);

// Replaces this process by plyconvert-geo with these arguments: the one beside this program, or that of its
// package. Returns only if neither exists. Not available on Windows, which has no such program.
void runGeoProgram(const std::vector<std::string>& words);

// Columns of the terminal on standard error, or else on standard output; 80 if neither is a terminal.
unsigned terminalColumns();

// While it lives, the terminal reads output as UTF-8 and interprets control sequences on standard error.
// Windows needs both to be switched on; the destructor restores the old settings.
class TerminalText {
public:
    TerminalText();
    TerminalText(const TerminalText&) = delete;
    TerminalText& operator=(const TerminalText&) = delete;
    ~TerminalText();

private:
    // Only read on Windows.
    [[maybe_unused]] unsigned codePage_;  // of the terminal before; 0 without one
    [[maybe_unused]] unsigned long mode_; // of the terminal on standard error before
    [[maybe_unused]] bool isModeSet_;
};

} // namespace Tavrin::SplatProgram
