// blackbox_child JOB: a host process. It carries out the steps of a job file, one a line:
//
//   library PATH        load the shared object (first)
//   folder PATH         make PATH the working folder
//   locale NAME         setlocale(LC_ALL, NAME)
//   global-grouping     std::locale::global with a decimal comma and grouped digits
//   rounding NAME       upward, downward or zero
//   flush-subnormals    set the processor's flush-to-zero and subnormals-are-zero modes
//   one-processor       keep the process on one processor
//   hardware-threads N  let the system report N hardware threads (Linux)
//   few-threads         become a user who may have no more than a few threads (Linux)
//   address-space N     limit the address space to N bytes
//   free-files N        leave room for N more open files
//   hold PATH           keep PATH open without sharing it (Windows)
//   oem-file-functions  SetFileApisToOEM (Windows)
//   utf-8-locale        give the universal runtime a UTF-8 locale (Windows)
//   small-stack         make the next conversions on a thread with a stack of 256 KiB
//   reload N            unload the library and load it again, N times (Linux)
//   input PATH          the next conversion's input
//   output PATH         the next conversion's output folder
//   convert             call plyConvert and report
//
// and the steps of child_faults.h. It reports to JOB.report, so that standard output and standard error have
// only what the library writes.

#include "tests/blackbox/child_faults.h"
#include "tests/blackbox/child_system.h"

#include <cfenv>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <locale>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

namespace {

using Convert = std::int32_t (*)(const char*, const char*);

struct CommaGrouping : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

struct Host {
    std::FILE* report;
    child::Library library;
    std::string input;
    std::string output;
    std::string libraryPath;
    bool hasSmallStack = false;

    void say(const std::string& key, const std::string& value) {
        std::fputs((key + ' ' + value + '\n').c_str(), report);
        std::fflush(report);
    }

    void sayException(const char* type, const std::exception& error) {
        say("exception", type);
        say("what", error.what());
    }

    void sayCode(const std::error_code& code) {
        say("category", code.category().name());
        say("code", std::to_string(code.value()));
    }

    void callLibrary() {
        try {
            say("result", std::to_string(library.convert(input.c_str(), output.c_str())));
        } catch (const std::filesystem::filesystem_error& error) {
            sayException("filesystem_error", error);
            sayCode(error.code());
            say("path1", child::narrowed(error.path1()));
            say("path2", child::narrowed(error.path2()));
        } catch (const std::system_error& error) {
            sayException("system_error", error);
            sayCode(error.code());
        } catch (const std::invalid_argument& error) {
            sayException("invalid_argument", error);
        } catch (const std::out_of_range& error) {
            sayException("out_of_range", error);
        } catch (const std::bad_alloc& error) {
            sayException("bad_alloc", error);
        } catch (const std::exception& error) {
            sayException("exception", error);
        }
    }

    void convert() {
        const child::FloatMode before = child::floatMode();
        const std::string localeBefore = std::setlocale(LC_ALL, nullptr);
        say("call", std::to_string(std::thread::hardware_concurrency()));
        if (hasSmallStack) {
            constexpr std::size_t smallStack = 256 * 1024;
            child::onStack(smallStack, [this] { callLibrary(); });
        } else {
            callLibrary();
        }
        say("peak-memory", std::to_string(child::peakMemory()));
        say("float-mode", child::floatMode() == before ? "kept" : "changed");
        say("locale", std::setlocale(LC_ALL, nullptr) == localeBefore ? "kept" : "changed");
    }

    void setLocale(const std::string& name) {
        if (std::setlocale(LC_ALL, name.c_str()) == nullptr) {
            throw std::runtime_error("no locale " + name);
        }
        char text[8] = {};
        std::snprintf(text, sizeof text, "%.1f", 1.5);
        if (std::string(text) != "1,5") {
            throw std::runtime_error("the locale " + name + " has no decimal comma");
        }
    }

    void load(const std::string& path) {
        libraryPath = path;
        library.load(path);
    }

    void reload(int times) {
        for (int i = 0; i < times; ++i) {
            library.unload();
            if (child::isMapped(libraryPath)) {
                throw std::runtime_error("the library stays when it is unloaded");
            }
            library.load(libraryPath);
        }
    }

    void setRounding(const std::string& name) {
        const int mode = name == "upward" ? FE_UPWARD : name == "downward" ? FE_DOWNWARD : FE_TOWARDZERO;
        if (std::fesetround(mode) != 0) {
            throw std::runtime_error("cannot round " + name);
        }
    }

    void step(const std::string& name, const std::string& value) {
        if (name == "library") {
            load(value);
        } else if (name == "folder") {
            std::filesystem::current_path(value);
        } else if (name == "locale") {
            setLocale(value);
        } else if (name == "global-grouping") {
            std::locale::global(std::locale(std::locale(), new CommaGrouping));
        } else if (name == "rounding") {
            setRounding(value);
        } else if (name == "flush-subnormals") {
            child::flushSubnormals();
        } else if (name == "one-processor") {
            child::keepToOneProcessor();
        } else if (name == "hardware-threads") {
            child::reportHardwareThreads(std::stoi(value));
        } else if (name == "few-threads") {
            child::limitThreads();
        } else if (name == "address-space") {
            child::limitAddressSpace(std::stoull(value));
        } else if (name == "free-files") {
            child::limitFreeFiles(std::stoi(value));
        } else if (name == "hold") {
            child::holdOpen(value);
        } else if (name == "oem-file-functions") {
            child::useOemFileFunctions();
        } else if (name == "utf-8-locale") {
            child::useUtf8Locale();
        } else if (name == "small-stack") {
            hasSmallStack = true;
        } else if (name == "reload") {
            reload(std::stoi(value));
        } else if (name == "input") {
            input = value;
        } else if (name == "output") {
            output = value;
        } else if (name == "convert") {
            convert();
        } else if (!child::faultStep(name, value, input)) {
            throw std::runtime_error("unknown step " + name);
        }
    }
};

int run(const std::string& job) {
    std::FILE* const report = std::fopen((job + ".report").c_str(), "wb");
    if (report == nullptr) {
        return 3;
    }
    Host host{.report = report, .library = {}, .input = {}, .output = {}, .libraryPath = {}};
    std::ifstream steps(job, std::ios::binary);
    try {
        for (std::string line; std::getline(steps, line);) {
            const std::size_t blank = line.find(' ');
            host.step(line.substr(0, blank), blank == line.npos ? "" : line.substr(blank + 1));
        }
    } catch (const std::exception& error) {
        host.say("child-failed", error.what());
        return 3;
    }
    host.library.unload();
    host.say("end", "reached");
    std::fclose(report);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    return argc == 2 ? run(argv[1]) : 3;
}
