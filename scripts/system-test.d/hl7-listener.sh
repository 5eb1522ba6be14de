#!/bin/sh
# A Morvane HL-7 listener for the system test, as a shell script: notes the
# user it runs as in NAME.listener, in its working directory, and waits.
id -un >"$1.listener"
exec sleep infinity
