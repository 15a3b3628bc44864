#!/bin/bash
# What `cmake --install` ships for a Linux service, checked in a DESTDIR:
#
#   tests/packaging_test.sh BUILD_DIR install   binaries, unit and manual pages in place, for two prefixes
#   tests/packaging_test.sh BUILD_DIR manpages  both pages render without a warning and name every command
#   tests/packaging_test.sh BUILD_DIR unit      systemd-analyze verify finds nothing to say
#
# Exits 77 (a skip for ctest) when a tool it needs is not installed.
set -euo pipefail

build=$1
check=$2
scratch=$(mktemp -d /tmp/orvo-packaging-XXXXXX)
trap 'rm -rf "$scratch"' EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}
need() {
  command -v "$1" >/dev/null || { echo "SKIP: $1 is not installed"; exit 77; }
}
install_into() {  # DESTDIR PREFIX
  DESTDIR=$1 cmake --install "$build" --prefix "$2" >"$scratch/install.log" 2>&1 ||
    fail "cmake --install failed: $(cat "$scratch/install.log")"
}

case $check in
  install)
    root=$scratch/root
    install_into "$root" /usr
    for f in usr/sbin/orvoindexd usr/sbin/orvoindex; do
      [ -x "$root/$f" ] || fail "$f is not installed"
    done
    for f in usr/share/man/man8/orvoindexd.8 usr/share/man/man1/orvoindex.1 \
             usr/lib/systemd/system/orvoindexd.service; do
      [ -s "$root/$f" ] || fail "$f is not installed"
    done
    grep -qx 'ExecStart=/usr/sbin/orvoindexd' "$root/usr/lib/systemd/system/orvoindexd.service" ||
      fail "the unit does not start /usr/sbin/orvoindexd"
    # The prefix given to the install, not the one configured, decides where the unit points.
    install_into "$scratch/opt" /opt/orvo
    grep -qx 'ExecStart=/opt/orvo/sbin/orvoindexd' "$scratch/opt/opt/orvo/lib/systemd/system/orvoindexd.service" ||
      fail "with --prefix /opt/orvo the unit does not start /opt/orvo/sbin/orvoindexd"
    [ -x "$scratch/opt/opt/orvo/sbin/orvoindexd" ] || fail "with --prefix /opt/orvo the daemon is not in /opt/orvo/sbin"
    ;;

  manpages)
    need man
    need groff
    root=$scratch/root
    install_into "$root" /usr
    for page in "$root/usr/share/man/man8/orvoindexd.8" "$root/usr/share/man/man1/orvoindex.1"; do
      MANWIDTH=80 man -l --warnings "$page" >"$scratch/page.txt" 2>"$scratch/warnings.txt" || fail "man -l $page failed"
      [ ! -s "$scratch/warnings.txt" ] || fail "man warns about $page: $(cat "$scratch/warnings.txt")"
      groff -man -ww -z "$page" 2>"$scratch/warnings.txt" || fail "groff failed on $page"
      [ ! -s "$scratch/warnings.txt" ] || fail "groff warns about $page: $(cat "$scratch/warnings.txt")"
      grep -q . "$scratch/page.txt" || fail "$page renders empty"
    done
    # Every command the client's own help lists has its entry in orvoindex(1).
    commands=$("$build/orvoindex" --help | awk '/^  [a-z]/ {print $1}')
    [ -n "$commands" ] || fail "orvoindex --help lists no commands"
    for command in $commands; do
      awk -v c="$command" '($1 == ".B" || $1 == ".BI") { n = $2; gsub(/\\-/, "-", n); if (n == c) found = 1 }
                           END { exit !found }' "$root/usr/share/man/man1/orvoindex.1" ||
        fail "orvoindex(1) does not describe '$command'"
    done
    ;;

  unit)
    need systemd-analyze
    root=$scratch/root
    install_into "$root" /usr
    # Verified as installed, but starting the binary that was built (verify checks that it exists);
    # Documentation= is looked up in the installed pages.
    mkdir "$scratch/units"
    sed "s|^ExecStart=.*|ExecStart=$build/orvoindexd|" "$root/usr/lib/systemd/system/orvoindexd.service" \
      >"$scratch/units/orvoindexd.service"
    MANPATH=$root/usr/share/man systemd-analyze verify "$scratch/units/orvoindexd.service" >"$scratch/verify.txt" 2>&1 ||
      fail "systemd-analyze verify: $(cat "$scratch/verify.txt")"
    [ ! -s "$scratch/verify.txt" ] || fail "systemd-analyze verify: $(cat "$scratch/verify.txt")"
    ;;

  *)
    fail "unknown check '$check'"
    ;;
esac
echo "ok: $check"
