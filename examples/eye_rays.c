/* Builds a kd-tree over a square of two triangles and traces one 16 x 16
 * block of eye rays through it, then checks every ray against the square. */
#include <kelr.h>
#include <stdio.h>

#define SIDE 16
#define RAYS (SIDE * SIDE)

/* The square |x| < 1, |y| < 1 in the plane z = 0, cut along a diagonal. */
static const float vertices[] = {-1, -1, 0, 1, -1, 0, 1, 1, 0, -1, 1, 0};
static const int triangles[] = {0, 1, 2, 0, 0, 2, 3, 0};

int main(void) {
    /* The scene: its box, one intersection record per triangle, the tree. */
    float box[6];
    kelrSetBoundBox_32f(vertices, 4, box);
    int recordSize;
    kelrTriangleAccelGetSize(&recordSize);
    TriangleAccel* accel = (TriangleAccel*)kelsMalloc_32s(2 * recordSize / 4);
    kelrTriangleAccelInit(accel, vertices, triangles, 2);

    /* The PSAH budget for 4 vertices and 2 triangles: 81 MiB (see
     * psahBudgetMiB in threads.c). */
    KDTreeBuildContext build = {KDT_BUILD_PSAH, 50, 0.2f, 81, NULL};
    KDTreeNode* tree;
    int treeSize;
    KelStatus status = kelrKDTreeBuildAlloc(&tree, vertices, triangles, 4, 2, &treeSize, &build);
    if (status != KEL_STS_OK) {
        printf("kelrKDTreeBuildAlloc failed: %d\n", (int)status);
        return 1;
    }
    IntersectContext scene = {box, accel, tree};

    /* Every per-ray array from the library's allocator: 32-byte aligned, so
     * the block goes down the four-ray path. */
    float* plane[6];
    for (int k = 0; k < 6; ++k) plane[k] = (float*)kelsMalloc_32s(RAYS);
    float* direction[3] = {plane[0], plane[1], plane[2]};
    float* distance = plane[3];
    float* hit[2] = {plane[4], plane[5]};
    int* triangle = kelsMalloc_32s(RAYS);

    /* The eye at z = 4 looks down -z; the block's pixels are 0.25 apart in
     * the plane z = 0 and cover -2 <= x, y < 2, pixel centres included. */
    const float eye[3] = {0, 0, 4};
    const float corner[3] = {-1.875f, 1.875f, -4}, column[3] = {0.25f, 0, 0},
                row[3] = {0, -0.25f, 0};
    kelrCastEye_32f(corner, column, row, 0, 0, SIDE, SIDE, direction, SIDE, SIDE);
    for (int i = 0; i < RAYS; ++i) distance[i] = 1e30f; /* no far limit */
    status = kelrIntersectEyeSO_32f(eye, (const float* const*)direction, distance, hit, triangle,
                                    &scene, SIDE, SIDE);

    /* A ray hits when its pixel lies inside the square; it then meets the
     * plane at distance 1, and u, v weight the triangle's first two corners. */
    int hits = 0, wrong = 0;
    for (int i = 0; i < RAYS; ++i) {
        const float x = direction[0][i], y = direction[1][i]; /* hit point at t = 1 */
        const int inside = x > -1 && x < 1 && y > -1 && y < 1;
        if (triangle[i] < 0) {
            wrong += inside;
            continue;
        }
        ++hits;
        const int* t = &triangles[4 * triangle[i]];
        const float u = hit[0][i], v = hit[1][i], w = 1 - u - v;
        const float px = u * vertices[3 * t[0]] + v * vertices[3 * t[1]] + w * vertices[3 * t[2]];
        const float py =
            u * vertices[3 * t[0] + 1] + v * vertices[3 * t[1] + 1] + w * vertices[3 * t[2] + 1];
        const float error = (px - x) * (px - x) + (py - y) * (py - y);
        wrong += !inside || distance[i] < 0.9999f || distance[i] > 1.0001f || error > 1e-10f;
    }
    printf("eye rays: %d of %d hit the square at distance 1, %d disagree with it (status %d)\n",
           hits, RAYS, wrong, (int)status);

    for (int k = 0; k < 6; ++k) kelsFree(plane[k]);
    kelsFree(triangle);
    kelsFree(accel);
    kelrKDTreeFree(tree);
    return wrong == 0 && status == KEL_STS_OK ? 0 : 1;
}
