// The Python module kelrt7: the library's scene set-up and ray queries over
// NumPy arrays.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <memory>

#include "kelr.h"
#include "scene.h"
#include "status.h"

namespace py = pybind11;

namespace {

// kelrt7.Error, owned by the module for the life of the process.
PyObject* errorType = nullptr;

// A failed library call becomes kelrt7.Error with the function's name and
// the status as attributes, and both in the message.
void translateLibraryError(std::exception_ptr thrown) {
    try {
        if (thrown) std::rethrow_exception(thrown);
    } catch (const render::LibraryError& e) {
        py::object error = py::reinterpret_borrow<py::object>(errorType)(e.what());
        error.attr("function") = e.function();
        error.attr("status") = e.status();
        PyErr_SetObject(errorType, error.ptr());
    }
}

py::dict version() {
    const KelLibraryVersion* v = kelrGetLibVersion();
    py::dict record;
    record["major"] = v->versionMajor;
    record["minor"] = v->versionMinor;
    record["name"] = v->libraryName;
    record["text"] = v->versionText;
    return record;
}

}  // namespace

PYBIND11_MODULE(kelrt7, m) {
    m.doc() =
        "Ray tracing over NumPy arrays: build a kd-tree over a triangle mesh, then find the\n"
        "nearest hits of rays, test shadow rays, and turn hits into points and normals.";

    errorType = py::exception<render::LibraryError>(m, "Error", PyExc_RuntimeError).release().ptr();
    py::register_exception_translator(translateLibraryError);
    m.attr("Error").attr("__doc__") =
        "A library call failed; .function names it and .status is its status code.";

    m.def("version", &version, "The library's version record: major, minor, name and text.");

    using kelpy::Scene;
    py::class_<Scene>(m, "Scene",
                      "A triangle mesh ready for tracing: its box, per-triangle records and a\n"
                      "kd-tree. Read-only once built; threads may trace it at once.")
        .def(py::init([](py::handle vertices, py::handle triangles, std::string builder,
                         int maxDepth, float weight, std::optional<int64_t> memoryMiB,
                         py::object clipBox) {
                 return std::make_unique<Scene>(
                     vertices, triangles,
                     kelpy::BuildOptions{std::move(builder), maxDepth, weight, memoryMiB, clipBox});
             }),
             py::arg("vertices"), py::arg("triangles"), py::arg("builder") = "psah",
             py::arg("max_depth") = 50, py::arg("weight") = 0.5f,
             py::arg("memory_mib") = py::none(), py::arg("clip_box") = py::none(),
             "vertices (V, 3); triangles (T, 3) or (T, 4) vertex numbers (a fourth column is\n"
             "ignored). builder 'psah' (a surface-area-heuristic tree) or 'simple' (one leaf).\n"
             "max_depth 0..50 and weight 0..1 shape the PSAH tree; memory_mib is its working\n"
             "budget (None: sized to the mesh); clip_box (6,) cuts the triangles to a box.")
        .def_property_readonly("triangle_count", &Scene::triangleCount)
        .def_property_readonly("vertex_count", &Scene::vertexCount)
        .def_property_readonly("tree_bytes", &Scene::treeBytes)
        .def_property_readonly("box", &Scene::box,
                               "The scene box: min x, y, z, max x, y, z, slightly enlarged.")
        .def("intersect", &Scene::intersect, py::arg("origins"), py::arg("directions"),
             "Nearest hits of rays from one origin (3,) or one each (N, 3), directions (N, 3).\n"
             "Returns a dict of arrays (N,): t (inf for a miss), u, v (barycentric weights of\n"
             "the triangle's first and second vertex) and triangle (-1 for a miss).")
        .def("intersect_image", &Scene::intersectImage, py::arg("origin"), py::arg("directions"),
             "intersect for an image of rays (H, W, 3) from one origin (3,), traced as one\n"
             "block (four rays at a time when H and W are multiples of 4); arrays (H, W).")
        .def("occluded", &Scene::occluded, py::arg("light"), py::arg("points"),
             "True for each point (..., 3) with something strictly between it and light (3,).")
        .def("normals", &Scene::normals, py::arg("hits"), py::arg("smooth") = false,
             py::arg("vertex_normals") = py::none(),
             "Unit surface normals at hits (a dict from intersect), shape (..., 3): the\n"
             "triangles' own normals, or with smooth=True the vertex_normals (V, 3)\n"
             "interpolated. A miss gets (0, 0, 0).")
        .def("hit_points", &Scene::hitPoints, py::arg("origins"), py::arg("directions"),
             py::arg("hits"), py::arg("scale") = 1.0f,
             "origins + scale * t * directions for each hit, shape (..., 3); a miss gets\n"
             "(0, 0, 0). A scale just below 1 keeps the points off the surface.")
        .def("__repr__", [](const Scene& s) {
            return "<kelrt7.Scene: " + std::to_string(s.triangleCount()) + " triangles, " +
                   std::to_string(s.vertexCount()) + " vertices, tree of " +
                   std::to_string(s.treeBytes()) + " bytes>";
        });
}
