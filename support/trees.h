// Packed kd-tree blocks for tests and benchmarks: the reference one-leaf
// tree, a budget that fits a PSAH build, and a checker of the block format
// that gathers the tree's figures.
#ifndef KEL_SUPPORT_TREES_H
#define KEL_SUPPORT_TREES_H

#include <cstdint>
#include <string>
#include <vector>

#include "kelr.h"
#include "mesh.h"

namespace kelt {

// A working-memory budget in MiB that comfortably fits a PSAH build of the
// mesh: the fixed stores and the first chunk of each of the three chunk lists
// (about 81 MiB), the per-triangle stores, and room for the tree to grow.
uint32_t psahBudgetMiB(int vertexCount, int triangleCount);

// The working memory in bytes that a PSAH build demands before it starts: 12
// per vertex; per triangle 48 and three patches of two words and a pointer;
// 32 MiB of scratch; the build state and two chunk records, 8 bytes and 59
// pointer-size words.
uint64_t psahFixedNeedBytes(int vertexCount, int triangleCount);

// The one-leaf tree over all triangles in index order, as the simple build
// makes it: the reference every other tree must agree with.
std::vector<int32_t> oneLeafTree(int triangleCount);

struct TreeLeaf {
    int depth;
    int count;
    const int32_t* list;
};

struct TreeSummary {
    int innerNodes = 0;
    int maxDepth = 0;
    std::vector<TreeLeaf> leaves;  // left to right
    long long listed = 0;          // sum of the leaf counts
    // Surface-area cost with traversal and triangle cost 1, relative to the
    // root box: sum over inner nodes of A(node) / A(root) plus sum over
    // leaves of count x A(leaf) / A(root). Zero unless a root box was given.
    double sahCost = 0;
    double averageLeafDepth() const;
    double averageLeafCount() const;
};

// Checks the block of `size` bytes: child pairs in pre-order right after the
// root and its two zero words, leaf lists contiguous in left-to-right order
// right after the last pair, the size 16 + 8 x (nodes - 1) + 4 x (listed
// entries), every listed triangle in range, inner nodes with a valid axis
// and bit 2 clear, at most 50 levels. "" when it is well formed, else what
// is wrong. With a root box the surface-area cost is filled in too.
std::string checkTree(const KDTreeNode* tree, int size, int triangleCount, TreeSummary* summary,
                      const float* rootBox = nullptr);

}  // namespace kelt

#endif
