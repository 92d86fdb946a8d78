#!/usr/bin/env bash
# Our SMTP session against Postfix's smtp-source, on the same smtp-sink, in
# one run: N messages of SIZE bytes (default 20,000 of 2 KB), one message per
# connection and one connection reused. Prints messages per second and CPU
# per message for both, and the ratios (goal: rate at least 0.8 of
# smtp-source's, CPU per message at most 1.5 times its figure).
#
#   bench/smtp_session_bench.sh BUILD_DIR [ROUNDS]   (./run bench runs it on build/release)
#
# Postfix is unpacked from Debian's package into a temporary folder
# (apt-get download postfix; dpkg-deb -x); nothing is installed or started
# besides smtp-sink on 127.0.0.1.
set -euo pipefail
BUILD=$(cd "${1:?build directory}" && pwd)
ROUNDS=${2:-3}
N=${QUILLO_SMTP_BENCH_MESSAGES:-20000}
SIZE=2048
WORK=$(mktemp -d /tmp/quillo-smtp-bench.XXXXXX)
SINK=
cleanup() {
  [ -n "$SINK" ] && kill "$SINK" 2>/dev/null && wait "$SINK" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT

# shellcheck source=bench/support/postfix_sink.sh
source "$(dirname "${BASH_SOURCE[0]}")/support/postfix_sink.sh"
start_postfix_sink

# Prints "<messages/s> <cpu ms per message>" of one smtp-source run.
source_run() {
  local t
  t=$( { TIMEFORMAT='%R %U %S'; time "$WORK/postfix/usr/sbin/smtp-source" "$@" -m "$N" -l "$SIZE" \
    "127.0.0.1:$PORT" >/dev/null; } 2>&1 | tail -1)
  awk -v n="$N" -v t="$t" 'BEGIN { split(t, a, " "); printf "%.0f %.4f\n", n / a[1], 1000 * (a[2] + a[3]) / n }'
}
# The same for our session.
ours_run() {
  "$BUILD/bench/session_send" 127.0.0.1 "$PORT" "$N" "$SIZE" "$1" |
    awk '{ printf "%.0f %.4f\n", $1 / $2, 1000 * ($3 + $4) / $1 }'
}

printf '%-14s %6s %12s %12s %14s %14s %8s %8s\n' mode round "source msg/s" "ours msg/s" \
  "source cpu ms" "ours cpu ms" "rate" "cpu"
for mode in per-message reuse; do
  flags="-s 1"
  [ "$mode" = reuse ] && flags="-d -s 1"
  for round in $(seq 1 "$ROUNDS"); do
    # shellcheck disable=SC2086
    read -r src_rate src_cpu < <(source_run $flags)
    read -r our_rate our_cpu < <(ours_run "$mode")
    awk -v m="$mode" -v r="$round" -v sr="$src_rate" -v sc="$src_cpu" -v orr="$our_rate" -v oc="$our_cpu" \
      'BEGIN { printf "%-14s %6d %12d %12d %14.4f %14.4f %8.2f %8.2f\n", m, r, sr, orr, sc, oc, orr / sr, oc / sc }'
  done
done
