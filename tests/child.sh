#!/bin/bash
# The fake Morvane.exe and MorvaneHL7.exe: notes how it was run in "started", as
# "PATH [ARGUMENT]", then exits with the status that the test writes to exit.PID.
echo "$0 [$1]" >>started
mkfifo exit.$$ 2>/dev/null
read -r code <exit.$$
exit $code
