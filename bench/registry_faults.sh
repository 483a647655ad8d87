#!/usr/bin/env bash
# Times "vyn_profile -print x" by an ordinary user (the user's default directory comes from the
# registry) against registry stores that are healthy, missing, damaged, and held locked by
# another process, by hand (not in CI). Each figure is set against the healthy store's run.
# A locked store must cost one wait of about 5 s in all, however many registry calls the
# command makes. Runs as root (the command then runs as nobody) or as an ordinary user.
# Usage: bench/registry_faults.sh BUILD_DIR [RUNS]
set -euo pipefail
build=${1:?usage: bench/registry_faults.sh BUILD_DIR [RUNS]}
runs=${2:-3}
build=$(cd "$build" && pwd)
work=$(mktemp -d)
holder=""
cleanup() {
  if [ -n "$holder" ]; then kill "$holder" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
chmod 755 "$work"
cp -rL "$build/home" "$work/home"
chmod -R a+rwX "$work/home"
mkdir -m 777 "$work/elsewhere"
VYN_REGISTRY=$work/reg.db "$build/bin/vyn_vrg" set SYSTEM.vyn.user_default_dir "$work/elsewhere" >/dev/null
chmod 644 "$work/reg.db"
head -c 8192 /dev/urandom >"$work/bad.db"
chmod 644 "$work/bad.db"

as_user=()
if [ "$(id -u)" = 0 ]; then as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups); fi

# The best of RUNS wall-clock times of the command against a store, in seconds.
best() {
  local b=""
  for _ in $(seq 1 "$runs"); do
    local s e t
    s=$(date +%s.%N)
    "${as_user[@]}" env -i PATH=/usr/bin:/bin LANG=C ZEL_VYN_HOME="$work/home" VYN_REGISTRY="$1" \
      "$build/bin/vyn_profile" -print x >/dev/null 2>&1 || true
    e=$(date +%s.%N)
    t=$(echo "$e - $s" | bc -l)
    if [ -z "$b" ] || [ "$(echo "$t < $b" | bc -l)" = 1 ]; then b=$t; fi
  done
  echo "$b"
}
ratio() { echo "scale=1; $1 / $2" | bc -l; }

t_healthy=$(best "$work/reg.db")
t_missing=$(best "$work/missing.db")
t_bad=$(best "$work/bad.db")
python3 -c '
import sqlite3, sys, time
c = sqlite3.connect(sys.argv[1], isolation_level=None)
c.execute("BEGIN EXCLUSIVE")
print("locked", flush=True)
time.sleep(3600)' "$work/reg.db" >"$work/holder.out" &
holder=$!
until grep -q locked "$work/holder.out" 2>/dev/null; do sleep 0.1; done
t_locked=$(best "$work/reg.db")

printf '%-24s %8.4fs\n' "healthy store" "$t_healthy" "missing store" "$t_missing" "damaged store" "$t_bad" \
  "locked store" "$t_locked"
echo "missing / healthy:  $(ratio "$t_missing" "$t_healthy")"
echo "damaged / healthy:  $(ratio "$t_bad" "$t_healthy")"
echo "locked / healthy:   $(ratio "$t_locked" "$t_healthy")"
echo "locked / 5 s:       $(echo "scale=3; $t_locked / 5" | bc -l)"
