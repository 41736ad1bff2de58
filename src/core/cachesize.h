// Last-level cache size from CPUID, and the rules by which the copy and zero
// kernels decide to bypass the cache. Kept apart from the kernels so that the
// descriptor decoding and the thresholds can be checked on any processor.
#ifndef KEL_CACHESIZE_H
#define KEL_CACHESIZE_H

#include <cpuid.h>
#include <stdint.h>

namespace kel {

// Leaf-2 cache descriptors and their sizes, searched in this order so that the
// largest cache a processor reports wins. An encoded size b stands for
// (b >> 4) << ((b & 15) + 18) bytes; a zero descriptor ends the table.
inline constexpr uint8_t TableCacheSize[][2] = {
    {0x4D, 0x16}, {0x4C, 0x34}, {0x4B, 0x15}, {0x47, 0x15}, {0x4A, 0x33}, {0x49, 0x14},
    {0x29, 0x14}, {0x46, 0x14}, {0x25, 0x13}, {0x7D, 0x13}, {0x85, 0x13}, {0x45, 0x13},
    {0x23, 0x12}, {0x87, 0x12}, {0x7C, 0x12}, {0x78, 0x12}, {0x84, 0x12}, {0x44, 0x12},
    {0x22, 0x11}, {0x7B, 0x11}, {0x86, 0x11}, {0x3E, 0x11}, {0x7F, 0x11}, {0x83, 0x11},
    {0x43, 0x11}, {0x00, 0x00}};

inline uint32_t decodeCacheSize(uint8_t encoded) {
    return uint32_t(encoded >> 4) << ((encoded & 15) + 18);
}

// Leaf 0's vendor string in EBX, EDX, ECX order. Only the processor maker
// whose leaf-2 descriptor codes the table lists is asked for leaf 2; other
// makers use the same codes differently or not at all.
inline constexpr uint32_t kDescriptorVendor[3] = {0x756E6547, 0x49656E69, 0x6C65746E};

inline bool isDescriptorVendor(const uint32_t leaf0[4]) {
    return leaf0[1] == kDescriptorVendor[0] && leaf0[3] == kDescriptorVendor[1] &&
           leaf0[2] == kDescriptorVendor[2];
}

inline bool registerHasDescriptor(uint32_t reg, uint8_t descriptor) {
    for (int byte = 0; byte < 4; ++byte)
        if (((reg >> (8 * byte)) & 0xFF) == descriptor) return true;
    return false;
}

// Cache size in bytes from the four leaf-2 registers (EAX, EBX, ECX, EDX), or
// 0 when unknown. A register with bit 31 set holds no descriptors, and EAX's
// low byte is the iteration count, which must be 1.
inline uint32_t cacheSizeFromLeaf2(const uint32_t regs[4]) {
    if ((regs[0] & 0xFF) != 1) return 0;
    uint32_t usable[4];
    for (int r = 0; r < 4; ++r) usable[r] = (regs[r] & 0x80000000u) ? 0 : regs[r];
    usable[0] &= 0xFFFFFF00u;
    for (int row = 0; TableCacheSize[row][0] != 0; ++row) {
        for (int r = 0; r < 4; ++r)
            if (registerHasDescriptor(usable[r], TableCacheSize[row][0]))
                return decodeCacheSize(TableCacheSize[row][1]);
    }
    return 0;
}

inline void queryCpuid(uint32_t leaf, uint32_t regs[4]) {
    __cpuid(leaf, regs[0], regs[1], regs[2], regs[3]);
}

// Asked afresh at every call that needs it: nothing is cached, so there is no
// global state to guard.
inline uint32_t queryCacheSize() {
    uint32_t regs[4];
    queryCpuid(0, regs);
    if (!isDescriptorVendor(regs)) return 0;
    queryCpuid(2, regs);
    return cacheSizeFromLeaf2(regs);
}

// Below this size neither kernel considers streaming.
constexpr uint32_t kStreamingFloor = 0x80000;
constexpr uint32_t kStreamBlock = 0x40000;

// A copy fills the cache from both ends (it reads and writes), so it streams
// from half the cache size on; n is the count left after aligning the
// destination. A zero cache size means unknown, which never streams.
inline bool copyStreams(uint32_t n, uint32_t cacheSize) {
    return n >= kStreamingFloor && cacheSize != 0 && n >= cacheSize / 2;
}

inline bool zeroStreams(uint32_t n, uint32_t cacheSize) {
    return n > kStreamingFloor && cacheSize != 0 && n >= cacheSize;
}

// Direction of an aligned copy of n bytes. A load whose page offset lies just
// after a recent store's is taken for a dependency on it, so the copy runs in
// the direction in which the loads stay ahead of the stores.
inline bool copyForward(uintptr_t src, uintptr_t dst, uint32_t n) {
    if (n < 512) return false;
    int d = int(src & 4095) - int(dst & 4095);
    return (d > 0 && d <= 160) || d < -3936;
}

}  // namespace kel

#endif  // KEL_CACHESIZE_H
