// Wavefront OBJ input through tinyobjloader, checked so that a broken file
// gives a message instead of a crash or an empty picture.
#ifndef KELR_RENDER_OBJ_LOADER_H
#define KELR_RENDER_OBJ_LOADER_H

#include <string>

#include "scene.h"

namespace render {

// Fills mesh (all triangles on material 0) and returns true, or returns false
// with a message in *error: unreadable file, parse error, face index out of
// range, non-finite coordinate, no triangle at all, or too many.
bool loadObjFile(const std::string& path, Mesh* mesh, std::string* error);

// The same for OBJ text held in memory (no material library is read).
bool parseObjText(const std::string& text, Mesh* mesh, std::string* error);

}  // namespace render

#endif
