#include "trees.h"

#include <algorithm>
#include <cstring>

namespace kelt {

uint32_t psahBudgetMiB(int vertexCount, int triangleCount) {
    const uint64_t perTriangle =
        48 + 3 * (8 + sizeof(void*)) + 16 * (8 + sizeof(void*)) + 24 * sizeof(void*);
    const uint64_t bytes = 64 * uint64_t(vertexCount) + perTriangle * uint64_t(triangleCount);
    return uint32_t(128 + (bytes >> 20));
}

uint64_t psahFixedNeedBytes(int vertexCount, int triangleCount) {
    const uint64_t perTriangle = 48 + 3 * (8 + sizeof(void*));
    return 12 * uint64_t(vertexCount) + perTriangle * uint64_t(triangleCount) + (32u << 20) + 8 +
           59 * sizeof(void*);
}

std::vector<int32_t> oneLeafTree(int triangleCount) {
    std::vector<int32_t> words = {-16, triangleCount, 0, 0};
    for (int n = 0; n < triangleCount; ++n) words.push_back(n);
    return words;
}

double TreeSummary::averageLeafDepth() const {
    double sum = 0;
    for (const TreeLeaf& leaf : leaves) sum += leaf.depth;
    return leaves.empty() ? 0 : sum / double(leaves.size());
}

double TreeSummary::averageLeafCount() const {
    return leaves.empty() ? 0 : double(listed) / double(leaves.size());
}

namespace {

// The node at a byte offset of the block.
struct Node {
    int32_t word0, word1;
    bool leaf() const { return word0 < 0; }
    int axis() const { return word0 & 3; }
    int pair(int offset) const { return offset + (word0 & ~7); }
    float split() const {
        float f;
        std::memcpy(&f, &word1, 4);
        return f;
    }
};

Node nodeAt(const KDTreeNode* tree, int offset) {
    Node n;
    std::memcpy(&n, reinterpret_cast<const char*>(tree) + offset, 8);
    return n;
}

template <typename Real>
Real halfArea(const Real* box) {
    const Real dx = box[3] - box[0], dy = box[4] - box[1], dz = box[5] - box[2];
    return dx * dy + dy * dz + dz * dx;
}

}  // namespace

std::string checkTree(const KDTreeNode* tree, int size, int triangleCount, TreeSummary* summary,
                      const float* rootBox) {
    *summary = TreeSummary();
    if (!tree) return "no tree";
    if (size < 16) return "size below the 16-byte header";
    const char* block = reinterpret_cast<const char*>(tree);
    static const char zeros[8] = {};
    if (std::memcmp(block + 8, zeros, 8) != 0) return "words 2 and 3 are not zero";

    double root[6] = {};
    if (rootBox) std::copy(rootBox, rootBox + 6, root);
    const double rootArea = halfArea(root);
    int nextPair = 16;
    std::vector<int> leafOffsets;  // byte offset of each leaf's list
    std::string error;
    auto walk = [&](auto& self, int offset, int depth, const double* box) -> bool {
        auto fail = [&](const char* what) {
            error = std::string(what) + " (node at byte " + std::to_string(offset) + ")";
            return false;
        };
        // Readers keep at most 50 deferred children.
        if (depth > 50) return fail("deeper than 50 levels");
        const Node node = nodeAt(tree, offset);
        const double area = rootBox ? halfArea(box) / rootArea : 0;
        if (node.leaf()) {
            if (node.word0 & 3) return fail("leaf distance not a multiple of 4");
            if (node.word1 < 0) return fail("negative leaf count");
            leafOffsets.push_back(offset - node.word0);
            summary->leaves.push_back(TreeLeaf{depth, node.word1, nullptr});
            summary->listed += node.word1;
            summary->sahCost += area * node.word1;
            summary->maxDepth = std::max(summary->maxDepth, depth);
            return true;
        }
        const int axis = node.axis(), pair = node.pair(offset);
        if (axis == 3) return fail("inner node with axis 3");
        if (node.word0 & 4) return fail("inner node with bit 2 set");
        if (pair != nextPair) return fail("child pair out of pre-order");
        if (pair + 16 > size) return fail("child pair beyond the block");
        nextPair += 16;
        ++summary->innerNodes;
        summary->sahCost += area;
        double below[6], above[6];
        std::copy(box, box + 6, below), std::copy(box, box + 6, above);
        below[axis + 3] = above[axis] = node.split();
        return self(self, pair, depth + 1, below) && self(self, pair + 8, depth + 1, above);
    };
    if (!walk(walk, 0, 0, root)) return error;

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
        for (int i = 0; i < leaf.count; ++i)
            if (leaf.list[i] < 0 || leaf.list[i] >= triangleCount)
                return "triangle out of range in leaf " + std::to_string(k);
        expected += 4 * leaf.count;
    }
    if (expected != size) return "lists do not end at the reported size";
    return "";
}

}  // namespace kelt
