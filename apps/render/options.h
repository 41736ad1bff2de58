// The command line of kelr-render.
#ifndef KELR_RENDER_OPTIONS_H
#define KELR_RENDER_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "renderer.h"
#include "scene_accel.h"

namespace render {

struct Options {
    std::string out = "kelr-render.png";
    std::string meshPath;  // empty: the built-in scene
    RenderSettings render;
    BuildSettings build;
    // Camera overrides; unset ones keep the scene's own framing.
    std::optional<Vec3> eye, lookAt;
    std::optional<float> fov;
    bool quiet = false;
    bool help = false;
    bool version = false;
};

// The largest image accepted; beyond it the image alone would need gigabytes.
constexpr int kMaxImageSide = 16384;
constexpr long long kMaxPixels = 8192LL * 8192;

// Parses args (without the program name). False with a message in *error for
// an unknown option, a missing value, or a value out of its range.
bool parseOptions(const std::vector<std::string>& args, Options* options, std::string* error);

std::string usage();

// "kelr-render 5.2" and the library it runs with.
std::string versionText();

}  // namespace render

#endif
