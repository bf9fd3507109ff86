// Decodes one block by a direct call with arbitrary stride and offset.
#include "src/chunker_pass.h"
#include "tests/reference/splats.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

struct BlockTest : testing::Test {
    support::Scratch scratch;
    std::string path = (scratch / "records").string();
    std::vector<float> values;
    std::shared_ptr<AttributeBounding> bounding = std::make_shared<AttributeBounding>();
    std::shared_ptr<BlockList> chunks = std::make_shared<BlockList>();

    std::size_t recordFloats() const { return recordLayout(bounding->hasShcoef).floats; }

    ~BlockTest() override {
        releaseBlocks(*chunks, static_cast<std::uint32_t>(recordFloats() * sizeof(float)));
    }

    void writeValues(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            values.push_back(0.25f + 0.001f * static_cast<float>(i % 1000));
        }
        support::writeFile(path,
                           std::string(reinterpret_cast<const char*>(values.data()), count * sizeof(float)));
    }

    // The decoded block of records that start `strideFloats` floats apart.
    std::vector<float> decode(std::uint64_t count, std::size_t strideFloats, std::int64_t offset = 0) {
        const auto stride = static_cast<std::uint32_t>(strideFloats * sizeof(float));
        DecodePass pass(bounding, chunks);
        pass.blocks.waiting = 1;
        decodeBlock({.path = path,
                     .stride = stride,
                     .count = count,
                     .offset = static_cast<std::uint64_t>(offset),
                     .length = count * stride},
                    pass);
        if (chunks->size() != 1) {
            ADD_FAILURE() << chunks->size() << " chunks";
            return {};
        }
        const float* const data = chunks->front()->data;
        return {data, data + count * recordFloats()};
    }

    // The expected records, read `strideFloats` floats apart; the last one is as long as the task.
    std::vector<float> expected(std::size_t count, std::size_t strideFloats) const {
        std::vector<float> records(count * recordFloats(), 0.0f);
        for (std::size_t i = 0; i < count; ++i) {
            for (std::size_t k = 0; k < recordFloats() && i * strideFloats + k < count * strideFloats; ++k) {
                records[i * recordFloats() + k] = values[i * strideFloats + k];
            }
        }
        reference::decodeBlock(records, bounding->hasShcoef);
        return records;
    }

    void expectSame(const std::vector<float>& found, const std::vector<float>& wanted) const {
        ASSERT_EQ(found.size(), wanted.size());
        EXPECT_EQ(std::memcmp(found.data(), wanted.data(), wanted.size() * sizeof(float)), 0);
    }
};

TEST_F(BlockTest, NarrowRecordsAreFoundByAWideStride) {
    bounding->hasShcoef = false;
    writeValues(3000 * layoutWithCoefficients.floats);
    expectSame(decode(3000, layoutWithCoefficients.floats), expected(3000, layoutWithCoefficients.floats));
}

TEST_F(BlockTest, WideRecordsAreFoundByANarrowStride) {
    bounding->hasShcoef = true;
    writeValues(3000 * layoutWithoutCoefficients.floats);
    expectSame(decode(3000, layoutWithoutCoefficients.floats),
               expected(3000, layoutWithoutCoefficients.floats));
}

TEST_F(BlockTest, ABlockBeforeTheStartOfTheFileIsZeros) {
    bounding->hasShcoef = false;
    writeValues(3000 * layoutWithoutCoefficients.floats);
    const std::vector<float> found = decode(3000, layoutWithoutCoefficients.floats, -10);
    values.assign(values.size(), 0.0f);
    expectSame(found, expected(3000, layoutWithoutCoefficients.floats));
}

} // namespace

} // namespace Tavrin::GaussionSplat
