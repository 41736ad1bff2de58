// One fuzz input is the text of an OBJ file. It goes the way a --mesh file
// goes: parsed and checked by the loader, then, when it is a mesh, given its
// box, normals, accelerator records and a tree through the library. A
// crash, hang, leak or sanitizer report anywhere on that path is a finding.
// The tree is the simple one: a PSAH build costs a hundred times more per
// input, and the builders meet hostile meshes in the test suite.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "obj_loader.h"
#include "scene.h"
#include "scene_accel.h"

namespace {

// Keeps each run short; larger meshes add nothing the loader has not seen.
constexpr int kMaxTriangles = 20000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    render::Mesh mesh;
    std::string error;
    if (!render::parseObjText(std::string(reinterpret_cast<const char*>(data), size), &mesh,
                              &error)) {
        if (error.empty()) __builtin_trap();  // every refusal must say why
        return 0;
    }
    if (mesh.triangleCount() > kMaxTriangles) return 0;
    try {
        render::BuildSettings simple;
        simple.builder = render::TreeBuilder::kSimple;
        render::SceneAccel accel(mesh, simple);
    } catch (const std::exception&) {
        // A mesh the library refuses is reported, not a finding.
    }
    return 0;
}
