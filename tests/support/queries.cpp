#include "queries.h"

#include <utility>

#include "trees.h"

namespace kelt {

Scene::Scene(Mesh m) : mesh(std::move(m)), accel(size_t(mesh.triangleCount())) {
    kelrTriangleAccelInit(accel.data(), mesh.vertices.data(), mesh.triangles.data(), count());
    vertexBounds(mesh, box);
}

TracedScene::TracedScene(Mesh mesh, bool withOneLeaf) : scene(std::move(mesh)) {
    const Mesh& m = scene.mesh;
    if (withOneLeaf) {
        oneLeaf_ = oneLeafTree(m.triangleCount());
        trees.push_back(
            {"one leaf", scene.context(reinterpret_cast<KDTreeNode*>(oneLeaf_.data()))});
    }
    const KDTreeBuildContext context = {KDT_BUILD_PSAH, 50, 0.5f,
                                        psahBudgetMiB(m.vertexCount(), m.triangleCount()), nullptr};
    int size = 0;
    psahStatus = kelrKDTreeBuildAlloc(&psah_, m.vertices.data(), m.triangles.data(),
                                      m.vertexCount(), m.triangleCount(), &size, &context);
    trees.push_back({"psah", scene.context(psah_)});
}

TracedScene::~TracedScene() {
    kelrKDTreeFree(psah_);
}

Answers trace(Query q, const IntersectContext& context, const Rays& rays, int misalign) {
    const int n = rays.count;
    Planes3 origin(n, 0, misalign), dir(n, 0, misalign), hit(n, -7.0f, misalign);
    Plane<float> t(n, 0, misalign);
    Plane<int> id(n, 99, misalign), mask(n, 0, misalign);
    for (int i = 0; i < n; ++i) {
        float v[3];
        rays.origin.get(i, v), origin.set(i, v);
        rays.dir.get(i, v), dir.set(i, v);
        t[i] = rays.distance[size_t(i)], mask[i] = rays.mask[size_t(i)];
    }
    float from[3];
    rays.origin.get(0, from);
    Answers a;
    if (q == Query::kEye)
        a.status = kelrIntersectEyeSO_32f(from, dir.p(), t.data(), hit.p(), id.data(), &context,
                                          rays.width, rays.height);
    else if (q == Query::kOwnOrigins)
        a.status = kelrIntersectMO_32f(origin.p(), dir.p(), t.data(), hit.p(), id.data(), &context,
                                       rays.width, rays.height);
    else
        a.status = kelrIntersectAnySO_32f(from, dir.p(), id.data(), mask.data(), rays.width,
                                          rays.height, &context);
    a.id = id.values(), a.mask = mask.values(), a.t = t.values();
    a.u = hit[0].values(), a.v = hit[1].values();
    a.intact = origin.intact() && dir.intact() && hit.intact() && t.intact() && id.intact() &&
               mask.intact();
    return a;
}

}  // namespace kelt
