#include "stream/output_file.h"

#include "source/record_file.h"
#include "stream/conversion.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <system_error>

namespace Tavrin::SplatStream {

void OutputFile::fail(const char* what, int error) const {
    const std::error_code code(error, std::system_category());
    throw WriteError(SplatSource::textOf(path_) + ": " + what + ": " + code.message(), code);
}

OutputFile::OutputFile(const std::filesystem::path& path) : path_(path) {
    if (const int error = file_.openToWrite(path); error != 0) {
        fail("the file cannot be created", error);
    }
}

void OutputFile::reserve(std::uint64_t bytes, const std::function<void()>& pause) {
    constexpr std::uint64_t step = std::uint64_t{64} << 20;
    for (std::uint64_t at = 0; at < bytes; at += step) {
        pause();
        if (const int error = file_.reserve(at, std::min(step, bytes - at)); error != 0) {
            fail(("no room for its " + std::to_string(bytes) + " bytes").c_str(), error);
        }
    }
}

void OutputFile::write(std::uint64_t offset, const void* bytes, std::uint64_t length) {
    for (std::uint64_t done = 0; done < length;) {
        int error = 0;
        const std::uint64_t more =
            file_.writeSome(offset + done, static_cast<const std::byte*>(bytes) + done, length - done, error);
        if (error != 0) {
            fail(("writing fails at byte " + std::to_string(offset + done)).c_str(), error);
        }
        done += more;
    }
}

void OutputFile::close() {
    if (const int error = file_.close(); error != 0) {
        fail("closing the file fails", error);
    }
}

} // namespace Tavrin::SplatStream
