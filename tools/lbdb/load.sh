#!/bin/sh
# Loads the load-balancer DB scripts into a running Redis and writes their SHA1 digests, one file
# per script, into OUTDIR for the agent's "sha1_dir" setting.
# Usage: load.sh HOST PORT OUTDIR   (a password, if any, is taken from REDISCLI_AUTH)
set -eu

if [ $# -ne 3 ]; then
  echo "usage: $0 HOST PORT OUTDIR" >&2
  exit 2
fi
host=$1
port=$2
outdir=$3
here=$(cd "$(dirname "$0")" && pwd)
# In the source tree the scripts lie beside the loader; installed as bin/vsk-lbdb-load, they are
# in share/vsk/lua of the same prefix. Both are found relative to the loader, so a staged or
# unpacked tree works too.
if [ -r "$here/add_url.lua" ]; then
  srcdir=$here
else
  srcdir=$here/../share/vsk/lua
fi

command -v redis-cli >/dev/null 2>&1 || { echo "$0: redis-cli not found" >&2; exit 1; }
mkdir -p "$outdir"

for name in add_url del_url next_url mbget_url; do
  script="$srcdir/$name.lua"
  [ -r "$script" ] || { echo "$0: cannot read $script" >&2; exit 1; }
  # redis-cli exits 0 even on an error reply, so the answer itself is checked.
  sha=$(redis-cli -h "$host" -p "$port" -x SCRIPT LOAD <"$script" 2>&1) || {
    echo "$0: $name: $sha" >&2
    exit 1
  }
  case $sha in
    *[!0-9a-f]*|'') echo "$0: $name: unexpected answer: $sha" >&2; exit 1 ;;
  esac
  if [ ${#sha} -ne 40 ]; then
    echo "$0: $name: unexpected answer: $sha" >&2
    exit 1
  fi
  # Written under a temporary name and renamed, so a reader never sees half a digest.
  printf '%s\n' "$sha" >"$outdir/$name.sha1.tmp"
  mv -f "$outdir/$name.sha1.tmp" "$outdir/$name.sha1"
  echo "$name: $sha"
done
