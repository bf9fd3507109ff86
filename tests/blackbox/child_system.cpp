#include "tests/blackbox/child_system.h"

#include <cfenv>
#include <fstream>
#include <stdexcept>

#if defined(__x86_64__) || defined(_M_X64)
#include <immintrin.h>
#endif

#if defined(_WIN32)
#include "tests/windows/runtime.h"

#include <windows.h>
#else
#include <dlfcn.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace {

int reportedHardwareThreads = 0; // 0: as many as are configured

} // namespace

// Replaces the system's function behind std::thread::hardware_concurrency. The executable exports it, so the
// dynamic linker uses it for every module of the process.
extern "C" __attribute__((visibility("default"))) int get_nprocs() noexcept {
    return reportedHardwareThreads > 0 ? reportedHardwareThreads : get_nprocs_conf();
}
#endif

namespace child {

FloatMode floatMode() {
    FloatMode mode = static_cast<FloatMode>(std::fegetround());
#if defined(__x86_64__) || defined(_M_X64)
    constexpr unsigned exceptionFlags = 0x3F; // sticky exception flags, which are not part of the mode
    mode |= static_cast<FloatMode>(_mm_getcsr() & ~exceptionFlags) << 32;
#endif
    return mode;
}

void flushSubnormals() {
#if defined(__x86_64__) || defined(_M_X64)
    constexpr unsigned flushToZero = 0x8000;
    constexpr unsigned subnormalsAreZero = 0x0040;
    _mm_setcsr(_mm_getcsr() | flushToZero | subnormalsAreZero);
#else
    throw std::runtime_error("no such processor mode is known here");
#endif
}

#if defined(_WIN32)

void Library::load(const std::string& path) {
    const HMODULE module = LoadLibraryA(path.c_str());
    if (module == nullptr) {
        throw std::runtime_error("cannot load " + path);
    }
    handle = module;
    const FARPROC address = GetProcAddress(module, "plyConvert");
    if (address == nullptr) {
        throw std::runtime_error("no plyConvert in " + path);
    }
    convert = reinterpret_cast<decltype(convert)>(reinterpret_cast<void*>(address));
}

void Library::unload() {
    if (handle != nullptr) {
        FreeLibrary(static_cast<HMODULE>(handle));
    }
}

void keepToOneProcessor() {
    if (!SetProcessAffinityMask(GetCurrentProcess(), 1)) {
        throw std::runtime_error("cannot keep to one processor");
    }
}

void reportHardwareThreads(int) {
    throw std::runtime_error("the number of hardware threads cannot be set here");
}

void limitThreads() {
    throw std::runtime_error("threads cannot be limited here");
}

void limitAddressSpace(std::uint64_t) {
    throw std::runtime_error("the address space cannot be limited here");
}

void limitFreeFiles(int) {
    throw std::runtime_error("open files cannot be limited here");
}

void holdOpen(const std::string& path) {
    const HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        throw std::runtime_error("cannot hold " + path);
    }
}

void useOemFileFunctions() {
    SetFileApisToOEM();
}

void useUtf8Locale() {
    if (!windows_test::setUniversalLocale(".UTF-8")) {
        throw std::runtime_error("no UTF-8 locale");
    }
}

std::uint64_t peakMemory() {
    return 0;
}

std::string narrowed(const std::filesystem::path& path) {
    const std::wstring& wide = path.native();
    const int length = WideCharToMultiByte(CP_ACP, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0,
                                           nullptr, nullptr);
    std::string text(static_cast<std::size_t>(length), '\0');
    WideCharToMultiByte(CP_ACP, 0, wide.data(), static_cast<int>(wide.size()), text.data(), length, nullptr,
                        nullptr);
    return text;
}

#else

void Library::load(const std::string& path) {
    handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw std::runtime_error(dlerror());
    }
    convert = reinterpret_cast<decltype(convert)>(dlsym(handle, "plyConvert"));
    if (convert == nullptr) {
        throw std::runtime_error(dlerror());
    }
}

void Library::unload() {
    if (handle != nullptr) {
        dlclose(handle);
    }
}

void keepToOneProcessor() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof allowed, &allowed);
    for (int processor = 0, kept = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &allowed) && kept++ > 0) {
            CPU_CLR(processor, &allowed);
        }
    }
    if (sched_setaffinity(0, sizeof allowed, &allowed) != 0) {
        throw std::runtime_error("cannot keep to one processor");
    }
}

void reportHardwareThreads(int count) {
    reportedHardwareThreads = count;
}

namespace {

void setLimit(__rlimit_resource_t resource, rlim_t value) {
    const rlimit limit{value, value};
    if (setrlimit(resource, &limit) != 0) {
        throw std::runtime_error("cannot set a limit");
    }
}

} // namespace

// The limit does not apply to root, so root becomes another user.
void limitThreads() {
    const auto lone = static_cast<uid_t>(20'000 + getpid() % 40'000);
    setLimit(RLIMIT_NPROC, 6);
    if (getuid() == 0 && setuid(lone) != 0) {
        throw std::runtime_error("cannot become another user");
    }
}

void limitAddressSpace(std::uint64_t bytes) {
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    setLimit(RLIMIT_AS, bytes);
}

void limitFreeFiles(int count) {
    // The system gives the lowest free descriptor, so all below a new one are in use.
    const int lowestFree = dup(STDOUT_FILENO);
    close(lowestFree);
    setLimit(RLIMIT_NOFILE, static_cast<rlim_t>(lowestFree + count));
}

void holdOpen(const std::string&) {
    throw std::runtime_error("an open file does not keep its name here");
}

void useOemFileFunctions() {
    throw std::runtime_error("file functions have no code page here");
}

void useUtf8Locale() {
    throw std::runtime_error("paths have no code page here");
}

// Not getrusage, whose peak includes the parent process before exec.
std::uint64_t peakMemory() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:")) {
            return std::stoull(line.substr(6)) * 1024;
        }
    }
    return 0;
}

std::string narrowed(const std::filesystem::path& path) {
    return path.string();
}

#endif

} // namespace child
