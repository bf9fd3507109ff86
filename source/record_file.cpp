#include "source/record_file.h"

#include "source/source.h"

#include <cstddef>
#include <system_error>
#include <utility>

namespace Tavrin::SplatSource {

namespace {

std::string systemText(int error) {
    return std::error_code(error, std::system_category()).message();
}

} // namespace

std::string textOf(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

RecordFile::RecordFile(const std::filesystem::path& path, Pause pause)
    : path_(path), pause_(std::move(pause)) {
    int error = file_.openToRead(path);
    if (error != 0) {
        throw SourceError(name() + ": the file cannot be opened: " + systemText(error) +
                          ": check the path and the permissions");
    }
    opened_ = file_.state(error);
    if (error != 0) {
        throw SourceError(name() + ": the file cannot be inspected: " + systemText(error) +
                          ": check the disk");
    }
}

void RecordFile::pause() const {
    if (pause_) {
        pause_();
    }
}

std::uint64_t RecordFile::readUpTo(std::uint64_t offset, void* destination, std::uint64_t length) const {
    pause();
    std::uint64_t got = 0;
    while (got < length) {
        int error = 0;
        const std::uint64_t more =
            file_.readSome(offset + got, static_cast<std::byte*>(destination) + got, length - got, error);
        if (error != 0) {
            throw SourceChanged(name() + ": reading fails at byte " + std::to_string(offset + got) + ": " +
                                systemText(error) + ": check the disk");
        }
        if (more == 0) {
            break;
        }
        got += more;
    }
    return got;
}

void RecordFile::read(std::uint64_t offset, void* destination, std::uint64_t length) const {
    const std::uint64_t got = readUpTo(offset, destination, length);
    if (got < length) {
        throw SourceChanged(name() + ": the file ends at byte " + std::to_string(offset + got) + " where " +
                            std::to_string(length - got) +
                            " more bytes were expected: it was cut while it was read; start again once it is "
                            "whole");
    }
}

void RecordFile::requireUnchanged() const {
    int error = 0;
    const FileState named = SystemFile::stateOf(path_, error);
    if (error != 0) {
        throw SourceChanged(name() + ": the file is gone: " + systemText(error) +
                            ": leave it in its place while it is read");
    }
    const FileState held = file_.state(error);
    if (error != 0 || held != opened_ || named != opened_) {
        throw SourceChanged(name() + ": the file was changed or replaced while it was read: start again once "
                                     "nothing writes to it");
    }
}

} // namespace Tavrin::SplatSource
