# Sourced by the other scripts: installs what is missing on a Debian 12 machine.
# deps build | check    the packages of building and testing; those of the slower gates besides

deps_build="g++ cmake ninja-build pkg-config libusb-1.0-0-dev libeigen3-dev uthash-dev libzip-dev libhwy-dev \
libcli11-dev libpng-dev nlohmann-json3-dev libgtest-dev libumockdev-dev umockdev"
deps_check="clang clang-format libclang-rt-14-dev llvm libbenchmark-dev binutils"

deps() {
    local wanted="$deps_build" missing="" package
    [ "$1" = check ] && wanted="$wanted $deps_check"
    for package in $wanted; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing="$missing $package"
    done
    [ -z "$missing" ] && return 0
    echo "installing:$missing"
    local as_root=""
    if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null || { echo "run as root, or install by hand:$missing" >&2; return 1; }
        as_root=sudo
    fi
    $as_root apt-get update -qq
    # shellcheck disable=SC2086
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing >/dev/null
}

# build PRESET: configures and builds, two jobs at a time unless JOBS says otherwise
build() {
    cmake --preset "$1" >/dev/null
    ninja -C "build/$1" -j "${JOBS:-2}"
}
