#!/usr/bin/env bash
# Runs every fuzz target in BUILD_DIR/fuzz-bin for SECONDS each, from its seed corpus in
# fuzz/corpus/<target>/ (copied, so the repository's corpus stays small). Any crash fails the run.
set -euo pipefail
build=$(cd "${1:?usage: fuzz/run-all.sh BUILD_DIR SECONDS}" && pwd)
seconds=${2:-60}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
found=0
for bin in "$build"/fuzz-bin/*; do
  [ -x "$bin" ] || continue
  name=$(basename "$bin")
  found=1
  mkdir -p "$work/$name"
  [ -d "$here/corpus/$name" ] && cp -r "$here/corpus/$name/." "$work/$name/"
  echo "-- $name: ${seconds}s"
  (cd "$work" && "$bin" -max_total_time="$seconds" -print_final_stats=1 -rss_limit_mb=2048 "$work/$name" 2>"$work/$name.log") || {
    tail -n 60 "$work/$name.log"; echo "fuzz target $name failed"; exit 1; }
  grep -E '^stat::number_of_executed_units' "$work/$name.log" || true
done
[ "$found" = 1 ] || echo "no fuzz targets built"
