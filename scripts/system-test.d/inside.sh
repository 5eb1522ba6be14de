#!/usr/bin/env bash
# The checks of scripts/system-test, run inside the booted container, one function a check:
# "inside.sh CHECK" runs one and exits non-zero at its first failed step. The source tree is
# at /src (read-only), the package is built in /build.
set -euo pipefail

readonly pidfile=/run/morvaned/morvaned.pid
readonly base=/srv/morvane
readonly here=/src/scripts/system-test.d
readonly dropins=/run/systemd/system/morvaned.service.d

# poll SECONDS COMMAND...: runs COMMAND until it succeeds, for at most SECONDS.
poll() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    ((SECONDS < end)) || return 1
    sleep 0.2
  done
}

# fails COMMAND...: succeeds when COMMAND fails.
fails() {
  if "$@"; then
    return 1
  fi
}

unit_property() {
  systemctl show -P "$1" morvaned
}

unit_has() {
  [ "$(unit_property "$1")" = "$2" ]
}

# log_has REGEX [N]: at least N (1) of the daemon's journal lines match REGEX.
log_has() {
  [ "$(journalctl -q -t MORVANE | grep -c "$1")" -ge "${2:-1}" ]
}

# unit_pids: every process in the unit's cgroup, in either cgroup layout.
unit_pids() {
  { grep -ls '/system\.slice/morvaned\.service$' /proc/[0-9]*/cgroup || true; } | cut -d/ -f3
}

# unit_users: the user of each process in the unit, one a line.
unit_users() {
  local pid
  for pid in $(unit_pids); do
    stat -c %U "/proc/$pid" 2>/dev/null || true
  done
}

none_alive() {
  fails kill -0 "$@" 2>/dev/null
}

status_text() {
  systemctl status --no-pager morvaned || true
}

# give_to_service [DIR]: what README.md tells the operator to run once the application is in
# its base directory DIR (/srv/morvane).
give_to_service() {
  chgrp -R morvane "${1:-$base}/"
  chmod -R g+rX "${1:-$base}/"
  chmod g+w "${1:-$base}/"
}

# Also logs the container's cgroup layout: cgroup2fs (v2) or tmpfs (hybrid).
system_running() {
  systemctl is-system-running --wait
  stat -fc %T /sys/fs/cgroup
}

build_package() {
  rm -rf /build
  mkdir -p /build/morvaned
  cp -a /src/. /build/morvaned
  cd /build/morvaned
  dpkg-buildpackage -us -uc -b
}

lintian_clean() {
  lintian -I -E --pedantic /build/morvaned_*.changes | tee /build/lintian.txt
  fails grep '^[EW]:' /build/lintian.txt
}

install_disabled_never_started() {
  dpkg -i /build/morvaned_*.deb
  getent passwd morvane | grep -x 'morvane:x:[0-9]*:[0-9]*:[^:]*:/:/usr/sbin/nologin'
  getent group morvane
  local unitdir
  unitdir=$(pkg-config --variable=systemdsystemunitdir systemd)
  dpkg -L morvaned | grep -x "$unitdir/morvaned.service"
  journalctl _PID=1 | grep Reloading
  unit_has LoadState loaded
  unit_has UnitFileState disabled
  unit_has ActiveState inactive
  [ -z "$(journalctl -q -u morvaned)" ]
}

# A restart would come RestartSec=5 after the failure: 7 s without one.
start_without_base_fails_once() {
  fails systemctl start morvaned
  fails poll 7 systemctl -q is-active morvaned
  unit_has NRestarts 0
  status_text | grep -F /srv/morvane/Morvane.exe
}

# The base directory is a symbolic link to the installation, as the README allows.
start_example_as_morvane() {
  cp -a /src/examples /srv/example
  ln -s /srv/example "$base"
  give_to_service
  systemctl start morvaned
  local daemon
  daemon=$(unit_property MainPID)
  poll 150 log_has "MORVANE\[$daemon\]: Starting daemon \[$daemon\]\.\.\.$"
  poll 150 log_has "MORVANE\[$daemon\]: Starting Server "
  poll 150 log_has "MORVANE\[$daemon\]: Starting HL-7 Listener "
  [ "$(cat $pidfile)" = "$daemon" ]
  [ "$(stat -c %U "/proc/$daemon")" = morvane ]
  [ "$(unit_users | wc -l)" -ge 3 ]
  [ "$(unit_users | sort -u)" = morvane ]
  unit_has TasksMax 4096
}

exposure_at_most_2() {
  local level
  level=$(systemd-analyze security morvaned | sed -n 's/.*Overall exposure.*: \([0-9.]*\) .*/\1/p')
  echo "exposure $level"
  awk -v level="$level" 'BEGIN { exit !(level != "" && level <= 2.0) }'
}

child_replaced() {
  poll 150 log_has "MORVANE\[$(unit_property MainPID)\]: Starting \(Server\|HL-7\)" 5
}

stop_leaves_nothing() {
  local daemon pids
  daemon=$(unit_property MainPID)
  pids=$(unit_pids)
  [ -n "$pids" ]
  systemctl stop morvaned
  unit_has ActiveState inactive
  unit_has Result success
  none_alive $pids
  [ -z "$(unit_pids)" ]
  [ ! -e $pidfile ]
  poll 150 log_has "MORVANE\[$daemon\]: Stopping daemon \[$daemon\]\.\.\.$"
}

# The application: an ELF server that listens on TCP and writes in the base directory, and a
# shell script listener.
application_works_in_sandbox() {
  rm "$base/Morvane.exe" "$base/MorvaneHL7.exe"
  gcc -O2 -o "$base/Morvane.exe" "$here/tcp-server.c"
  cp "$here/hl7-listener.sh" "$base/MorvaneHL7.exe"
  give_to_service
  systemctl start morvaned
  poll 150 test -s "$base/clinic.port"
  exec 3<>"/dev/tcp/127.0.0.1/$(cat "$base/clinic.port")"
  local reply
  read -r reply <&3
  [ "$reply" = hello ]
  poll 150 test -s "$base/lab.listener"
  [ "$(cat "$base/lab.listener")" = morvane ]
  [ "$(stat -c %U:%G:%a "$base/clinic.port")" = morvane:morvane:640 ]
}

# The drop-ins of morvaned(8): another base directory, a port below 1024 and more tasks.
write_dropins() {
  mkdir -p $dropins
  cat >$dropins/base.conf <<'EOF'
[Service]
WorkingDirectory=/opt/morvane
ReadWritePaths=/opt/morvane
ExecStartPre=
ExecStartPre=/usr/bin/test -x /opt/morvane/Morvane.exe
EOF
  cat >$dropins/port.conf <<'EOF'
[Service]
AmbientCapabilities=CAP_NET_BIND_SERVICE
CapabilityBoundingSet=CAP_NET_BIND_SERVICE
PrivateUsers=no
EOF
  cat >$dropins/tasks.conf <<'EOF'
[Service]
TasksMax=16384
EOF
  # The test's server program takes its port from the environment.
  printf '[Service]\nEnvironment=PORT=80\n' >$dropins/test-port.conf
  systemctl daemon-reload
}

# One instance in /opt/morvane, whose server listens on port 80.
dropins_grant_base_port_tasks() {
  systemctl stop morvaned
  mkdir /opt/morvane
  cp "$base/clinic.INI" "$base/Morvane.exe" "$base/MorvaneHL7.exe" /opt/morvane
  give_to_service /opt/morvane
  write_dropins
  systemctl start morvaned
  poll 150 test -s /opt/morvane/clinic.port
  [ "$(cat /opt/morvane/clinic.port)" = 80 ]
  exec 3<>/dev/tcp/127.0.0.1/80
  local reply
  read -r reply <&3
  [ "$reply" = hello ]
  unit_has TasksMax 16384
  systemd-analyze security morvaned | tail -n 1
  systemctl stop morvaned
  rm -r $dropins /opt/morvane
  systemctl daemon-reload
}

# Outside the unit: one process of root's, one of another user's and one of morvane's.
start_bystanders() {
  systemd-run -q --unit=bystander-root sleep infinity
  systemd-run -q --unit=bystander-nobody --uid=nobody sleep infinity
  systemd-run -q --unit=bystander-morvane --uid=morvane sleep infinity
}

main_pid_of() {
  systemctl show -P MainPID "$1"
}

# The third fork (the second instance's server) fails; the stop's SIGTERM then makes the daemon
# call kill(-1, SIGKILL), which reaches the processes of user morvane only.
failed_fork_then_stop_spares_others() {
  systemctl stop morvaned
  gcc -shared -fPIC -o /usr/local/lib/fail-fork.so "$here/fail-fork.c"
  mkdir -p $dropins
  printf '[Service]\nEnvironment=LD_PRELOAD=/usr/local/lib/fail-fork.so FAIL_FORK=3\n' \
    >$dropins/fail-fork.conf
  systemctl daemon-reload
  start_bystanders
  local root nobody morvane journald
  root=$(main_pid_of bystander-root)
  nobody=$(main_pid_of bystander-nobody)
  morvane=$(main_pid_of bystander-morvane)
  journald=$(main_pid_of systemd-journald)
  systemctl start morvaned
  poll 150 log_has 'Starting Server [^:]*:-1\.\.\.$'
  systemctl stop morvaned
  poll 150 log_has 'Stopping Server [^:]*:-1\.\.\.$'
  journalctl -q -t MORVANE | grep -e ':-1\.\.\.$'
  kill -0 "$root" "$nobody" "$journald"
  [ "$(main_pid_of systemd-journald)" = "$journald" ]
  none_alive "$morvane"
  [ -z "$(unit_pids)" ]
  unit_has ActiveState inactive
  rm -r $dropins
  systemctl daemon-reload
  systemctl stop bystander-root bystander-nobody
  systemctl reset-failed
}

restart_new_main_pid() {
  systemctl start morvaned
  local old
  old=$(unit_property MainPID)
  poll 150 log_has "MORVANE\[$old\]: Starting \(Server\|HL-7\)" 4
  systemctl restart morvaned
  unit_has ActiveState active
  [ "$(unit_property MainPID)" != "$old" ]
}

remove_while_running() {
  local daemon pids
  daemon=$(unit_property MainPID)
  poll 150 log_has "MORVANE\[$daemon\]: Starting \(Server\|HL-7\)" 4
  pids=$(unit_pids)
  [ -n "$pids" ]
  dpkg -r morvaned
  none_alive $pids
  [ -z "$(unit_pids)" ]
  fails systemctl -q is-active morvaned
  [ ! -e /usr/sbin/morvaned ]
  poll 150 log_has "Stopping daemon \[$daemon\]"
}

# The user stays, as Debian leaves system users in place; the base directory is the operator's.
purge_leaves_no_file() {
  dpkg --purge morvaned
  unit_has LoadState not-found
  [ -z "$(find / -xdev -path /build -prune -o -name '*morvaned*' -print)" ]
  getent passwd morvane
}

# 0.1.0 ran the service as root. An upgrade leaves the running daemon as it is, as root, until
# the operator restarts it.
upgrade_leaves_daemon_running() {
  rm -rf /build-0.1.0
  mkdir -p /build-0.1.0/morvaned
  cp -a /src-0.1.0/. /build-0.1.0/morvaned
  cd /build-0.1.0/morvaned
  dpkg-buildpackage -us -uc -b
  dpkg -i /build-0.1.0/morvaned_0.1.0_*.deb
  systemctl start morvaned
  local daemon
  daemon=$(unit_property MainPID)
  [ "$(stat -c %U "/proc/$daemon")" = root ]
  dpkg -i /build/morvaned_0.2.0_*.deb
  unit_has MainPID "$daemon"
  [ "$(stat -c %U "/proc/$daemon")" = root ]
  unit_has User morvane
  systemctl restart morvaned
  [ "$(stat -c %U "/proc/$(unit_property MainPID)")" = morvane ]
  dpkg --purge morvaned
}

"$@"
