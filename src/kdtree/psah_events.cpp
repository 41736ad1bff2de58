#include "kdtree/psah_events.h"

namespace kel {

namespace {

constexpr int kInsertionSortMax = 32;
constexpr int kDigitBits = 8;
constexpr int kBuckets = 1 << kDigitBits;
constexpr int kDigits = 32 / kDigitBits;

void insertionSort(PsahEvent* e, int n) {
    for (int i = 1; i < n; ++i) {
        const PsahEvent x = e[i];
        const uint32_t key = eventKey(x.value);
        int j = i;
        for (; j > 0 && eventKey(e[j - 1].value) > key; --j) e[j] = e[j - 1];
        e[j] = x;
    }
}

inline int digitOf(float value, int d) {
    return int(eventKey(value) >> (kDigitBits * d)) & (kBuckets - 1);
}

}  // namespace

// Least significant digit first, eight bits at a time; an even number of
// passes ends in the caller's array, and a digit all keys share is skipped
// in pairs of buffers swapped.
void sortEventsByKey(PsahEvent* events, int n, PsahEvent* temp) {
    if (n <= kInsertionSortMax) {
        insertionSort(events, n);
        return;
    }
    uint32_t count[kDigits][kBuckets];
    for (int d = 0; d < kDigits; ++d)
        for (int b = 0; b < kBuckets; ++b) count[d][b] = 0;
    for (int i = 0; i < n; ++i) {
        const uint32_t key = eventKey(events[i].value);
        for (int d = 0; d < kDigits; ++d) ++count[d][(key >> (kDigitBits * d)) & (kBuckets - 1)];
    }
    PsahEvent* src = events;
    PsahEvent* dst = temp;
    for (int d = 0; d < kDigits; ++d) {
        if (count[d][digitOf(src[0].value, d)] == uint32_t(n)) continue;
        uint32_t start = 0;
        for (int b = 0; b < kBuckets; ++b) {
            const uint32_t c = count[d][b];
            count[d][b] = start;
            start += c;
        }
        for (int i = 0; i < n; ++i) dst[count[d][digitOf(src[i].value, d)]++] = src[i];
        PsahEvent* t = src;
        src = dst;
        dst = t;
    }
    if (src != events)
        for (int i = 0; i < n; ++i) events[i] = src[i];
}

}  // namespace kel
