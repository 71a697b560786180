#!/usr/bin/env bash
# Has systemd look at the example of a unit, with a program and a command that this machine has.
# Usage: unit.sh <velmor-example.service> <velmor> <directory to work in>
set -euo pipefail

if ! command -v systemd-analyze >/dev/null; then
    echo "SKIPPED: this machine has no systemd-analyze"
    exit 77
fi
work=$3
rm -rf "$work"
mkdir -p "$work"
sed -e "s#/usr/bin/velmor #$2 #" -e "s#/usr/bin/billing-worker#/bin/sleep 1000#" "$1" >"$work/billing.service"
if ! grep -q "^ExecStart=$2 run .*-- /bin/sleep 1000\$" "$work/billing.service"; then
    grep ExecStart "$1" >&2
    exit 1
fi
# What it says about units of the machine is not about this one.
said=$(systemd-analyze verify --man=no --recursive-errors=no "$work/billing.service" 2>&1) && failed= || failed=1
echo "$said"
if [[ $failed || $said == *billing.service* ]]; then
    exit 1
fi

# The options of its command, too, are such as there are. No server listens there.
read -ra command < <(sed -n 's/^ExecStart=//p' "$work/billing.service")
status=0
VELMOR_SERVERS=127.0.0.1:9 "${command[@]:0:2}" --connect-timeout 100ms "${command[@]:2}" || status=$?
if ((status != 69)); then
    echo "its command ends with $status where no server answers" >&2
    exit 1
fi
