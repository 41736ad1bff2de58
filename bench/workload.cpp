#include "workload.h"

#include <cmath>

namespace kelb {

namespace {

struct V3 {
    double x, y, z;
};
V3 operator+(V3 a, V3 b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
V3 operator-(V3 a, V3 b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
V3 operator*(double s, V3 a) {
    return {s * a.x, s * a.y, s * a.z};
}
V3 cross(V3 a, V3 b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
V3 normalise(V3 a) {
    return (1.0 / std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z)) * a;
}
void store(V3 a, float out[3]) {
    out[0] = float(a.x);
    out[1] = float(a.y);
    out[2] = float(a.z);
}

void appendMesh(const kelt::Mesh& part, double dx, double dz, kelt::Mesh* scene) {
    int base = scene->vertexCount();
    for (int v = 0; v < part.vertexCount(); ++v)
        scene->addVertex(float(part.vertices[3 * v] + dx), part.vertices[3 * v + 1],
                         float(part.vertices[3 * v + 2] + dz));
    for (int t = 0; t < part.triangleCount(); ++t)
        scene->addTriangle(base + part.triangles[4 * t], base + part.triangles[4 * t + 1],
                           base + part.triangles[4 * t + 2]);
}

// Two triangles of the quad a, b, c, d (in order around it).
void addQuad(kelt::Mesh* mesh, V3 a, V3 b, V3 c, V3 d) {
    int ia = mesh->addVertex(float(a.x), float(a.y), float(a.z));
    int ib = mesh->addVertex(float(b.x), float(b.y), float(b.z));
    int ic = mesh->addVertex(float(c.x), float(c.y), float(c.z));
    int id = mesh->addVertex(float(d.x), float(d.y), float(d.z));
    mesh->addTriangle(ia, ib, ic);
    mesh->addTriangle(ia, ic, id);
}

// A closed box of 12 triangles whose faces look inwards.
void addRoom(kelt::Mesh* mesh, V3 lo, V3 hi) {
    V3 p[8];
    for (int k = 0; k < 8; ++k)
        p[k] = {k & 1 ? hi.x : lo.x, k & 2 ? hi.y : lo.y, k & 4 ? hi.z : lo.z};
    // Floor and ceiling first, then the x and the z walls: the triangle
    // numbers, and so the workload's id checksums, depend on this order.
    addQuad(mesh, p[0], p[4], p[5], p[1]);  // y = lo (floor)
    addQuad(mesh, p[2], p[3], p[7], p[6]);  // y = hi
    addQuad(mesh, p[0], p[2], p[6], p[4]);  // x = lo
    addQuad(mesh, p[1], p[5], p[7], p[3]);  // x = hi
    addQuad(mesh, p[0], p[1], p[3], p[2]);  // z = lo
    addQuad(mesh, p[4], p[6], p[7], p[5]);  // z = hi
}

}  // namespace

const std::vector<std::string>& sceneNames() {
    static const std::vector<std::string> names = {"bunny",  "bunny-room", "bunny-grid4",
                                                   "teapot", "fandisk",    "spot"};
    return names;
}

void meshBox(const kelt::Mesh& mesh, double box[6]) {
    for (int a = 0; a < 3; ++a) {
        box[a] = HUGE_VAL;
        box[a + 3] = -HUGE_VAL;
    }
    for (int v = 0; v < mesh.vertexCount(); ++v)
        for (int a = 0; a < 3; ++a) {
            double c = mesh.vertices[3 * v + a];
            box[a] = std::fmin(box[a], c);
            box[a + 3] = std::fmax(box[a + 3], c);
        }
}

void frameBox(const double box[6], int width, Camera* camera, float light[3]) {
    V3 lo{box[0], box[1], box[2]}, hi{box[3], box[4], box[5]};
    V3 c = 0.5 * (lo + hi);
    V3 e = hi - lo;
    double d = std::sqrt(e.x * e.x + e.y * e.y + e.z * e.z);
    V3 back = normalise({0.3, 0.4, 1.0});
    V3 forward = -1.0 * back;
    V3 right = normalise(cross(forward, {0.0, 1.0, 0.0}));
    V3 down = cross(forward, right);
    double t = std::tan(M_PI / 6.0);
    double step = 2.0 * t / width;
    double first = -t + step / 2.0;
    store(c + (1.6 * d) * back, camera->eye);
    store(forward + first * right + first * down, camera->corner);
    store(step * right, camera->columnStep);
    store(step * down, camera->rowStep);
    camera->width = width;
    store(c + V3{0.5 * d, 1.0 * d, 0.3 * d}, light);
}

bool makeScene(const std::string& name, Scene* scene) {
    scene->name = name;
    scene->mesh = kelt::Mesh();
    std::string file = name == "teapot"    ? "teapot.obj"
                       : name == "fandisk" ? "fandisk.obj"
                       : name == "spot"    ? "spot.obj"
                                           : "stanford-bunny.obj";
    kelt::Mesh base;
    if (!kelt::loadSharedMesh(file, &base)) return false;
    double box[6];
    meshBox(base, box);
    V3 lo{box[0], box[1], box[2]}, hi{box[3], box[4], box[5]};
    V3 extent = hi - lo;
    if (name == "bunny-grid4") {
        for (int j = 0; j < 4; ++j)
            for (int i = 0; i < 4; ++i)
                appendMesh(base, 1.2 * i * extent.x, 1.2 * j * extent.z, &scene->mesh);
        double y = lo.y - 0.01 * extent.y;
        double x0 = lo.x - 0.5 * extent.x, x1 = hi.x + 1.2 * 3 * extent.x + 0.5 * extent.x;
        double z0 = lo.z - 0.5 * extent.z, z1 = hi.z + 1.2 * 3 * extent.z + 0.5 * extent.z;
        addQuad(&scene->mesh, {x0, y, z0}, {x0, y, z1}, {x1, y, z1}, {x1, y, z0});
        meshBox(scene->mesh, box);
    } else {
        scene->mesh = base;
        if (name == "bunny-room") {
            V3 c = 0.5 * (lo + hi);
            double d = std::sqrt(extent.x * extent.x + extent.y * extent.y + extent.z * extent.z);
            double f = lo.y - 0.01 * extent.y;
            addRoom(&scene->mesh, {c.x - 2 * d, f, c.z - 2 * d},
                    {c.x + 2 * d, f + 3 * d, c.z + 2 * d});
        }
    }
    frameBox(box, 1024, &scene->camera, scene->light);
    return true;
}

}  // namespace kelb
