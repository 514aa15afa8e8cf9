#!/bin/sh
# Runs a command on an X display of its own (Xvfb picks a free number), and
# exits with the command's status; the server ends with it.
set -u
dir=$(mktemp -d) || exit 1
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$dir/display" 2>"$dir/log" &
server=$!
for _ in $(seq 100); do
  [ -s "$dir/display" ] && break
  sleep 0.1
done
if [ ! -s "$dir/display" ]; then
  cat "$dir/log" >&2
  kill "$server" 2>/dev/null
  rm -rf "$dir"
  echo "Xvfb did not start" >&2
  exit 1
fi
DISPLAY=":$(cat "$dir/display")" "$@"
status=$?
kill "$server" 2>/dev/null
wait "$server" 2>/dev/null
rm -rf "$dir"
exit "$status"
