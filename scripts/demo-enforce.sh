#!/usr/bin/env bash
# The enforcement part of the demo, run by scripts/demo.sh inside a private
# mount namespace of its own (unshare -m): a tmpfs mounted here is the only
# file system kxaecd watches, and it exists nowhere else on the machine.
#   demo-enforce.sh ROOT KXHOST PLUGIN KXAECD FIRST_STEP
# ROOT is the demo root (kxhost and kxaecd mount it at /opt/korvex in their
# own namespaces); hard mode must already be confirmed in it.
set -euo pipefail
root=$1 kxhost=$2 plugin=$3 kxaecd=$4 step=$5

bold=$(tput bold 2>/dev/null || true)
plain=$(tput sgr0 2>/dev/null || true)
say() {
  step=$((step + 1))
  printf '\n%s%d. %s%s\n' "$bold" "$step" "$1" "$plain"
}
kx() {
  "$kxhost" --root "$root" --plugin "$plugin" "$@"
}
exec_request() {
  printf '   request:  %s\n' "$1"
  printf '%s' "$1" | kx exec - | sed 's/^/   /'
}

w=$(mktemp -d /tmp/kx-demo-watched.XXXXXX)
mount -t tmpfs -o size=16m,mode=0755 kxdemo "$w"
engine=""
cleanup() {
  if [ -n "$engine" ]; then kill "$engine" 2>/dev/null || true; wait "$engine" 2>/dev/null || true; fi
  umount -l "$w" 2>/dev/null || true
  rmdir "$w" 2>/dev/null || true
  rm -f "$w.log"
}
trap cleanup EXIT
cp /bin/true "$w/allowed-tool"
cp /bin/true "$w/unknown-tool"
chmod 0755 "$w/allowed-tool" "$w/unknown-tool"

say "A rule allows $w/allowed-tool (on a tmpfs that only this demo sees)"
exec_request "<request command=\"add\"><rule name=\"demo-tools\"><u>root</u><r>$w/allowed-tool</r></rule></request>"
printf '   loaded set: %s\n' "$(grep -c '^rule-resource' "$root/var/lib/aec/loaded-rules") resources"

say "Start the engine kxaecd: it watches only that tmpfs, hard mode is in force"
"$kxaecd" --foreground --root "$root" --watch "$w" 2>"$w.log" &
engine=$!
for _ in $(seq 100); do
  grep -q 'running: yes' "$root/var/run/kxaecd.status" 2>/dev/null && break
  sleep 0.1
done
if ! grep -q 'running: yes' "$root/var/run/kxaecd.status" 2>/dev/null; then
  echo "   kxaecd did not start:"; sed 's/^/   /' "$w.log"; exit 1
fi
grep -E '^(running|state|mode|audit mask|rules|resources):' "$root/var/run/kxaecd.status" |
  sed 's/^/   /'

say "A program a rule allows runs"
printf '   $ %s\n' "$w/allowed-tool"
if "$w/allowed-tool"; then echo "   exit status 0: it ran"; else echo "   exit status $?"; fi

say "A program no rule allows does not start"
printf '   $ %s\n' "$w/unknown-tool"
"$w/unknown-tool" 2>&1 | sed 's/^/   /' || true

say "The journal says so: which programs were denied?"
sleep 0.5  # the journal writer commits in batches, every few milliseconds
exec_request "<request command=\"log\"><execfile>$w/unknown-tool</execfile></request>"
exec_request '<request command="loglist"><users>1</users><execfiles>1</execfiles></request>'
