// GeoTIFF files of 8-bit red, green, blue and alpha, in compressed tiles.
#pragma once

#include "picture/pixel_grid.h"
#include "picture/sink.h"

#include <filesystem>
#include <memory>
#include <vector>

namespace Tavrin::SplatPicture {

// The kinds of reference systems that a GeoTIFF distinguishes.
enum class CodeKind {
    none,      // EPSG code 0
    projected, // a code of projected coordinates
    geographic,
    unknown // a code that PROJ does not know as one of these; the file does not name it
};

CodeKind kindOfCode(int epsg);

class GeoTiffFile : public Sink {
public:
    // `epsg` 0 means no code. Throws PictureError when the file cannot be written.
    GeoTiffFile(const std::filesystem::path& path, const PixelGrid& grid, int epsg);
    ~GeoTiffFile() override;

    void write(Crew& crew, const std::uint8_t* pixels, int rows) override;
    void close() override;

private:
    struct State;
    std::unique_ptr<State> state_;
    int width_;
    std::uint32_t nextTile_ = 0;
    std::vector<std::vector<std::uint8_t>> tiles_; // of one row of tiles, compressed
};

} // namespace Tavrin::SplatPicture
