#!/usr/bin/env bash
# Process tests: the real morvaned, preloaded with tests/preload.c, in a temporary base
# directory whose programs are tests/child.sh. One case (a function below) a run, in
# private pid and mount namespaces with a /dev of their own, a tmpfs: /dev/log is a socket
# this script reads into /dev/messages, and the base directories are made there too. Every
# process a case starts ends with its pid namespace, when this script, its pid 1, exits.
#
# The daemon's lines are read as "PRIORITY TEXT" (27 err, 28 warning, 29 notice, 30 info:
# the test clock's sleep, 31 debug), its pid written D and its n-th child's Pn. A case is a
# script for play: a line is an action, a function below with its words; the indented
# lines after it are what the daemon logs next, all of them, in this order.
#
#   /ABSOLUTE/PATH/tests/process.sh MORVANED PRELOAD CASE (each path absolute)
set -euo pipefail
binary=$1 preload=$2 case=$3 tests=${0%/*}
# As pid 1 of namespaces of its own, with a /dev of its own (else /dev/log would be the
# host's), or else skipped.
[ $$ = 1 ] || exec "$tests/private-dev" "$0" "$@"
daemon= bases=0

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

# What the daemon, and any copy of it, logged since the last fresh.
transcript() {
  sed -n "s/^<\(..\)>.* MORVANE\[[0-9]*\]: /\1 /p" /dev/messages |
    sed -f <(awk '{ print "s/\\b" $1 "\\b/P" NR "/g" }' pids 2>/dev/null) -e "s/\[$daemon\]/[D]/"
}

# The daemon has logged the lines $want and no others ("[" stands for itself; @(A|B) is a
# pattern), the last one whole, newline and all. Every case ends on the daemon's last line.
logged() {
  local lines
  lines=$(printf '%s\n' "${want[@]}")
  [[ $(transcript) == ${lines//\[/\\[} && -z $(tail -c1 /dev/messages) ]]
}

# play: runs the script on its standard input ("#" starts a comment).
play() {
  local line
  while IFS= read -r line; do
    case $line in
      \#*) ;;
      " "*) want+=("${line#  }") ;;
      *)
        poll logged
        $line || fail "$line"
        ;;
    esac
  done
  poll logged
}

# fresh FILE...: a new base directory in /dev, made the current one, with the fake programs
# and these files, made in this order; its name $long digits long if set (its path 5
# more); the clock shows 10; the log is emptied, and nothing expected yet.
fresh() {
  : >/dev/messages
  want=()
  printf -v base "/dev/%0${long:-4}d" $((++bases))
  mkdir "$base"
  cd "$base"
  touch "$@"
  cp "$tests/child.sh" Morvane.exe
  cp Morvane.exe MorvaneHL7.exe
  clock 10
}

# The actions. run [ARG...]: morvaned in the current directory, its output in "out" there.
run() {
  LD_PRELOAD=$preload "$binary" "$@" >out &
  daemon=$!
}
clock() { touch -d @$1 clock; }
pid() { sed -n ${1#P}p pids; }
# end P STATUS: the fake child P exits with STATUS.
end() { echo $2 >exit.$(pid $1); }
signal() { kill -$1 $(pid $2); }
term() { kill $daemon; }
# ended STATUS: the daemon has exited with STATUS and left no PID file.
ended() {
  local status=0
  wait $daemon || status=$?
  [ $status = $1 ] && [ ! -e pid ] || fail "ended $status"
}
gone() { [ ! -e /proc/$(pid $1) ]; }
# The daemon holds its three standard descriptors and its log socket, nothing else.
holds_only_its_log() { [ $(ls /proc/$daemon/fd | wc -l) = 4 ]; }

# Each failed start: its exit status, its one line between the start and stop lines, its
# echo.
startup() {
  # STATUS|SETUP|MORVANED_TEST_TERM|ARGUMENTS|ECHO|LINE
  while IFS='|' read -r status setup term args echo line; do
    fresh a.INI
    mkdir sub
    $setup
    MORVANED_TEST_TERM=$term run $args
    ended $status
    # Without a line (SIGTERM before the handler is in) it ends at once, without its stop.
    want=("29 Starting daemon [D]..." ${line:+"$line" "29 Stopping daemon [D]..."})
    poll logged
    [ "$(cat out)" = "$echo" ] || fail "echo"
  done <<EOF
1|cd sub||--basedir=.. -p pid|non-option ARGV elements: -p pid |31 Usage: $binary --pidfile=FILE
255|chmod -x Morvane.exe||||27 Morvane.exe does not exist or not an executable file
253|||--pidfile=no/pid||27 Cannot open PIDFILE: no/pid
254||fail|-p pid||27 Cannot install SIGTERM handler: 22
143||early|-p pid||
EOF
  # No arguments at all: all it does up to the usage, its lock's set-up too, under
  # valgrind's memcheck (which cannot run a sanitized daemon).
  [ -n "${ASAN_OPTIONS:-}" ] || valgrind -q --error-exitcode=99 "$binary" || [ $? = 1 ] ||
    fail "memcheck"
}

# Instance files of any case, in listing order (not sorted, duplicates kept), and how each
# server runs. A tmpfs lists a directory oldest or newest first, by kernel, so they are
# made in an order that reads the same both ways; .Ini is a directory, and names the
# instance with no name. A base directory path of 256 bytes is too long for the path
# buffer, so the programs run as ./Morvane.exe.
discovery() {
  long=251 fresh 'Alpha beta.INI' x.INI.bak INI
  mkdir .Ini
  touch 'Alpha beta.ini'
  rm MorvaneHL7.exe
  play <<EOF
run -p pid
  29 Starting daemon [D]...
  29 Starting Server Alpha beta:P1...
  29 Starting Server :P2...
  29 Starting Server Alpha beta:P3...
holds_only_its_log
poll ran_as_named
EOF
}
# Each server ran as ./Morvane.exe with its instance's name as its one argument.
ran_as_named() {
  [ "$(LC_ALL=C sort started)" = "./Morvane.exe [Alpha beta]
./Morvane.exe [Alpha beta]
./Morvane.exe []" ]
}

# Each end decoded and its child alone replaced, at once or after the brake. A base
# directory path of 255 bytes, the longest the path buffer holds.
restarts() {
  long=250 fresh a.INI
  play <<EOF
run -p pid extra
  29 Starting daemon [D]...
  29 Starting Server a:P1...
  29 Starting HL-7 Listener a:P2...
told
# The first restart, and one 10 s after the last, come at once. After a known child, server
# or listener, the loop unlocks its lock once more, in vain (shown while "unlocks" exists).
touch unlocks
end P1 3
  28 Server a:P1 exited with status [3]
  29 Starting Server a:P3...
  31 unlock failed
clock 20
signal KILL P2
  28 HL-7 Listener a:P2 killed by signal [9]
  29 Starting HL-7 Listener a:P4...
  31 unlock failed
rm unlocks
# One 9 s after the last, or after the clock was set back, waits 30 s, and is stamped
# after that sleep.
clock 29
signal SEGV P3
  28 Server a:P3 killed by signal [11]
  30 sleep 30
clock 59
  29 Starting Server a:P5...
clock 68
signal STOP P5
  28 Server a:P5 stopped by signal [19]
  30 sleep 30
# A stopped child is forgotten.
signal CONT P5
clock 98
  29 Starting Server a:P6...
end P5 4
  28 Unknown child process [P5] exited with status [4]
# A child whose program passes the test for an executable file but cannot run carries on
# as a silent copy of the daemon (it logs nothing), until it is stopped.
rm MorvaneHL7.exe
mkdir MorvaneHL7.exe
clock 108
end P4 0
  28 HL-7 Listener a:P4 exited with status [0]
  29 Starting HL-7 Listener a:P7...
clock 50
signal TERM P6
  28 Server a:P6 killed by signal [15]
  30 sleep 30
# SIGTERM cuts the sleep short; the replacement decided on still starts. The handler's lock
# and unlock pair up: only the loop's own second unlock fails.
touch unlocks
term
  29 Stopping HL-7 Listener a:P7...
  29 Starting Server a:P8...
  31 unlock failed
  29 Stopping daemon [D]...
ended 0
poll gone P7
EOF
  # Every child ran by its full path.
  ! grep -v "^$base/Morvane" started || fail "started"
}
# The PID file holds the pid and a newline; the echo of what followed -p pid is out at once.
told() {
  cmp -s pid <(echo $daemon) && cmp -s out <(echo "non-option ARGV elements: extra ")
}

# SIGTERM during the start-up pass of two instances, once just after launch 2 and again
# just after launch 3 (the preload sends it), or once the daemon waits: the children
# listed by then (not the one just launched) are stopped, servers first, the second time
# too; those started later live on; the loop ends after the first child it reaps. Each row
# on a new base directory, once, in this order, then $MORVANED_TEST_RUNS rows at random.
pass() {
  rows+=("export MORVANED_TEST_TERM=23
run -p pid
  29 Starting daemon [D]...
  29 Starting Server a:P1...
  29 Starting HL-7 Listener a:P2...
  29 Stopping Server a:P1...
  29 Starting Server a:P3...
  29 Stopping Server a:P1...
  29 Stopping HL-7 Listener a:P2...
  29 Starting HL-7 Listener a:P4...
  28 @(Server a:P1|HL-7 Listener a:P2) killed by signal [9]
  29 Stopping daemon [D]...
ended 0
# Whichever child was reaped, the server stopped is killed.
poll gone P1")
  rows+=("export MORVANED_TEST_TERM=
run -p pid
  29 Starting daemon [D]...
  29 Starting Server a:P1...
  29 Starting HL-7 Listener a:P2...
  29 Starting Server a:P3...
  29 Starting HL-7 Listener a:P4...
poll test -e waiting
term
  29 Stopping Server a:P1...
  29 Stopping Server a:P3...
  29 Stopping HL-7 Listener a:P2...
  29 Stopping HL-7 Listener a:P4...
  28 @(Server a:P@(1|3)|HL-7 Listener a:P@(2|4)) killed by signal [9]
  29 Stopping daemon [D]...
ended 0")
  for row in 0 1 $(shuf -rn "${MORVANED_TEST_RUNS:-0}" -i 0-1); do
    fresh a.INI a.ini
    play <<<"${rows[row]}"
  done
}

# Many deaths ($MORVANED_TEST_DEATHS): the daemon's memory and descriptors stay flat.
soak() {
  fresh 0.INI
  # Servers that end at once; the listener lives on.
  cp /bin/true Morvane.exe
  # A clock that each look moves on 10 s: no restart waits for the brake.
  rm clock
  run -p pid
  for deaths in 100 "${MORVANED_TEST_DEATHS:-1000}"; do
    limit=$((deaths / 10 + 10)) poll deaths_over "$deaths"
    rss+=($(ps -o rss= -p $daemon))
  done
  ((rss[1] <= rss[0] + 64)) || fail "RSS (KiB) ${rss[*]}"
  poll holds_only_its_log
}
deaths_over() { (($(grep -c exited /dev/messages) > $1)); }

echo 999 >/proc/sys/kernel/ns_last_pid
# No core files: the crash of a fake child is enough.
ulimit -c 0
socat -u UNIX-RECV:/dev/log OPEN:/dev/messages,creat,append &
poll test -S /dev/log
"$case"
