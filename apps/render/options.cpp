#include "options.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>

#include "kelr.h"

namespace render {

namespace {

bool parseInt(const std::string& text, long low, long high, int* value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long parsed = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || parsed < low || parsed > high) return false;
    *value = int(parsed);
    return true;
}

bool parseFloat(const std::string& text, float* value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const float parsed = std::strtof(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(parsed)) return false;
    *value = parsed;
    return true;
}

// "x,y,z"
bool parseVec3(const std::string& text, Vec3* value) {
    std::istringstream in(text);
    std::string part;
    for (int k = 0; k < 3; ++k) {
        if (!std::getline(in, part, ',') || !parseFloat(part, &(*value)[k])) return false;
    }
    return !std::getline(in, part, ',');
}

// "WxH", or one number for a square image.
bool parseSize(const std::string& text, int* width, int* height) {
    const size_t x = text.find('x');
    if (x == std::string::npos)
        return parseInt(text, 1, kMaxImageSide, width) && (*height = *width, true);
    return parseInt(text.substr(0, x), 1, kMaxImageSide, width) &&
           parseInt(text.substr(x + 1), 1, kMaxImageSide, height);
}

bool hasPngExtension(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    for (char& c : extension) c = char(std::tolower(static_cast<unsigned char>(c)));
    return extension == ".png";
}

}  // namespace

std::string usage() {
    return "Usage: kelr-render [options]\n"
           "Renders the built-in scene (or a mesh on its floor) to a PNG through libkelrt7.\n"
           "\n"
           "  --out FILE.png     PNG to write (default kelr-render.png)\n"
           "  --size WxH         image size, or one number for a square (default 1024x768)\n"
           "  --bounces N        mirror bounces after the eye rays, 0..16 (default 3)\n"
           "  --threads N        render threads (default: one per processor)\n"
           "  --mesh FILE.obj    stand a Wavefront OBJ mesh on the floor instead of the solids\n"
           "  --normals smooth|flat   interpolated vertex normals (default) or one per triangle\n"
           "  --eye X,Y,Z        camera position (default 0,3.4,10)\n"
           "  --look-at X,Y,Z    point the camera looks at (default 0,1.2,0)\n"
           "  --fov DEGREES      vertical field of view, 1..170 (default 40)\n"
           "  --builder psah|simple   kd-tree builder (default psah; simple is one leaf\n"
           "                     holding every triangle: slow, for comparison on small images)\n"
           "  --memory MIB       PSAH working-memory budget, 32..4095 (default: sized to the "
           "mesh)\n"
           "  --max-depth N      deepest PSAH tree, 0..50 (default 50)\n"
           "  --weight W         PSAH split eagerness, 0..1 (default 0.2)\n"
           "  --quiet            no progress bar\n"
           "  -h, --help         this text\n"
           "  --version          the program's and the library's version\n";
}

std::string versionText() {
    const KelLibraryVersion* library = kelrGetLibVersion();
    return std::string("kelr-render ") + KEL_RENDER_VERSION + "\nRuns on " + library->libraryName +
           " " + library->versionText + ".\n";
}

bool parseOptions(const std::vector<std::string>& args, Options* options, std::string* error) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& name = args[i];
        if (name == "--help" || name == "-h") {
            options->help = true;
            continue;
        }
        if (name == "--quiet") {
            options->quiet = true;
            continue;
        }
        if (name == "--version") {
            options->version = true;
            continue;
        }
        if (name.rfind("--", 0) != 0 || name.size() == 2) {
            *error = "unexpected argument '" + name + "' (see --help)";
            return false;
        }
        static const char* const kValueOptions[] = {
            "--out",     "--size", "--bounces", "--threads", "--mesh",      "--normals", "--eye",
            "--look-at", "--fov",  "--builder", "--memory",  "--max-depth", "--weight"};
        if (std::find(std::begin(kValueOptions), std::end(kValueOptions), name) ==
            std::end(kValueOptions)) {
            *error = "unknown option '" + name + "' (see --help)";
            return false;
        }
        if (i + 1 >= args.size()) {
            *error = "option " + name + " needs a value";
            return false;
        }
        const std::string& value = args[++i];
        auto bad = [&](const std::string& expected) {
            *error = "bad value '" + value + "' for " + name + ": expected " + expected;
            return false;
        };
        Vec3 vector;
        float number = 0.0f;
        int count = 0;
        if (name == "--out") {
            // PNG is the only format written: a .jpg name would get PNG data.
            if (!hasPngExtension(value)) return bad("a file name ending in .png");
            options->out = value;
        } else if (name == "--size") {
            if (!parseSize(value, &options->render.width, &options->render.height) ||
                int64_t(options->render.width) * options->render.height > kMaxPixels)
                return bad("WxH with sides 1.." + std::to_string(kMaxImageSide) + " and at most " +
                           std::to_string(kMaxPixels) + " pixels");
        } else if (name == "--bounces") {
            if (!parseInt(value, 0, 16, &options->render.bounces)) return bad("0..16");
        } else if (name == "--threads") {
            if (!parseInt(value, 1, 1024, &options->render.threads)) return bad("1..1024");
        } else if (name == "--mesh") {
            if (value.empty()) return bad("a file name");
            options->meshPath = value;
        } else if (name == "--normals") {
            if (value == "smooth")
                options->render.normals = NormalMode::kSmooth;
            else if (value == "flat")
                options->render.normals = NormalMode::kFlat;
            else
                return bad("smooth or flat");
        } else if (name == "--eye") {
            if (!parseVec3(value, &vector)) return bad("X,Y,Z");
            options->eye = vector;
        } else if (name == "--look-at") {
            if (!parseVec3(value, &vector)) return bad("X,Y,Z");
            options->lookAt = vector;
        } else if (name == "--fov") {
            if (!parseFloat(value, &number) || number < 1.0f || number > 170.0f)
                return bad("1..170 degrees");
            options->fov = number;
        } else if (name == "--builder") {
            if (value == "psah")
                options->build.builder = TreeBuilder::kPsah;
            else if (value == "simple")
                options->build.builder = TreeBuilder::kSimple;
            else
                return bad("psah or simple");
        } else if (name == "--memory") {
            if (!parseInt(value, 32, 4095, &count)) return bad("32..4095 MiB");
            options->build.memoryMiB = uint32_t(count);
        } else if (name == "--max-depth") {
            if (!parseInt(value, 0, 50, &options->build.maxDepth)) return bad("0..50");
        } else if (name == "--weight") {
            if (!parseFloat(value, &number) || number < 0.0f || number > 1.0f)
                return bad("a number in 0..1");
            options->build.psahWeight = number;
        }
    }
    return true;
}

}  // namespace render
