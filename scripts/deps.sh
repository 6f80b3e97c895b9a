# Debian packages the project needs, installed by name when missing. Sourced by the entry scripts.
# What the main job (scripts/demo) needs: the compiler, CMake, the library's TinyXML and the
# tool's PNG, command-line and JSON libraries.
VELMORA_PACKAGES=(build-essential cmake pkg-config libtinyxml-dev libpng-dev libcli11-dev
                  nlohmann-json3-dev)
# What scripts/test needs beyond that: the test and benchmark frameworks, the format check, and on
# x86-64 hosts the Arm cross toolchain and the user-mode emulators that run the NEON kernels of
# src/vision and its tests on an x86-64 without AVX2; clang and libclang-rt-dev (libFuzzer and the
# sanitizer runtimes) build the fuzz targets.
VELMORA_TEST_PACKAGES=(libgtest-dev libgmock-dev libbenchmark-dev clang-format clang libclang-rt-dev)
if [ "$(uname -m)" = x86_64 ]; then
    VELMORA_TEST_PACKAGES+=(g++-aarch64-linux-gnu qemu-user)
fi

# Installs VELMORA_PACKAGES and the packages named as arguments, where missing.
velmora_install_deps() {
    local missing=()
    local package
    for package in "${VELMORA_PACKAGES[@]}" "$@"; do
        if ! dpkg -s "$package" >/dev/null 2>&1; then
            missing+=("$package")
        fi
    done
    if [ "${#missing[@]}" -gt 0 ]; then
        echo "Installing missing packages: ${missing[*]}"
        local sudo=""
        [ "$(id -u)" -eq 0 ] || sudo="sudo"
        $sudo apt-get update -qq
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
    fi
}
