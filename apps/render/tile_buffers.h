// The per-ray arrays of one tile, laid out the way the library's four-ray
// paths want them: every plane 16-byte aligned and a multiple of 4 long.
#ifndef KELR_RENDER_TILE_BUFFERS_H
#define KELR_RENDER_TILE_BUFFERS_H

namespace render {

constexpr int kTileSide = 16;
constexpr int kTileRays = kTileSide * kTileSide;

struct alignas(16) FloatPlane {
    float at[kTileRays];
};

struct alignas(16) IntPlane {
    int at[kTileRays];
};

// Three planes (x, y, z or red, green, blue) and the array of three plane
// pointers that the library takes. Not copyable: the pointers refer to the
// object's own planes.
struct PlaneTriple {
    FloatPlane x, y, z;
    float* planes[3] = {x.at, y.at, z.at};

    PlaneTriple() = default;
    PlaneTriple(const PlaneTriple&) = delete;
    PlaneTriple& operator=(const PlaneTriple&) = delete;
    void copyFrom(const PlaneTriple& other);
    void fill(float value);
};

// Everything one thread needs to trace a tile; allocated once per thread.
struct TileBuffers {
    // The rays of the current generation (eye rays, then each bounce).
    PlaneTriple origin;     // per-ray origins of bounce rays
    PlaneTriple direction;  // unit directions
    FloatPlane distance;
    FloatPlane hitU, hitV;
    float* hit[2] = {hitU.at, hitV.at};
    IntPlane triangle;  // triangle hit, -1 for none: also the mask of rays still alive

    // What the rays found.
    PlaneTriple point;      // hit points, moved a little towards the ray's origin
    PlaneTriple normal;     // shading normals, turned to face the ray
    FloatPlane facing;      // direction . normal, <= 0 after the turn
    PlaneTriple reflected;  // mirror directions, for highlights and bounces

    // Surface properties looked up per ray.
    PlaneTriple albedo;
    FloatPlane specular, shininess, reflectivity;

    // Per light.
    IntPlane lit;  // hits that face the light and are not occluded
    IntPlane occluder;
    PlaneTriple toPoint;  // light -> hit point
    FloatPlane cosine, lightDistance, diffuse, highlight;

    // Colours: this generation's local shading, and the pixel's running sum
    // weighted by the product of the reflectivities met so far.
    PlaneTriple colour;
    PlaneTriple pixel;
    FloatPlane throughput;
    IntPlane alive;  // rays that continue with another bounce

    FloatPlane ones;
    PlaneTriple white;
    IntPlane allActive;

    TileBuffers();
};

}  // namespace render

#endif
