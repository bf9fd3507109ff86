// Reads pictures beside datasets, in builds with the libraries for it.
#include "program/tiles/overview.h"

#include "program/system/platform.h"

#include <png.h>

#include <fstream>
#include <iterator>
#include <memory>

#include <geotiff/geotiff.h>
#include <geotiff/geotiffio.h>
#include <geotiff/xtiffio.h>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

using Transform = std::array<double, 6>;

struct CloseTiff {
    void operator()(TIFF* file) const { XTIFFClose(file); }
};
struct FreeKeys {
    void operator()(GTIF* keys) const { GTIFFree(keys); }
};

// Keeps libtiff from printing errors itself. Faults of a file become remarks.
class QuietTiff {
public:
    QuietTiff() : warning_(TIFFSetWarningHandler(nullptr)), error_(TIFFSetErrorHandler(nullptr)) {}
    QuietTiff(const QuietTiff&) = delete;
    QuietTiff& operator=(const QuietTiff&) = delete;
    ~QuietTiff() {
        TIFFSetWarningHandler(warning_);
        TIFFSetErrorHandler(error_);
    }

private:
    TIFFErrorHandler warning_;
    TIFFErrorHandler error_;
};

// The values of a tag with a count; null if there are fewer than `least`.
const double* doublesOf(TIFF* file, std::uint32_t tag, int least) {
    std::uint16_t count = 0;
    double* values = nullptr;
    const bool isThere = TIFFGetField(file, tag, &count, &values) == 1;
    return isThere && count >= least ? values : nullptr;
}

std::optional<Transform> transformOf(TIFF* file) {
    constexpr int tiePointValues = 6;
    constexpr int matrixValues = 16;
    if (const double* const matrix = doublesOf(file, TIFFTAG_GEOTRANSMATRIX, matrixValues)) {
        return Transform{matrix[0], matrix[1], matrix[3], matrix[4], matrix[5], matrix[7]};
    }
    const double* const scale = doublesOf(file, TIFFTAG_GEOPIXELSCALE, 2);
    const double* const tie = doublesOf(file, TIFFTAG_GEOTIEPOINTS, tiePointValues);
    if (scale == nullptr || tie == nullptr) {
        return std::nullopt;
    }
    // The point (tie[3], tie[4]) lies at column tie[0] and row tie[1]; rows run to the south.
    return Transform{scale[0], 0.0, tie[3] - tie[0] * scale[0], 0.0, -scale[1], tie[4] + tie[1] * scale[1]};
}

std::int32_t codeOf(GTIF* keys) {
    constexpr std::uint16_t userDefined = 32767;
    for (const geokey_t key : {ProjectedCSTypeGeoKey, GeographicTypeGeoKey}) {
        std::uint16_t code = 0;
        if (GTIFKeyGetSHORT(keys, key, &code, 0, 1) == 1 && code != 0 && code != userDefined) {
            return code;
        }
    }
    return 0;
}

// True if the file says that its tags refer to the centres of pixels. Otherwise they refer to corners.
bool namesMiddles(GTIF* keys) {
    std::uint16_t kind = 0;
    return GTIFKeyGetSHORT(keys, GTRasterTypeGeoKey, &kind, 0, 1) == 1 && kind == RasterPixelIsPoint;
}

std::optional<Overview> readTiff(const fs::path& path, std::string& remark) {
    const QuietTiff quiet;
    const std::unique_ptr<TIFF, CloseTiff> file(XTIFFOpen(path.c_str(), "r"));
    Overview overview;
    if (!file || TIFFGetField(file.get(), TIFFTAG_IMAGEWIDTH, &overview.columns) != 1 ||
        TIFFGetField(file.get(), TIFFTAG_IMAGELENGTH, &overview.rows) != 1) {
        remark = "it cannot be read as a TIFF file";
        return std::nullopt;
    }
    const auto transform = transformOf(file.get());
    const std::unique_ptr<GTIF, FreeKeys> keys(GTIFNew(file.get()));
    if (!transform || !keys) {
        remark = "it is not georeferenced";
        return std::nullopt;
    }
    overview.transform = *transform;
    overview.epsg = codeOf(keys.get());
    if (namesMiddles(keys.get())) {
        Transform& t = overview.transform;
        t[2] -= 0.5 * (t[0] + t[1]);
        t[5] -= 0.5 * (t[3] + t[4]);
    }
    return overview;
}

std::optional<Overview> readPng(const fs::path& path, std::string& remark) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        remark = "it cannot be read as a PNG file";
        return std::nullopt;
    }
    Overview overview;
    overview.isPng = true;
    overview.columns = image.width;
    overview.rows = image.height;
    png_image_free(&image);
    std::ifstream world(fs::path(path).replace_extension(".pgw"), std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(world), {});
    const auto transform = worldFileTransform(text);
    if (!transform) {
        remark = "it has no world file (.pgw) beside it";
        return std::nullopt;
    }
    overview.transform = *transform;
    return overview;
}

} // namespace

std::optional<Overview> overviewBeside(const fs::path& folder, std::string& remark) {
    for (const char* const ending : {".tif", ".png"}) {
        const fs::path path = fs::path(folder) += ending;
        std::error_code error;
        if (!fs::is_regular_file(path, error)) {
            continue;
        }
        const bool isPng = std::string_view(ending) == ".png";
        auto overview = isPng ? readPng(path, remark) : readTiff(path, remark);
        if (overview) {
            overview->file = path;
            overview->bytes = fs::file_size(path, error);
        } else {
            remark.insert(0, textFromPath(path) + ": ");
        }
        return overview;
    }
    return std::nullopt;
}

} // namespace Tavrin::SplatProgram
