#!/usr/bin/env bash
# Times vyn_evmshow over a log of COUNT events (default 1,000,000), formatted by a template to
# /dev/null, against cat of the same log to /dev/null plus COUNT times the in-process cost of
# formatting one event (Google Benchmark, same run). Then compares the peak memory of a run over
# 1,000 events with one over COUNT: reading streams, so the two stay close. By hand, not in CI:
#   bench/evmshow_bench.sh BUILD_DIR [COUNT] [RUNS]
set -euo pipefail
build=$(cd "${1:?usage: bench/evmshow_bench.sh BUILD_DIR [COUNT] [RUNS]}" && pwd)
count=${2:-1000000}
runs=${3:-3}
show=$build/bin/vyn_evmshow
bench=$build/bench-bin/evm_format_bench
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LANG=C TZ=UTC
templ='@timestamp @host_name @name $_name'

"$bench" --write-log "$work/big.log" "$count"
"$bench" --write-log "$work/small.log" 1000

best() {
  local b=""
  for _ in $(seq 1 "$runs"); do
    local s e t
    s=$(date +%s.%N)
    "$@" >/dev/null
    e=$(date +%s.%N)
    t=$(echo "$e - $s" | bc -l)
    if [ -z "$b" ] || [ "$(echo "$t < $b" | bc -l)" = 1 ]; then b=$t; fi
  done
  echo "$b"
}
# The least user + system seconds of RUNS runs: on a shared machine the wall clock also counts
# the time other processes had the CPU, the CPU time does not.
bestcpu() {
  local b=""
  for _ in $(seq 1 "$runs"); do
    local t
    t=$(/usr/bin/time -f '%U %S' "$@" 2>&1 >/dev/null | tail -n 1 | awk '{print $1 + $2}')
    if [ -z "$b" ] || [ "$(echo "$t < $b" | bc -l)" = 1 ]; then b=$t; fi
  done
  echo "$b"
}
maxrss() { /usr/bin/time -v "$@" 2>&1 >/dev/null | awk -F: '/Maximum resident set size/ {gsub(/ /, "", $2); print $2}'; }

t_cat=$(best cat "$work/big.log")
t_show=$(best "$show" -f "$work/big.log" -t "$templ")
t_show_msg=$(best "$show" -f "$work/big.log")
c_cat=$(bestcpu cat "$work/big.log")
c_show=$(bestcpu "$show" -f "$work/big.log" -t "$templ")
c_show_msg=$(bestcpu "$show" -f "$work/big.log")
# Nanoseconds per event for the template and for the event's own message.
ns() { "$bench" --benchmark_filter="^$1\$" --benchmark_format=csv 2>/dev/null | awk -F, -v n="\"$1\"" '$1 == n {print $4}'; }
ns_templ=$(ns BM_EventFormatFromTemplate)
ns_msg=$(ns BM_EventFormat)
t_fmt=$(echo "$count * $ns_templ / 1000000000" | bc -l)
t_fmt_msg=$(echo "$count * $ns_msg / 1000000000" | bc -l)
limit=$(echo "3 * $t_cat + $t_fmt" | bc -l)
limit_msg=$(echo "3 * $t_cat + $t_fmt_msg" | bc -l)
rss_small=$(maxrss "$show" -f "$work/small.log" -t "$templ")
rss_big=$(maxrss "$show" -f "$work/big.log" -t "$templ")

printf '%-44s %10s bytes\n' "log of $count events" "$(stat -c %s "$work/big.log")"
printf '%-44s %10.4fs\n' "cat of the log" "$t_cat" "vyn_evmshow -t TEMPLATE" "$t_show" \
  "vyn_evmshow (own messages)" "$t_show_msg" "formatting in-process, template ($ns_templ ns)" "$t_fmt" \
  "formatting in-process, message ($ns_msg ns)" "$t_fmt_msg"
echo "wall clock:"
echo "  evmshow -t / (3 cat + format):  $(echo "scale=2; $t_show / $limit" | bc -l)  (at most 1)"
echo "  evmshow / (3 cat + format):     $(echo "scale=2; $t_show_msg / $limit_msg" | bc -l)  (at most 1)"
echo "CPU time (user + system; the in-process figures are CPU time too):"
printf '  %-40s %8.4fs\n' "cat" "$c_cat" "vyn_evmshow -t TEMPLATE" "$c_show" "vyn_evmshow (own messages)" "$c_show_msg"
echo "  evmshow -t / (3 cat + format):  $(echo "scale=2; $c_show / (3 * $c_cat + $t_fmt)" | bc -l)  (at most 1)"
echo "  evmshow / (3 cat + format):     $(echo "scale=2; $c_show_msg / (3 * $c_cat + $t_fmt_msg)" | bc -l)  (at most 1)"
echo "evmshow -t / cat:               $(echo "scale=2; $t_show / $t_cat" | bc -l)"
echo "max RSS, 1000 events: ${rss_small} KiB; $count events: ${rss_big} KiB; difference $((rss_big - rss_small)) KiB (at most 2048)"
