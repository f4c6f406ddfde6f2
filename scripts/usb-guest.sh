#!/usr/bin/env bash
# The library and the tools against a virtual camera behind the USB stack of a real Linux kernel, as one process
# of this machine: user-mode Linux, built once from Debian's kernel source and kept. No root, no KVM, no module.
#   scripts/usb-guest.sh [FILTER]   only the tests that the GoogleTest filter names
#   scripts/usb-guest.sh -- COMMAND ...   this in the guest instead, with a camera on the bus
#   TQCAM_UML=FILE      a kernel built before
#   BUILD=build/release folder of the programs under test
# Exit codes: 0 passed, 77 a machine that can't run the guest at all, else failed.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh

build=$PWD/${BUILD:-build/release}
cache=${XDG_CACHE_HOME:-$HOME/.cache}/tqcam
series=6.1

# ---- The kernel, built once: 5 to 10 minutes, then 7 MB in the cache ----
build_kernel() {
    deps_build="gcc make flex bison bc xz-utils linux-source-$series" deps build
    local work
    work=$(mktemp -d "${TMPDIR:-/tmp}/tqcam-uml-XXXXXX")
    echo "building the guest's kernel in $work, once"
    tar -xf "/usr/src/linux-source-$series.tar.xz" -C "$work"
    (
        cd "$work/linux-source-$series"
        make -s ARCH=um KCONFIG_ALLCONFIG="$1" allnoconfig
        make -s ARCH=um -j "${JOBS:-2}" linux
        strip -o "$2.part" linux
    ) >"$work/log" 2>&1 || { tail -30 "$work/log" >&2; echo "the kernel did not build; its log is $work/log" >&2; exit 1; }
    mv "$2.part" "$2"
    rm -rf "$work"
}

if [ -n "${TQCAM_UML:-}" ]; then
    kernel=$TQCAM_UML
else
    config=$PWD/scripts/usb-guest.config
    kernel=$cache/uml-$series-$(sha256sum "$config" | cut -c1-12)
    mkdir -p "$cache"
    [ -x "$kernel" ] || build_kernel "$config" "$kernel"
fi
[ -x "$kernel" ] || { echo "no kernel at $kernel" >&2; exit 1; }

deps_build="usbip iproute2" deps build # what a user of the virtual camera has

# ---- The programs, and recordings for the camera to play: the guest is too slow to make scenes ----
[ -n "${BUILD:-}" ] || {
    deps build
    [ -f build/release/build.ninja ] || cmake --preset release >/dev/null
    ninja -C build/release -j "${JOBS:-2}" tqcam-cli tqcam-sim usb_guest_checks
}
work=$(mktemp -d "${TMPDIR:-/tmp}/tqcam-guest-XXXXXX")
trap 'rm -rf "$work"' EXIT
sim=$build/tools/tqcam-sim
"$sim" -o "$work/e1.oni" --no-truth --frames 20 >/dev/null
"$sim" -o "$work/s1.oni" --no-truth --camera S1 --frames 10 >/dev/null
"$sim" -o "$work/calibrated.oni" --no-truth --with-calibration --frames 2 >/dev/null

# ---- The guest: this machine's files, read-only, with a /tmp of its own ----
filter='*'
if [ "${1:-}" = -- ]; then
    shift
    printf -v command '%q ' "$@"
    run="\$TQCAM_TOOLS/tqcam-sim usb --attach --loop 20 --play \$TQCAM_RECORDINGS/e1.oni & for i in {1..100}; do tqcam list | grep -q ^usb: && break; sleep 0.1; done; $command"
else
    filter=${1:-*}
    run="$build/tests/usb_guest_checks --gtest_filter='$filter'"
fi
cat >"$work/init" <<EOF
#!/bin/bash
export PATH=$build/tools:/usr/sbin:/usr/bin:/sbin:/bin HOME=/tmp TQCAM_TOOLS=$build/tools TQCAM_RECORDINGS=/run/tqcam
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mount -t tmpfs tmpfs /run
mkdir /run/tqcam
mount -t hostfs -o $work hostfs /run/tqcam
mount -t tmpfs tmpfs /tmp
ip link set lo up 2>/dev/null
# A kernel without hardware has no randomness of its own: credit the pool with the host's (RNDADDENTROPY).
perl -e 'open F, "<", "/run/tqcam/seed"; read F, \$s, 256; open R, ">", "/dev/random"; ioctl R, 0x40085203, pack("i i a*", 2048, 256, \$s)'
ulimit -n 1024
cd /tmp
echo "guest: Linux \$(uname -r), \$(grep -c ^hs /sys/devices/platform/vhci_hcd.0/status) + \$(grep -c ^ss /sys/devices/platform/vhci_hcd.0/status) virtual ports"
$run
echo "guest: code \$?"
perl -e 'syscall(169, 0xfee1dead, 672274793, 0x4321fedc, 0)' # power off
EOF
chmod +x "$work/init"
head -c 256 /dev/urandom >"$work/seed"
g++ -std=c++20 -O1 -shared -fPIC -o "$work/xstate.so" scripts/usb-guest-xstate.cpp -ldl
start=$SECONDS
# One processor: the guest hands over between its processes all the time.
pin=$(command -v taskset >/dev/null && echo "taskset -c $(taskset -pc $$ | sed 's/.*[:,-] *//')" || true)
$pin timeout "${GUEST_SECONDS:-600}" env LD_PRELOAD="$work/xstate.so" "$kernel" mem=640M quiet loglevel=1 rootfstype=hostfs rootflags=/ ro \
    con=null con0=null,fd:1 init="$work/init" </dev/null 2>&1 | sed -u 's/\r//' | tee "$work/out" || true
echo "guest: $((SECONDS - start)) s"
if grep -q '^guest: code 0$' "$work/out"; then
    echo "usb guest: PASSED"
elif ! grep -q '^guest: Linux' "$work/out"; then
    echo "usb guest: the kernel does not start on this machine"
    exit 77
else
    echo "usb guest: FAILED"
    exit 1
fi
