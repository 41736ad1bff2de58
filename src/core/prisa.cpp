// The packet kernels' instruction set, chosen once when the library is
// loaded. The library imports nothing from the C library beyond the
// allocation functions, so the environment is read from the third argument
// that glibc passes to every function of a loaded object's init array
// (argc, argv, envp), and the processor is asked with CPUID and XGETBV.
#include <cpuid.h>

#include "core/isa.h"

namespace {

// What the kernels use until the init array has run, and wherever AVX2
// cannot be used.
kel::Isa chosenIsa = kel::Isa::kSse2;

// AVX2 needs the instructions (CPUID leaf 7) and a system that saves the
// 256-bit registers on a context switch (XSAVE enabled by the system, with
// the SSE and AVX state bits set in XCR0).
bool processorRunsAvx2() {
    unsigned a, b, c, d;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
    if (!(c & bit_OSXSAVE) || !(c & bit_AVX)) return false;
    unsigned xcr0, xcr0High;
    __asm__("xgetbv" : "=a"(xcr0), "=d"(xcr0High) : "c"(0));
    constexpr unsigned kSseAndAvxState = 0x6;
    if ((xcr0 & kSseAndAvxState) != kSseAndAvxState) return false;
    if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
    return (b & bit_AVX2) != 0;
}

// True when the environment holds KELRT7_ISA=sse2 exactly; any other value
// leaves the choice to the processor.
bool baselineForced(char** envp) {
    static const char kForce[] = "KELRT7_ISA=sse2";
    for (; envp && *envp; ++envp) {
        const char* entry = *envp;
        int i = 0;
        while (kForce[i] && entry[i] == kForce[i]) ++i;
        if (!kForce[i] && !entry[i]) return true;
    }
    return false;
}

__attribute__((constructor)) void localChooseIsa(int, char**, char** envp) {
    if (!baselineForced(envp) && processorRunsAvx2()) chosenIsa = kel::Isa::kAvx2;
}

}  // namespace

kel::Isa kel::packetIsa() {
    return chosenIsa;
}
