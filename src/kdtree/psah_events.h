// Sorted event lists of the PSAH split search. Each node keeps, per axis, the
// smallest and the largest coordinates of its patches (and the coordinates of
// patches lying in one plane across the axis) sorted ascending, each entry
// naming its patch. A split hands the entries to the children in order, so
// the lists are sorted once at the root instead of once per node.
#ifndef KEL_PSAH_EVENTS_H
#define KEL_PSAH_EVENTS_H

#include "kdtree/psah.h"

namespace kel {

struct PsahEvent {
    float value;
    int32_t patch;  // position in the node's patch array
};

// Unsigned keys in float order, the radix sort's: -0.0 comes before +0.0,
// negative NaNs first and positive NaNs last. Equal keys are equal bits, so
// lists in key order hold exactly the values a sort of the same floats does.
inline uint32_t eventKey(float value) {
    const uint32_t bits = __builtin_bit_cast(uint32_t, value);
    return bits ^ (uint32_t(int32_t(bits) >> 31) | 0x80000000u);
}

// Sorts n events by key; temp holds n events.
void sortEventsByKey(PsahEvent* events, int n, PsahEvent* temp);

}  // namespace kel

#endif  // KEL_PSAH_EVENTS_H
