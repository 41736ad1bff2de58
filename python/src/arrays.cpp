#include "arrays.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace kelpy {

namespace {

bool aligned16(const void* p) {
    return reinterpret_cast<uintptr_t>(p) % 16 == 0;
}

py::array asArray(py::handle value, const char* name) {
    py::array array = py::array::ensure(value);
    if (!array)
        throw py::type_error(std::string(name) + " must be an array of numbers, not " +
                             Py_TYPE(value.ptr())->tp_name);
    return array;
}

void requireKind(const py::array& array, const char* name, const char* kinds, const char* what) {
    if (!std::strchr(kinds, array.dtype().kind()))
        throw py::type_error(std::string(name) + " must hold " + what + ", not " +
                             std::string(py::str(array.dtype())));
}

template <typename T>
py::array ownedArray(Block<T> block, const Shape& shape, const Shape& strides) {
    T* data = block.get();
    py::capsule owner(data, [](void* p) { std::free(p); });
    block.release();
    return py::array_t<T>(shape, strides, data, owner);
}

}  // namespace

void* allocateAligned(size_t bytes) {
    void* block = nullptr;
    if (posix_memalign(&block, 32, std::max<size_t>(bytes, 32)) != 0) throw std::bad_alloc();
    return block;
}

py::array_t<float> realArray(py::handle value, const char* name) {
    py::array array = asArray(value, name);
    requireKind(array, name, "fiu", "real numbers");
    return py::array_t<float>::ensure(array);
}

py::array_t<int64_t> integerArray(py::handle value, const char* name) {
    py::array array = asArray(value, name);
    requireKind(array, name, "iu", "integers");
    return py::array_t<int64_t>::ensure(array);
}

std::string shapeText(const Shape& shape) {
    std::string text = "(";
    for (size_t i = 0; i < shape.size(); ++i) text += (i ? ", " : "") + std::to_string(shape[i]);
    return text + (shape.size() == 1 ? ",)" : ")");
}

std::string shapeText(const py::array& array) {
    return shapeText(Shape(array.shape(), array.shape() + array.ndim()));
}

void requireShape(const py::array& array, const char* name, const Shape& shape,
                  const std::string& expected) {
    bool matches = array.ndim() == py::ssize_t(shape.size());
    for (size_t i = 0; matches && i < shape.size(); ++i)
        matches = shape[i] < 0 || array.shape(i) == shape[i];
    if (!matches)
        throw py::value_error(std::string(name) + " must have shape " + expected + ", not " +
                              shapeText(array));
}

void requireShape(const py::array& array, const char* name, const Shape& shape) {
    requireShape(array, name, shape, shapeText(shape));
}

Shape vectorsShape(const py::array& array, const char* name) {
    const py::ssize_t n = array.ndim();
    if (n == 0 || array.shape(n - 1) != 3)
        throw py::value_error(std::string(name) + " must have shape (..., 3), not " +
                              shapeText(array));
    return Shape(array.shape(), array.shape() + n - 1);
}

void readPoint(py::handle value, const char* name, float point[3]) {
    const py::array_t<float> array = realArray(value, name);
    requireShape(array, name, {3}, "(3,)");
    const auto p = array.unchecked<1>();
    for (int k = 0; k < 3; ++k) point[k] = p(k);
}

py::ssize_t rayCount(const Shape& rayShape, const char* name) {
    py::ssize_t count = 1;
    for (py::ssize_t length : rayShape) {
        count *= length;
        if (count > kMaxRays)
            throw py::value_error(std::string(name) + " holds more rays than one call takes (" +
                                  std::to_string(kMaxRays) + ")");
    }
    return count;
}

Planes::Planes(const py::array_t<float>& values, int components, py::ssize_t count,
               py::ssize_t padded, const float* minus) {
    // reshape is not const in pybind11, though it does not change the array.
    const py::array rows = py::array(values).reshape(Shape{count, components});
    const char* base = static_cast<const char*>(rows.data());
    const py::ssize_t step = rows.strides(0), across = rows.strides(1);
    bool direct = !minus && padded == count && (count < 2 || step == sizeof(float));
    for (int k = 0; direct && k < components; ++k) direct = aligned16(base + k * across);
    if (direct) {
        kept_ = rows;
        for (int k = 0; k < components; ++k)
            plane_[k] = reinterpret_cast<const float*>(base + k * across);
        return;
    }
    copy_ = allocate<float>(size_t(components) * padded);
    float* out[3];
    for (int k = 0; k < components; ++k) plane_[k] = out[k] = copy_.get() + k * padded;
    const float none[3] = {};
    if (!minus) minus = none;
    for (py::ssize_t i = 0; i < count; ++i)
        for (int k = 0; k < components; ++k)
            out[k][i] = *reinterpret_cast<const float*>(base + i * step + k * across) - minus[k];
    for (int k = 0; k < components; ++k)
        std::fill(out[k] + count, out[k] + padded, count ? out[k][count - 1] : 0.0f);
}

Block<int32_t> triangleIds(const py::array_t<int64_t>& ids, const char* name, py::ssize_t count,
                           py::ssize_t padded, int triangleCount) {
    const py::array flat = py::array(ids).reshape(Shape{count});
    const char* base = static_cast<const char*>(flat.data());
    Block<int32_t> out = allocate<int32_t>(padded);
    for (py::ssize_t i = 0; i < count; ++i) {
        const int64_t id = *reinterpret_cast<const int64_t*>(base + i * flat.strides(0));
        if (id >= triangleCount)
            throw py::value_error(std::string(name) + " holds triangle " + std::to_string(id) +
                                  ", but the scene has " + std::to_string(triangleCount));
        out[i] = id < 0 ? -1 : int32_t(id);
    }
    std::fill(out.get() + count, out.get() + padded, -1);
    return out;
}

Shape packedStrides(const Shape& shape) {
    Shape strides(shape.size());
    py::ssize_t step = 4;
    for (size_t i = shape.size(); i-- > 0;) {
        strides[i] = step;
        step *= shape[i];
    }
    return strides;
}

py::array blockArray(Block<float> block, const Shape& shape, const Shape& strides) {
    return ownedArray(std::move(block), shape, strides);
}

py::array blockArray(Block<int32_t> block, const Shape& shape, const Shape& strides) {
    return ownedArray(std::move(block), shape, strides);
}

py::array vectorArray(Block<float> planes, const Shape& rayShape, py::ssize_t padded) {
    Shape shape = rayShape, strides = packedStrides(rayShape);
    shape.push_back(3);
    strides.push_back(4 * padded);
    return blockArray(std::move(planes), shape, strides);
}

}  // namespace kelpy
