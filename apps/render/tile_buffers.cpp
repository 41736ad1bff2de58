#include "tile_buffers.h"

#include <algorithm>

namespace render {

void PlaneTriple::copyFrom(const PlaneTriple& other) {
    x = other.x;
    y = other.y;
    z = other.z;
}

void PlaneTriple::fill(float value) {
    for (float* plane : planes) std::fill(plane, plane + kTileRays, value);
}

TileBuffers::TileBuffers() {
    std::fill(ones.at, ones.at + kTileRays, 1.0f);
    white.fill(1.0f);
    std::fill(allActive.at, allActive.at + kTileRays, 0);
}

}  // namespace render
