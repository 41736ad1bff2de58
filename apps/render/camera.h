// A pinhole camera expressed the way the eye-ray caster wants it: the
// direction to the first pixel and the direction steps per column and row.
#ifndef KELR_RENDER_CAMERA_H
#define KELR_RENDER_CAMERA_H

#include "scene.h"

namespace render {

struct Camera {
    Vec3 eye;
    Vec3 corner;      // direction from the eye through the centre of pixel (0, 0)
    Vec3 columnStep;  // added per pixel to the right
    Vec3 rowStep;     // added per pixel downwards
    int width = 0;
    int height = 0;

    // Square pixels; the field of view spans the image's height. False when
    // the set-up has no defined orientation (eye on the target, or looking
    // along the up vector).
    static bool make(const CameraSetup& setup, int width, int height, Camera* camera);

    // The pixel whose centre ray passes closest to point, or false when the
    // point lies behind the camera or outside the image.
    bool pixelOf(const Vec3& point, int* column, int* row) const;
};

}  // namespace render

#endif
