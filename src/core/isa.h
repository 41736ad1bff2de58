// The instruction sets of the SIMD code: the one a translation unit is
// compiled for, and the one the packet kernels use on this processor,
// chosen once when the library is loaded.
#ifndef KEL_CORE_ISA_H
#define KEL_CORE_ISA_H

// Inline functions that SIMD code includes are declared in a namespace
// named after the translation unit's instruction set, kel::sse2 or
// kel::avx2 (inline, so code still names them kel::...). The linker merges
// identical inline functions across translation units; without the
// namespace it could keep the AVX2 build of one and call it from SSE2 code
// on a processor without AVX2.
#if defined(__AVX2__)
#define KEL_ISA avx2
#else
#define KEL_ISA sse2
#endif

namespace kel {

enum class Isa { kSse2, kAvx2 };

#if defined(__AVX2__)
constexpr Isa kCompiledIsa = Isa::kAvx2;
#else
constexpr Isa kCompiledIsa = Isa::kSse2;
#endif

// AVX2 when the processor has it and the system saves its registers, and
// KELRT7_ISA was not "sse2" in the environment the library was loaded with;
// SSE2 otherwise. It never changes after the library is loaded.
Isa packetIsa();

}  // namespace kel

#endif  // KEL_CORE_ISA_H
