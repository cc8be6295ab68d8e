#!/usr/bin/env bash
# A PostgreSQL server in a folder of its own, on a unix socket alone, for as long as its standard input is open.
# usage: postgres.sh   prints the socket's folder once it serves; each line that is read restarts it, and is answered
# with a line. Exit status 77: the package is missing.
set -euo pipefail
bin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -n 1)
as=()
if [ "$(id -u)" = 0 ]; then
  id postgres >/dev/null 2>&1 || exit 77
  as=(runuser -u postgres --)  # the server refuses to run as root
fi
[ -x "$bin/initdb" ] || exit 77
cd /
folder=$("${as[@]}" mktemp -d /tmp/tarvo-postgres-XXXXXX)
control() { "${as[@]}" "$bin/pg_ctl" -D "$folder/data" -s -w -m "$1" -l "$folder/log" "${@:2}" </dev/null >/dev/null; }
trap 'control immediate stop || true; "${as[@]}" rm -rf "$folder"' EXIT
trap '' INT TERM PIPE
"${as[@]}" "$bin/initdb" -D "$folder/data" -U postgres -A trust -E UTF8 --locale C --no-sync >/dev/null
control fast start -o "-c fsync=${TARVO_TEST_FSYNC:-off} -c listen_addresses='' -c unix_socket_directories='$folder'"
echo "$folder"
while read -r _; do control fast restart && echo restarted; done
