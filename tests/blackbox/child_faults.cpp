#include "tests/blackbox/child_faults.h"

#if defined(__linux__)

#include <atomic>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string_view>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace child {
namespace {

enum class Moment { never, opening, opened, header, scan, chunking };

// The fault to make: what happens to the input, or which file cannot be opened.
struct FileFault {
    std::string input;
    std::atomic<Moment> moment{Moment::never};
    off_t length = -1; // bytes to cut the input to; -1: remove it
    std::string refused;
    std::atomic<int> opens{0}; // of the input, in this process

    void strike(Moment now) {
        if (now != moment) {
            return;
        }
        // From the scan on several threads may get here. The first one makes the fault before any continues.
        static pthread_mutex_t once = PTHREAD_MUTEX_INITIALIZER;
        pthread_mutex_lock(&once);
        if (moment != Moment::never &&
            (length < 0 ? unlink(input.c_str()) : truncate(input.c_str(), length)) != 0) {
            std::perror("blackbox_child: cannot harm the input");
            std::abort();
        }
        moment = Moment::never;
        pthread_mutex_unlock(&once);
    }
};

FileFault& fault() {
    static FileFault instance;
    return instance;
}

std::string_view nameOf(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

} // namespace
} // namespace child

// Replaces the function with which the C++ runtime opens files. The executable exports it, so the dynamic
// linker uses it for every module of the process.
extern "C" __attribute__((visibility("default"))) FILE* fopen64(const char* path, const char* mode) {
    using child::Moment;
    static const auto next =
        reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen64"));
    child::FileFault& fault = child::fault();
    if (!fault.refused.empty() && child::nameOf(path) == fault.refused) {
        errno = EACCES;
        return nullptr;
    }
    if (child::nameOf(path) == "log.txt") {
        fault.strike(Moment::chunking);
    }
    if (fault.input.empty() || path != fault.input) {
        return next(path, mode);
    }
    const int number = ++fault.opens;
    fault.strike(number == 1 ? Moment::opening : number == 2 ? Moment::header : Moment::scan);
    FILE* const file = next(path, mode);
    if (number == 1) {
        fault.strike(Moment::opened);
    }
    return file;
}

namespace child {
namespace {

void require(bool done, const std::string& what) {
    if (!done) {
        throw std::runtime_error("cannot " + what);
    }
}

void limitFileSize(const std::string& bytes) {
    const rlimit limit{std::stoull(bytes), std::stoull(bytes)};
    require(setrlimit(RLIMIT_FSIZE, &limit) == 0, "limit the size of files");
}

void giveUpRights() {
    constexpr unsigned nobody = 65534;
    if (geteuid() == 0) {
        require(setgid(nobody) == 0 && setuid(nobody) == 0, "give up root's rights");
    }
}

void breakStandardOutput() {
    int ends[2] = {};
    require(pipe(ends) == 0 && dup2(ends[1], STDOUT_FILENO) == STDOUT_FILENO, "make a pipe");
    close(ends[0]);
    close(ends[1]);
}

void loseFolder(const std::string& path) {
    require(mkdir(path.c_str(), 0777) == 0 && chdir(path.c_str()) == 0 && rmdir(path.c_str()) == 0,
            "lose the folder " + path);
}

void goOnInChild() {
    const pid_t process = fork();
    require(process >= 0, "fork");
    if (process == 0) {
        return;
    }
    int status = 0;
    waitpid(process, &status, 0);
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

void arm(const std::string& moment, off_t length, const std::string& input) {
    static const std::map<std::string, Moment> moments{{"opening", Moment::opening},
                                                       {"opened", Moment::opened},
                                                       {"header", Moment::header},
                                                       {"scan", Moment::scan},
                                                       {"chunking", Moment::chunking}};
    fault().moment = moments.at(moment);
    fault().length = length;
    fault().input = input;
}

} // namespace

bool faultStep(const std::string& name, const std::string& value, const std::string& input) {
    constexpr std::string_view cut = "cut-";
    if (name == "file-size") {
        limitFileSize(value);
    } else if (name == "ignore-signal") {
        std::signal(std::stoi(value), SIG_IGN);
    } else if (name == "without-rights") {
        giveUpRights();
    } else if (name == "without-environment") {
        clearenv();
        std::setlocale(LC_ALL, "");
    } else if (name == "close") {
        close(std::stoi(value));
    } else if (name == "broken-pipe") {
        breakStandardOutput();
    } else if (name == "lost-folder") {
        loseFolder(value);
    } else if (name == "fork") {
        goOnInChild();
    } else if (name == "vanish") {
        arm(value, -1, input);
    } else if (name.starts_with(cut)) {
        arm(name.substr(cut.size()), std::stoll(value), input);
    } else if (name == "refuse-file") {
        fault().refused = value;
    } else {
        return false;
    }
    return true;
}

void onStack(std::size_t bytes, const std::function<void()>& call) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    require(pthread_attr_setstacksize(&attributes, bytes) == 0, "have a stack of this size");
    pthread_t thread = {};
    const auto body = [](void* function) -> void* {
        (*static_cast<const std::function<void()>*>(function))();
        return nullptr;
    };
    require(pthread_create(&thread, &attributes, body, const_cast<std::function<void()>*>(&call)) == 0,
            "start a thread");
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

bool isMapped(const std::string& path) {
    std::ifstream maps("/proc/self/maps");
    const std::string name(nameOf(path));
    for (std::string line; std::getline(maps, line);) {
        if (line.find(name) != line.npos) {
            return true;
        }
    }
    return false;
}

} // namespace child

#else

#include <stdexcept>

namespace child {

bool faultStep(const std::string&, const std::string&, const std::string&) {
    return false;
}

void onStack(std::size_t, const std::function<void()>&) {
    throw std::runtime_error("the size of a stack cannot be chosen here");
}

bool isMapped(const std::string&) {
    throw std::runtime_error("what is mapped is not known here");
}

} // namespace child

#endif
