#include "camera.h"

#include <cmath>

namespace render {

namespace {

Vec3 subtract(const Vec3& a, const Vec3& b) {
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
Vec3 cross(const Vec3& a, const Vec3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
double dot(const Vec3& a, const Vec3& b) {
    return double(a[0]) * b[0] + double(a[1]) * b[1] + double(a[2]) * b[2];
}
bool normalize(Vec3* a) {
    const double length = std::sqrt(dot(*a, *a));
    if (!(length > 1e-12)) return false;
    for (float& x : *a) x = float(x / length);
    return true;
}

}  // namespace

bool Camera::make(const CameraSetup& setup, int width, int height, Camera* camera) {
    Vec3 forward = subtract(setup.lookAt, setup.eye);
    Vec3 right = cross(forward, setup.up);
    if (!normalize(&forward) || !normalize(&right)) return false;
    const Vec3 up = cross(right, forward);
    const double pixel = 2.0 * std::tan(setup.verticalFovDegrees * M_PI / 360.0) / height;
    camera->eye = setup.eye;
    camera->width = width;
    camera->height = height;
    // Pixel centres sit half a pixel inside the image's edges.
    const double left = -0.5 * (width - 1) * pixel, top = 0.5 * (height - 1) * pixel;
    for (int k = 0; k < 3; ++k) {
        camera->columnStep[k] = float(right[k] * pixel);
        camera->rowStep[k] = float(-up[k] * pixel);
        camera->corner[k] = float(forward[k] + right[k] * left + up[k] * top);
    }
    return true;
}

bool Camera::pixelOf(const Vec3& point, int* column, int* row) const {
    // Solve point - eye = s * (corner + c * columnStep + r * rowStep) for s, c, r
    // with Cramer's rule.
    const Vec3 target = subtract(point, eye);
    const Vec3 a = corner, b = columnStep, c = rowStep;
    const double det = dot(a, cross(b, c));
    if (det == 0.0) return false;
    const double s = dot(target, cross(b, c)) / det;
    if (s <= 0.0) return false;
    const double cs = dot(a, cross(target, c)) / det;
    const double rs = dot(a, cross(b, target)) / det;
    const double x = cs / s, y = rs / s;
    *column = int(std::lround(x));
    *row = int(std::lround(y));
    return *column >= 0 && *column < width && *row >= 0 && *row < height;
}

}  // namespace render
