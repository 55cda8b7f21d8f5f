# Shared by scripts/run.sh and scripts/test.sh: installs what a fresh Debian machine lacks
# and configures and builds the project.

KV_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
KV_PACKAGES=(
    cmake ninja-build g++ pkg-config git
    qt6-base-dev qt6-base-dev-tools qt6-serialport-dev libqt6opengl6-dev qt6-svg-dev
    libglu1-mesa-dev libgl1-mesa-dri libqcustomplot-dev libserialport-dev
    libgtest-dev libbenchmark-dev ccache python3
    xvfb xauth imagemagick x11-utils
)

kv_log() { printf '\033[1m==> %s\033[0m\n' "$*" >&2; }

kv_ensure_packages() {
    local missing=()
    local pkg
    for pkg in "${KV_PACKAGES[@]}"; do
        if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
            missing+=("$pkg")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0

    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || { echo "Need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
        sudo="sudo"
    fi
    kv_log "Installing ${missing[*]}"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# kv_build BUILD_DIR BUILD_TYPE
kv_build() {
    local dir=$1 type=$2
    local launcher=()
    # A compiler cache keyed on paths relative to the checkout: a fresh clone (CI) and the
    # sanitizer build reuse what an earlier build compiled.
    if command -v ccache >/dev/null; then
        export CCACHE_BASEDIR="$KV_ROOT" CCACHE_NOHASHDIR=1
        launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    fi
    kv_log "Configuring $dir ($type)"
    cmake -S "$KV_ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" "${launcher[@]}" >/dev/null
    kv_log "Building $dir"
    cmake --build "$dir" -j"$(nproc)"
}
