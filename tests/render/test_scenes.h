// Small scenes whose geometry fixes what certain pixels must show.
#ifndef KELR_RENDER_TEST_SCENES_H
#define KELR_RENDER_TEST_SCENES_H

#include "scene.h"

namespace render_test {

// A white floor at y = 0 lit by one light straight above the origin at
// height 5, with (optionally) a 2 x 2 square at height 1 between them, so
// the floor around the origin lies in its shadow. The camera looks at the
// origin from (0, 4, 8), past the square's edge.
render::Scene shadowScene(bool withOccluder);

// A green floor and a unit mirror sphere resting on it at (0, 1, 0), seen
// level from (0, 1, 5) under a blue sky.
render::Scene mirrorScene();

// The default scene's kind of content at low tessellation: floor, mirror
// sphere, torus, faceted ball and vase, two lights; a few thousand triangles.
render::Scene smallMixedScene();

}  // namespace render_test

#endif
