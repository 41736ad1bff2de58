// NumPy arrays in and out of the library: inputs checked and brought into the
// layouts the library reads (float32 planes, int32 records), outputs written
// by the library straight into 32-byte-aligned blocks that NumPy then owns.
#ifndef KELPY_ARRAYS_H
#define KELPY_ARRAYS_H

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace kelpy {

namespace py = pybind11;

using Shape = std::vector<py::ssize_t>;
// float32 in C order, converted and copied only when it is not that already.
using PackedFloats = py::array_t<float, py::array::c_style | py::array::forcecast>;

struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};

// A 32-byte-aligned block of elements, never null (raises MemoryError).
template <typename T>
using Block = std::unique_ptr<T[], FreeBlock>;

void* allocateAligned(size_t bytes);

template <typename T>
Block<T> allocate(size_t count) {
    return Block<T>(static_cast<T*>(allocateAligned(count * sizeof(T))));
}

// The most rays one call takes: the library counts them in an int, and
// blocks are padded to whole tiles.
constexpr py::ssize_t kMaxRays = INT32_MAX - 16;

inline py::ssize_t roundUp(py::ssize_t count, py::ssize_t step) {
    return (count + step - 1) / step * step;
}

// `value` as an array of real numbers converted to float32 (TypeError for
// anything else: strings, complex numbers, objects).
py::array_t<float> realArray(py::handle value, const char* name);

// `value` as an array of integers, widened to int64 so that range checks see
// the true values (TypeError for floats and anything else).
py::array_t<int64_t> integerArray(py::handle value, const char* name);

// ValueError unless the array has as many dimensions as `shape` and the same
// lengths where `shape` gives one (-1 matches any length). `expected` is the
// shape as the message shows it, e.g. "(N, 3)".
void requireShape(const py::array& array, const char* name, const Shape& shape,
                  const std::string& expected);
// The same for a shape without wildcards.
void requireShape(const py::array& array, const char* name, const Shape& shape);

// The leading shape of an array of 3-vectors, shape (..., 3) (ValueError
// for any other).
Shape vectorsShape(const py::array& array, const char* name);

// One point, shape (3,), as three floats.
void readPoint(py::handle value, const char* name, float point[3]);

// The number of rays in an array of the given leading shape (ValueError when
// there are too many for one call).
py::ssize_t rayCount(const Shape& rayShape, const char* name);

// Per-ray values as the planes the library reads: `components` planes of
// `padded` floats (1 for distances or barycentric coordinates, 3 for
// vectors), each 16-byte aligned. The array holds `count` rays of
// `components` floats in its last axis (or no such axis when components is
// 1). The planes are the array's own memory when it already holds aligned
// float32 planes of exactly `padded` rays, as the vectors this module returns
// do; otherwise one pass transposes it into aligned planes, subtracting
// `minus` from each vector on the way, and fills the padding rays with copies
// of the last ray.
class Planes {
  public:
    Planes(const py::array_t<float>& values, int components, py::ssize_t count, py::ssize_t padded,
           const float* minus = nullptr);
    const float* const* get() const { return plane_; }

  private:
    py::object kept_;
    Block<float> copy_;
    const float* plane_[3] = {};
};

// Per-ray triangle numbers (`count` of them) as one aligned int32 plane of
// `padded` entries: negative values (misses) become -1, and so do the
// padding rays; a number of `triangleCount` or more raises ValueError.
Block<int32_t> triangleIds(const py::array_t<int64_t>& ids, const char* name, py::ssize_t count,
                           py::ssize_t padded, int triangleCount);

// Hands a block over to NumPy as an array of the given shape and byte
// strides; the block is freed when the last view of it goes.
py::array blockArray(Block<float> block, const Shape& shape, const Shape& strides);
py::array blockArray(Block<int32_t> block, const Shape& shape, const Shape& strides);

// Byte strides of a C-ordered array of 4-byte elements.
Shape packedStrides(const Shape& shape);

// Vectors of `padded` rays kept as three planes, as an array of shape
// rayShape + (3,): the last axis steps from plane to plane.
py::array vectorArray(Block<float> planes, const Shape& rayShape, py::ssize_t padded);

// A shape as Python prints it: "(4, 3)", "(5,)".
std::string shapeText(const Shape& shape);
std::string shapeText(const py::array& array);

}  // namespace kelpy

#endif
