#!/usr/bin/env bash
# packaging/install-packages.sh KIND...: installs the packages of packages.txt of these kinds that are missing.
# Works as root, or through sudo; does nothing, without root, when nothing is missing.
set -euo pipefail

list="$(dirname "${BASH_SOURCE[0]}")/packages.txt"
missing=()
for kind in "$@"; do
    while read -r package; do
        if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
            missing+=("$package")
        fi
    done < <(awk -v kind="$kind" '$1 == kind { print $2 }' "$list")
done
[ ${#missing[@]} -gt 0 ] || exit 0

echo "== installing packages: ${missing[*]}"
run=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "These packages are missing, and installing them needs root or sudo: ${missing[*]}" >&2
        exit 1
    fi
    run=(sudo)
fi
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${run[@]}" apt-get update && "${run[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
