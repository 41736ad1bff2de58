// A linear-light RGB image and its PNG output.
#ifndef KELR_RENDER_IMAGE_H
#define KELR_RENDER_IMAGE_H

#include <string>
#include <vector>

#include "scene.h"

namespace render {

struct Image {
    int width = 0;
    int height = 0;
    std::vector<float> rgb;  // three floats per pixel, row by row, linear light

    Image() = default;
    Image(int w, int h) : width(w), height(h), rgb(size_t(w) * h * 3, 0.0f) {}
    float* pixel(int column, int row) { return &rgb[(size_t(row) * width + column) * 3]; }
    const float* pixel(int column, int row) const {
        return &rgb[(size_t(row) * width + column) * 3];
    }
};

// 8-bit sRGB value of a linear intensity, clamped to [0, 1] first.
unsigned char toSrgb8(float linear);

// Whether path can be written: its folder exists or can be made, and may be
// written to. Checked before a long render rather than after it.
bool outputWritable(const std::string& path, std::string* error);

// Writes an 8-bit RGB PNG, creating the file's folder if needed. False with a
// message in *error when the file cannot be written.
bool writePng(const Image& image, const std::string& path, std::string* error);

}  // namespace render

#endif
