// PNG files of 8-bit red, green, blue and alpha.
#pragma once

#include "picture/picture.h"
#include "picture/sink.h"

#include <filesystem>
#include <memory>

namespace Tavrin::SplatPicture {

class PngFile : public Sink {
public:
    // Throws PictureError when the file cannot be written.
    PngFile(const std::filesystem::path& path, int width, int height);
    ~PngFile() override;

    void write(Crew& crew, const std::uint8_t* pixels, int rows) override;
    void close() override;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Throws PictureError when the file cannot be written.
void writePng(const std::filesystem::path& path, const Picture& picture);

// Reads a PNG file of any colour type. Throws PictureError when it is not a PNG, is truncated or has a side
// of more than 8,192 pixels.
Picture readPng(const std::filesystem::path& path);

} // namespace Tavrin::SplatPicture
