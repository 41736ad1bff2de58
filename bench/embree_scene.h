// Embree 3 as the yardstick of the benchmark programs: a device on a chosen
// instruction set and thread count, and a mesh built into a scene at HIGH
// quality. Only compiled when the benchmarks found Embree (KELB_HAVE_EMBREE).
#ifndef KEL_BENCH_EMBREE_SCENE_H
#define KEL_BENCH_EMBREE_SCENE_H

#ifdef KELB_HAVE_EMBREE
#include <embree3/rtcore.h>

#include "mesh.h"

namespace kelb {

// A device on `isa` ("sse2"; null for the best the processor has) with
// `threads` worker threads (0: one per processor).
class EmbreeDevice {
  public:
    EmbreeDevice(const char* isa, int threads);
    ~EmbreeDevice();
    EmbreeDevice(const EmbreeDevice&) = delete;
    EmbreeDevice& operator=(const EmbreeDevice&) = delete;
    RTCDevice get() const { return device_; }

  private:
    RTCDevice device_;
};

// The mesh (which must outlive it) as one triangle geometry, built at HIGH
// quality, spatial splits included. Building happens in the constructor, so
// timing the constructor times the build.
class EmbreeScene {
  public:
    EmbreeScene(const EmbreeDevice& device, const kelt::Mesh& mesh);
    ~EmbreeScene();
    EmbreeScene(const EmbreeScene&) = delete;
    EmbreeScene& operator=(const EmbreeScene&) = delete;
    RTCScene get() const { return scene_; }

  private:
    RTCScene scene_;
};

}  // namespace kelb

#endif  // KELB_HAVE_EMBREE
#endif
