#!/usr/bin/env bash
# Times whole runs of vyn_profile against baselines measured in the same run, by hand (not in CI):
#   - "-print" of every profile in a directory of 100,000 profiles, against cat of those files,
#     and its peak memory against that of a print of 1,000;
#   - "-create -f" of one profile, against create_baseline, a small C program that does only what
#     such a create must do on disk (backup and profile written beside, synced, renamed; their
#     directory synced);
#   - one "-validate", against /bin/true;
#   - one "-update" among 10,000 profiles, against one in a directory of its own: a writing run
#     first sweeps its directory for what killed runs left, and this is what the sweep costs.
# The files live in a directory below BUILD_DIR, on the disk the build is on, not in a tmpfs.
# Usage: bench/profile_bench.sh BUILD_DIR [RUNS]
set -euo pipefail
build=${1:?usage: bench/profile_bench.sh BUILD_DIR [RUNS]}
runs=${2:-5}
build=$(cd "$build" && pwd)
src=$(cd "$(dirname "$0")" && pwd)
bin=$build/bin/vyn_profile
work=$(mktemp -d "$build/bench-work.XXXXXX")
trap 'rm -rf "$work"' EXIT
cp -r "$build/home" "$work/home"
export ZEL_VYN_HOME=$work/home VYN_REGISTRY=$work/no-registry.db LANG=C LC_ALL=C
"${CC:-cc}" -O2 -o "$work/create_baseline" "$src/create_baseline.c"

# One real profile, then N copies of it under their own names in directory DIR.
"$bin" -create seed -t application -dir "$work" -h "n1 n2" -p favored -o ci=30 >/dev/null
copies() {
  mkdir -p "$2"
  awk -v n="$1" -v dir="$2" '{ line[NR] = $0 }
    END { for (i = 1; i <= n; i++) { f = dir "/r" i ".cap"
            for (k = 1; k <= NR; k++) print (line[k] == "NAME=seed" ? "NAME=r" i : line[k]) > f
            close(f) } }' "$work/seed.cap"
}
copies 100000 "$work/p100k"
copies 1000 "$work/p1k"
copies 10000 "$work/p10k"
copies 1 "$work/solo"
mkdir -p "$work/c"
cp "$work/seed.cap" "$work/c/bench.cap"
sed 's/^NAME=seed$/NAME=bench/' "$work/seed.cap" >"$work/bench.text"

# The wall-clock time of one run of a command, in microseconds, without forking a clock.
# Every time below is the median of its runs.
usecs() {
  local s=$EPOCHREALTIME
  "$@" >/dev/null 2>&1 || true
  local e=$EPOCHREALTIME
  echo $(( (${e/./} - ${s/./}) ))
}
# The median of N runs of each of two commands (functions), alternated so that both meet the
# same load; printed as "A B". A median, not the best run: a sync's time varies by a factor of ten
# with what else the disk does, and the best run of each side is then a matter of luck.
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
pair() {
  local n=$1 a=() b=() i
  for ((i = 0; i < n; i++)); do
    a+=("$(usecs "$2")")
    b+=("$(usecs "$3")")
  done
  echo "$(printf '%s\n' "${a[@]}" | median) $(printf '%s\n' "${b[@]}" | median)"
}
# Peak resident memory of a command, in KiB.
peak() { /usr/bin/time -f %M "$@" 2>&1 >/dev/null | tail -1; }
ratio() { echo "scale=2; $1 / $2" | bc -l; }

print_all() { "$bin" -print -dir "$work/p100k"; }
cat_all() { (cd "$work/p100k" && printf '%s\0' *.cap | xargs -0 cat); }
create_force() { "$bin" -create bench -t application -dir "$work/c" -f; }
create_floor() { "$work/create_baseline" "$work/c" bench "$work/bench.text"; }
validate_one() { "$bin" -validate r1 -dir "$work/p10k"; }
update_among() { "$bin" -update r1 -dir "$work/p10k" -d changed; }
update_alone() { "$bin" -update r1 -dir "$work/solo" -d changed; }

read -r t_print t_cat <<<"$(pair "$runs" print_all cat_all)"
rss_100k=$(peak "$bin" -print -dir "$work/p100k")
rss_1k=$(peak "$bin" -print -dir "$work/p1k")
# A create is short and its syncs vary with the disk's load: more runs.
read -r t_create t_base <<<"$(pair $((runs * 12)) create_force create_floor)"
read -r t_validate t_true <<<"$(pair "$runs" validate_one /bin/true)"
read -r t_update t_update_solo <<<"$(pair "$runs" update_among update_alone)"

printf '%-36s %10s us\n' "-print of 100000 profiles" "$t_print" "cat of the same files" "$t_cat" \
  "-create -f of one profile" "$t_create" "create_baseline" "$t_base" \
  "-validate of one profile" "$t_validate" "/bin/true" "$t_true" \
  "-update among 10000 profiles" "$t_update" "-update of a profile alone" "$t_update_solo"
printf '%-36s %10s KiB\n' "peak RSS, -print of 100000" "$rss_100k" "peak RSS, -print of 1000" "$rss_1k"
echo "print / cat:                 $(ratio "$t_print" "$t_cat")"
echo "print RSS 100000 - 1000:     $((rss_100k - rss_1k)) KiB"
echo "create -f / create_baseline: $(ratio "$t_create" "$t_base")"
echo "validate / true:             $(ratio "$t_validate" "$t_true")"
echo "update among 10000 / alone:  $(ratio "$t_update" "$t_update_solo")"
