#include "picture/png_file.h"

#include <png.h>

#include <csetjmp>
#include <cstdio>
#include <string>

namespace Tavrin::SplatPicture {
namespace {

constexpr const char* notWritten = "the picture cannot be written: check the folder and the free disk";

[[noreturn]] void leave(png_structp png, png_const_charp /*message*/) {
    png_longjmp(png, 1);
}

void ignore(png_structp /*png*/, png_const_charp /*message*/) {}

// These functions have no local object with a destructor while libpng works, because libpng reports errors by
// longjmp.

bool writeHeader(png_structp png, png_infop info, FILE* file, unsigned width, unsigned height) {
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    return true;
}

bool writeRow(png_structp png, const std::uint8_t* row) {
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    png_write_row(png, row);
    return true;
}

bool writeEnd(png_structp png) {
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    png_write_end(png, nullptr);
    return true;
}

} // namespace

struct PngFile::State {
    FILE* file = nullptr;
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::size_t rowBytes = 0;

    ~State() {
        if (png != nullptr) {
            png_destroy_write_struct(&png, &info);
        }
        if (file != nullptr) {
            std::fclose(file);
        }
    }
};

PngFile::PngFile(const std::filesystem::path& path, int width, int height)
    : state_(std::make_unique<State>()) {
    state_->rowBytes = 4 * static_cast<std::size_t>(width);
    state_->file = std::fopen(path.c_str(), "wb");
    state_->png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, leave, ignore);
    state_->info = state_->png == nullptr ? nullptr : png_create_info_struct(state_->png);
    if (state_->file == nullptr || state_->info == nullptr ||
        !writeHeader(state_->png, state_->info, state_->file, static_cast<unsigned>(width),
                     static_cast<unsigned>(height))) {
        throw PictureError(notWritten);
    }
}

PngFile::~PngFile() = default;

void PngFile::write(Crew& crew, const std::uint8_t* pixels, int rows) {
    for (int row = 0; row < rows; ++row) {
        crew.pause(0);
        if (!writeRow(state_->png, pixels + static_cast<std::size_t>(row) * state_->rowBytes)) {
            throw PictureError(notWritten);
        }
    }
}

void PngFile::close() {
    const bool ended = writeEnd(state_->png);
    const bool closed = std::fclose(state_->file) == 0;
    state_->file = nullptr;
    if (!ended || !closed) {
        throw PictureError(notWritten);
    }
}

void writePng(const std::filesystem::path& path, const Picture& picture) {
    Crew crew(1);
    PngFile file(path, picture.width, picture.height);
    file.write(crew, picture.bytes.data(), picture.height);
    file.close();
}

Picture readPng(const std::filesystem::path& path) {
    constexpr png_uint_32 most = 8192; // pixels on a side
    const auto failure = [&path](const std::string& what) {
        return PictureError(path.string() + ": " + what);
    };
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        throw failure(image.message);
    }
    if (image.width > most || image.height > most) {
        png_image_free(&image);
        throw failure("the picture is too large");
    }
    image.format = PNG_FORMAT_RGBA;
    Picture picture(static_cast<int>(image.width), static_cast<int>(image.height));
    if (png_image_finish_read(&image, nullptr, picture.bytes.data(), 0, nullptr) == 0) {
        throw failure(image.message);
    }
    return picture;
}

} // namespace Tavrin::SplatPicture
