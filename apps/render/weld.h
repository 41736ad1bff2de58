// Welding the vertices of a loaded mesh.
#ifndef KELR_RENDER_WELD_H
#define KELR_RENDER_WELD_H

#include "scene.h"

namespace render {

// Merges vertices that share both position and normal (-0 and +0 alike), so
// that faces written with separate copies of a corner, as OBJ files often do
// along the borders of patches, share one vertex; normals computed from the
// faces then run smoothly across those borders instead of leaving seams.
// Vertices whose normals differ (a crease given in the file) stay apart.
// Returns the number of vertices removed.
int weldVertices(Mesh* mesh);

}  // namespace render

#endif
