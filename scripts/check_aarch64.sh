#!/usr/bin/env bash
# Builds the library and the tests that hold vector forms against plain forms for 64-bit Arm, and runs them under
# qemu's user-mode emulation. Arm's libraries are unpacked into a folder of their own: this machine's package
# system doesn't learn of another architecture.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
deps_build="$deps_build g++-aarch64-linux-gnu qemu-user" deps build

arm=${XDG_CACHE_HOME:-$HOME/.cache}/tqcam/aarch64
triplet=aarch64-linux-gnu
libraries="libusb-1.0-0-dev libzip-dev libhwy-dev libgtest-dev"

if [ ! -f "$arm/complete" ]; then
    echo "fetching Arm's libraries into $arm, once"
    rm -rf "$arm"
    mkdir -p "$arm"/apt/{lists,archives}/partial
    : >"$arm/apt/status" # nothing is installed there: apt names all that the libraries need
    apt=(apt-get -qq -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o Dir::State::lists="$arm/apt/lists"
        -o Dir::State::status="$arm/apt/status" -o Dir::Cache::archives="$arm/apt/archives" -o Dir::Cache::pkgcache=
        -o Dir::Cache::srcpkgcache= -o APT::Sandbox::User=root -o Debug::NoLocking=1)
    "${apt[@]}" update
    # shellcheck disable=SC2086
    "${apt[@]}" -y --no-install-recommends --download-only install $libraries >/dev/null
    rm -f "$arm"/apt/archives/{libc6,libc-dev,linux-libc,libcrypt,libgcc,libstdc++}* # the compiler has its own
    for package in "$arm"/apt/archives/*.deb; do
        dpkg-deb -x "$package" "$arm"
    done
    rm -rf "$arm/apt"
    touch "$arm/complete"
fi

lib=$arm/usr/lib/$triplet
export PKG_CONFIG_LIBDIR=$lib/pkgconfig PKG_CONFIG_SYSROOT_DIR=$arm
cmake -S . -B build/aarch64 -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64.cmake" -DCMAKE_BUILD_TYPE=Release \
    -DTQCAM_BUILD_TOOLS=OFF -DGTest_DIR="$lib/cmake/GTest" -DCMAKE_CXX_FLAGS="-isystem $arm/usr/include" \
    -DCMAKE_SHARED_LINKER_FLAGS="-L$lib -Wl,-rpath-link,$lib:$arm/lib/$triplet" \
    -DCMAKE_EXE_LINKER_FLAGS="-L$lib -Wl,-rpath-link,$lib:$arm/lib/$triplet" >/dev/null
programs="test_kernels test_calib test_stream"
# shellcheck disable=SC2086
ninja -C build/aarch64 -j "${JOBS:-2}" tqcam $programs
file=$(readelf -h build/aarch64/src/libtqcam.so | awk '/Machine:/ { print $2 }')
[ "$file" = AArch64 ] || { echo "the library is for $file" >&2; exit 1; }

cd build/aarch64
for program in $programs; do
    qemu-aarch64 -L "/usr/$triplet" -E LD_LIBRARY_PATH="$lib:$arm/lib/$triplet:/usr/$triplet/lib" \
        "tests/$program" --gtest_brief=1 --gtest_filter='*Kernels*:DrnuFit*:Checksum*' | grep -v KERNEL_SEED
done
echo "aarch64: clean"
