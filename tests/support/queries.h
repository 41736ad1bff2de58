// Scenes and blocks of rays for the query tests: a mesh with its records,
// and origins, directions, entry distances and masks traced by the three
// queries with every plane guarded.
#ifndef KEL_TEST_QUERIES_H
#define KEL_TEST_QUERIES_H

#include <string>
#include <utility>
#include <vector>

#include "arrays.h"
#include "kelr.h"
#include "mesh.h"

namespace kelt {

enum class Query { kEye, kOwnOrigins, kShadow };
constexpr Query kQueries[] = {Query::kEye, Query::kOwnOrigins, Query::kShadow};

// A mesh with its accelerator records and box (the vertices' bounds).
struct Scene {
    explicit Scene(Mesh m);
    Mesh mesh;
    std::vector<TriangleAccel> accel;
    float box[6];
    int count() const { return mesh.triangleCount(); }
    IntersectContext context(const KDTreeNode* tree) const { return {box, accel.data(), tree}; }
};

// A scene with the trees it is traced through: the one-leaf tree (left out
// of large meshes, where every ray would test every triangle) and a PSAH
// tree, which may list a triangle in several leaves.
struct TracedScene {
    TracedScene(Mesh mesh, bool withOneLeaf);
    ~TracedScene();
    TracedScene(const TracedScene&) = delete;
    TracedScene& operator=(const TracedScene&) = delete;

    Scene scene;
    KelStatus psahStatus;
    std::vector<std::pair<std::string, IntersectContext>> trees;

  private:
    std::vector<int32_t> oneLeaf_;
    KDTreeNode* psah_ = nullptr;
};

// Eye and shadow rays start at the first origin; a shadow ray is the
// segment to its origin plus its direction.
struct Rays {
    Rays(int width, int height)
        : width(width),
          height(height),
          count(width * height),
          origin(count),
          dir(count),
          distance(size_t(count), 3.4e38f),
          mask(size_t(count), 0) {}
    int width, height, count;
    Planes3 origin, dir;
    std::vector<float> distance;  // on entry, eye rays and rays with their own origins
    std::vector<int> mask;        // on entry, shadow rays: traced when >= 0
};

// What a query leaves in each ray's id, mask, distance and hit coordinates
// (-7 where it writes none), and whether every plane kept its guards.
struct Answers {
    KelStatus status;
    std::vector<int> id, mask;
    std::vector<float> t, u, v;
    bool intact;
};

// Traces the rays through the query's entry point with every plane, inputs
// too, `misalign` elements past a 16-byte boundary: 1 takes the scalar path,
// 0 on whole 4 x 4 tiles the four-ray path.
Answers trace(Query q, const IntersectContext& context, const Rays& rays, int misalign);

}  // namespace kelt

#endif
