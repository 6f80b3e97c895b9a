// The four parts of the version text, fixed at build time. The date and time are the build stamp
// of the release this library reproduces, kept constant so that builds are reproducible.
#ifndef VELMORA_VELMORA_VERSION_H
#define VELMORA_VELMORA_VERSION_H

namespace Velmora {

constexpr const char* kLibraryVersion = "2.0.3a";
constexpr const char* kBuildTag = "KELP-velmora-build-3177";
constexpr const char* kBuildDate = "Dec 21 2021";
constexpr const char* kBuildTime = "12:50:05";

}  // namespace Velmora

#endif  // VELMORA_VELMORA_VERSION_H
