/* Reflection rays from hit points: eye rays meet a mirror floor, bounce, and
 * the bounced rays (one origin each) are traced again. A mirror shows what a
 * second eye below the floor would see, so every bounce is checked against
 * the straight line from that mirrored eye. */
#include <kelr.h>
#include <math.h>
#include <stdio.h>

#define SIDE 16
#define RAYS (SIDE * SIDE)
#define PLANES 18

/* Floor y = 0, |x|, |z| <= 10 (triangles 0, 1); wall z = -6, |x| <= 3,
 * 0 <= y <= 4 (triangles 2, 3). */
static const float vertices[] = {-10, 0, -10, 10, 0, -10, 10, 0, 10, -10, 0, 10,
                                 -3,  0, -6,  3,  0, -6,  3,  4, -6, -3,  4, -6};
static const int triangles[] = {0, 2, 1, 0, 0, 3, 2, 0, 4, 5, 6, 0, 4, 6, 7, 0};

/* Vertex normals for smooth shading: up on the floor, towards +z on the wall. */
static const float vertexNormals[] = {0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0,
                                      0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1};

int main(void) {
    float box[6];
    kelrSetBoundBox_32f(vertices, 8, box);
    TriangleAccel accel[4]; /* records need no more than a float's alignment */
    kelrTriangleAccelInit(accel, vertices, triangles, 4);
    /* A simple build reads only the first two fields of its context. */
    const KDTreeBuildContext simple = {.algorithm = KDT_BUILD_SIMPLE, .maxDepth = 0};
    KDTreeNode* tree = NULL;
    int size = 0;
    if (kelrKDTreeBuildAlloc(&tree, vertices, triangles, 8, 4, &size, &simple) != KEL_STS_OK)
        return 1;
    const IntersectContext scene = {box, accel, tree};

    /* One 32-byte-aligned block, cut into 16-byte-aligned planes. */
    float* const block = (float*)kelsMalloc_32s(PLANES * RAYS);
    float* p[PLANES];
    for (int k = 0; k < PLANES; ++k) p[k] = block + k * RAYS;
    float *direction[3] = {p[0], p[1], p[2]}, *distance = p[3], *hit[2] = {p[4], p[5]};
    float *point[3] = {p[6], p[7], p[8]}, *normal[3] = {p[9], p[10], p[11]}, *facing = p[12];
    float* reflected[3] = {p[13], p[14], p[15]};
    int *triangle = (int*)p[16], *mask = (int*)p[17];

    /* Eye rays from (0, 1, 4), looking ahead and down. */
    const float eye[3] = {0, 1, 4};
    const float corner[3] = {-0.6f, -0.07f, -1}, column[3] = {0.08f, 0, 0}, row[3] = {0, -0.05f, 0};
    kelrCastEye_32f(corner, column, row, 0, 0, SIDE, SIDE, direction, SIDE, SIDE);
    for (int i = 0; i < RAYS; ++i) distance[i] = 1e30f;
    kelrIntersectEyeSO_32f(eye, (const float* const*)direction, distance, hit, triangle, &scene,
                           SIDE, SIDE);

    /* Only floor hits bounce: the mask keeps their triangle ids, the rest
     * are -1. */
    int bounced = 0;
    for (int i = 0; i < RAYS; ++i) {
        mask[i] = triangle[i] <= 1 ? triangle[i] : -1;
        bounced += mask[i] >= 0;
    }
    kelrHitPoint3DEpsS0_32f_M(eye, (const float* const*)direction, distance, mask, point, RAYS,
                              0.9999f);
    kelrSurfSmoothNormal_32f(vertexNormals, triangles, mask, (const float* const*)hit, normal, RAYS,
                             4);
    kelrDotChangeNorm_32f_IM((const float* const*)direction, mask, normal, facing, RAYS);
    kelrCastReflectionRay_32f((const float* const*)direction, mask, (const float* const*)normal,
                              reflected, RAYS);

    /* The bounced rays start at the hit points; a distance of 0 switches a
     * ray off. */
    for (int i = 0; i < RAYS; ++i) distance[i] = mask[i] >= 0 ? 1e30f : 0.0f;
    kelrIntersectMO_32f((const float* const*)point, (const float* const*)reflected, distance, hit,
                        triangle, &scene, SIDE, SIDE);
    /* Where the bounced rays landed (old hit points -> new ones). */
    float* origin[3] = {p[0], p[1], p[2]};
    for (int k = 0; k < 3; ++k)
        for (int i = 0; i < RAYS; ++i) origin[k][i] = point[k][i];
    kelrHitPoint3DEpsM0_32f_M((const float* const*)origin, (const float* const*)reflected, distance,
                              triangle, point, RAYS, 1.0f);

    /* The mirrored eye (0, -1, 4) sees the wall along direction (dx, -dy, dz):
     * where that line crosses z = -6 is where the bounced ray must land. */
    int onWall = 0, wrong = 0;
    for (int i = 0; i < RAYS; ++i) {
        if (mask[i] < 0) continue;
        const float dx = reflected[0][i], dy = reflected[1][i], dz = reflected[2][i];
        const float s = (-6 - 4) / dz, x = s * dx, y = -1 + s * dy;
        const int expected = origin[2][i] > -6 && fabsf(x) < 3 && y > 0 && y < 4;
        onWall += triangle[i] >= 0;
        if (expected != (triangle[i] >= 0))
            ++wrong;
        else if (expected && (fabsf(point[0][i] - x) > 1e-3f || fabsf(point[1][i] - y) > 1e-3f))
            ++wrong;
    }
    printf(
        "reflection rays: %d bounced off the floor, %d hit the wall, %d disagree with the "
        "mirrored eye\n",
        bounced, onWall, wrong);
    kelsFree(block);
    kelrKDTreeFree(tree);
    return wrong == 0 ? 0 : 1;
}
