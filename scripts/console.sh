#!/usr/bin/env bash
# Builds the agent and opens its web console on a sandboxed demo root: the
# service kxserv with the plug-in, the console kxconsole talking to it, a
# small audit journal to look at, and a one-time login link to open in a
# browser on this machine. Stops everything on Ctrl-C. Nothing is written to
# the machine's /opt/korvex: kxserv mounts the demo root there in a private
# mount namespace, and kxconsole only connects and reads.
#
#   bash scripts/console.sh [--port N]      (default 8470)
set -euo pipefail
cd "$(dirname "$0")/.."

port=8470
while [ $# -gt 0 ]; do
  case "$1" in
    --port) port="${2:?--port needs a number}"; shift 2 ;;
    -h|--help) sed -n '2,9p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "console.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
done

bash scripts/install-deps.sh
echo "== building (release preset) =="
cmake --preset release >/dev/null
cmake --build --preset release --target aec kxaecctl kxaide kxserv kxctl kxconsole

build="$PWD/build/release"
root=$(mktemp -d /tmp/kx-console.XXXXXX)
pids=()
stop() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$root"
}
trap stop EXIT
trap 'exit 0' INT TERM

mkdir -p "$root/bin" "$root/etc" "$root/var/log"
cp "$build/tools/kxaecctl" "$build/tools/kxaide" "$root/bin/"
printf 'port = %s\n' "$port" > "$root/etc/kxconsole.conf"

# A day of journal, as the engine writes it, so the journal page and the
# learning page have something to show.
now=$(date +%s)
{
  echo "CREATE TABLE logs (id INTEGER PRIMARY KEY, event_id INTEGER NOT NULL,"
  echo "  date_time INTEGER, app TEXT, object_name TEXT, username TEXT,"
  echo "  groupname TEXT, success INTEGER, pid INTEGER, uid INTEGER, gid INTEGER,"
  echo "  hostname TEXT, description TEXT);"
  echo "BEGIN;"
  for i in $(seq 0 95); do
    t=$((now - 86400 + i * 900))
    echo "INSERT INTO logs (event_id, date_time, app, object_name, username, groupname, success) VALUES"
    echo "  (1050, $t, '/usr/bin/make', '\"/usr/bin/make\";', 'root', 'root', 1),"
    echo "  (1051, $((t + 60)), '/usr/bin/od', '\"/usr/bin/od\";', 'root', 'root', 0),"
    echo "  (1053, $((t + 120)), '/usr/bin/od', '\"/usr/lib/x86_64-linux-gnu/libc.so.6\";', 'root', 'root', 0);"
  done
  echo "COMMIT;"
} | sqlite3 "$root/var/log/audit_logs.db"

"$build/service/kxserv" --root "$root" --plugin "$build/services/src/plugins/libaec.so" \
  2> "$root/kxserv.log" &
pids+=($!)
for _ in $(seq 100); do
  [ -S "$root/var/run/kxserv.sock" ] && break
  sleep 0.1
done
if ! "$build/service/kxctl" --root "$root" state >/dev/null 2>&1; then
  echo "console.sh: kxserv did not start; its log:" >&2
  cat "$root/kxserv.log" >&2
  exit 1
fi

"$build/console/kxconsole" --root "$root" --assets "$build/console/assets" \
  > "$root/kxconsole.out" 2> "$root/kxconsole.log" &
pids+=($!)
for _ in $(seq 100); do
  grep -q "listening on" "$root/kxconsole.out" 2>/dev/null && break
  if ! kill -0 "${pids[1]}" 2>/dev/null; then
    echo "console.sh: kxconsole did not start (port $port taken? try --port N); its log:" >&2
    cat "$root/kxconsole.log" >&2
    exit 1
  fi
  sleep 0.1
done

link=$("$build/service/kxctl" --root "$root" console-login 2>/dev/null)
cat <<EOF

The console serves the demo root $root.
Open this link in a browser on this machine (it works once; for another,
run: $build/service/kxctl --root $root console-login):

    $link

Ctrl-C stops the console and the service and removes the demo root.
EOF
wait "${pids[1]}"
