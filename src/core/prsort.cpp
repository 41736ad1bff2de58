// In-place ascending sort of floats: a quicksort without recursion that
// finishes short segments by selection. Its only memory is a fixed stack of
// segment bounds in its own frame.
#include "core/kel_private.h"

namespace {

struct Segment {
    int lo, hi;  // inclusive
};

// Pushing only the larger part of every split bounds the depth by log2 of the
// length, so 31 pending segments above the sentinel cover any int length.
constexpr int kStackDepth = 32;
constexpr int kSelectionMax = 9;

inline void swapValues(float& a, float& b) {
    float t = a;
    a = b;
    b = t;
}

// A compare-exchange keeps the values a permutation of the input even when
// a NaN makes the comparisons inconsistent.
inline void orderPair(float& a, float& b) {
    if (b < a) swapValues(a, b);
}

// The smaller of the first two values goes to x[lo + 1]; the larger, x[mid]
// and x[hi] are ordered into x[lo], x[mid], x[hi]. The median is the pivot,
// and x[lo] <= pivot <= x[hi] keeps both parts of the partition non-empty.
float preparePivot(float* x, int lo, int mid, int hi) {
    orderPair(x[lo + 1], x[lo]);
    orderPair(x[lo], x[mid]);
    orderPair(x[mid], x[hi]);
    orderPair(x[lo], x[mid]);
    return x[mid];
}

// Moves values greater than the pivot behind values not greater; returns the
// position where the two cursors met. Elements before it are <= p, it and
// those after it are >= p.
int partition(float* x, int lo, int hi, float p) {
    int i = lo + 1, j = hi;
    for (;;) {
        while (i < j && !(x[i] > p)) ++i;
        while (j > i && x[j] > p) --j;
        if (i == j) return i;
        swapValues(x[i], x[j]);
    }
}

// Largest value to the end, the end one step in, until one element is left.
// Ties keep the first largest, so equal values are exchanged only when needed.
void selectionSort(float* x, int lo, int hi) {
    for (; hi > lo; --hi) {
        int largest = lo;
        for (int k = lo + 1; k <= hi; ++k)
            if (x[k] > x[largest]) largest = k;
        swapValues(x[largest], x[hi]);
    }
}

}  // namespace

extern "C" KEL_API KelStatus kelsSortAscend_32f_I(float* pSrcDst, int len) {
    if (!pSrcDst) return KEL_STS_NULL_PTR;
    if (len < 1) return KEL_STS_SIZE;
    if (len == 1) return KEL_STS_OK;

    float* x = pSrcDst;
    Segment stack[kStackDepth];
    int top = 0;
    stack[0] = Segment{-1, -1};  // sentinel: popping it ends the sort
    int lo = 0, hi = len - 1;
    for (;;) {
        int n = hi - lo + 1;
        if (n > kSelectionMax) {
            float p = preparePivot(x, lo, lo + n / 2, hi);
            int j = partition(x, lo, hi, p);
            // Values equal to the pivot at the end of the left part are
            // already in place; with many duplicates this keeps the passes
            // linear.
            int k = j - 1;
            while (k > lo && x[k] == p) --k;
            // Continue with the smaller part, keep the larger for later; a
            // one-element part is dropped.
            if (k - lo >= hi - j) {
                if (j != hi) {
                    stack[++top] = Segment{lo, k};
                    lo = j;
                } else {
                    hi = k;
                }
            } else {
                if (k != lo) {
                    stack[++top] = Segment{j, hi};
                    hi = k;
                } else {
                    lo = j;
                }
            }
            continue;
        }
        selectionSort(x, lo, hi);
        Segment next = stack[top];
        if (next.lo < 0) break;
        --top;
        lo = next.lo;
        hi = next.hi;
    }
    return KEL_STS_OK;
}
