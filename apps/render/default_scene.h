// The scenes the renderer draws when given no file, or around a loaded mesh.
#ifndef KELR_RENDER_DEFAULT_SCENE_H
#define KELR_RENDER_DEFAULT_SCENE_H

#include "scene.h"

namespace render {

// A chequered floor, a mirror sphere, a torus, a coil spring, a vase and a
// faceted ball, over 200,000 triangles, lit by two point lights.
Scene makeDefaultScene();

// The floor, the mirror sphere and the lights of the default scene, with the
// given mesh scaled to a comfortable size and standing on the floor in front
// of the sphere. The mesh's own normals are kept when it has them.
Scene makeSceneAroundMesh(const Mesh& mesh);

}  // namespace render

#endif
