#!/usr/bin/env bash
# Times whole runs of vyn_profile against baselines on the same files, by hand (not in CI):
#   - "-print" of every profile in a directory of 10,000 profiles, against cat of those files;
#   - one "-validate" and one "-create", against /bin/true;
#   - one "-update" in that directory, against one in a directory of its own: a writing run first
#     sweeps its directory for what killed runs left, and this is what the sweep costs.
# Usage: bench/profile_bench.sh BUILD_DIR [RUNS]
set -euo pipefail
build=${1:?usage: bench/profile_bench.sh BUILD_DIR [RUNS]}
runs=${2:-5}
build=$(cd "$build" && pwd)
bin=$build/bin/vyn_profile
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$build/home" "$work/home"
export ZEL_VYN_HOME=$work/home VYN_REGISTRY=$work/no-registry.db LANG=C
pd=$work/profiles
mkdir -p "$pd"

# One real profile, then 10,000 copies under their own names.
"$bin" -create seed -t application -dir "$pd" -h "n1 n2" -p favored -o ci=30 >/dev/null
for i in $(seq 1 10000); do
  sed "s/^NAME=seed$/NAME=r$i/" "$pd/seed.cap" >"$pd/r$i.cap"
done
cp "$pd/seed.cap" "$work/seed.cap"
rm "$pd/seed.cap"
solo=$work/solo
mkdir -p "$solo"
sed "s/^NAME=seed$/NAME=r1/" "$work/seed.cap" >"$solo/r1.cap"

# The best of RUNS wall-clock times of a command, in seconds.
best() {
  local b=""
  for _ in $(seq 1 "$runs"); do
    local s e t
    s=$(date +%s.%N)
    "$@" >/dev/null 2>&1 || true
    e=$(date +%s.%N)
    t=$(echo "$e - $s" | bc -l)
    if [ -z "$b" ] || [ "$(echo "$t < $b" | bc -l)" = 1 ]; then b=$t; fi
  done
  echo "$b"
}
ratio() { echo "scale=2; $1 / $2" | bc -l; }

t_print=$(best "$bin" -print -dir "$pd")
t_cat=$(best sh -c "cat $pd/*.cap")
t_validate=$(best "$bin" -validate r1 -dir "$pd")
t_create=$(best "$bin" -create bench -t application -dir "$pd" -f)
t_update=$(best "$bin" -update r1 -dir "$pd" -d changed)
t_update_solo=$(best "$bin" -update r1 -dir "$solo" -d changed)
t_true=$(best /bin/true)

printf '%-32s %8.4fs\n' "-print of 10000 profiles" "$t_print" "cat of the same files" "$t_cat" \
  "-validate of one profile" "$t_validate" "-create -f of one profile" "$t_create" \
  "-update among 10000 profiles" "$t_update" "-update of a profile alone" "$t_update_solo" "/bin/true" "$t_true"
echo "print / cat:      $(ratio "$t_print" "$t_cat")"
echo "validate / true:  $(ratio "$t_validate" "$t_true")"
echo "create / true:    $(ratio "$t_create" "$t_true")"
echo "update among 10000 / alone: $(ratio "$t_update" "$t_update_solo")"
