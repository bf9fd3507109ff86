#include "picture/geotiff_file.h"

#include "picture/picture.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

#include <geo_normalize.h>
#include <geotiffio.h>
#include <tiffio.h>
#include <xtiffio.h>

namespace Tavrin::SplatPicture {
namespace {

constexpr int tileSide = stripeRows; // a stripe is one row of tiles
constexpr std::size_t tileBytes = std::size_t{4} * tileSide * tileSide;
constexpr const char* notWritten = "the picture cannot be written: check the folder and the free disk";

// Differences from the pixel to the left, sample by sample: TIFF's horizontal predictor.
void predict(std::uint8_t* row) {
    for (std::size_t at = 4 * std::size_t{tileSide} - 1; at >= 4; --at) {
        row[at] = static_cast<std::uint8_t>(row[at] - row[at - 4]);
    }
}

// The compressed tile whose left column is `left`. Pixels outside the picture are transparent.
std::vector<std::uint8_t> encodeTile(const std::uint8_t* pixels, int width, int left, int rows) {
    std::vector<std::uint8_t> tile(tileBytes);
    const auto columns = static_cast<std::size_t>(std::min(tileSide, width - left));
    for (int row = 0; row < rows; ++row) {
        std::uint8_t* const to = tile.data() + static_cast<std::size_t>(row) * 4 * tileSide;
        std::memcpy(to,
                    pixels + 4 * (static_cast<std::size_t>(row) * static_cast<std::size_t>(width) +
                                  static_cast<std::size_t>(left)),
                    4 * columns);
        predict(to);
    }
    uLongf size = compressBound(tileBytes);
    std::vector<std::uint8_t> bytes(size);
    if (compress2(bytes.data(), &size, tile.data(), tileBytes, Z_DEFAULT_COMPRESSION) != Z_OK) {
        throw PictureError("out of memory while a tile was compressed");
    }
    bytes.resize(size);
    return bytes;
}

void setTags(TIFF* tiff, const PixelGrid& grid) {
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(grid.width));
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(grid.height));
    TIFFSetField(tiff, TIFFTAG_TILEWIDTH, static_cast<std::uint32_t>(tileSide));
    TIFFSetField(tiff, TIFFTAG_TILELENGTH, static_cast<std::uint32_t>(tileSide));
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 4);
    TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    const std::uint16_t alpha = EXTRASAMPLE_UNASSALPHA;
    TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &alpha);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
    const double scale[3] = {grid.pixel, grid.pixel, 0.0};
    const double tie[6] = {0.0, 0.0, 0.0, grid.left(), grid.top(), 0.0};
    TIFFSetField(tiff, TIFFTAG_GEOPIXELSCALE, 3, scale);
    TIFFSetField(tiff, TIFFTAG_GEOTIEPOINTS, 6, tie);
}

bool setKeys(TIFF* tiff, int epsg) {
    GTIF* const keys = GTIFNew(tiff);
    if (keys == nullptr) {
        return false;
    }
    const CodeKind kind = kindOfCode(epsg);
    GTIFKeySet(keys, GTRasterTypeGeoKey, TYPE_SHORT, 1, RasterPixelIsArea);
    if (kind == CodeKind::projected) {
        GTIFKeySet(keys, GTModelTypeGeoKey, TYPE_SHORT, 1, ModelTypeProjected);
        GTIFKeySet(keys, ProjectedCSTypeGeoKey, TYPE_SHORT, 1, epsg);
    } else if (kind == CodeKind::geographic) {
        GTIFKeySet(keys, GTModelTypeGeoKey, TYPE_SHORT, 1, ModelTypeGeographic);
        GTIFKeySet(keys, GeographicTypeGeoKey, TYPE_SHORT, 1, epsg);
    }
    const bool isWritten = GTIFWriteKeys(keys) != 0;
    GTIFFree(keys);
    return isWritten;
}

} // namespace

CodeKind kindOfCode(int epsg) {
    constexpr int mostKey = 32766; // the keys hold short numbers; 32767 means "described elsewhere"
    if (epsg == 0) {
        return CodeKind::none;
    }
    if (epsg < 0 || epsg > mostKey) {
        return CodeKind::unknown;
    }
    if (GTIFGetPCSInfo(epsg, nullptr, nullptr, nullptr, nullptr) != 0) {
        return CodeKind::projected;
    }
    return GTIFGetGCSInfo(epsg, nullptr, nullptr, nullptr, nullptr) != 0 ? CodeKind::geographic
                                                                         : CodeKind::unknown;
}

struct GeoTiffFile::State {
    TIFF* tiff = nullptr;

    ~State() {
        if (tiff != nullptr) {
            XTIFFClose(tiff);
        }
    }
};

GeoTiffFile::GeoTiffFile(const std::filesystem::path& path, const PixelGrid& grid, int epsg)
    : state_(std::make_unique<State>()), width_(grid.width) {
    TIFFSetErrorHandler(nullptr); // results are checked, so nothing needs to be printed
    TIFFSetWarningHandler(nullptr);
    // Files beyond four gigabytes need 64-bit offsets. The size counts uncompressed, since compression may
    // not shrink it.
    constexpr double mostClassic = 3.9e9;
    const bool isBig = 4.0 * grid.width * grid.height > mostClassic;
    state_->tiff = XTIFFOpen(path.c_str(), isBig ? "w8" : "w");
    if (state_->tiff == nullptr) {
        throw PictureError(notWritten);
    }
    setTags(state_->tiff, grid);
    if (!setKeys(state_->tiff, epsg)) {
        throw PictureError(notWritten);
    }
    tiles_.resize(static_cast<std::size_t>((width_ + tileSide - 1) / tileSide));
}

GeoTiffFile::~GeoTiffFile() = default;

void GeoTiffFile::write(Crew& crew, const std::uint8_t* pixels, int rows) {
    crew.run(tiles_.size(), [&](unsigned, std::size_t tile) {
        tiles_[tile] = encodeTile(pixels, width_, static_cast<int>(tile) * tileSide, rows);
    });
    for (std::vector<std::uint8_t>& tile : tiles_) {
        const auto size = static_cast<tmsize_t>(tile.size());
        if (TIFFWriteRawTile(state_->tiff, nextTile_++, tile.data(), size) != size) {
            throw PictureError(notWritten);
        }
    }
}

void GeoTiffFile::close() {
    // XTIFFClose returns no result, so the directory is written and checked before.
    const bool isWritten = TIFFWriteDirectory(state_->tiff) == 1 && TIFFFlush(state_->tiff) == 1;
    XTIFFClose(state_->tiff);
    state_->tiff = nullptr;
    if (!isWritten) {
        throw PictureError(notWritten);
    }
}

} // namespace Tavrin::SplatPicture
