// streamonce INPUT OUTPUT [THREADS [MEMORY]]: runs the streaming conversion of a canonical PLY file in a
// process of its own, to be measured. Prints the seconds of each pass and the megabytes that place plans
// with.
#include "src/splatheader.h"
#include "stream/canonical_scene.h"
#include "stream/conversion.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <thread>

namespace {

using namespace Tavrin;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void convert(const char* input, const std::filesystem::path& output, const SplatStream::Settings& settings) {
    GaussionSplat::Params params;
    const GaussionSplat::SplatHeader header = GaussionSplat::readSplatHeader(input, params);
    const auto source = SplatStream::openCanonicalScene(input, header, params);
    std::filesystem::create_directories(output);
    const Clock::time_point start = Clock::now();
    const SplatStream::Measured measured = SplatStream::measure(*source, settings);
    const double measureSeconds = secondsSince(start);
    SplatStream::writeDataset(*source, measured, input, output, settings);
    std::printf("measure %.3f s, place %.3f s, %zu cells, %.1f MB\n", measureSeconds,
                secondsSince(start) - measureSeconds, measured.cells.size(),
                static_cast<double>(SplatStream::placeMemory(measured, settings)) / 1e6);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3 || argc > 5) {
        std::fputs("usage: streamonce INPUT OUTPUT [THREADS [MEMORY]]\n", stderr);
        return 1;
    }
    try {
        Tavrin::SplatStream::Settings settings;
        settings.threads = argc > 3 ? static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10))
                                    : std::thread::hardware_concurrency();
        settings.maxMemory = argc > 4 ? std::strtoull(argv[4], nullptr, 10) : UINT64_MAX;
        convert(argv[1], argv[2], settings);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "streamonce: %s\n", error.what());
        return 1;
    }
    return 0;
}
