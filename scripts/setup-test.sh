#!/usr/bin/env bash
# Installs what scripts/test.sh needs beyond building and running: scripts/setup.sh's packages
# and the test-only ones. scripts/test.sh runs it first.
set -euo pipefail

test_packages=(
  libgtest-dev libgmock-dev libbenchmark-dev           # unit tests, benchmarks
  clang-14 libclang-rt-14-dev                          # libFuzzer + sanitizers for fuzzing
  qemu-system-x86 busybox-static cpio                  # the real-kernel end-to-end test
  libinput-tools evemu-tools dbus-daemon               # clients the end-to-end tests drive
  udev                                                 # udevd in the guest: tags touchscreens
  lintian man-db systemd                               # the package check: lint, man -l, verify
  ccache                                               # the four builds of one tree share objects
  sway                                                 # headless compositor: the monitors' layout
  xvfb xauth weston imagemagick xdotool                # irframe-calibrate's window on X11 and Wayland
  libglib2.0-bin gsettings-desktop-schemas             # irframectl map: GNOME's setting read back
  libkf5config-bin xinput                              # irframectl map: KDE's and X11's
  mutter                                               # GNOME's monitors, headless, on the bus
)
exec "$(dirname "$0")/setup.sh" "${test_packages[@]}"
