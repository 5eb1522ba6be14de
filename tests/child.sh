#!/bin/sh
# The fake Morvane.exe and MorvaneHL7.exe: notes how it was run in "started", as
# "PATH [ARGUMENT]" and whether it came with signals blocked, then exits with the status
# that the test writes to exit.PID. (The shell blocks signals while it waits for a child,
# but not while it reads a command's output.)
case $(grep SigBlk /proc/$$/status) in *[1-9a-f]*) blocked=" with signals blocked" ;; esac
echo "$0 [$1]${blocked:-}" >>started
mkfifo "exit.$$" 2>/dev/null
read -r code <"exit.$$"
exit "$code"
