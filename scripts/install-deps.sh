#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, skipping what is present.
# As non-root it prints the apt-get command and fails instead. `--bench` adds the peers of the
# side-by-side benchmark (`make bench`); package names as arguments install those instead (make
# fuzz asks for clang that way). The build and the tests need neither.
set -euo pipefail

# dpkg-dev and file: dependencies of the package computed by CPack (dpkg-shlibdeps); groff-base
# and man-db: the manual page checks; python3-prometheus-client: the metrics test parses scrapes
# with the exposition parser of the metrics format's own client; libfuse3-dev and fuse3: the
# test filesystem whose reservations hang. systemd is not pulled in for systemd-analyze: the unit
# check is skipped where it is absent.
PKGS=(cmake ninja-build g++ make pkg-config libconfig-dev libhiredis-dev
      libgtest-dev libc-ares-dev liburing-dev python3 python3-pytest redis-server nginx curl socat
      dpkg-dev file groff-base man-db python3-prometheus-client libfuse3-dev fuse3)
if [ "${1:-}" = "--bench" ]; then
  PKGS+=(aria2 python3-matplotlib)
elif [ $# -gt 0 ]; then
  PKGS=("$@")
fi

missing=()
for p in "${PKGS[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

cmd="apt-get install -y --no-install-recommends ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages: ${missing[*]}" >&2
  echo "Run as root: apt-get update && $cmd" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
# A fresh machine has no package lists yet; read them once, then retry the install after a refresh
# only if the lists turn out to be stale.
if ! ls /var/lib/apt/lists/*_Packages >/dev/null 2>&1; then
  apt-get update -qq
  $cmd
else
  $cmd || { apt-get update -qq && $cmd; }
fi
