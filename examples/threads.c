/* Sharing one tree between threads: four POSIX threads trace the 16 blocks
 * of a 64 x 64 image against one kd-tree, one of them against a plain copy of
 * the tree block. Nothing is locked; the result must equal a single thread's
 * bit for bit. */
#define _POSIX_C_SOURCE 200112L
#include <kelr.h>
#include <math.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define GRID 32 /* quads per side of the height field */
#define VERTICES ((GRID + 1) * (GRID + 1))
#define TRIANGLES (2 * GRID * GRID)
#define SIDE 16 /* rays per block side */
#define BLOCKS_ACROSS 4
#define BLOCKS (BLOCKS_ACROSS * BLOCKS_ACROSS)
#define RAYS (SIDE * SIDE)
#define THREADS 4

static float vertices[3 * VERTICES];
static int triangles[4 * TRIANGLES];

/* What every thread reads (never writes) and where each block's results go. */
static IntersectContext shared, copied;
static int hitTriangle[BLOCKS][RAYS];
static float hitDistance[BLOCKS][RAYS];

static void makeHeightField(void) {
    for (int z = 0; z <= GRID; ++z)
        for (int x = 0; x <= GRID; ++x) {
            float* v = &vertices[3 * (z * (GRID + 1) + x)];
            v[0] = x - GRID / 2.0f;
            v[1] = 2 * sinf(x * 0.4f) * cosf(z * 0.3f);
            v[2] = z - GRID / 2.0f;
        }
    int* t = triangles;
    for (int z = 0; z < GRID; ++z)
        for (int x = 0; x < GRID; ++x, t += 8) {
            const int a = z * (GRID + 1) + x, b = a + 1, c = a + GRID + 1, d = c + 1;
            const int quad[8] = {a, c, b, 0, b, c, d, 0};
            memcpy(t, quad, sizeof quad);
        }
}

/* A PSAH working-memory budget that builds a mesh of v vertices and t
 * triangles: 32 MiB of stores and three 16 MiB chunks, a chunk more per 65,536
 * triangles, and what grows with the mesh, rounded up to whole MiB. */
static uint32_t psahBudgetMiB(uint64_t v, uint64_t t) {
    return (uint32_t)(80 + 16 * (t / 65536) + (96 * t + 48 * v + 1024 + 1048575) / 1048576);
}

/* Traces one block into its slot of the results. The ray arrays are the
 * calling thread's own; the context is only read. */
static KelStatus traceBlock(const IntersectContext* context, int block, float* planes) {
    const float eye[3] = {0, 20, 30};
    const float corner[3] = {-16, -20, -46}, column[3] = {0.5f, 0, 0}, row[3] = {0, 0, 0.5f};
    float* direction[3] = {planes, planes + RAYS, planes + 2 * RAYS};
    float* hit[2] = {planes + 3 * RAYS, planes + 4 * RAYS};
    kelrCastEye_32f(corner, column, row, block % BLOCKS_ACROSS, block / BLOCKS_ACROSS, SIDE, SIDE,
                    direction, SIDE, SIDE);
    for (int i = 0; i < RAYS; ++i) hitDistance[block][i] = 1e30f;
    return kelrIntersectEyeSO_32f(eye, (const float* const*)direction, hitDistance[block], hit,
                                  hitTriangle[block], context, SIDE, SIDE);
}

static void* worker(void* argument) {
    const int first = (int)(size_t)argument;
    const IntersectContext* context = first == THREADS - 1 ? &copied : &shared;
    float* planes = (float*)kelsMalloc_32s(5 * RAYS);
    size_t failed = 0;
    for (int block = first; block < BLOCKS; block += THREADS)
        failed += traceBlock(context, block, planes) != KEL_STS_OK;
    kelsFree(planes);
    return (void*)failed;
}

int main(void) {
    makeHeightField();
    static float box[6];
    kelrSetBoundBox_32f(vertices, VERTICES, box);
    TriangleAccel* accel = (TriangleAccel*)kelsMalloc_32s(TRIANGLES * sizeof(TriangleAccel) / 4);
    kelrTriangleAccelInit(accel, vertices, triangles, TRIANGLES);
    KDTreeBuildContext build = {KDT_BUILD_PSAH, 50, 0.2f, psahBudgetMiB(VERTICES, TRIANGLES), NULL};
    KDTreeNode* tree;
    int treeSize;
    if (kelrKDTreeBuildAlloc(&tree, vertices, triangles, VERTICES, TRIANGLES, &treeSize, &build) !=
        KEL_STS_OK)
        return 1;
    /* The block is self-relative: a byte copy anywhere is a working tree. */
    KDTreeNode* copy = (KDTreeNode*)malloc((size_t)treeSize);
    memcpy(copy, tree, (size_t)treeSize);
    shared = (IntersectContext){box, accel, tree};
    copied = (IntersectContext){box, accel, copy};

    pthread_t threads[THREADS];
    for (int t = 0; t < THREADS; ++t) pthread_create(&threads[t], NULL, worker, (void*)(size_t)t);
    size_t failed = 0;
    for (int t = 0; t < THREADS; ++t) {
        void* result;
        pthread_join(threads[t], &result);
        failed += (size_t)result;
    }

    /* The same blocks again on this thread alone, compared bit for bit. */
    static int threadTriangle[BLOCKS][RAYS];
    static float threadDistance[BLOCKS][RAYS];
    memcpy(threadTriangle, hitTriangle, sizeof hitTriangle);
    memcpy(threadDistance, hitDistance, sizeof hitDistance);
    float* planes = (float*)kelsMalloc_32s(5 * RAYS);
    int hits = 0;
    for (int block = 0; block < BLOCKS; ++block) {
        failed += traceBlock(&shared, block, planes) != KEL_STS_OK;
        for (int i = 0; i < RAYS; ++i) hits += hitTriangle[block][i] >= 0;
    }
    const int same = memcmp(threadTriangle, hitTriangle, sizeof hitTriangle) == 0 &&
                     memcmp(threadDistance, hitDistance, sizeof hitDistance) == 0;
    printf("threads: %d threads traced %d blocks (%d hits) against one tree and a copy: %s\n",
           THREADS, BLOCKS, hits, same && !failed ? "same as one thread" : "DIFFERENT");

    kelsFree(planes);
    free(copy);
    kelsFree(accel);
    kelrKDTreeFree(tree);
    return same && !failed ? 0 : 1;
}
