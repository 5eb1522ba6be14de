#!/usr/bin/env bash
# Builds the .deb, installs it with dpkg, checks what an operator gets, then
# removes it and checks that nothing is left. Needs root; skipped (77) without
# it, and where a morvaned package is already installed.
set -euo pipefail
build=$1
[ "$(id -u)" -eq 0 ] || { echo "skipped: dpkg -i needs root"; exit 77; }
if dpkg-query -W -f='${Status}' morvaned 2>/dev/null | grep -q 'ok installed'; then
  echo "skipped: a morvaned package is installed on this machine"
  exit 77
fi
work=$(mktemp -d)
trap 'dpkg -r morvaned >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

(cd "$build" && cpack -B "$work" >/dev/null)
dpkg -i "$work"/morvaned_*_*.deb >/dev/null
files=$(dpkg-query -L morvaned | while read -r f; do [ -d "$f" ] || echo "$f"; done)

# No PID file: usage at debug level in syslog, exit 1. The daemon logs to a
# private /dev/log read by socat.
mkdir "$work/base"
ln -s /bin/true "$work/base/Morvane.exe"
unshare --mount bash -c '
  '"$(dirname "$0")"'/../scripts/private-dev
  socat -u UNIX-RECV:/dev/log OPEN:'"$work"'/log,creat,append & reader=$!
  for _ in $(seq 100); do [ -S /dev/log ] && break; sleep 0.02; done
  (cd '"$work"'/base && /usr/sbin/morvaned; echo $? >'"$work"'/status)
  for _ in $(seq 100); do grep -q "Stopping daemon" '"$work"'/log 2>/dev/null && break; sleep 0.02; done
  kill "$reader"'
[ "$(cat "$work/status")" = 1 ] || fail "exit status $(cat "$work/status"), not 1"
grep -q '<31>.*MORVANE\[[0-9]*\]: Usage: /usr/sbin/morvaned --pidfile=FILE' "$work/log" ||
  fail "no usage line at debug level in: $(cat "$work/log")"

# The man page is found and renders without warnings.
[ "$(man -w morvaned)" = /usr/share/man/man8/morvaned.8 ] || fail "man -w: $(man -w morvaned 2>&1)"
warnings=$(MANWIDTH=80 man --warnings -l /usr/share/man/man8/morvaned.8 2>&1 >/dev/null)
[ -z "$warnings" ] || fail "man page warnings: $warnings"

# The unit is installed and, where systemd-analyze exists, valid.
unit=/usr/lib/systemd/system/morvaned.service
[ -f "$unit" ] || fail "no $unit"
if command -v systemd-analyze >/dev/null; then
  out=$(systemd-analyze verify "$unit" 2>&1) || fail "systemd-analyze verify: $out"
fi

dpkg -r morvaned >/dev/null
dpkg-query -W -f='${Status}' morvaned 2>/dev/null | grep -q 'ok installed' && fail "still installed"
for f in $files; do [ ! -e "$f" ] || fail "left behind: $f"; done
echo "package installed, checked and removed: $(echo "$files" | wc -l) files"
