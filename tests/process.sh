#!/usr/bin/env bash
# Process tests: the real morvaned, preloaded with tests/preload.c, in a
# temporary base directory whose programs are tests/child.sh. One case (a
# function below) a run, in private pid and mount namespaces where /dev/log
# is a socket this script reads; every process a case starts ends with its
# namespace. A case states what the daemon logs next, step by step, as
# "PRIORITY TEXT" (29 notice, 28 warning, 27 err, 31 debug, 30 the test
# clock's sleep), with its pid as D and its n-th child's as Pn; a line may be
# a pattern (* any text, ? one character, @(a|b) either).
#
#   tests/process.sh MORVANED PRELOAD CASE
set -euo pipefail
export LC_ALL=C && binary=$1 preload=$2 case=$3 tests=$(dirname "$0")
if [ -z "${MORVANED_TEST_INSIDE:-}" ]; then
  flags=(--mount --pid --fork --mount-proc) && [ "$(id -u)" = 0 ] || flags+=(--map-root-user)
  # CI sets MORVANED_TEST_NO_SKIP: there, a skip is a failure.
  unshare "${flags[@]}" true 2>/dev/null || { echo "skipped: no private pid and mount namespaces"; exit $((${MORVANED_TEST_NO_SKIP:-0} ? 1 : 77)); }
  MORVANED_TEST_INSIDE=1 exec unshare "${flags[@]}" "$0" "$@"
fi
fail() { printf 'FAIL %s: %s\n%s\nmorvaned logged:\n%s\n' "$case" "$1" "$expected" "$(transcript)"; exit 1; }
# poll CONDITION [SECONDS]: until CONDITION holds, 5 s at most
poll() { local end=$((SECONDS + ${2:-5})); until eval "$1"; do ((SECONDS < end)) || fail "$1"; sleep 0.01; done; }
"$tests/../scripts/private-dev" || exit 1  # else /dev/log would be the host's
[[ $(</proc/sys/kernel/core_pattern) == [!\|/]* ]] && ulimit -c unlimited || ulimit -c 0  # cores in the base directory only
work=$(mktemp -d) bases=0 seen=0 flushes=0 daemon= base= expected=; log=$work/log
trap '[ $$ != 1 ] || kill -KILL -1; rm -rf "$work"' EXIT  # as pid 1, it ends the namespace
socat -u UNIX-RECV:/dev/log OPEN:"$log",creat,append & poll '[ -S /dev/log ]'

# The daemon's lines as "PRIORITY TEXT", its own pid as D and its n-th child's as Pn.
transcript() { grep -a "MORVANE\[$daemon\]: " "$log" | sed -e "s/^<\([0-9]*\)>[^]]*]: /\1 /; s/\[$daemon\]/[D]/" \
  -e "$(awk '{ printf "s/\\([:[]\\)%s\\([]. ]\\)/\\1%s\\2/\n", $2, $1 }' "$base/pids" 2>/dev/null)"; }
pid() { awk -v p="$1" '$1 == p { print $2 }' "$base/pids"; }
# step ACTION [LINE...]: runs ACTION; then the daemon's next lines must be these, and no more
step() {
  eval "$1" || fail "$1"; shift; expected="expected next:$(printf '\n%s' "$@")"; local n=$# want=$(printf '%s\n' "$@")
  want=${want//\[/\\[} && want=${want//\]/\\]} && poll 'got=$(transcript | tail -n +$((seen + 1))) && [[ $got == $want ]] ||
    { (($(printf %s "$got" | grep -c "") < n)) || fail "other lines came"; false; }'  # fails at once once n lines came
  seen=$((seen + n)) expected=
}
# Everything logged so far is in the log.
flush() { ((++flushes)) && echo "flush $flushes" | socat -u - UNIX-SENDTO:/dev/log; poll "grep -qx 'flush $flushes' '$log'"; }
state() { cut -d' ' -f3 "/proc/$(pid "$1")/stat" 2>/dev/null || true; }
dead() { for p; do poll "[[ \$(state $p) == ?(Z) ]]"; done; }
alive() { for p; do [[ $(state "$p") == [!Z] ]] || fail "$p has ended"; done; }
clock() { touch -d "@$1" "$base/clock"; }
# end P N: the fake child P exits with status N
end() { echo "$2" >"$base/exit.$(pid "$1")"; }
# Instance names in the order the base directory lists them.
listed() { ls -f "$base" | sed -n 's/\.[iI][nN][iI]$//p'; }

# fresh [FILE...]: a new base directory (with $long, its path 256 bytes long)
# holding the fake programs and these files; a trailing / makes a directory.
# The clock shows 10.
fresh() {
  base=$work/$((++bases)) && [ -z "${long:-}" ] || base+=/$(printf "%0$((255 - ${#base}))d" 0)
  mkdir -p "$base"; clock 10; for f; do [[ $f == */ ]] && mkdir "$base/$f" || : >"$base/$f"; done
  cp "$tests/child.sh" "$base/Morvane.exe"; cp "$tests/child.sh" "$base/MorvaneHL7.exe"
}
# run [ARG...]: morvaned in the base directory, after $setup there
run() { (cd "$base" && eval "${setup:-}" && MORVANED_TEST_CLOCK=$base/clock LD_PRELOAD=$preload exec "$binary" "$@" >"$base.out") & daemon=$! seen=0; }

startup() {  # each failed start: its status, its line between start and stop, its echo
  local stop=("29 Stopping daemon [D]...")
  while IFS='|' read -r status setup args line echo; do
    fresh a.INI && eval "line=\"$line\" echo=\"$echo\"" && run $(eval echo "$args") && got=0 && wait "$daemon" || got=$?
    [ $got = "$status" ] || fail "exit status $got, not $status"
    step flush "29 Starting daemon [D]..." ${line:+"$line"} "${stop[@]:0:status != 143}"
    [ "$(cat "$base.out"; ls "$base/pid" "$base/started" 2>/dev/null; echo .)" = "${echo:+$echo$'\n'}." ] || fail "echo or files"
  done <<'EOF'
1|||31 Usage: $binary --pidfile=FILE|
1||--pidfile=|31 Usage: $binary --pidfile=FILE|
1|cd ..|--basedir=$base --pidfile=$base/pid|31 Usage: $binary --pidfile=FILE|non-option ARGV elements: --pidfile=$base/pid |
255|rm Morvane.exe||27 Morvane.exe does not exist or not an executable file|
253||--pidfile=$base/no/pid|27 Cannot open PIDFILE: $base/no/pid|
254|export MORVANED_TEST_TERM=fail|--pidfile=$base/pid|27 Cannot install SIGTERM handler: 22|
143|export MORVANED_TEST_TERM=early|--pidfile=$base/pid||
EOF
}

discovery() {  # instance files of any case, in listing order; how each server is run
               # (from a base directory too long for the path buffer: by relative path)
  long=1 fresh alpha.INI Beta.ini gamma.Ini notes.txt x.INI.bak INI a.INI a.ini .ini 'with space.ini' archive.ini/
  rm "$base/MorvaneHL7.exe"  # servers only
  local lines=("29 Starting daemon [D]...") started=() name
  while IFS= read -r name; do
    lines+=("29 Starting Server $name:P${#lines[@]}...") started+=("./Morvane.exe [$name] none blocked")
  done < <(listed)
  step 'run --pidfile=$base/pid' "${lines[@]}"
  poll '[ "$(sort "$base/started" | sed "s/SigBlk:\t0*$/none blocked/")" = "$(printf "%s\n" "${started[@]}" | sort)" ]'; step flush
}

restarts() {  # each end decoded and its child alone replaced, at once or after the brake
  fresh a.INI
  step 'run -p "$base/pid" extra' "29 Starting daemon [D]..." "29 Starting Server a:P1..." "29 Starting HL-7 Listener a:P2..."
  [ "$(cat "$base/pid" "$base.out")" = "$daemon"$'\n'"non-option ARGV elements: extra " ] || fail "PID file or echo"
  # The first restart, or one 10 s after the last, at once; one 9 s after, or after a
  # clock set back, only after 30 s; a restart is stamped after its sleep.
  step 'end P1 3' "28 Server a:P1 exited with status [3]" "29 Starting Server a:P3..." "31 unlock failed"
  step 'clock 20; kill -KILL $(pid P2)' "28 HL-7 Listener a:P2 killed by signal [9]" "29 Starting HL-7 Listener a:P4..." "31 unlock failed"
  step 'clock 29; kill -SEGV $(pid P3)' "28 Server a:P3 killed by signal [11]" "30 sleep 30"
  step 'clock 59' "29 Starting Server a:P5..." "31 unlock failed"
  step 'clock 68; kill -STOP $(pid P5)' "28 Server a:P5 stopped by signal [19]" "30 sleep 30"
  step 'kill -CONT $(pid P5); clock 98' "29 Starting Server a:P6..." "31 unlock failed"
  step 'end P5 4' "28 Unknown child process [P5] exited with status [4]"
  # A program that cannot be run: its child carries on as a silent copy of the daemon.
  rm "$base/MorvaneHL7.exe" && mkdir "$base/MorvaneHL7.exe"
  step 'clock 108; end P4 0' "28 HL-7 Listener a:P4 exited with status [0]" "29 Starting HL-7 Listener a:P7..." "31 unlock failed"
  step 'clock 50; kill $(pid P6)' "28 Server a:P6 killed by signal [15]" "30 sleep 30"
  # SIGTERM cuts the sleep short; the replacement decided on still starts.
  step 'kill $daemon' "29 Stopping HL-7 Listener a:P7..." "29 Starting Server a:P8..." "31 unlock failed" "29 Stopping daemon [D]..."
  wait "$daemon" && [ ! -e "$base/pid" ] || fail "exit status or PID file left"; dead P7; alive P8; step flush
  ! grep -v "MORVANE\[$daemon\]\|unlock failed" "$log" | grep MORVANE || fail "a copy logged"
  ! grep -v "^$base/Morvane\(HL7\)\?\.exe \[a\] SigBlk:.0*$" "$base/started" || fail "a child not run by its full path"
}

pass() {  # SIGTERM just after launch k of the start-up pass, or while the daemon waits (k=7):
          # the children listed by then are stopped, servers first, and later ones live on
  for k in $(shuf -i 2-7) $(shuf -rn "${MORVANED_TEST_RUNS:-0}" -i 2-7); do
    fresh a.INI b.INI c.INI && set -- $(listed) && local lines=("29 Starting daemon [D]...") stops=() n=0 name
    for name; do lines+=("29 Starting Server $name:P$((++n))..." "29 Starting HL-7 Listener $name:P$((++n))..."); done
    for ((n = 1; n < k; n += 2)); do stops+=("29 Stopping Server ${@:(n + 1) / 2:1}:P$n..."); done  # servers first
    for ((n = 2; n < k; n += 2)); do stops+=("29 Stopping HL-7 Listener ${@:n / 2:1}:P$n..."); done
    step 'MORVANED_TEST_TERM=$k run --pidfile=$base/pid; ((k < 7)) || { poll "grep -q do_wait /proc/$daemon/wchan"; kill $daemon; }' \
      "${lines[@]:0:k+1}" "${stops[@]}" "${lines[@]:k+1}" "28 @(Server|HL-7 Listener) ?:P? killed by signal [9]" "31 unlock failed" "29 Stopping daemon [D]..."
    wait "$daemon" || fail "exit status $?"; dead $(seq -f P%g $((k - 1))); alive $(seq -f P%g "$k" 6); step flush
  done
}

soak() {  # many deaths ($MORVANED_TEST_DEATHS): the daemon's memory and descriptors stay flat
  fresh 0.INI && rm "$base/MorvaneHL7.exe" && printf '#!/bin/sh\n' >"$base/Morvane.exe"
  MORVANED_TEST_SOAK=1 run --pidfile="$base/pid" && local n=${MORVANED_TEST_DEATHS:-1000} use=()
  for deaths in 100 "$n"; do  # the daemon's resident KiB and descriptors (but the preload's files)
    poll '(($(grep -c exited "$log") > deaths))' $((deaths / 10 + 10))
    use+=($(awk '/VmRSS/ { print $2 }' "/proc/$daemon/status") $(ls -l "/proc/$daemon/fd" | grep -vEc 'clock|pids'))
  done
  ((use[2] <= use[0] + 64 && use[3] == use[1])) || fail "RSS (KiB) and descriptors from ${use[*]:0:2} to ${use[*]:2}"
}

"$case"
