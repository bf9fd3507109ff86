#include "program/system/platform.h"

#include <array>
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

bool isSet(const char* variable) {
    const char* const value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

} // namespace

// A shell starts the browser and ends at once, so that the browser is not a child of this process. The
// browser gets a session of its own, which Ctrl-C does not reach, and inherits no open descriptors, in
// particular no sockets.
bool openInBrowser(const std::string& address) {
    if (!isSet("DISPLAY") && !isSet("WAYLAND_DISPLAY")) {
        return false;
    }
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawnattr_init(&attributes);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::posix_spawn_file_actions_addopen(&files, stream, "/dev/null", O_RDWR, 0);
    }
    ::posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
    sigset_t usual;
    sigfillset(&usual);
    ::posix_spawnattr_setsigdefault(&attributes, &usual);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF);

    std::array<std::string, 5> words = {"sh", "-c", "xdg-open \"$1\" &", "sh", address};
    std::array<char*, words.size() + 1> arguments = {};
    for (std::size_t i = 0; i < words.size(); ++i) {
        arguments[i] = words[i].data();
    }
    pid_t shell = -1;
    const bool isStarted =
        ::posix_spawn(&shell, "/bin/sh", &files, &attributes, arguments.data(), environ) == 0;
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&files);
    int status = 0;
    while (isStarted && ::waitpid(shell, &status, 0) < 0 && errno == EINTR) {
    }
    return isStarted;
}

} // namespace Tavrin::SplatProgram
