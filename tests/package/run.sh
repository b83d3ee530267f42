#!/usr/bin/env bash
# The Debian package as an administrator meets it: build it (scripts/package.sh) unless a .deb is
# given, lint it, install it on this machine, check what it installed, purge it and check that
# nothing of it is left. Run as root on a machine where irframe is not installed otherwise.
# Usage: tests/package/run.sh [DEB]
set -euo pipefail
cd "$(dirname "$0")/../.."

say() { printf 'package: %s\n' "$*" >&2; }
fail() { say "FAIL: $*"; exit 1; }
started=$SECONDS
lap() { say "$1 ($((SECONDS - started)) s)"; }

[ "$(id -u)" -eq 0 ] || fail "run as root: the check installs and purges the package"
for tool in lintian dpkg dpkg-deb dpkg-query man systemd-analyze; do
  command -v "$tool" >/dev/null || fail "$tool is missing (run scripts/setup-test.sh)"
done
if dpkg-query -W -f='${Status}' irframe 2>/dev/null | grep -q 'installed'; then
  fail "irframe is installed on this machine already; purge it first (dpkg -P irframe)"
fi

deb=${1:-}
if [ -z "$deb" ]; then
  deb=$(scripts/package.sh | tail -n 1)
  lap "built $deb"
fi
[ -f "$deb" ] || fail "no package at '$deb'"

work=$(mktemp -d)
installed=no
cleanup() {
  if [ "$installed" = yes ]; then dpkg -P irframe >/dev/null 2>&1 || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

# --- lintian: errors fail the check; warnings and notes are shown.
if ! lintian --fail-on error --display-info "$deb" >"$work/lintian" 2>&1; then
  cat "$work/lintian" >&2
  fail "lintian found errors"
fi
grep -E '^[EWI]: ' "$work/lintian" >&2 || true
lap "lintian: $(grep -c '^E: ' "$work/lintian" || true) errors, $(grep -c '^W: ' "$work/lintian" || true) warnings"

# --- The one version: CMakeLists.txt's project(VERSION), the package's and the programs'.
version=$(sed -n 's/^project(irframe VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || fail "no project(irframe VERSION ...) in CMakeLists.txt"
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] ||
  fail "package version $(dpkg-deb -f "$deb" Version), CMake's $version"

# --- Install, and everything listed is there.
installed=yes
dpkg -i "$deb" >"$work/dpkg-i" 2>&1 || { cat "$work/dpkg-i" >&2; fail "dpkg -i"; }
dpkg -L irframe | sort >"$work/files"
while read -r path; do
  [ -e "$path" ] || fail "listed but not installed: $path"
done <"$work/files"
dpkg-query -W -f='${Conffiles}\n' irframe | grep -q ' /etc/irframe/irframe.toml ' ||
  fail "/etc/irframe/irframe.toml is not a conffile"
# docs/installed-files.md covers every file (its table's first column; * as in the shell).
# shellcheck disable=SC2016  # the backquotes are the table's, not the shell's
mapfile -t documented < <(sed -n 's/^| `\(\/[^`]*\)` |.*/\1/p' docs/installed-files.md)
[ ${#documented[@]} -gt 0 ] || fail "docs/installed-files.md lists no path"
while read -r path; do
  [ -d "$path" ] && continue
  covered=no
  for pattern in "${documented[@]}"; do
    # shellcheck disable=SC2053  # the documented path is a pattern
    [[ $path == $pattern ]] && { covered=yes; break; }
  done
  [ "$covered" = yes ] || fail "installed but not in docs/installed-files.md: $path"
done <"$work/files"
lap "installed $(grep -c . "$work/files") paths, each in docs/installed-files.md"

# --- The programs.
[ "$(irframed --version)" = "irframed $version" ] ||
  fail "irframed --version says '$(irframed --version)', expected 'irframed $version'"
irframed --help >/dev/null || fail "irframed --help"
if grep -qx /usr/bin/irframectl "$work/files"; then
  irframectl --help >/dev/null || fail "irframectl --help"
  irframectl --version | grep -qw "$version" || fail "irframectl --version does not say $version"
fi
if grep -qx /usr/bin/irframe-settings "$work/files"; then
  irframe-settings --help >/dev/null || fail "irframe-settings --help"
  irframe-settings --version | grep -qw "$version" || fail "irframe-settings --version does not say $version"
fi

# --- The user unit. As root there is no user manager to ask, but verify only needs a runtime
# directory for the user scope: it loads the unit with the user search paths and checks the
# binary and the man page it names. Unknown keys and bad values only warn, so any output fails.
XDG_RUNTIME_DIR=$work systemd-analyze --user verify /usr/lib/systemd/user/irframed.service \
  >"$work/verify" 2>&1 || { cat "$work/verify" >&2; fail "systemd-analyze verify"; }
[ ! -s "$work/verify" ] || { cat "$work/verify" >&2; fail "systemd-analyze verify warned"; }

# --- Every man page formats without a complaint.
grep '^/usr/share/man/' "$work/files" | while read -r page; do
  [ -f "$page" ] || continue
  LC_ALL=C.UTF-8 MANWIDTH=80 man -l "$page" >/dev/null 2>"$work/man" ||
    { cat "$work/man" >&2; fail "man -l $page"; }
  [ ! -s "$work/man" ] || { cat "$work/man" >&2; fail "man -l $page warned"; }
done
grep -q '^/usr/share/man/man1/irframed.1.gz$' "$work/files" || fail "no irframed(1)"

# --- An installed example plays to the expected events.
irframed --simulate /usr/share/doc/irframe/examples/09-one-finger-tap.gesture --dry-run \
  2>"$work/stderr" >"$work/events" || { cat "$work/stderr" >&2; fail "irframed --simulate"; }
diff -u tests/package/09-one-finger-tap.jsonl "$work/events" >&2 ||
  fail "the installed example posted other events"
lap "checked the programs, the unit, the man pages and an example"

# --- Purge: nothing of the package is left. A directory may stay only while another package
# owns it or something else lives in it.
dpkg -P irframe >"$work/dpkg-P" 2>&1 || { cat "$work/dpkg-P" >&2; fail "dpkg -P"; }
installed=no
! dpkg-query -W -f='${Status}' irframe 2>/dev/null | grep -q 'installed' ||
  fail "dpkg still knows irframe after the purge"
while read -r path; do
  [ -e "$path" ] || [ -L "$path" ] || continue
  if [ -d "$path" ] && [ ! -L "$path" ]; then
    dpkg-query -S "$path" >/dev/null 2>&1 && continue
    [ -n "$(ls -A "$path")" ] && continue
  fi
  fail "left after the purge: $path"
done <"$work/files"
[ ! -e /etc/irframe ] || fail "left after the purge: /etc/irframe"
lap "purged; nothing left"
echo "package: all checks passed"
