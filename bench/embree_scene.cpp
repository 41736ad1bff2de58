#include "embree_scene.h"

#include <string>

namespace kelb {

EmbreeDevice::EmbreeDevice(const char* isa, int threads) {
    std::string config = "threads=" + std::to_string(threads);
    if (isa) config += std::string(",isa=") + isa;
    device_ = rtcNewDevice(config.c_str());
}

EmbreeDevice::~EmbreeDevice() {
    rtcReleaseDevice(device_);
}

EmbreeScene::EmbreeScene(const EmbreeDevice& device, const kelt::Mesh& mesh) {
    scene_ = rtcNewScene(device.get());
    rtcSetSceneBuildQuality(scene_, RTC_BUILD_QUALITY_HIGH);
    RTCGeometry geometry = rtcNewGeometry(device.get(), RTC_GEOMETRY_TYPE_TRIANGLE);
    rtcSetGeometryBuildQuality(geometry, RTC_BUILD_QUALITY_HIGH);
    // Both arrays are shared in place: vertices of three floats, triangles of
    // four ints whose fourth Embree skips through the stride.
    rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                               mesh.vertices.data(), 0, 3 * sizeof(float),
                               size_t(mesh.vertexCount()));
    rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                               mesh.triangles.data(), 0, 4 * sizeof(int),
                               size_t(mesh.triangleCount()));
    rtcCommitGeometry(geometry);
    rtcAttachGeometry(scene_, geometry);
    rtcReleaseGeometry(geometry);
    rtcCommitScene(scene_);
}

EmbreeScene::~EmbreeScene() {
    rtcReleaseScene(scene_);
}

}  // namespace kelb
