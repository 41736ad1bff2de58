#include "scene.h"

#include <algorithm>
#include <cfloat>
#include <limits>

#include "scene_accel.h"
#include "status.h"

namespace kelpy {

namespace {

// `intersect` and `occluded` trace their rays as one block this many rays
// wide, padded to whole tiles of 4 x 4 rays: with aligned planes that is
// what the four-ray path takes. Consecutive rays share a tile, so rays in
// image order stay coherent.
constexpr int kBlockWidth = 4;
constexpr py::ssize_t kTileRays = 16;
// The geometry workers take groups of four rays.
constexpr py::ssize_t kGroupRays = 4;

// Runs a library call without the GIL.
template <typename Call>
KelStatus unlocked(Call call) {
    py::gil_scoped_release released;
    return call();
}

py::object item(py::handle hits, const char* key) {
    return hits[key];
}

}  // namespace

Scene::Scene(py::handle vertices, py::handle triangles, const BuildOptions& options) {
    const PackedFloats points = PackedFloats::ensure(realArray(vertices, "vertices"));
    requireShape(points, "vertices", {-1, 3}, "(V, 3)");
    if (points.shape(0) > INT32_MAX) throw py::value_error("vertices: too many for the library");
    vertexCount_ = int(points.shape(0));
    copyTriangles(integerArray(triangles, "triangles"));

    float clipBox[6];
    const KDTreeBuildContext build = buildContext(options, clipBox);
    int recordSize = 0;
    render::check(kelrTriangleAccelGetSize(&recordSize), "kelrTriangleAccelGetSize");
    triangleNormals_ = allocate<float>(3 * size_t(triangleCount_));
    accel_.reset(static_cast<TriangleAccel*>(allocateAligned(size_t(recordSize) * triangleCount_)));

    const float* v = points.data();
    const int* t = triangles_.get();
    render::check(unlocked([&] { return kelrSetBoundBox_32f(v, vertexCount_, box_); }),
                  "kelrSetBoundBox_32f");
    render::check(unlocked([&] {
                      return kelrTriangleNormal_32f(v, t, triangleNormals_.get(), triangleCount_);
                  }),
                  "kelrTriangleNormal_32f");
    render::check(
        unlocked([&] { return kelrTriangleAccelInit(accel_.get(), v, t, triangleCount_); }),
        "kelrTriangleAccelInit");
    KDTreeNode* tree = nullptr;
    const KelStatus status = unlocked([&] {
        return kelrKDTreeBuildAlloc(&tree, v, t, vertexCount_, triangleCount_, &treeBytes_, &build);
    });
    if (build.algorithm == KDT_BUILD_PSAH &&
        (status == KEL_STS_OVERFLOW || status == KEL_STS_NO_MEM))
        throw render::LibraryError("kelrKDTreeBuildAlloc", status,
                                   "the PSAH memory budget of " + std::to_string(build.memoryMiB) +
                                       " MiB is too small for this mesh; raise memory_mib");
    render::check(status, "kelrKDTreeBuildAlloc");
    tree_.reset(tree);
    context_ = {box_, accel_.get(), tree_.get()};
}

void Scene::copyTriangles(const py::array_t<int64_t>& triangles) {
    if (triangles.ndim() != 2 || (triangles.shape(1) != 3 && triangles.shape(1) != 4))
        throw py::value_error("triangles must have shape (T, 3) or (T, 4), not " +
                              shapeText(triangles));
    if (triangles.shape(0) == 0) throw py::value_error("triangles: the scene has none");
    if (triangles.shape(0) > INT32_MAX / 4)
        throw py::value_error("triangles: too many for the library");
    triangleCount_ = int(triangles.shape(0));
    triangles_ = allocate<int32_t>(4 * size_t(triangleCount_));
    const auto corners = triangles.unchecked<2>();
    for (int i = 0; i < triangleCount_; ++i) {
        for (int k = 0; k < 3; ++k) {
            const int64_t vertex = corners(i, k);
            if (vertex < 0 || vertex >= vertexCount_)
                throw py::value_error("triangles: triangle " + std::to_string(i) +
                                      " names vertex " + std::to_string(vertex) +
                                      ", but there are " + std::to_string(vertexCount_) +
                                      " vertices");
            triangles_[4 * i + k] = int32_t(vertex);
        }
        triangles_[4 * i + 3] = 0;
    }
}

KDTreeBuildContext Scene::buildContext(const BuildOptions& options, float clipBox[6]) {
    KDTreeBuildContext build = {};
    build.maxDepth = options.maxDepth;
    build.psahWeight = options.weight;
    if (options.builder == "simple") {
        build.algorithm = KDT_BUILD_SIMPLE;
        return build;
    }
    if (options.builder != "psah")
        throw py::value_error("builder must be 'psah' or 'simple', not '" + options.builder + "'");
    build.algorithm = KDT_BUILD_PSAH;
    const int64_t budget =
        options.memoryMiB.value_or(int64_t(render::psahBudgetMiB(vertexCount_, triangleCount_)));
    // The builder takes the budget in MiB shifted into a 32-bit byte count.
    if (budget < 1 || budget > 4095)
        throw py::value_error("memory_mib must be between 1 and 4095, not " +
                              std::to_string(budget) +
                              (options.memoryMiB ? "" : " (the budget this mesh needs)"));
    build.memoryMiB = uint32_t(budget);
    if (!options.clipBox.is_none()) {
        const PackedFloats box = PackedFloats::ensure(realArray(options.clipBox, "clip_box"));
        if (box.size() != 6 || (box.ndim() != 1 && box.ndim() != 2))
            throw py::value_error("clip_box must have shape (6,) or (2, 3), not " + shapeText(box));
        std::copy(box.data(), box.data() + 6, clipBox);
        build.clipBox = clipBox;
    }
    return build;
}

py::tuple Scene::box() const {
    return py::make_tuple(box_[0], box_[1], box_[2], box_[3], box_[4], box_[5]);
}

py::dict Scene::nearestHits(const float* origin, const float* const* origins,
                            const float* const* directions, const Shape& rayShape,
                            py::ssize_t count, int width, int height) const {
    const py::ssize_t padded = py::ssize_t(width) * height;
    Block<float> t = allocate<float>(padded), u = allocate<float>(padded),
                 v = allocate<float>(padded);
    Block<int32_t> id = allocate<int32_t>(padded);
    // No limit for the rays, none at all for the padding: they end at once.
    std::fill(t.get(), t.get() + count, FLT_MAX);
    std::fill(t.get() + count, t.get() + padded, 0.0f);
    float* hit[2] = {u.get(), v.get()};
    if (origins)
        render::check(unlocked([&] {
                          return kelrIntersectMO_32f(origins, directions, t.get(), hit, id.get(),
                                                     &context_, width, height);
                      }),
                      "kelrIntersectMO_32f");
    else
        render::check(unlocked([&] {
                          return kelrIntersectEyeSO_32f(origin, directions, t.get(), hit, id.get(),
                                                        &context_, width, height);
                      }),
                      "kelrIntersectEyeSO_32f");
    // The library leaves a miss's distance at the limit and its coordinates
    // unwritten.
    for (py::ssize_t i = 0; i < count; ++i)
        if (id[i] < 0) {
            t[i] = std::numeric_limits<float>::infinity();
            u[i] = v[i] = 0.0f;
        }
    const Shape strides = packedStrides(rayShape);
    py::dict hits;
    hits["t"] = blockArray(std::move(t), rayShape, strides);
    hits["u"] = blockArray(std::move(u), rayShape, strides);
    hits["v"] = blockArray(std::move(v), rayShape, strides);
    hits["triangle"] = blockArray(std::move(id), rayShape, strides);
    return hits;
}

py::dict Scene::intersect(py::handle origins, py::handle directions) const {
    const py::array_t<float> towards = realArray(directions, "directions");
    requireShape(towards, "directions", {-1, 3}, "(N, 3)");
    const py::ssize_t count = rayCount({towards.shape(0)}, "directions");
    const py::ssize_t padded = roundUp(count, kTileRays);
    const int height = int(padded / kBlockWidth);
    const Planes d(towards, 3, count, padded);
    const py::array_t<float> from = realArray(origins, "origins");
    if (from.ndim() == 1) {
        float origin[3];
        readPoint(from, "origins", origin);
        return nearestHits(origin, nullptr, d.get(), {count}, count, kBlockWidth, height);
    }
    requireShape(from, "origins", {count, 3}, "(3,) or (" + std::to_string(count) + ", 3)");
    const Planes o(from, 3, count, padded);
    return nearestHits(nullptr, o.get(), d.get(), {count}, count, kBlockWidth, height);
}

py::dict Scene::intersectImage(py::handle origin, py::handle directions) const {
    float eye[3];
    readPoint(origin, "origin", eye);
    const py::array_t<float> towards = realArray(directions, "directions");
    requireShape(towards, "directions", {-1, -1, 3}, "(H, W, 3)");
    const Shape rayShape = {towards.shape(0), towards.shape(1)};
    const py::ssize_t count = rayCount(rayShape, "directions");
    const Planes d(towards, 3, count, count);
    return nearestHits(eye, nullptr, d.get(), rayShape, count, int(rayShape[1]), int(rayShape[0]));
}

py::array Scene::occluded(py::handle light, py::handle points) const {
    float from[3];
    readPoint(light, "light", from);
    const py::array_t<float> to = realArray(points, "points");
    const Shape rayShape = vectorsShape(to, "points");
    const py::ssize_t count = rayCount(rayShape, "points");
    const py::ssize_t padded = roundUp(count, kTileRays);
    // Shadow rays run from the light to each point: the point is at t = 1.
    const Planes d(to, 3, count, padded, from);
    Block<int32_t> mask = allocate<int32_t>(padded), id = allocate<int32_t>(padded);
    std::fill(mask.get(), mask.get() + count, 0);
    std::fill(mask.get() + count, mask.get() + padded, -1);
    render::check(unlocked([&] {
                      return kelrIntersectAnySO_32f(from, d.get(), id.get(), mask.get(),
                                                    kBlockWidth, int(padded / kBlockWidth),
                                                    &context_);
                  }),
                  "kelrIntersectAnySO_32f");
    py::array_t<bool> result(rayShape);
    bool* out = result.mutable_data();
    for (py::ssize_t i = 0; i < count; ++i) out[i] = mask[i] < 0;
    return result;
}

py::array Scene::normals(py::handle hits, bool smooth, py::handle vertexNormals) const {
    const py::array_t<int64_t> hitIds = integerArray(item(hits, "triangle"), "hits['triangle']");
    const Shape rayShape(hitIds.shape(), hitIds.shape() + hitIds.ndim());
    const py::ssize_t count = rayCount(rayShape, "hits['triangle']");
    const py::ssize_t padded = roundUp(count, kGroupRays);
    const Block<int32_t> id =
        triangleIds(hitIds, "hits['triangle']", count, padded, triangleCount_);
    Block<float> out = allocate<float>(3 * padded);
    float* normal[3] = {out.get(), out.get() + padded, out.get() + 2 * padded};
    if (!smooth) {
        render::check(unlocked([&] {
                          return kelrSurfFlatNormal_32f(triangleNormals_.get(), id.get(), normal,
                                                        int(padded));
                      }),
                      "kelrSurfFlatNormal_32f");
        return vectorArray(std::move(out), rayShape, padded);
    }
    if (vertexNormals.is_none())
        throw py::value_error("smooth normals need vertex_normals, one normal per vertex");
    const py::array_t<float> perVertex = realArray(vertexNormals, "vertex_normals");
    requireShape(perVertex, "vertex_normals", {vertexCount_, 3},
                 "(" + std::to_string(vertexCount_) + ", 3)");
    // The library reads them interleaved, x, y, z a vertex: one plane.
    const py::ssize_t floats = 3 * py::ssize_t(vertexCount_);
    const Planes interleaved(perVertex, 1, floats, floats);
    const py::array_t<float> u = realArray(item(hits, "u"), "hits['u']");
    const py::array_t<float> v = realArray(item(hits, "v"), "hits['v']");
    requireShape(u, "hits['u']", rayShape);
    requireShape(v, "hits['v']", rayShape);
    const Planes uPlane(u, 1, count, padded), vPlane(v, 1, count, padded);
    const float* barycentric[2] = {uPlane.get()[0], vPlane.get()[0]};
    render::check(unlocked([&] {
                      return kelrSurfSmoothNormal_32f(interleaved.get()[0], triangles_.get(),
                                                      id.get(), barycentric, normal, int(padded),
                                                      4);
                  }),
                  "kelrSurfSmoothNormal_32f");
    return vectorArray(std::move(out), rayShape, padded);
}

py::array Scene::hitPoints(py::handle origins, py::handle directions, py::handle hits,
                           float scale) const {
    const py::array_t<float> towards = realArray(directions, "directions");
    const Shape rayShape = vectorsShape(towards, "directions");
    const py::ssize_t count = rayCount(rayShape, "directions");
    const py::ssize_t padded = roundUp(count, kGroupRays);
    const py::array_t<float> t = realArray(item(hits, "t"), "hits['t']");
    const py::array_t<int64_t> hitIds = integerArray(item(hits, "triangle"), "hits['triangle']");
    requireShape(t, "hits['t']", rayShape);
    requireShape(hitIds, "hits['triangle']", rayShape);
    const Planes d(towards, 3, count, padded), distance(t, 1, count, padded);
    // A miss gets the zero vector.
    const Block<int32_t> mask =
        triangleIds(hitIds, "hits['triangle']", count, padded, triangleCount_);
    Block<float> out = allocate<float>(3 * padded);
    float* point[3] = {out.get(), out.get() + padded, out.get() + 2 * padded};
    const py::array_t<float> from = realArray(origins, "origins");
    if (from.ndim() == 1) {
        float origin[3];
        readPoint(from, "origins", origin);
        render::check(unlocked([&] {
                          return kelrHitPoint3DEpsS0_32f_M(origin, d.get(), distance.get()[0],
                                                           mask.get(), point, int(padded), scale);
                      }),
                      "kelrHitPoint3DEpsS0_32f_M");
    } else {
        requireShape(from, "origins", Shape(towards.shape(), towards.shape() + towards.ndim()),
                     "(3,) or " + shapeText(towards));
        const Planes o(from, 3, count, padded);
        render::check(unlocked([&] {
                          return kelrHitPoint3DEpsM0_32f_M(o.get(), d.get(), distance.get()[0],
                                                           mask.get(), point, int(padded), scale);
                      }),
                      "kelrHitPoint3DEpsM0_32f_M");
    }
    return vectorArray(std::move(out), rayShape, padded);
}

}  // namespace kelpy
