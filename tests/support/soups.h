// Seeded random soups and closed surfaces for the tests.
#ifndef KEL_TEST_SOUPS_H
#define KEL_TEST_SOUPS_H

#include "mesh.h"

namespace kelt {

// A seeded soup in the unit cube that mixes small random triangles with what
// makes builders and traversals work hard: triangles in a few shared planes
// (coplanar and axis-aligned, on a coarse grid so that coordinates repeat),
// degenerate ones (a repeated corner, collinear corners, a single point),
// large ones that cross many cells, and neighbours that share an edge or
// repeat a triangle exactly (ties between hits).
Mesh randomSoup(unsigned seed, int triangleCount);

// Closed surfaces around (0.5, 0.5, 0.5), every edge shared by two
// triangles: the faces of the unit cube cut into cells x cells squares, and
// a sphere of radius 0.45 with the given slices and stacks.
Mesh closedBox(int cells);
Mesh closedSphere(int slices, int stacks);

}  // namespace kelt

#endif
