// Walks a packed kd-tree block and checks its format: child pairs stored in
// pre-order right after the root and its companion words, leaf lists
// contiguous in left-to-right leaf order right after the last pair, the
// reported size equal to 16 + 8 x (nodes - 1) + 4 x (listed entries), every
// listed triangle in range, inner nodes with a valid axis and bit 2 clear.
// It also gathers the figures the tests and the build benchmark report, so
// it depends on nothing but the public header.
#ifndef KEL_TEST_TREE_CHECK_H
#define KEL_TEST_TREE_CHECK_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kelr.h"

namespace kelt {

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
    bool duplicateInLeaf = false;  // some leaf lists a triangle twice
    // Surface-area cost with traversal and triangle cost 1, relative to the
    // root box: sum over inner nodes of A(node) / A(root) plus sum over
    // leaves of count x A(leaf) / A(root). Zero unless a root box was given.
    double sahCost = 0;

    double averageLeafDepth() const {
        double sum = 0;
        for (const TreeLeaf& leaf : leaves) sum += leaf.depth;
        return leaves.empty() ? 0 : sum / double(leaves.size());
    }
    double averageLeafCount() const {
        return leaves.empty() ? 0 : double(listed) / double(leaves.size());
    }
};

inline double halfArea(const float* box) {
    const double dx = double(box[3]) - box[0], dy = double(box[4]) - box[1],
                 dz = double(box[5]) - box[2];
    return dx * dy + dy * dz + dz * dx;
}

// Checks the block of `size` bytes; "" when it is a well-formed tree over
// `triangleCount` triangles, else what is wrong. With a root box, the
// surface-area cost is filled in too.
inline std::string checkTree(const KDTreeNode* tree, int size, int triangleCount,
                             TreeSummary* summary, const float* rootBox = nullptr) {
    *summary = TreeSummary();
    if (!tree) return "no tree";
    if (size < 16) return "size below the 16-byte header";
    const char* block = reinterpret_cast<const char*>(tree);
    static const char zeros[8] = {};
    if (std::memcmp(block + 8, zeros, 8) != 0) return "words 2 and 3 are not zero";

    const double rootArea = rootBox ? halfArea(rootBox) : 0.0;
    int nextPair = 16;
    std::vector<int32_t> leafOffsets;  // byte offset of each leaf's list
    std::string error;
    auto walk = [&](auto& self, int offset, int depth, const float* box) -> bool {
        auto fail = [&](const char* what) {
            error = std::string(what) + " (node at byte " + std::to_string(offset) + ")";
            return false;
        };
        // Readers keep at most 50 deferred children.
        if (depth > 50) return fail("deeper than 50 levels");
        int32_t word0, word1;
        std::memcpy(&word0, block + offset, 4), std::memcpy(&word1, block + offset + 4, 4);
        const double area = rootBox ? halfArea(box) / rootArea : 0;
        if (word0 < 0) {
            if (word0 & 3) return fail("leaf distance not a multiple of 4");
            if (word1 < 0) return fail("negative leaf count");
            leafOffsets.push_back(offset - word0);
            summary->leaves.push_back(TreeLeaf{depth, word1, nullptr});
            summary->listed += word1;
            summary->sahCost += area * word1;
            summary->maxDepth = std::max(summary->maxDepth, depth);
            return true;
        }
        const int axis = word0 & 3, pair = offset + (word0 & ~7);
        if (axis == 3) return fail("inner node with axis 3");
        if (word0 & 4) return fail("inner node with bit 2 set");
        if (pair != nextPair) return fail("child pair out of pre-order");
        if (pair + 16 > size) return fail("child pair beyond the block");
        nextPair += 16;
        ++summary->innerNodes;
        summary->sahCost += area;
        float below[6], above[6];
        std::memcpy(below, box, sizeof below), std::memcpy(above, box, sizeof above);
        std::memcpy(&below[axis + 3], &word1, 4), std::memcpy(&above[axis], &word1, 4);
        return self(self, pair, depth + 1, below) && self(self, pair + 8, depth + 1, above);
    };
    float box[6] = {};
    if (rootBox) std::memcpy(box, rootBox, sizeof box);
    if (!walk(walk, 0, 0, box)) return error;

    const long long nodes = 1 + 2LL * summary->innerNodes;
    if (16 + 8 * (nodes - 1) + 4 * summary->listed != size)
        return "size differs from 16 + 8 x (nodes - 1) + 4 x entries";
    int expected = nextPair;  // the lists start right after the last pair
    for (size_t k = 0; k < summary->leaves.size(); ++k) {
        TreeLeaf& leaf = summary->leaves[k];
        if (leafOffsets[k] != expected)
            return "leaf list " + std::to_string(k) + " not at byte " + std::to_string(expected);
        if (expected + 4LL * leaf.count > size) return "leaf lists run past the reported size";
        leaf.list = reinterpret_cast<const int32_t*>(block + expected);
        std::vector<int32_t> seen(leaf.list, leaf.list + leaf.count);
        for (int32_t n : seen)
            if (n < 0 || n >= triangleCount)
                return "triangle out of range in leaf " + std::to_string(k);
        std::sort(seen.begin(), seen.end());
        if (std::adjacent_find(seen.begin(), seen.end()) != seen.end())
            summary->duplicateInLeaf = true;
        expected += 4 * leaf.count;
    }
    if (expected != size) return "lists do not end at the reported size";
    return "";
}

// Whether every triangle number 0..triangleCount-1 appears in some leaf.
inline bool listsEveryTriangle(const TreeSummary& summary, int triangleCount) {
    std::vector<char> seen(size_t(triangleCount), 0);
    for (const TreeLeaf& leaf : summary.leaves)
        for (int k = 0; k < leaf.count; ++k) seen[size_t(leaf.list[k])] = 1;
    return std::find(seen.begin(), seen.end(), 0) == seen.end();
}

}  // namespace kelt

#endif
