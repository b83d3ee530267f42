#!/usr/bin/env bash
# Builds the Debian package build/package/irframe_<version>_<arch>.deb: a release build for the
# prefix /usr with Debian's hardening flags, installed and packed by CPack's DEB generator
# (cmake/Install.cmake says what goes in). Needs no network.
# Extra arguments go to CMake's configure step (e.g. -DCMAKE_CXX_COMPILER_LAUNCHER=ccache).
# Prints the package's path as its last line.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/deb
out=build/package

for tool in cmake cpack dpkg-buildflags dpkg-shlibdeps dpkg-deb dpkg-parsechangelog file scdoc; do
  command -v "$tool" >/dev/null || { echo "package: $tool is missing (run scripts/setup.sh)" >&2; exit 1; }
done

# The man pages' dates, from the last commit when there is one, so that a rebuild is identical.
if [ -z "${SOURCE_DATE_EPOCH:-}" ] && git rev-parse --git-dir >/dev/null 2>&1; then
  SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
  export SOURCE_DATE_EPOCH
fi

# Debian's flags alone (build type None): fortify, stack protector, relro and bindnow, which
# lintian's hardening checks look for. No -g: the binaries are stripped anyway.
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
export DEB_CFLAGS_MAINT_STRIP=-g DEB_CXXFLAGS_MAINT_STRIP=-g DEB_CPPFLAGS_MAINT_APPEND=-DNDEBUG
CFLAGS="$(dpkg-buildflags --get CFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
CXXFLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
LDFLAGS=$(dpkg-buildflags --get LDFLAGS)
export CFLAGS CXXFLAGS LDFLAGS

# A fresh configure each time: the flags above only count on a first configure.
rm -rf "$build"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=None -DCMAKE_INSTALL_PREFIX=/usr \
  -DIRFRAME_TESTS=OFF -DIRFRAME_BENCH=OFF -DIRFRAME_HEADER_CHECK=OFF "$@" >/dev/null
cmake --build "$build" -j "$(nproc)" >&2  # standard output carries only the result

rm -rf "$out"
mkdir -p "$out"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$PWD/$out" >/dev/null
rm -rf "$out/_CPack_Packages"

shopt -s nullglob
debs=("$out"/irframe_*.deb)
[ ${#debs[@]} -eq 1 ] || { echo "package: expected one .deb in $out, found ${#debs[@]}" >&2; exit 1; }
deb=${debs[0]}

version=$(dpkg-deb -f "$deb" Version)
logged=$(dpkg-parsechangelog -l packaging/changelog -S Version)
if [ "$version" != "$logged" ]; then
  echo "package: packaging/changelog's top entry is $logged, the project's version $version:" \
       "add an entry for $version" >&2
  exit 1
fi
echo "$deb"
