#!/usr/bin/env bash
# The driver end to end on a real kernel: boots Debian's kernel in a throwaway QEMU guest
# (software emulation), where kernel_guest_test runs irframed against emulated touch frames on
# /dev/uhid and reads its virtual input device; prints each case's verdict.
#
#   tests/kernel/run.sh [BUILD_DIR]      default build/ci, which must hold irframed and
#                                        kernel_guest_test
#
# Environment: IRFRAME_KERNEL_TIMEOUT (seconds for the guest, default 180),
# IRFRAME_KERNEL_WORK (scratch directory, default BUILD_DIR/kernel-guest).
# Needs qemu-system-x86, busybox-static, cpio, udev and libinput-tools (scripts/setup-test.sh
# installs them); downloads the kernel package with apt-get at run time.
set -euo pipefail
cd "$(dirname "$0")/../.."

build=${1:-build/ci}
work=${IRFRAME_KERNEL_WORK:-$build/kernel-guest}
guest_timeout=${IRFRAME_KERNEL_TIMEOUT:-180}
pass_status=85  # (0x2a << 1) | 1: the byte the guest writes when every case passed
marker=IRFRAME-KERNEL-TEST-END
modules=(hid hid-generic hid-multitouch uhid uinput evdev)
# The touchscreen cases run udevd (so that libinput takes the devices) and libinput itself.
udevadm=/bin/udevadm
libinput_debug_events=/usr/libexec/libinput/libinput-debug-events

say() { printf 'kernel-test: %s\n' "$*"; }
die() { printf 'kernel-test: %s\n' "$*" >&2; exit 1; }

for tool in qemu-system-x86_64 cpio apt-get apt-cache dpkg-deb ldd strip timeout; do
    command -v "$tool" >/dev/null || die "$tool is missing (run scripts/setup-test.sh)"
done
[ -x /bin/busybox ] || die "/bin/busybox is missing (run scripts/setup-test.sh)"
ldd /bin/busybox >/dev/null 2>&1 && die "/bin/busybox is not static (install busybox-static)"
for program in irframed kernel_guest_test; do
    [ -x "$build/$program" ] || die "$build/$program is not built"
done
[ -x "$udevadm" ] || die "$udevadm is missing (install udev: run scripts/setup-test.sh)"
[ -x "$libinput_debug_events" ] ||
    die "$libinput_debug_events is missing (install libinput-tools: run scripts/setup-test.sh)"

mkdir -p "$work"
work=$(cd "$work" && pwd)

# --- The kernel: the package linux-image-amd64 depends on today, downloaded once per name.
kernel_package() {
    apt-cache depends linux-image-amd64 2>/dev/null |
        awk '/Depends: linux-image-[0-9]/ { print $2; exit }'
}
package=$(kernel_package)
if [ -z "$package" ]; then
    say "package lists have no linux-image-amd64: apt-get update"
    apt-get update -qq
    package=$(kernel_package)
fi
[ -n "$package" ] || die "cannot tell which kernel package linux-image-amd64 depends on"

debdir=$work/deb
mkdir -p "$debdir"
cached() { ls "$debdir/${package}"_*.deb 2>/dev/null | head -n 1 || true; }
deb=$(cached)
if [ -z "$deb" ]; then
    say "downloading $package"
    if ! (cd "$debdir" && apt-get download -qq "$package" 2>/dev/null); then
        # Old package lists name a version the archive no longer has: refresh and ask again.
        apt-get update -qq
        package=$(kernel_package)
        [ -n "$package" ] || die "cannot tell which kernel package linux-image-amd64 depends on"
        deb=$(cached)
        [ -n "$deb" ] || (cd "$debdir" && apt-get download -qq "$package")
    fi
    deb=$(cached)
    [ -n "$deb" ] || die "cannot download $package"
fi
say "kernel package $(basename "$deb")"

kdir=$work/kernel
rm -rf "$kdir"
mkdir -p "$kdir"
# Only the kernel image and the six modules are taken out of the package.
dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$kdir" --wildcards \
    './boot/vmlinuz-*' \
    '*/kernel/drivers/hid/hid.ko' '*/kernel/drivers/hid/hid-generic.ko' \
    '*/kernel/drivers/hid/hid-multitouch.ko' \
    '*/kernel/drivers/hid/uhid.ko' '*/kernel/drivers/input/misc/uinput.ko' \
    '*/kernel/drivers/input/evdev.ko'
vmlinuz=$(ls "$kdir"/boot/vmlinuz-* | head -n 1)

# --- The initramfs: busybox, the modules, the programs and the libraries they load.
root=$work/root
rm -rf "$root"
mkdir -p "$root"/{bin,lib/modules,proc,sys,dev,tmp,run}
cp /bin/busybox "$root/bin/busybox"
for m in "${modules[@]}"; do
    ko=$(find "$kdir/lib" -name "$m.ko" | head -n 1)
    [ -n "$ko" ] || die "the kernel package has no uncompressed $m.ko"
    cp "$ko" "$root/lib/modules/$m.ko"
done
add_libraries() {
    ldd "$1" | awk '/=> \// { print $3 } /^\t\/.*ld-linux/ { print $1 }' |
        while read -r lib; do
            [ -e "$root$lib" ] || cp --parents -L "$lib" "$root"
        done
}
for program in irframed kernel_guest_test; do
    strip --strip-debug -o "$root/bin/$program" "$build/$program"
    add_libraries "$build/$program"
done
# udevd (udevadm under another name) with the one rule that runs the input_id builtin: it
# tags the touchscreens; libinput-debug-events with its quirks files.
cp "$udevadm" "$root/bin/udevadm"
ln -s udevadm "$root/bin/systemd-udevd"
add_libraries "$udevadm"
mkdir -p "$root/usr/lib/udev/rules.d" "$root/usr/share"
cp /lib/udev/rules.d/60-input-id.rules "$root/usr/lib/udev/rules.d/"
cp --parents "$libinput_debug_events" "$root"
add_libraries "$libinput_debug_events"
cp -r /usr/share/libinput "$root/usr/share/"
install -m 755 tests/kernel/guest-init.sh "$root/init"
(cd "$root" && find . | LC_ALL=C sort | cpio -o -H newc --quiet) >"$work/initramfs.cpio"
say "initramfs $(du -h "$work/initramfs.cpio" | cut -f1), guest timeout ${guest_timeout} s"

# --- Boot. The guest ends itself through the debug-exit port; the time-out ends a hung one.
console=$work/console.log
start=$(date +%s)
set +e
timeout -k 10 "$guest_timeout" qemu-system-x86_64 \
    -accel tcg -m 512 -smp 1 -nographic -no-reboot -nic none \
    -kernel "$vmlinuz" -initrd "$work/initramfs.cpio" \
    -append "console=ttyS0 quiet loglevel=3 panic=-1 rdinit=/init" \
    -device isa-debug-exit,iobase=0xf4,iosize=0x04 \
    </dev/null 2>&1 | tr -d '\r' | tee "$console"
status=${PIPESTATUS[0]}
set -e
say "guest ended with status $status after $(($(date +%s) - start)) s"

# --- Verdict: the exact pass status and the closing line, with every case passed. The count
# line comes last; a guest that did not end as it should counts as one more failure.
echo
grep -E '^CASE ' "$console" || true
grep -E '^LATENCY(-[A-Z]+)? ' "$console" || true
passed=$(grep -cE '^CASE [^ ]+: PASS' "$console" || true)
failed=$(grep -cE '^CASE [^ ]+: FAIL' "$console" || true)
end_line=$(grep -E "^$marker " "$console" | tail -n 1 || true)
verdict=""
if [ "$status" -eq 124 ]; then
    verdict="the guest did not finish within ${guest_timeout} s"
elif [ "$status" -ne "$pass_status" ]; then
    verdict="guest status $status, expected $pass_status"
elif [ -z "$end_line" ]; then
    verdict="no '$marker' line from the guest"
elif [ "$end_line" != "$marker passed=$passed failed=0" ]; then
    verdict="the guest closed with '$end_line'"
elif [ "$failed" -ne 0 ] || [ "$passed" -eq 0 ]; then
    verdict="$failed case(s) failed"
fi
if [ -n "$verdict" ]; then
    say "FAILED: $verdict"
    [ "$failed" -gt 0 ] || failed=1
    echo "kernel: $passed passed, $failed failed"
    exit 1
fi
say "PASSED"
echo "kernel: $passed passed, $failed failed"
