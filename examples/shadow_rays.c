/* Shadow rays with a mask: eye rays from above find a floor and a square
 * slab floating over it; shadow rays from a point light then decide which
 * hits the light reaches. Every hit is checked against the shadow's outline. */
#include <kelr.h>
#include <stdio.h>

#define SIDE 16
#define RAYS (SIDE * SIDE)

/* Floor: y = 0, |x|, |z| <= 4. Slab: y = 1, |x|, |z| <= 1. */
static const float vertices[] = {-4, 0, -4, 4, 0, -4, 4, 0, 4, -4, 0, 4,
                                 -1, 1, -1, 1, 1, -1, 1, 1, 1, -1, 1, 1};
static const int triangles[] = {0, 2, 1, 0, 0, 3, 2, 0, 4, 6, 5, 0, 4, 7, 6, 0};
#define SLAB_FIRST_TRIANGLE 2

/* Planes are carved from one block of the library's allocator: it is 32-byte
 * aligned and every plane is a multiple of 16 bytes long, so all of them are
 * 16-byte aligned and the block takes the four-ray paths. */
static float* newPlane(float** cursor) {
    float* plane = *cursor;
    *cursor += RAYS;
    return plane;
}
#define PLANES 20

int main(void) {
    float box[6], normals[4 * 3];
    kelrSetBoundBox_32f(vertices, 8, box);
    kelrTriangleNormal_32f(vertices, triangles, normals, 4);
    TriangleAccel* accel = (TriangleAccel*)kelsMalloc_32s(4 * sizeof(TriangleAccel) / 4);
    kelrTriangleAccelInit(accel, vertices, triangles, 4);
    /* Four triangles: the simple tree (one leaf) is all a scene this small needs. */
    KDTreeBuildContext build = {KDT_BUILD_SIMPLE, 0, 0.0f, 0, NULL};
    KDTreeNode* tree;
    int treeSize;
    if (kelrKDTreeBuildAlloc(&tree, vertices, triangles, 8, 4, &treeSize, &build) != KEL_STS_OK)
        return 1;
    IntersectContext scene = {box, accel, tree};

    float* const block = (float*)kelsMalloc_32s(PLANES * RAYS);
    float* c = block;
    float *direction[3] = {newPlane(&c), newPlane(&c), newPlane(&c)}, *distance = newPlane(&c);
    float* hit[2] = {newPlane(&c), newPlane(&c)};
    float* point[3] = {newPlane(&c), newPlane(&c), newPlane(&c)};
    float *normal[3] = {newPlane(&c), newPlane(&c), newPlane(&c)}, *facing = newPlane(&c);
    float *cosine = newPlane(&c), *toPoint[3] = {newPlane(&c), newPlane(&c), newPlane(&c)};
    int *triangle = (int*)newPlane(&c), *mask = (int*)newPlane(&c), *occluder = (int*)newPlane(&c);

    /* Eye rays straight down from y = 8 onto a grid 0.45 apart. */
    const float eye[3] = {0.2f, 8, 0.05f};
    const float corner[3] = {-3.4f, -8, -3.4f}, column[3] = {0.45f, 0, 0}, row[3] = {0, 0, 0.45f};
    kelrCastEye_32f(corner, column, row, 0, 0, SIDE, SIDE, direction, SIDE, SIDE);
    for (int i = 0; i < RAYS; ++i) distance[i] = 1e30f;
    kelrIntersectEyeSO_32f(eye, (const float* const*)direction, distance, hit, triangle, &scene,
                           SIDE, SIDE);

    /* The triangle ids are the mask from here on: -1 (no hit) is inactive. */
    kelrHitPoint3DEpsS0_32f_M(eye, (const float* const*)direction, distance, triangle, point, RAYS,
                              0.9999f);
    kelrSurfFlatNormal_32f(normals, triangle, normal, RAYS);
    kelrDotChangeNorm_32f_IM((const float* const*)direction, triangle, normal, facing, RAYS);

    /* Shadow rays run from the light to each hit. Hits whose surface faces
     * away from the light drop out of the mask here, occluded ones below. */
    const float light[3] = {0, 3, 0};
    for (int i = 0; i < RAYS; ++i) mask[i] = triangle[i];
    kelrCastShadowSO_32f(light, facing, (const float* const*)normal, (const float* const*)point,
                         mask, cosine, toPoint, RAYS);
    kelrIntersectAnySO_32f(light, (const float* const*)toPoint, occluder, mask, SIDE, SIDE, &scene);

    /* Seen from the light at height 3, the slab at height 1 shades the floor
     * where |x| and |z| are below 1.5. */
    int lit = 0, shaded = 0, wrong = 0;
    for (int i = 0; i < RAYS; ++i) {
        if (triangle[i] < 0) continue;
        const float x = point[0][i], z = point[2][i];
        const int onFloor = triangle[i] < SLAB_FIRST_TRIANGLE;
        const int inShadow = onFloor && x > -1.5f && x < 1.5f && z > -1.5f && z < 1.5f;
        if (mask[i] >= 0)
            ++lit;
        else
            ++shaded;
        wrong += inShadow != (mask[i] < 0) || (inShadow && occluder[i] < SLAB_FIRST_TRIANGLE);
    }
    printf("shadow rays: %d hits, %d lit, %d in the slab's shadow, %d disagree with its outline\n",
           lit + shaded, lit, shaded, wrong);
    kelsFree(block);
    kelsFree(accel);
    kelrKDTreeFree(tree);
    return wrong == 0 ? 0 : 1;
}
