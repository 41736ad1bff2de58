// Which build of the packet kernels runs: AVX2 wherever the processor has
// it, SSE2 when KELRT7_ISA=sse2 forces the baseline (ctest runs this test
// both ways). The processor is asked independently, through the compiler's
// runtime, so a broken CPUID or XGETBV check, or a driver wired to the
// wrong tables, fails here instead of silently costing the wider kernels.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "intersect/packetpath.h"

namespace {

TEST(PacketPath, WidestKernelsUnlessTheBaselineIsForced) {
    const char* setting = std::getenv("KELRT7_ISA");
    const bool forced = setting && std::strcmp(setting, "sse2") == 0;
    if (!forced && !__builtin_cpu_supports("avx2"))
        GTEST_SKIP() << "this processor has no AVX2: only the SSE2 kernels can run here";
    const kel::Isa want = forced ? kel::Isa::kSse2 : kel::Isa::kAvx2;
    const kel::PacketPaths& paths = kel::packetPaths();
    EXPECT_TRUE(kel::packetIsa() == want && paths.eye.isa == want && paths.ownOrigin.isa == want &&
                paths.shadow.isa == want)
        << "KELRT7_ISA=" << (setting ? setting : "(unset)");
}

}  // namespace
