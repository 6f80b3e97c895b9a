// Creates a scene through the installed library and checks the basic lifecycle.
#include <velmora/Impl.h>
#include <velmora/Velmora.h>

#include <cstdio>
#include <cstring>
#include <memory>

int main() {
    std::unique_ptr<Velmora::IVelmora> scene(newVelmora());
    const char* version = scene->getVersion();
    if (std::strncmp(version, "2.0.3a ", 7) != 0) {
        std::fprintf(stderr, "unexpected version text: %s\n", version);
        return 1;
    }
    Velmora::Config config{};
    config.cellSize = 0.02f;
    config.truncation = 0.1f;
    config.mode = 1;
    if (scene->init(config) != Velmora::kSuccess ||
        scene->init(config) != Velmora::kErrorAlreadyInitialized) {
        std::fprintf(stderr, "init did not behave\n");
        return 1;
    }
    auto* impl = static_cast<Velmora::Impl*>(scene.get());
    // Reaching the members outside the interface proves that Impl is exported.
    (void)impl->loadVolumes("/nonexistent/velmora-consumer");
    std::printf("velmora consumer: %s\n", version);
    return 0;
}
