// powercut STATE ROOT begin | flushed PATH | cut NAME: simulates the content of the folder ROOT after a power
// cut.
//
//   begin         everything in ROOT is on the disk
//   flushed PATH  this file's contents, or this folder's names, are on the disk from now on
//   cut NAME      the power is cut before a call of this NAME: writes two folders, STATE/cuts/N.lost and
//                 STATE/cuts/N.names, and the name of the call to STATE/cuts/N.call, with N counting from 1
//
// N.lost holds only what was flushed: a folder has the names, and a file the contents, of its last flush.
// N.names holds all names of that moment, like a file system that orders changes of names but writes contents
// only when they are flushed. In both, a file that was never flushed is empty. Writes need no command, since
// they only count from the next flush.

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

fs::path state;
fs::path root;

// The inode number alone is not enough: the system may reuse it for the next file.
std::string identityOf(const fs::path& path) {
    struct statx status = {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &status) != 0) {
        throw std::runtime_error("cannot look at " + path.string());
    }
    return std::to_string(status.stx_ino) + '.' + std::to_string(status.stx_btime.tv_sec) + '.' +
           std::to_string(status.stx_btime.tv_nsec);
}

// Where the flushed contents of a file, or the names of a folder, are kept.
fs::path onDisk(const std::string& identity) {
    return state / "disk" / identity;
}

void flush(const fs::path& path) {
    const fs::path copy = onDisk(identityOf(path));
    if (!fs::is_directory(path)) {
        fs::copy_file(path, copy, fs::copy_options::overwrite_existing);
        return;
    }
    std::ofstream names(copy);
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
        names << identityOf(entry.path()) << (entry.is_directory() ? " folder " : " file ")
              << entry.path().filename().string() << '\n';
    }
}

void begin() {
    fs::create_directories(state / "disk");
    fs::create_directories(state / "cuts");
    flush(root);
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        flush(entry.path());
    }
}

void writeContents(const std::string& identity, const fs::path& to) {
    if (fs::exists(onDisk(identity))) {
        fs::copy_file(onDisk(identity), to);
    } else {
        std::ofstream empty(to);
    }
}

void writeFlushed(const std::string& folder, const fs::path& to) {
    fs::create_directory(to);
    std::ifstream names(onDisk(folder)); // no names if the folder was never flushed
    for (std::string identity, type, name;
         names >> identity >> type && std::getline(names >> std::ws, name);) {
        if (type == "folder") {
            writeFlushed(identity, to / name);
        } else {
            writeContents(identity, to / name);
        }
    }
}

void writeNames(const fs::path& folder, const fs::path& to) {
    fs::create_directory(to);
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        if (entry.is_directory()) {
            writeNames(entry.path(), to / entry.path().filename());
        } else {
            writeContents(identityOf(entry.path()), to / entry.path().filename());
        }
    }
}

void cut(const std::string& call) {
    int number = 1;
    while (fs::exists(state / "cuts" / (std::to_string(number) + ".call"))) {
        ++number;
    }
    const fs::path place = state / "cuts" / std::to_string(number);
    writeFlushed(identityOf(root), place.string() + ".lost");
    writeNames(root, place.string() + ".names");
    std::ofstream(place.string() + ".call") << call << '\n';
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        return 1;
    }
    state = argv[1];
    root = argv[2];
    const std::string what = argv[3];
    try {
        if (what == "begin") {
            begin();
        } else if (what == "flushed" && argc == 5) {
            flush(argv[4]);
        } else if (what == "cut" && argc == 5) {
            cut(argv[4]);
        } else {
            return 1;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "powercut: %s\n", error.what());
        return 1;
    }
    return 0;
}
