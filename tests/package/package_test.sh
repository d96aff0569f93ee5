#!/usr/bin/env bash
# Builds the Debian package from a finished build directory, installs it into this
# machine over an older one (unpacked first and configured after, as a cut-short upgrade
# leaves it), checks its files and unit, runs the installed daemon on the demo set with the
# sim bus as the service user, then removes and purges it and checks what stays.
# Usage: package_test.sh <build dir>. Needs root (CI runs as root): exit 77 (skip) otherwise.
set -euo pipefail
BUILD="$(cd "$1" && pwd)"
if [ "$(id -u)" -ne 0 ]; then echo "package test: skipped, needs root (dpkg -i)"; exit 77; fi
for tool in dpkg cpack runuser; do
  command -v "$tool" >/dev/null || { echo "package test: skipped, no $tool"; exit 77; }
done

fail() { echo "package test: FAILED: $*" >&2; exit 1; }
WORK="$(mktemp -d /tmp/korvo-pkg.XXXXXX)"
DAEMON_PID=""
cleanup() {
  if [ -n "$DAEMON_PID" ]; then kill "$DAEMON_PID" 2>/dev/null || true; fi
  rm -rf "$WORK"
}
trap cleanup EXIT

# A package left by an earlier, interrupted run would hide what this one installs.
if dpkg-query -W -f='${Status}' korvo 2>/dev/null | grep -q "installed\|config-files\|half"; then
  echo "package test: purging a korvo package left installed"
  dpkg --purge korvo >/dev/null
fi

echo "== cpack"
(cd "$BUILD" && cpack -G DEB -B "$WORK/out" >"$WORK/cpack.log" 2>&1) || { cat "$WORK/cpack.log"; fail "cpack"; }
DEB="$(ls "$WORK"/out/korvo_*_"$(dpkg --print-architecture)".deb 2>/dev/null | head -1)"
[ -n "$DEB" ] || fail "no korvo_<version>_<arch>.deb in $(ls "$WORK/out")"
echo "built $(basename "$DEB")"
dpkg-deb -I "$DEB" conffiles | grep -qx "/etc/korvo/korvo.conf" || fail "korvo.conf is not a conffile"

echo "== an older package with the owner's files, then this one over it"
(cd "$BUILD" && cpack -G DEB -B "$WORK/old" -D CPACK_PACKAGE_VERSION=0.9~old >>"$WORK/cpack.log" 2>&1) ||
  { cat "$WORK/cpack.log"; fail "cpack of the older package"; }
dpkg -i "$WORK"/old/korvo_0.9~old_*.deb >"$WORK/dpkg.log" 2>&1 || { cat "$WORK/dpkg.log"; fail "dpkg -i older"; }
echo "owner's set" >/var/lib/korvo/sets/mine.txt
echo "volume=33" >/var/lib/korvo/va.ini
echo "# owner's change before the upgrade" >>/etc/korvo/korvo.conf
# Unpacked but not configured is what an upgrade cut short leaves; configure completes it.
dpkg --unpack "$DEB" >"$WORK/dpkg.log" 2>&1 || { cat "$WORK/dpkg.log"; fail "dpkg --unpack"; }
dpkg-query -W -f='${Status}' korvo | grep -q "unpacked" || fail "not left unpacked: $(dpkg-query -W -f='${Status}' korvo)"
dpkg --configure korvo >"$WORK/dpkg.log" 2>&1 || { cat "$WORK/dpkg.log"; fail "dpkg --configure"; }
[ "$(dpkg-query -W -f='${Version}' korvo)" != "0.9~old" ] || fail "still the older version"
[ "$(cat /var/lib/korvo/sets/mine.txt)" = "owner's set" ] || fail "owner's set lost on upgrade"
grep -q "volume=33" /var/lib/korvo/va.ini || fail "va.ini lost on upgrade"
grep -q "before the upgrade" /etc/korvo/korvo.conf || fail "korvo.conf replaced on upgrade"
rm -f /var/lib/korvo/sets/mine.txt /var/lib/korvo/va.ini

echo "== dpkg -i over itself"
dpkg -i "$DEB" >"$WORK/dpkg.log" 2>&1 || { cat "$WORK/dpkg.log"; fail "dpkg -i"; }
for f in /usr/bin/korvo /usr/share/korvo/html/index.html /usr/share/korvo/sounds/ready.ogg \
         /usr/share/korvo/examples/demo/velt-demo/config.ini /lib/systemd/system/korvo.service \
         /etc/korvo/korvo.conf /usr/share/polkit-1/rules.d/50-korvo.rules; do
  [ -e "$f" ] || fail "missing $f"
done
getent passwd korvo >/dev/null || fail "no korvo user"
for g in gpio i2c audio; do getent group "$g" >/dev/null || fail "no group $g"; done
[ "$(stat -c %U /var/lib/korvo/sets)" = korvo ] || fail "/var/lib/korvo/sets not owned by korvo"
# -v prints the version and exits 1, as every option that ends the program does.
version="$(/usr/bin/korvo -v 2>&1 || true)"
grep -q "version: " <<<"$version" || fail "korvo -v printed: $version"

if command -v systemd-analyze >/dev/null; then
  echo "== systemd-analyze verify"
  # verify also checks that ExecStart's program exists and the unit's directives are known.
  systemd-analyze verify /lib/systemd/system/korvo.service >"$WORK/verify.log" 2>&1 || true
  if grep -v "^$" "$WORK/verify.log" | grep -iv "System has not been booted with systemd\|Failed to connect to bus\|Failed to create bus connection\|Cannot access /sys/\|/sys/fs/cgroup\|No such file or directory: /run/systemd" | grep -i "korvo"; then
    fail "systemd-analyze verify reported the lines above"
  fi
fi

echo "== the installed daemon on the demo set (sim bus) as user korvo"
cp -r /usr/share/korvo/examples/demo/velt-demo /var/lib/korvo/sets/
chown -R korvo:korvo /var/lib/korvo/sets
LOG="$WORK/korvo.log"
PORT=$((20000 + RANDOM % 20000))  # the UDP event service takes the next one
touch "$LOG" && chmod 666 "$LOG"
(cd /var/lib/korvo && exec runuser -u korvo -- env KORVO_GPIO=sim SDL_AUDIODRIVER=dummy \
   KORVO_SOUNDS_DIR=/usr/share/korvo/sounds /usr/bin/korvo -H -N "$PORT" -l 3 /var/lib/korvo/sets \
   >"$LOG" 2>&1 </dev/null) &
DAEMON_PID=$!
for _ in $(seq 1 300); do
  grep -q "start-up done, entering the main loop" "$LOG" && break
  kill -0 "$DAEMON_PID" 2>/dev/null || break
  sleep 0.1
done
grep -q "start-up done, entering the main loop" "$LOG" || { cat "$LOG"; fail "daemon did not start"; }
grep -q "serving the web UI from /usr/share/korvo/html" "$LOG" || { cat "$LOG"; fail "web UI not found"; }
if command -v curl >/dev/null; then
  curl -sf "http://127.0.0.1:$PORT/version" >/dev/null || fail "GET /version on port $PORT"
  # A volume change is stored in va.ini, in the service's working directory.
  curl -sf "http://127.0.0.1:$PORT/volume/77" >/dev/null || fail "GET /volume/77"
  for _ in $(seq 1 100); do grep -qs "volume=77" /var/lib/korvo/va.ini && break; sleep 0.1; done
  grep -qs "volume=77" /var/lib/korvo/va.ini || fail "va.ini has no volume=77"
fi
# SIGTERM to korvo itself (runuser's child), as systemd's stop sends it: orderly shutdown.
KORVO_PID="$(pgrep -P "$DAEMON_PID" | head -1)"
[ -n "$KORVO_PID" ] || fail "no korvo process under runuser"
kill -TERM "$KORVO_PID"
rc=0
wait "$DAEMON_PID" || rc=$?
[ "$rc" -eq 0 ] || { tail -5 "$LOG"; fail "daemon exit code $rc after SIGTERM"; }
DAEMON_PID=""
[ -f /var/lib/korvo/va.ini ] || fail "no va.ini written in the working directory"
[ "$(stat -c %U /var/lib/korvo/va.ini)" = korvo ] || fail "va.ini not owned by korvo"
echo "daemon ran: $(grep -c . "$LOG") log lines, va.ini written"

echo "== dpkg -r keeps sets and settings"
echo "# owner's change" >>/etc/korvo/korvo.conf
dpkg -r korvo >"$WORK/dpkg.log" 2>&1 || { cat "$WORK/dpkg.log"; fail "dpkg -r"; }
[ ! -e /usr/bin/korvo ] || fail "/usr/bin/korvo still there after removal"
[ -f /var/lib/korvo/va.ini ] || fail "va.ini removed"
[ -f /var/lib/korvo/sets/velt-demo/config.ini ] || fail "sound set removed"
grep -q "owner's change" /etc/korvo/korvo.conf || fail "korvo.conf lost on removal"

echo "== reinstall over the kept state keeps it"
dpkg -i "$DEB" >"$WORK/dpkg.log" 2>&1 || { cat "$WORK/dpkg.log"; fail "dpkg -i over kept state"; }
[ -f /var/lib/korvo/sets/velt-demo/config.ini ] || fail "sound set lost on reinstall"
grep -q "owner's change" /etc/korvo/korvo.conf || fail "korvo.conf replaced on reinstall"

echo "== dpkg --purge removes them"
dpkg --purge korvo >"$WORK/dpkg.log" 2>&1 || { cat "$WORK/dpkg.log"; fail "dpkg --purge"; }
[ ! -e /var/lib/korvo ] || fail "/var/lib/korvo still there after purge"
[ ! -e /etc/korvo ] || fail "/etc/korvo still there after purge"
echo "package test: passed"
