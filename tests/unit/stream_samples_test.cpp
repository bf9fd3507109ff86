// Real files in the canonical form, converted by the library and by the stream. They are not part of the
// project. If their folder is missing, the tests are skipped and say so.

#include "tests/unit/stream_support.h"

namespace Tavrin::SplatStream {

namespace {

namespace fs = std::filesystem;

class StreamSamples : public testing::TestWithParam<const char*> {};

TEST_P(StreamSamples, GiveTheLibrarysBytes) {
    const fs::path input = fs::path(PLYCONVERT_SAMPLES) / GetParam();
    if (!fs::exists(input)) {
        GTEST_SKIP() << input << " is not there";
    }
    const support::Scratch scratch;
    compareConversions(scratch, input, settingsOf(2, 1024));
    compareConversions(scratch, input, settingsOf(3, 77));
}

INSTANTIATE_TEST_SUITE_P(
    Files, StreamSamples,
    testing::Values("real_61849_sh3_62f_trained_here.ply", "real_116549_sh3_62f_from_spz.ply",
                    "real_58649_nosh_17f.ply", "native_9080_sh3_62f.ply", "real_8192_sh3_62f_scaniverse.ply",
                    "small/native_1000_train_62f.ply", "small/native_100_trailing_bytes_62f.ply",
                    "small/native_3_train_62f.ply", "small/synthetic_9_opacity_inf_62f.ply",
                    "small/synthetic_16_opacity_100_62f.ply"),
    [](const testing::TestParamInfo<const char*>& file) {
        std::string name = fs::path(file.param).stem().string();
        return name;
    });

} // namespace

} // namespace Tavrin::SplatStream
