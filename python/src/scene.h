// A triangle mesh made ready for tracing (its box, per-triangle normals and
// accelerator records, and a kd-tree) and the queries on it. Nothing changes
// after the build, so any number of threads may trace one scene at once; the
// GIL is released inside every library call.
#ifndef KELPY_SCENE_H
#define KELPY_SCENE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "arrays.h"
#include "kelr.h"

namespace kelpy {

struct BuildOptions {
    std::string builder = "psah";  // or "simple": one leaf holding every triangle
    int maxDepth = 50;
    float weight = 0.5f;
    std::optional<int64_t> memoryMiB;  // none: sized to the mesh
    py::object clipBox = py::none();
};

class Scene {
  public:
    Scene(py::handle vertices, py::handle triangles, const BuildOptions& options);
    // The intersection context points into the scene itself.
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    int triangleCount() const { return triangleCount_; }
    int vertexCount() const { return vertexCount_; }
    int treeBytes() const { return treeBytes_; }
    py::tuple box() const;

    // Nearest hits of rays from one origin (3,) or one each (N, 3); the
    // rays are traced as one block 4 rays wide, padded to whole 4 x 4 tiles,
    // so that the four-ray path serves them.
    py::dict intersect(py::handle origins, py::handle directions) const;
    // Nearest hits of an image of rays (H, W, 3) from one origin, traced as
    // one H x W block: the four-ray path when H and W are multiples of 4.
    py::dict intersectImage(py::handle origin, py::handle directions) const;
    // True where something lies strictly between the light and the point.
    py::array occluded(py::handle light, py::handle points) const;
    py::array normals(py::handle hits, bool smooth, py::handle vertexNormals) const;
    py::array hitPoints(py::handle origins, py::handle directions, py::handle hits,
                        float scale) const;

  private:
    struct FreeTree {
        void operator()(KDTreeNode* tree) const { kelrKDTreeFree(tree); }
    };

    void copyTriangles(const py::array_t<int64_t>& triangles);
    KDTreeBuildContext buildContext(const BuildOptions& options, float clipBox[6]);
    py::dict nearestHits(const float* origin, const float* const* origins,
                         const float* const* directions, const Shape& rayShape, py::ssize_t count,
                         int width, int height) const;

    int vertexCount_ = 0;
    int triangleCount_ = 0;
    int treeBytes_ = 0;
    float box_[6] = {};
    Block<int32_t> triangles_;  // four words a triangle, as the library reads them
    Block<float> triangleNormals_;
    Block<TriangleAccel> accel_;
    std::unique_ptr<KDTreeNode, FreeTree> tree_;
    IntersectContext context_ = {};
};

}  // namespace kelpy

#endif
