#include "stream/output_file.h"

#include "source/record_file.h"
#include "stream/conversion.h"

#include <cstddef>
#include <string>
#include <system_error>

namespace Tavrin::SplatStream {

void OutputFile::fail(const char* what, int error) const {
    const std::error_code code(error, std::system_category());
    throw WriteError(SplatSource::textOf(path_) + ": " + what + ": " + code.message(), code);
}

OutputFile::OutputFile(const std::filesystem::path& path) : path_(path) {
    int error = 0;
    handle_ = open(path, error);
    if (error != 0) {
        fail("the file cannot be created", error);
    }
}

OutputFile::~OutputFile() {
    if (handle_ != closed) {
        closeHandle(handle_);
    }
}

void OutputFile::reserve(std::uint64_t bytes) {
    if (bytes == 0) {
        return;
    }
    if (const int error = reserveBytes(handle_, bytes); error != 0) {
        fail(("no room for its " + std::to_string(bytes) + " bytes").c_str(), error);
    }
}

void OutputFile::write(std::uint64_t offset, const void* bytes, std::uint64_t length) {
    for (std::uint64_t done = 0; done < length;) {
        int error = 0;
        const std::uint64_t more = writeSome(
            handle_, offset + done, static_cast<const std::byte*>(bytes) + done, length - done, error);
        if (error != 0) {
            fail(("writing fails at byte " + std::to_string(offset + done)).c_str(), error);
        }
        done += more;
    }
}

void OutputFile::close() {
    const std::intptr_t handle = handle_;
    handle_ = closed;
    if (const int error = closeHandle(handle); error != 0) {
        fail("closing the file fails", error);
    }
}

} // namespace Tavrin::SplatStream
