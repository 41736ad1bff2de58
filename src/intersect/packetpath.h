// The packet path of each query as one instruction set builds it: the
// driver and its kernels. The kernel sources are compiled once for SSE2
// and once with AVX2, each build defining its own tables (kel::sse2::...,
// kel::avx2::...); the exported workers forward to the tables of the
// instruction set chosen when the library was loaded.
#ifndef KEL_INTERSECT_PACKETPATH_H
#define KEL_INTERSECT_PACKETPATH_H

#include "intersect/packet.h"

namespace kel {

// Each table names the instruction set its build was compiled for, so
// that a test can tell which one runs.
struct EyePacketPath {
    Isa isa;
    decltype(&ownIntersectEyeBlock4_w7) block;
    decltype(&ownIntersectEyeBlock4x2) trace4x2;
    decltype(&ownIntersectEyeBlock4x1) trace4x1;
};

struct OwnOriginPacketPath {
    Isa isa;
    decltype(&ownIntersectBlock4_w7) block;
    decltype(&ownIntersectBlock4x2) trace4x2;
    decltype(&ownIntersectBlock4x1) trace4x1;
};

struct ShadowPacketPath {
    Isa isa;
    decltype(&ownIntersectAnyBlock4_w7) block;
    decltype(&ownIntersectAnyBlock4x2) trace4x2;
    decltype(&ownIntersectAnyBlock4x1) trace4x1;
    decltype(&ownIntersectOccluder4x4) occluder4x4;
    decltype(&ownIntersectNearestOccl) nearestOccluder;
};

struct PacketPaths {
    const EyePacketPath& eye;
    const OwnOriginPacketPath& ownOrigin;
    const ShadowPacketPath& shadow;
};

namespace sse2 {
extern const EyePacketPath kEyePacketPath;
extern const OwnOriginPacketPath kOwnOriginPacketPath;
extern const ShadowPacketPath kShadowPacketPath;
}  // namespace sse2
namespace avx2 {
extern const EyePacketPath kEyePacketPath;
extern const OwnOriginPacketPath kOwnOriginPacketPath;
extern const ShadowPacketPath kShadowPacketPath;
}  // namespace avx2

// The paths of the instruction set chosen when the library was loaded.
const PacketPaths& packetPaths();

}  // namespace kel

#endif  // KEL_INTERSECT_PACKETPATH_H
