#include "program/system/platform.h"

#include "program/system/handle_windows.h"
#include "program/system/open_files.h"
#include "program/system/text_windows.h"

#include <algorithm>
#include <limits>

#include <windows.h>
// Selects the functions of kernel32, so that psapi need not be linked.
#define PSAPI_VERSION 2
// After windows.h, which they need.
#include <psapi.h>
#include <shellapi.h>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

std::error_code lastError() {
    return {static_cast<int>(GetLastError()), std::system_category()};
}

// Opens an existing file or folder; links are followed.
Handle open(const fs::path& path, DWORD access) {
    // Folders can only be opened with this flag.
    return Handle(CreateFileW(path.c_str(), access, shareAll, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

std::error_code errorOf(const Handle& handle) {
    return handle ? std::error_code() : lastError();
}

// The system's path of an open file, without the "\\?\" prefix; empty on file systems that do not tell.
std::wstring finalName(const Handle& handle) {
    constexpr std::size_t longestPath = 32768;
    std::wstring name(longestPath, L'\0');
    name.resize(GetFinalPathNameByHandleW(handle.get(), name.data(), static_cast<DWORD>(name.size()),
                                          FILE_NAME_NORMALIZED | VOLUME_NAME_DOS));
    constexpr std::wstring_view localPrefix = LR"(\\?\)";
    constexpr std::wstring_view sharePrefix = LR"(\\?\UNC\)";
    if (name.starts_with(sharePrefix)) {
        return LR"(\\)" + name.substr(sharePrefix.size());
    }
    return name.starts_with(localPrefix) ? name.substr(localPrefix.size()) : name;
}

bool isConsole(DWORD stream) {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(stream), &mode) != 0;
}

} // namespace

// The runtime does not find a folder whose path ends in a separator.
fs::path pathFromText(std::string_view text) {
    fs::path path(wideFromText(text));
    return path.has_relative_path() && !path.has_filename() ? path.parent_path() : path;
}

std::string textFromPath(const fs::path& path) {
    return textFromWide(path.native());
}

// The converter uses the system's code page. On systems that read this program's manifest, it is UTF-8.
std::optional<std::string> converterPath(const fs::path& path) {
    if (GetACP() == CP_UTF8) {
        return textFromPath(path);
    }
    const std::wstring& wide = path.native();
    const int size = static_cast<int>(wide.size());
    BOOL isLossy = FALSE;
    const int length =
        WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, wide.data(), size, nullptr, 0, nullptr, &isLossy);
    std::string bytes(static_cast<std::size_t>(length), '\0');
    WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, wide.data(), size, bytes.data(), length, nullptr,
                        nullptr);
    return isLossy ? std::nullopt : std::optional(std::move(bytes));
}

fs::path resolvedPath(const fs::path& path, std::error_code& error) {
    const fs::path whole = fs::absolute(path, error).lexically_normal();
    fs::path missing;
    for (fs::path existing = whole; !error; existing = existing.parent_path()) {
        if (const Handle handle = open(existing, 0)) {
            const std::wstring name = finalName(handle);
            return name.empty() ? whole : missing.empty() ? fs::path(name) : name / missing;
        }
        if (existing == existing.parent_path()) {
            break;
        }
        missing = missing.empty() ? existing.filename() : existing.filename() / missing;
    }
    return whole;
}

std::optional<FileIdentity> identityOf(const fs::path& path) {
    const Handle handle = open(path, 0);
    BY_HANDLE_FILE_INFORMATION facts = {};
    if (!handle || !GetFileInformationByHandle(handle.get(), &facts)) {
        return std::nullopt;
    }
    constexpr unsigned wordBits = 32;
    return FileIdentity{facts.dwVolumeSerialNumber,
                        std::uint64_t{facts.nFileIndexHigh} << wordBits | facts.nFileIndexLow};
}

bool tellsOfFullDisk(const std::error_code& error) {
    constexpr int quotaExceeded = 1295; // ERROR_DISK_QUOTA_EXCEEDED, which not every set of headers has
    return error.value() == ERROR_DISK_FULL || error.value() == ERROR_HANDLE_DISK_FULL ||
           error.value() == quotaExceeded;
}

std::uint64_t peakMemory() {
    PROCESS_MEMORY_COUNTERS counters = {};
    return GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) != 0
               ? counters.PeakWorkingSetSize
               : 0;
}

// Mounted volumes, junctions and links to folders are reparse points.
bool isMountPoint(const fs::path& folder) {
    const DWORD attributes = GetFileAttributesW(folder.c_str());
    return folder == folder.root_path() ||
           (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0);
}

std::error_code checkWritable(const fs::path& folder) {
    return errorOf(open(folder, FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY));
}

void allowManyFiles() {} // only memory limits the number of handles

std::uint64_t mostOpenFiles() {
    return std::numeric_limits<std::uint64_t>::max();
}

std::error_code checkReadable(const fs::path& file) {
    return errorOf(open(file, GENERIC_READ));
}

std::error_code flushToDisk(const fs::path& path) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
        return {}; // the file system's journal orders its entries
    }
    const Handle handle = open(path, GENERIC_WRITE);
    return handle && FlushFileBuffers(handle.get()) ? std::error_code() : lastError();
}

// One step for the whole file; the system has no smaller ones.
std::error_code flushToDisk(const fs::path& path, const std::function<bool(std::uint64_t bytes)>& goesOn) {
    if (!goesOn(0)) {
        return std::make_error_code(std::errc::operation_canceled);
    }
    const std::error_code error = flushToDisk(path);
    std::error_code none;
    const std::uintmax_t size = fs::file_size(path, none);
    goesOn(none ? 0 : size);
    return error;
}

// Windows has no atomic exchange.
std::error_code exchangeNames(const fs::path&, const fs::path&) {
    return std::make_error_code(std::errc::function_not_supported);
}

std::error_code renameFolder(const fs::path& from, const fs::path& to) {
    RemoveDirectoryW(to.c_str()); // an empty folder, which a rename does not replace on this system
    // Virus scanners and indexers briefly open files that were just written.
    constexpr int attempts = 20;
    constexpr DWORD pause = 100; // milliseconds
    for (int attempt = 1;; ++attempt) {
        if (MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_WRITE_THROUGH)) {
            return {};
        }
        const std::error_code error = lastError();
        const bool mayPass = error.value() == ERROR_ACCESS_DENIED || error.value() == ERROR_SHARING_VIOLATION;
        if (!mayPass || attempt == attempts) {
            return error;
        }
        Sleep(pause);
    }
}

// The lock: no other process may open the file.
std::unique_ptr<LockFile> LockFile::take(const fs::path& path, std::error_code& error) {
    error.clear();
    Handle handle(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, 0, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!handle) {
        if (GetLastError() != ERROR_SHARING_VIOLATION) {
            error = lastError();
        }
        return nullptr;
    }
    return std::unique_ptr<LockFile>(new LockFile(path, reinterpret_cast<std::intptr_t>(handle.release())));
}

LockFile::~LockFile() {
    const Handle handle(reinterpret_cast<HANDLE>(handle_));
    FILE_DISPOSITION_INFO removal = {};
    removal.DeleteFile = isLeft_ ? FALSE : TRUE;
    SetFileInformationByHandle(handle.get(), FileDispositionInfo, &removal, sizeof removal);
}

// CR LF
std::uint64_t lineEndBytes() {
    return 2;
}

std::uint64_t ownProcessId() {
    return GetCurrentProcessId();
}

bool processMayExist(std::uint64_t id) {
    if (id == 0 || id > MAXDWORD) {
        return false;
    }
    const Handle process(OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(id)));
    if (!process) {
        return GetLastError() != ERROR_INVALID_PARAMETER;
    }
    // An ended process still exists while somebody has a handle to it.
    return WaitForSingleObject(process.get(), 0) != WAIT_OBJECT_0;
}

std::uint64_t availableMemory() {
    MEMORYSTATUSEX machine = {};
    machine.dwLength = sizeof machine;
    if (!GlobalMemoryStatusEx(&machine)) {
        return UINT64_MAX;
    }
    std::uint64_t available = std::min(machine.ullAvailPhys, machine.ullAvailPageFile);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION job = {};
    if (QueryInformationJobObject(nullptr, JobObjectExtendedLimitInformation, &job, sizeof job, nullptr)) {
        const DWORD limits = job.BasicLimitInformation.LimitFlags;
        if ((limits & JOB_OBJECT_LIMIT_PROCESS_MEMORY) != 0) {
            available = std::min<std::uint64_t>(available, job.ProcessMemoryLimit);
        }
        if ((limits & JOB_OBJECT_LIMIT_JOB_MEMORY) != 0) {
            available = std::min<std::uint64_t>(available, job.JobMemoryLimit);
        }
    }
    return available;
}

std::vector<std::string> commandLineWords(int, char**) {
    int count = 0;
    wchar_t** const wide = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> words;
    for (int i = 1; wide != nullptr && i < count; ++i) {
        words.push_back(textFromWide(wide[i]));
    }
    LocalFree(wide);
    return words;
}

bool standardOutputIsTerminal() {
    return isConsole(STD_OUTPUT_HANDLE);
}

bool standardErrorIsTerminal() {
    return isConsole(STD_ERROR_HANDLE);
}

// TerminalText has switched it on.
bool standardErrorTakesSequences() {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode) &&
           (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

unsigned terminalColumns() {
    CONSOLE_SCREEN_BUFFER_INFO facts = {};
    constexpr unsigned usual = 80;
    if (!GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &facts) &&
        !GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &facts)) {
        return usual;
    }
    const int columns = facts.srWindow.Right - facts.srWindow.Left + 1;
    return columns > 1 ? static_cast<unsigned>(columns) : usual;
}

TerminalText::TerminalText() : codePage_(GetConsoleOutputCP()), mode_(0), isModeSet_(false) {
    if (codePage_ != 0) {
        SetConsoleOutputCP(CP_UTF8);
    }
    const HANDLE terminal = GetStdHandle(STD_ERROR_HANDLE);
    isModeSet_ = GetConsoleMode(terminal, &mode_) &&
                 SetConsoleMode(terminal, mode_ | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

TerminalText::~TerminalText() {
    if (codePage_ != 0) {
        SetConsoleOutputCP(codePage_);
    }
    if (isModeSet_) {
        SetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), mode_);
    }
}

} // namespace Tavrin::SplatProgram
