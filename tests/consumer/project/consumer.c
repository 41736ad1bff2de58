/* Uses the installed library as a C program would: the version record and a
 * simple tree over three triangles. Exits non-zero on any mismatch. */
#include <kelr.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    const KelLibraryVersion* version = kelrGetLibVersion();
    if (!version || strcmp(version->libraryName, "libkelrt7.so.5.2") != 0) {
        fprintf(stderr, "unexpected version record\n");
        return 1;
    }

    static const float vertices[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    static const int triangles[12] = {0, 1, 2, 0, 0, 2, 1, 0, 1, 0, 2, 0};
    KDTreeBuildContext context = {KDT_BUILD_SIMPLE, 0, 0.0f, 0, NULL};
    KDTreeNode* tree = NULL;
    int size = 0;
    KelStatus status = kelrKDTreeBuildAlloc(&tree, vertices, triangles, 3, 3, &size, &context);
    if (status != KEL_STS_OK || size != 28 || tree[0].link != -16 || tree[0].data.count != 3) {
        fprintf(stderr, "simple build: status %d, size %d\n", (int)status, size);
        return 1;
    }
    kelrKDTreeFree(tree);
    printf("%s %s: simple tree of %d bytes\n", version->libraryName, version->versionText, size);
    return 0;
}
