#!/usr/bin/env bash
# Process tests: the real morvaned, preloaded with tests/preload.c, in a temporary base
# directory whose programs are tests/child.sh. One case (a function below) a run, in
# private pid and mount namespaces where /dev/log is a socket this script reads; every
# process a case starts ends with its namespace.
#
# The daemon's lines are read as "PRIORITY TEXT" (27 err, 28 warning, 29 notice, 30 info:
# the test clock's sleep, 31 debug), its pid written D and its n-th child's Pn. A case is a
# script for play: a line is an action, a function below with its words; the indented
# lines after it are what the daemon logs next, all of them, in this order.
#
#   tests/process.sh MORVANED PRELOAD CASE
set -euo pipefail
binary=$1 preload=$2 case=$3 tests=$(cd "$(dirname "$0")" && pwd)
# As pid 1 of namespaces of its own, with a /dev of its own (else /dev/log would be the
# host's), or else skipped.
[ $$ = 1 ] || exec "$tests/private-dev" "$0" "$@"
seen=0 daemon= base=

fail() {
  echo "FAIL $case: $1; morvaned logged:"
  transcript
  exit 1
}

# poll COMMAND...: until COMMAND succeeds, $limit (5) seconds at most
poll() {
  local end=$((SECONDS + ${limit:-5}))
  until "$@"; do
    ((SECONDS < end)) || fail "$*"
    sleep 0.01
  done
}

transcript() {
  sed -n "s/^<\([0-9]*\)>.* MORVANE\[$daemon\]: /\1 /p" "$log" |
    sed -f <(awk '{ print "s/\\b" $1 "\\b/P" NR "/g" }' "$base/pids" 2>/dev/null) \
      -e "s/\[$daemon\]/[D]/"
}

# expect LINE...: the next lines the daemon logs are these, and no others ("[" stands for
# itself; ? and @(A|B) are patterns). Every case ends on the daemon's last line.
expect() {
  local pattern
  pattern=$(printf '%s\n' "$@")
  poll next_lines_are "${pattern//\[/\\[}"
  seen=$((seen + $#))
}
# The last line came whole, newline and all.
next_lines_are() { [[ $(transcript | tail -n "+$((seen + 1))") == $1 && -z $(tail -c1 "$log") ]]; }

# play: runs the script on its standard input ("#" starts a comment).
play() {
  local line want=()
  while IFS= read -r line; do
    if [[ $line == \#* ]]; then
      continue
    elif [[ $line == " "* ]]; then
      want+=("${line#  }")
    else
      expect "${want[@]}"
      want=()
      $line || fail "$line"
    fi
  done
  expect "${want[@]}"
}

# fresh FILE...: a new base directory, made the current one, with the fake programs and
# these files, its path $long bytes long if set; the clock shows 10.
fresh() {
  base=$(mktemp -d -p "$work")
  [ -z "${long:-}" ] || base+=/$(printf "%0$((long - ${#base} - 1))d" 0)
  mkdir -p "$base"
  cd "$base"
  touch "$@"
  cp "$tests/child.sh" Morvane.exe
  cp Morvane.exe MorvaneHL7.exe
  clock 10
}

# The actions. run [ARG...]: morvaned in the current directory, its output in $base.out
run() {
  MORVANED_TEST_CLOCK=$base/clock LD_PRELOAD=$preload "$binary" "$@" >"$base.out" &
  daemon=$!
  seen=0
}
clock() { touch -d @$1 "$base/clock"; }
pid() { [ $1 = D ] && echo $daemon || sed -n ${1#P}p "$base/pids"; }
# end P STATUS: the fake child P exits with STATUS.
end() { echo $2 >"$base/exit.$(pid $1)"; }
signal() { kill -$1 $(pid $2); }
waiting() { grep -q do_wait /proc/$daemon/wchan; }
# ended STATUS: the daemon has exited with STATUS and left no PID file.
ended() {
  local status=0
  wait $daemon || status=$?
  [ $status = $1 ] && [ ! -e "$base/pid" ] || fail "exit status $status or PID file"
}
gone() { [[ $(ps -o stat= -p $(pid $1)) == ?(Z*) ]]; }
# The daemon holds its three standard descriptors and its log socket, nothing else.
holds_only_its_log() { [ "$(ls /proc/$daemon/fd | xargs)" = "0 1 2 3" ]; }
# Instance names in the order the base directory lists them.
listed() { ls -f | sed -n 's/\.[iI][nN][iI]$//p'; }

# Each failed start: its exit status, its one line between start and stop, its echo.
startup() {
  local usage="31 Usage: $binary --pidfile=FILE" status setup term args echo line
  # STATUS|SETUP|MORVANED_TEST_TERM|ARGUMENTS|ECHO|LINE
  while IFS='|' read -r status setup term args echo line; do
    fresh a.INI
    mkdir sub
    $setup
    MORVANED_TEST_TERM=$term run $args
    ended $status
    local last=("29 Stopping daemon [D]...")
    # SIGTERM before the handler is in: the daemon ends without its stop line.
    [ $status != 143 ] || last=()
    expect "29 Starting daemon [D]..." ${line:+"$line"} "${last[@]}"
    [ "$(cat "$base.out")" = "$echo" ] || fail "echo"
  done <<EOF
1|||||$usage
1|cd sub||--basedir=.. --pidfile=pid|non-option ARGV elements: --pidfile=pid |$usage
255|chmod -x Morvane.exe||||27 Morvane.exe does not exist or not an executable file
253|||--pidfile=no/pid||27 Cannot open PIDFILE: no/pid
254||fail|-p pid||27 Cannot install SIGTERM handler: 22
143||early|-p pid||
EOF
  # All it does up to the usage, its lock's set-up too, under valgrind's memcheck (which
  # cannot run a sanitized daemon).
  [ -n "${ASAN_OPTIONS:-}" ] || valgrind -q --error-exitcode=99 "$binary" || [ $? = 1 ] ||
    fail "memcheck"
}

# Instance files of any case, in listing order; how each server runs; the daemon's
# descriptors. A base directory path of 256 bytes is too long for the path buffer, so the
# programs run as ./Morvane.exe.
discovery() {
  long=256 fresh alpha.INI Beta.ini gamma.Ini notes.txt x.INI.bak INI a.INI a.ini .ini \
    'with space.ini'
  mkdir archive.ini
  rm MorvaneHL7.exe
  play <<EOF
run -p pid
  29 Starting daemon [D]...
$(listed | awk '{ print "  29 Starting Server " $0 ":P" NR "..." }')
holds_only_its_log
poll run_as_listed
EOF
}
# Each server ran as ./Morvane.exe with its instance's name.
run_as_listed() { [ "$(sort started)" = "$(listed | sed 's|.*|./Morvane.exe [&]|' | sort)" ]; }

# Each end decoded and its child alone replaced, at once or after the brake. A base
# directory path of 255 bytes, the longest the path buffer holds.
restarts() {
  long=255 fresh a.INI
  play <<'EOF'
run -p pid extra
  29 Starting daemon [D]...
  29 Starting Server a:P1...
  29 Starting HL-7 Listener a:P2...
told
# The first restart, and one 10 s after the last, come at once.
end P1 3
  28 Server a:P1 exited with status [3]
  29 Starting Server a:P3...
  31 unlock failed
clock 20
signal KILL P2
  28 HL-7 Listener a:P2 killed by signal [9]
  29 Starting HL-7 Listener a:P4...
  31 unlock failed
# One 9 s after the last, or after the clock was set back, waits 30 s, and is stamped
# after that sleep.
clock 29
signal SEGV P3
  28 Server a:P3 killed by signal [11]
  30 sleep 30
clock 59
  29 Starting Server a:P5...
  31 unlock failed
clock 68
signal STOP P5
  28 Server a:P5 stopped by signal [19]
  30 sleep 30
# A stopped child is forgotten.
signal CONT P5
clock 98
  29 Starting Server a:P6...
  31 unlock failed
end P5 4
  28 Unknown child process [P5] exited with status [4]
# A child whose program cannot run carries on as a silent copy of the daemon, until it is
# stopped.
unrunnable MorvaneHL7.exe
clock 108
end P4 0
  28 HL-7 Listener a:P4 exited with status [0]
  29 Starting HL-7 Listener a:P7...
  31 unlock failed
clock 50
signal TERM P6
  28 Server a:P6 killed by signal [15]
  30 sleep 30
# SIGTERM cuts the sleep short; the replacement decided on still starts.
signal TERM D
  29 Stopping HL-7 Listener a:P7...
  29 Starting Server a:P8...
  31 unlock failed
  29 Stopping daemon [D]...
ended 0
poll gone P7
EOF
  # The copy P7 logged nothing of its own, and every child ran by its full path.
  ! grep -av "MORVANE\[$daemon\]: \|: unlock failed" "$log" || fail "a copy"
  ! grep -v "^$base/Morvane" started || fail "started"
}
# The PID file holds the pid and a newline; the echo of what followed -p pid is out at once.
told() {
  cmp -s pid <(echo $daemon) && cmp -s "$base.out" <(echo "non-option ARGV elements: extra ")
}
# unrunnable PROGRAM: PROGRAM passes the test for an executable file but cannot be run.
unrunnable() { rm "$1" && mkdir "$1"; }

# SIGTERM just after launch k of the start-up pass (k=5: while the daemon waits): the
# children listed by then are stopped, servers first; those started later live on.
pass() {
  local started=("29 Starting Server a:P1..." "29 Starting HL-7 Listener a:P2..."
    "29 Starting Server a:P3..." "29 Starting HL-7 Listener a:P4...") k n
  for k in $(shuf -i 2-5) $(shuf -rn "${MORVANED_TEST_RUNS:-0}" -i 2-5); do
    local stopped=()
    for n in 0 2 1 3; do
      ((n >= k - 1)) || stopped+=("${started[n]/Starting/Stopping}")
    done
    fresh a.INI a.ini
    MORVANED_TEST_TERM=$k run -p pid
    if ((k == 5)); then
      poll waiting
      kill $daemon
    fi
    expect "29 Starting daemon [D]..." "${started[@]:0:k}" "${stopped[@]}" \
      "${started[@]:k}" "28 @(Server|HL-7 Listener) a:P? killed by signal [9]" \
      "31 unlock failed" "29 Stopping daemon [D]..."
    ended 0
  done
}

# Many deaths ($MORVANED_TEST_DEATHS): the daemon's memory and descriptors stay flat.
soak() {
  fresh 0.INI
  rm MorvaneHL7.exe
  echo '#!/bin/sh' >Morvane.exe
  MORVANED_TEST_SOAK=1 run -p pid
  local deaths rss=()
  for deaths in 100 "${MORVANED_TEST_DEATHS:-1000}"; do
    limit=$((deaths / 10 + 10)) poll deaths_over "$deaths"
    rss+=($(ps -o rss= -p $daemon))
  done
  ((rss[1] <= rss[0] + 64)) || fail "RSS (KiB) ${rss[*]}"
  poll holds_only_its_log
}
deaths_over() { (($(grep -c exited "$log") > $1)); }

echo 999 >/proc/sys/kernel/ns_last_pid
# No core files: the crash of a fake child is enough.
ulimit -c 0
work=$(mktemp -d)
log=$work/log
# As pid 1 of its namespace, this script ends every process left in it.
trap 'kill -KILL -1; rm -rf "$work"' EXIT
socat -u UNIX-RECV:/dev/log OPEN:"$log",creat,append &
poll test -S /dev/log
"$case"
