#!/usr/bin/env bash
# Builds everything and tells a short story: the plug-in loaded once by the
# service kxserv in a sandboxed demo root, with the reference tools installed
# in it, and every request sent with the client kxctl. Nothing is written to
# the machine's /opt/korvex: kxserv mounts the demo root there in a private
# mount namespace.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
echo "== building (release preset) =="
cmake --preset release >/dev/null
cmake --build --preset release --target kxhost_program aec kxaecctl kxaide kxserv kxctl kxaecd

build=build/release
kxhost="$PWD/$build/host/kxhost"
plugin="$PWD/$build/services/src/plugins/libaec.so"
kxserv="$PWD/$build/service/kxserv"
kxctl="$PWD/$build/service/kxctl"
root=$(mktemp -d /tmp/kx-demo.XXXXXX)
serv_pid=""
stop_service() {
  if [ -n "$serv_pid" ]; then
    kill -TERM "$serv_pid" 2>/dev/null || true
    wait "$serv_pid" 2>/dev/null || true
  fi
  rm -rf "$root"
}
trap stop_service EXIT

bold=$(tput bold 2>/dev/null || true)
plain=$(tput sgr0 2>/dev/null || true)
step=0
say() {
  step=$((step + 1))
  printf '\n%s%d. %s%s\n' "$bold" "$step" "$1" "$plain"
}
show_request() {
  printf '   request:  %s\n' "$1"
}
kx() {
  "$kxctl" --root "$root" "$@" || true
}
exec_request() {
  show_request "$1"
  printf '%s' "$1" | kx send - | sed 's/^/   /'
}

# --- seeding the demo root -------------------------------------------------
mkdir -p "$root/bin" "$root/var/log" "$root/var/export"
cp "$build/tools/kxaecctl" "$build/tools/kxaide" "$root/bin/"

now=$(date +%s)
sqlite3 "$root/var/log/audit_logs.db" <<SQL
CREATE TABLE logs (id INTEGER PRIMARY KEY, event_id INTEGER, date_time INTEGER,
  app TEXT, object_name TEXT, username TEXT, groupname TEXT, success INTEGER);
INSERT INTO logs (event_id, date_time, app, object_name, username, groupname, success) VALUES
  (1050, $now - 300, '/usr/bin/make', '"/usr/bin/make";', 'root', 'root', 1),
  (1052, $now - 299, '/usr/bin/make', '"/usr/lib/x86_64-linux-gnu/libc.so.6";', 'root', 'root', 1),
  (1051, $now - 200, '/tmp/dropper', '"/tmp/dropper";', 'daemon', 'daemon', 0),
  (1051, $now - 150, '/usr/bin/od', '"/usr/bin/od";', 'root', 'root', 0),
  (1053, $now - 199, '/usr/bin/make', '"/tmp/libevil.so";', 'root', 'root', 0),
  (1055, $now - 100, '/usr/bin/make', '"/etc/shadow";', 'root', 'root', 0);
SQL

cat > "$root/import.json" <<'JSON'
{
  "policies": [
    {"group": "aec", "name": "rules", "source": "local", "value": [
      {"name": "shell-tools", "all_allowed": "false", "extended": "false",
       "system": "false", "enable": "true",
       "user_list": ["root"], "group_list": "", "resource_list": ["/bin/ls", "/bin/cat"]}
    ]},
    {"group": "aec", "name": "whitelist", "source": "local", "value": [
      {"name": "daemon", "type": "user"}, {"name": "adm", "type": "group"}
    ]},
    {"group": "aec", "name": "exceptions", "source": "local", "value": ["/usr/lib/x86_64-linux-gnu/libc.so.6"]}
  ]
}
JSON

cat > "$root/control-on.xml" <<'XML'
<policies>
  <policy group="aec" name="state" source="local"><type>1</type></policy>
</policies>
XML
cat > "$root/hard-mode.xml" <<'XML'
<policies>
  <policy group="aec" name="mode" source="local"><type>1</type></policy>
</policies>
XML

echo
echo "${bold}Demo root${plain} $root, mounted at /opt/korvex inside kxserv's private namespace."
"$kxserv" --foreground --root "$root" --plugin "$plugin" 2>"$root/var/log/kxserv-demo.log" &
serv_pid=$!
for _ in $(seq 100); do
  [ -S "$root/var/run/kxserv.sock" ] && break
  sleep 0.1
done
echo "kxserv (pid $serv_pid) serves $root/var/run/kxserv.sock; kxctl sends the requests."
kx info | sed 's/^/   /'

say "Central management imports a rule, a whitelist and an exception"
kx import-policies "$root/import.json" 2>&1 | sed 's/^/   /'

say "A console reads rules (with resources), whitelist and exceptions"
exec_request '<request command="get" rule_resource="1" whitelist="1" resource-exception="1"><rule/></request>'

say "An administrator adds a rule for the build tools"
exec_request '<request command="add"><rule name="build-tools"><u>root</u><g>adm</g><r>/usr/bin/env</r></rule></request>'

say "... and reads it back"
exec_request '<request command="get" rule_resource="1"><rule>build-tools</rule></request>'

say "Edit: add a resource, drop the group, rename the rule"
exec_request '<request command="edit"><rule name="build-tools" rename="toolchain"><add><r>/usr/bin/make</r></add><remove><g>adm</g></remove></rule></request>'
echo "   rule file /opt/korvex/etc/aec/rules/toolchain.conf:"
sed 's/^/     /' "$root/etc/aec/rules/toolchain.conf"

say "Export the rule to a file"
exec_request '<request command="export" name="toolchain" file="/opt/korvex/var/export/toolchain-export.json"/>'
sed 's/^/     /' "$root/var/export/toolchain-export.json"

say "Switch control on (soft mode)"
kx set-policies "$root/control-on.xml" | sed 's/^/   /'
printf '   kernel parameter korvex/secure/environment = %s (1: on, soft mode)\n' \
  "$(cat "$root/var/run/sysctl/korvex/secure/environment")"

say "Before hard mode: what would it have denied? (kxaecctl simulate, through the service)"
exec_request '<kxserv command="simulate"/>'

say "What the journal teaches: proposed rules to review (kxaecctl propose, through the service)"
exec_request '<kxserv command="propose"/>'

say "Switch to hard mode: it waits for an administrator's confirmation"
kx set-policies "$root/hard-mode.xml" | sed 's/^/   /'
exec_request '<request command="status_confirmation"/>'
[ -f "$root/var/tmp/pam_messages/aec_confirm_warning" ] &&
  printf '   login warning: %s\n' "$(cat "$root/var/tmp/pam_messages/aec_confirm_warning")"

say "The administrator confirms hard mode"
exec_request '<request command="confirm_hard_mode"/>'
exec_request '<request command="status_confirmation"/>'
printf '   kernel parameter korvex/secure/environment = %s (3: on, hard mode)\n' \
  "$(cat "$root/var/run/sysctl/korvex/secure/environment")"

# The engine enforces what was configured: its own namespace, its own tmpfs.
if [ "$(id -u)" = 0 ] && command -v unshare >/dev/null; then
  unshare -m --propagation private bash scripts/demo-enforce.sh \
    "$root" "$kxhost" "$plugin" "$PWD/$build/engine/kxaecd" "$step"
  step=$((step + 5))
else
  echo
  echo "   (skipped: kxaecd enforcing the rules needs root, for fanotify"
  echo "   permission events and a private mount namespace; run the demo as root)"
fi

say "Which users, groups and programs appear in the journal (all outcomes)?"
exec_request '<request command="loglist"><users>1</users><groups>1</groups><execfiles>1</execfiles><operationresult>all</operationresult></request>'

say "What did /usr/bin/make really run, load and open?"
exec_request '<request command="log"><execfile>/usr/bin/make</execfile><operationresult>all</operationresult><openfiles>1</openfiles></request>'

echo
echo "${bold}Done.${plain} The demo root is removed on exit; the machine's /opt/korvex was never touched."
