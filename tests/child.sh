#!/bin/sh
# The fake Morvane.exe and MorvaneHL7.exe: notes how it was run in "started"
# (its path, [its argument], its blocked signals), then exits with the status
# that the test writes to exit.PID.
echo "$0 [$1] $(grep SigBlk /proc/$$/status 2>/dev/null)" >>started
mkfifo "exit.$$" 2>/dev/null; read -r code <"exit.$$"; exit "$code"
