// What the renderer draws: a triangle mesh in the library's layout, the
// materials its triangles refer to, the point lights and the sky.
#ifndef KELR_RENDER_SCENE_H
#define KELR_RENDER_SCENE_H

#include <array>
#include <vector>

namespace render {

using Vec3 = std::array<float, 3>;

struct Material {
    Vec3 albedo{0.8f, 0.8f, 0.8f};
    float specular = 0.0f;      // strength of the highlight
    float shininess = 32.0f;    // exponent of the highlight
    float reflectivity = 0.0f;  // fraction of light taken from the mirror direction
};

struct PointLight {
    Vec3 position{0.0f, 10.0f, 0.0f};
    Vec3 colour{100.0f, 100.0f, 100.0f};  // intensity at one unit; falls off with 1/r^2
};

// Vertices are three floats each; triangles four ints each (three vertex
// numbers and a spare word), the layout every library call reads directly.
struct Mesh {
    std::vector<float> vertices;
    std::vector<int> triangles;
    std::vector<float> vertexNormals;  // three floats per vertex, unit length
    std::vector<int> materialOfTriangle;

    int vertexCount() const { return int(vertices.size() / 3); }
    int triangleCount() const { return int(triangles.size() / 4); }
    int addVertex(const Vec3& position, const Vec3& normal);
    void addTriangle(int a, int b, int c, int material);
    // Appends another mesh, shifting its vertex numbers and materials.
    void append(const Mesh& other, int materialOffset);
};

struct CameraSetup {
    Vec3 eye{0.0f, 4.0f, 12.0f};
    Vec3 lookAt{0.0f, 1.0f, 0.0f};
    Vec3 up{0.0f, 1.0f, 0.0f};
    float verticalFovDegrees = 40.0f;
};

struct Scene {
    Mesh mesh;
    std::vector<Material> materials;
    std::vector<PointLight> lights;
    Vec3 ambient{0.06f, 0.06f, 0.07f};
    Vec3 skyHorizon{0.62f, 0.74f, 0.92f};
    Vec3 skyZenith{0.20f, 0.38f, 0.78f};
    CameraSetup camera;
};

// Area-weighted average of the normals of the triangles around each vertex;
// used when a mesh comes without normals.
void computeVertexNormals(Mesh* mesh);

}  // namespace render

#endif
