#include <png.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "image.h"

namespace render {

unsigned char toSrgb8(float linear) {
    const float c = std::isnan(linear) ? 0.0f : std::fmin(std::fmax(linear, 0.0f), 1.0f);
    const float encoded = c <= 0.0031308f ? 12.92f * c : 1.055f * std::pow(c, 1.0f / 2.4f) - 0.055f;
    return static_cast<unsigned char>(std::lround(encoded * 255.0f));
}

namespace {

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};

// libpng reports errors by longjmp; everything this function owns must be
// released on that path too, so it holds only plain data across setjmp.
bool encode(FILE* file, const std::vector<unsigned char>& rows, int width, int height,
            std::string* error) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        png_destroy_write_struct(&png, nullptr);
        *error = "libpng could not start";
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        *error = "libpng failed while writing";
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    png_write_info(png, info);
    for (int row = 0; row < height; ++row)
        png_write_row(png, rows.data() + size_t(row) * width * 3);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

bool outputWritable(const std::string& path, std::string* error) {
    namespace fs = std::filesystem;
    const fs::path folder =
        fs::path(path).parent_path().empty() ? fs::path(".") : fs::path(path).parent_path();
    std::error_code failure;
    fs::create_directories(folder, failure);
    if (failure) {
        *error = "cannot write '" + path + "': " + failure.message();
        return false;
    }
    if (fs::is_directory(path)) {
        *error = "cannot write '" + path + "': it is a folder";
        return false;
    }
    if (access(folder.c_str(), W_OK) != 0) {
        *error = "cannot write '" + path + "': " + std::strerror(errno);
        return false;
    }
    return true;
}

bool writePng(const Image& image, const std::string& path, std::string* error) {
    if (!outputWritable(path, error)) return false;

    std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        *error = "cannot write '" + path + "': " + std::strerror(errno);
        return false;
    }
    std::vector<unsigned char> rows(image.rgb.size());
    for (size_t i = 0; i < rows.size(); ++i) rows[i] = toSrgb8(image.rgb[i]);
    if (!encode(file.get(), rows, image.width, image.height, error)) {
        *error = "cannot write '" + path + "': " + *error;
        return false;
    }
    if (std::fflush(file.get()) != 0) {
        *error = "cannot write '" + path + "': " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace render
