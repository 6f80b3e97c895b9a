# Debian packages the project needs, installed by name when missing. Sourced by the entry scripts.
# clang and libclang-rt-dev (libFuzzer and the sanitizer runtimes) build the fuzz targets.
VELMORA_PACKAGES=(build-essential cmake pkg-config libgtest-dev libgmock-dev libbenchmark-dev
                  libtinyxml-dev libpng-dev libcli11-dev nlohmann-json3-dev clang-format
                  clang libclang-rt-dev)
# On x86-64 hosts, the Arm cross toolchain and the user-mode emulators that run the NEON kernels
# of src/vision and its tests on an x86-64 without AVX2 (see scripts/test).
if [ "$(uname -m)" = x86_64 ]; then
    VELMORA_PACKAGES+=(g++-aarch64-linux-gnu qemu-user)
fi

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
