// Hand-built kd-trees in the library's packed format, written node by node,
// for exercising the traversal independently of the library's own builders.
#ifndef KEL_TEST_INTERSECT_PACKED_TREE_H
#define KEL_TEST_INTERSECT_PACKED_TREE_H

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "kelr.h"

namespace kelt {

// A tree node before packing: a leaf with its triangle list, or an inner node
// with a split and two children (below the split, above it).
struct TreeNode {
    int axis = -1;  // -1: leaf
    float split = 0;
    std::unique_ptr<TreeNode> below, above;
    std::vector<int> triangles;

    static std::unique_ptr<TreeNode> leaf(std::vector<int> list) {
        auto n = std::make_unique<TreeNode>();
        n->triangles = std::move(list);
        return n;
    }
    static std::unique_ptr<TreeNode> inner(int axis, float split, std::unique_ptr<TreeNode> below,
                                           std::unique_ptr<TreeNode> above) {
        auto n = std::make_unique<TreeNode>();
        n->axis = axis;
        n->split = split;
        n->below = std::move(below);
        n->above = std::move(above);
        return n;
    }
};

// A packed tree block. Kept in 8-byte units so the block is 8-byte aligned
// like the library's (which is 32-byte aligned).
class PackedTree {
  public:
    explicit PackedTree(const TreeNode& root) {
        words_.assign(4, 0);
        std::vector<std::pair<size_t, const TreeNode*>> leaves;
        place(root, 0, &leaves);
        for (auto& [slot, leaf] : leaves) {
            words_[slot] = int32_t(4 * (int64_t(slot) - int64_t(words_.size())));
            words_[slot + 1] = int32_t(leaf->triangles.size());
            words_.insert(words_.end(), leaf->triangles.begin(), leaf->triangles.end());
        }
        block_.assign(words_.size() / 2 + 1, 0);
        std::memcpy(block_.data(), words_.data(), words_.size() * 4);
    }

    const KDTreeNode* root() const { return reinterpret_cast<const KDTreeNode*>(block_.data()); }

  private:
    // Child pairs follow in depth-first pre-order; leaves are recorded in
    // left-to-right order so that their lists can follow all pairs.
    void place(const TreeNode& n, size_t slot,
               std::vector<std::pair<size_t, const TreeNode*>>* leaves) {
        if (n.axis < 0) {
            leaves->push_back({slot, &n});
            return;
        }
        const size_t pair = words_.size();
        words_.resize(pair + 4, 0);
        words_[slot] = int32_t(4 * (pair - slot)) | n.axis;
        std::memcpy(&words_[slot + 1], &n.split, 4);
        place(*n.below, pair, leaves);
        place(*n.above, pair + 2, leaves);
    }

    std::vector<int32_t> words_;
    std::vector<int64_t> block_;
};

// One leaf holding triangles 0 .. count - 1.
inline std::unique_ptr<TreeNode> singleLeaf(int count) {
    std::vector<int> all(count);
    for (int i = 0; i < count; ++i) all[i] = i;
    return TreeNode::leaf(all);
}

}  // namespace kelt

#endif
