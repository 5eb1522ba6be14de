#!/usr/bin/env bash
# Process tests: the real morvaned, with tests/preload.c preloaded, in a temporary base
# directory whose programs are tests/child.sh. One case (a function below) a run, as pid 1
# of private pid and mount namespaces with a /dev of their own, a tmpfs (tests/private-dev):
# /dev/log is a socket this script reads into /dev/messages, and the base directories are
# made there too. Every process a case starts ends with its pid namespace.
#
#   /ABSOLUTE/PATH/tests/process.sh MORVANED PRELOAD CASE (each path absolute)
#
# Most cases are a script for play, written NAME() { play; } <<EOF. A line is an action, a
# function below with its words, the first one fresh or running; the indented lines after it
# are what the daemon logs next, all of them, in this order, as "PRIORITY TEXT" (27 err, 28
# warning, 29 notice, 30 info, 31 debug), with the daemon's pid written D and its n-th
# child's Pn.
#
# The preload gives a case these controls, files in the base directory but the last:
# - clock: its time is the daemon's time(); without it, each call is 10 s on from the last.
#   sleep(N) logs "30 sleep N" and lasts until clock has moved N seconds on, or a signal
#   handler has run: the brake is checked to the second, without waiting.
# - pids: each fork adds its child's pid, the n-th line Pn.
# - unlocks: while it exists, each unlock that fails logs "31 unlock failed".
# - MORVANED_TEST_TERM: its digits send SIGTERM just after those forks (23: the second and
#   the third); "early" sends it just before the handler is installed, "fail" makes
#   installing the handler fail.
# And a syslog call that the SIGTERM handler could interrupt aborts the daemon.
#
# To add a case: write it at the end, a function named for what it proves, with a comment
# that says so; add its name to set(cases ...) in tests/CMakeLists.txt; then run it with
# "ctest --test-dir build -R process.NAME".
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
    if [[ $line == " "* ]]; then
      want+=("${line#  }")
    elif [[ $line != \#* ]]; then
      poll logged
      $line || fail "$line"
    fi
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

# running [ARG...]: where most cases begin, as their first action: fresh with the one
# instance a, and the daemon run with -p pid and these arguments; it starts its server P1
# and its listener P2.
running() {
  fresh a.INI
  run -p pid "$@"
  want=("29 Starting daemon [D]..." "29 Starting Server a:P1...")
  want+=("29 Starting HL-7 Listener a:P2...")
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
alive() { [ -e /proc/$(pid $1) ]; }
gone() { ! alive $1; }
# The daemon is asleep: after its last start line, that is in its wait for a child.
waits() { [ "$(cut -d' ' -f3 /proc/$daemon/stat)" = S ]; }
# The process P runs on a CPU, or is ready to: it never sleeps.
spins() { [ "$(cut -d' ' -f3 /proc/$(pid $1)/stat)" = R ]; }
# ran LINE...: the children ran as these lines say, "PATH [ARGUMENT]", sorted.
ran() { [ "$(LC_ALL=C sort started)" = "$(printf '%s\n' "$@")" ]; }
# The daemon holds its three standard descriptors and its log socket, nothing else.
holds_only_its_log() { [ $(ls /proc/$daemon/fd | wc -l) = 4 ]; }

# The cases.

# Each failed start: its exit status, its one line between the start and stop lines, its
# echo.
failed_starts_exit_with_their_status() {
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

# Instance files of any case, in listing order (not sorted, duplicates kept), each server
# run with its instance's name as its one argument. A tmpfs lists a directory oldest or
# newest first, by kernel, so they are made in an order that reads the same both ways;
# .Ini is a directory, and names the instance with no name. The listing is closed again.
instances_are_ini_names_in_listing_order() {
  fresh 'Alpha beta.INI' x.INI.bak INI
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
EOF
  poll ran "$base/Morvane.exe [Alpha beta]" "$base/Morvane.exe [Alpha beta]" "$base/Morvane.exe []"
}

# From a base directory whose path is 255 bytes, the longest the path buffer holds, the
# programs run by their full path; from one of 256, as ./PROGRAM.
programs_run_by_full_path_up_to_255_bytes() {
  long=250 running
  poll ran "$base/Morvane.exe [a]" "$base/MorvaneHL7.exe [a]"
  long=251 running
  poll ran "./Morvane.exe [a]" "./MorvaneHL7.exe [a]"
}

# What follows -p pid is echoed at once and the daemon runs on; the PID file holds its pid
# and a newline.
pid_file_holds_the_pid_and_surplus_is_echoed() { play; } <<EOF
running extra
told
EOF
told() { cmp -s pid <(echo $daemon) && cmp -s out <(echo "non-option ARGV elements: extra "); }

# A child the loop knows, server or listener, that ends: its end decoded, that child alone
# replaced, at once (the clock's 10 s are 10 s after the last restart, none yet: 0); then
# the lock unlocked once more, which fails and changes nothing.
known_child_replaced_alone_then_unlocked_twice() { play; } <<EOF
running
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
EOF

# The brake: a restart 10 s after the last one (the first: after 0) comes at once; one 9 s
# after the last restart of any child waits 30 s, and is stamped after that sleep: with the
# clock set back behind the stamp, the next one waits too. SIGTERM cuts the wait short and
# stops the children listed, and the replacement decided on still starts and outlives the
# daemon; the handler's lock and unlock pair up (only the loop's own second unlock fails).
brake_waits_30s_within_9s_of_a_restart_or_until_sigterm() { play; } <<EOF
running
end P1 0
  28 Server a:P1 exited with status [0]
  29 Starting Server a:P3...
clock 19
end P2 0
  28 HL-7 Listener a:P2 exited with status [0]
  30 sleep 30
clock 49
  29 Starting HL-7 Listener a:P4...
clock 40
end P3 0
  28 Server a:P3 exited with status [0]
  30 sleep 30
touch unlocks
term
  29 Stopping HL-7 Listener a:P4...
  29 Starting Server a:P5...
  31 unlock failed
  29 Stopping daemon [D]...
ended 0
poll gone P4
alive P5
EOF

# A stopped child counts as ended: it is replaced and forgotten, and when it ends later it
# is an unknown child.
stopped_child_is_replaced_and_forgotten() { play; } <<EOF
running
signal STOP P1
  28 Server a:P1 stopped by signal [19]
  29 Starting Server a:P3...
signal CONT P1
end P1 4
  28 Unknown child process [P1] exited with status [4]
EOF

# A listener program that passes the test for an executable file but cannot run (here one
# still being written, empty): its child carries on as a copy of the daemon that logs
# nothing (it has no instance left to start, nor children of its own, and spins), while the
# daemon goes on.
unrunnable_program_leaves_a_silent_copy() { play; } <<EOF
fresh a.INI
truncate -s 0 MorvaneHL7.exe
run -p pid
  29 Starting daemon [D]...
  29 Starting Server a:P1...
  29 Starting HL-7 Listener a:P2...
end P1 0
  28 Server a:P1 exited with status [0]
  29 Starting Server a:P3...
poll spins P2
EOF

# SIGTERM during the start-up pass of two instances, just after launch 2 and again just
# after launch 3: each time the children listed by then, not the one just launched, are
# stopped, servers first; those started later live on; the loop ends after the first child
# it reaps.
sigterm_in_the_startup_pass_stops_the_children_listed() { play; } <<EOF
fresh a.INI a.ini
export MORVANED_TEST_TERM=23
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
poll gone P1
alive P3
alive P4
EOF

# SIGTERM once the daemon waits: every server is stopped, then every listener, each in pid
# order; the loop logs the first child it reaps and ends, and the daemon exits 0.
sigterm_stops_servers_then_listeners_in_pid_order() { play; } <<EOF
fresh a.INI a.ini
run -p pid
  29 Starting daemon [D]...
  29 Starting Server a:P1...
  29 Starting HL-7 Listener a:P2...
  29 Starting Server a:P3...
  29 Starting HL-7 Listener a:P4...
poll waits
term
  29 Stopping Server a:P1...
  29 Stopping Server a:P3...
  29 Stopping HL-7 Listener a:P2...
  29 Stopping HL-7 Listener a:P4...
  28 @(Server a:P@(1|3)|HL-7 Listener a:P@(2|4)) killed by signal [9]
  29 Stopping daemon [D]...
ended 0
EOF

# Many deaths ($MORVANED_TEST_DEATHS): the daemon's memory and descriptors stay flat.
soak_memory_and_descriptors_stay_flat() {
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
socat -u UNIX-RECV:/dev/log OPEN:/dev/messages,creat,append &
poll test -S /dev/log
"$case"
