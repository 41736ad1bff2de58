// Tessellated solids for the built-in scenes. Each returns its own mesh with
// every triangle on material 0; Mesh::append places it in a scene.
#ifndef KELR_RENDER_SHAPES_H
#define KELR_RENDER_SHAPES_H

#include "scene.h"

namespace render {

// A square of side 2 * halfSize on the plane y = height, cut into cells x
// cells squares that alternate between materials 0 and 1 like a chessboard.
Mesh makeCheckerFloor(float halfSize, int cells, float height);

Mesh makeSphere(const Vec3& centre, float radius, int slices, int stacks);

// A ring lying flat, its axis vertical.
Mesh makeTorus(const Vec3& centre, float ringRadius, float tubeRadius, int segments, int sides);

// A coil spring standing on its base point, with round ends.
Mesh makeSpring(const Vec3& base, float coilRadius, float tubeRadius, float height, float turns,
                int segments, int sides);

// A vase turned around the vertical axis through base: an open surface of revolution.
Mesh makeVase(const Vec3& base, float height, float radius, int slices, int rings);

// A subdivided icosahedron whose faces do not share vertices, so that even
// smooth shading shows every facet, like a cut stone.
Mesh makeFacetedBall(const Vec3& centre, float radius, int subdivisions);

}  // namespace render

#endif
