#include "fuzz/scene.h"

#include "tests/support/plyfile.h"

#include <algorithm>
#include <cstdio>

namespace fuzz {

namespace {

constexpr const char* keys[] = {"minx",    "miny",    "minz",   "maxx",     "maxy",   "maxz",   "offsetx",
                                "offsety", "offsetz", "shiftx", "shifty",   "shiftz", "scalex", "scaley",
                                "scalez",  "epsg",    "source", "dataType", "other"};

std::string valueOf(Source& source) {
    char text[64];
    switch (source.takeBelow(4)) {
    case 0:
        return source.takeText(source.takeBelow(16));
    case 1:
        std::snprintf(text, sizeof text, "%.9g", double{source.take<float>()});
        return text;
    default:
        return std::to_string(source.take<std::int16_t>());
    }
}

// Makes records from the floats of the remaining bytes. At their end it starts again, so that a few bytes
// make many records.
void addRecords(support::PlyFile& ply, std::size_t count, const std::string& bytes) {
    std::vector<float> floats(std::max<std::size_t>(bytes.size() / sizeof(float), 1));
    if (!bytes.empty()) {
        std::memcpy(floats.data(), bytes.data(), std::min(bytes.size(), floats.size() * sizeof(float)));
    }
    for (std::size_t i = 0; i < count * ply.recordFloats(); ++i) {
        ply.records.push_back(floats[i % floats.size()]);
    }
}

} // namespace

Scene sceneOf(Source& source) {
    Scene scene;
    const std::size_t choices = source.takeBelow(256);
    scene.countChoice = choices >> 2 & 3;
    scene.blockSplats = 1 + source.takeBelow(64);
    scene.otherBlockSplats = 1 + source.takeBelow(256);
    if ((choices & 1) != 0) {
        scene.file = source.remaining();
        return scene;
    }
    support::PlyFile ply;
    ply.coefficients = (choices & 2) != 0;
    for (std::size_t i = source.takeBelow(8); i > 0; --i) {
        const std::string key = keys[source.takeBelow(std::size(keys))];
        ply.comments.push_back("comment " + key + ' ' + valueOf(source));
    }
    const std::size_t count = source.takeBelow(ply.coefficients ? 16 : 48);
    // NOLINTNEXTLINE(bugprone-signed-char-misuse): a number with a sign, no character
    const int lie = source.take<std::int8_t>();
    const std::size_t cut = (choices & 16) != 0 ? source.take<std::uint16_t>() : 0;
    ply.elementLine = "element vertex " + std::to_string(static_cast<int>(count) + lie);
    addRecords(ply, count, source.remaining());
    scene.file = ply.bytes();
    scene.file.resize(scene.file.size() - std::min(cut, scene.file.size()));
    return scene;
}

} // namespace fuzz
