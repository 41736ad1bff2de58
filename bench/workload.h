// The standard benchmark workload: scenes built from the shared meshes, the
// camera and the light derived from a scene box. Every benchmark program
// measures these, so figures compare across programs and with other tracers.
#ifndef KEL_BENCH_WORKLOAD_H
#define KEL_BENCH_WORKLOAD_H

#include <algorithm>
#include <string>
#include <vector>

#include "mesh.h"

namespace kelb {

// The middle of a set of timings (the upper middle of an even count).
inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Camera {
    float eye[3];
    float corner[3];      // direction of pixel (0, 0)
    float columnStep[3];  // direction increment per column
    float rowStep[3];     // direction increment per row
    int width = 1024;     // square image
};

struct Scene {
    std::string name;
    kelt::Mesh mesh;
    Camera camera;
    float light[3];
};

// bunny, bunny-room, bunny-grid4, teapot, fandisk, spot.
const std::vector<std::string>& sceneNames();

// Builds a scene of the workload; false when the shared meshes are absent.
bool makeScene(const std::string& name, Scene* scene);

// Camera and light framing the box (min x, y, z, max x, y, z), in double and
// rounded to float once.
void frameBox(const double box[6], int width, Camera* camera, float light[3]);

// Componentwise bounds of a vertex array, in double.
void meshBox(const kelt::Mesh& mesh, double box[6]);

}  // namespace kelb

#endif
