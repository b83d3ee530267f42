#!/usr/bin/env bash
# Installs what irframe needs to build, package and run on Debian 12, and the packages named as
# arguments (scripts/setup-test.sh names the test-only ones this way).
# Run as root. Safe to run again: packages already present are not fetched.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git     # build-essential brings dpkg-dev
  libusb-1.0-0-dev                                     # USB bulk command path
  libudev-dev libsystemd-dev                           # hidraw discovery, hot-plug, event loop, D-Bus
  libevdev-dev                                         # uinput synthetic input
  libcli11-dev nlohmann-json3-dev                      # command line, JSON output
  liblo-dev                                            # OSC: the TUIO output's tests read it back
  libtomlplusplus-dev                                  # the configuration file
  libx11-dev libxrandr-dev                             # screen size from the X server
  libwayland-dev libwayland-bin                        # monitors from a wlroots compositor
  libgtkmm-4.0-dev                                     # irframe-calibrate's and irframe-settings' windows
  libcairo2-dev libfontconfig-dev                      # irframe-settings' live view drawing, its tests
  scdoc                                                # man pages
  file                                                 # the Debian package's dependency scan
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages already installed"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages: ${missing[*]}" >&2
  echo "setup: run this script as root (or with sudo) to install them" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
