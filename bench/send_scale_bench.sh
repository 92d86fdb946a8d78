#!/usr/bin/env bash
# `quillo run` then `quillo send` of N messages (default 100,000) to Postfix's
# smtp-sink, against Postfix's own smtp-source -d -s C (C connections, each
# reused) on the same sink in the same run, for C = 1, 4 and 8. Every outcome
# our sender reports is durable: it is committed (SQLite in WAL mode,
# synchronous FULL) before the next group is claimed. Prints, per C and
# round, both rates, their ratio (goal: at least 0.7) and the send's peak
# memory; then the median per C.
#
#   bench/send_scale_bench.sh BUILD_DIR            (./run bench runs it on build/release)
#   QUILLO_SCALE_MESSAGES=1000000 QUILLO_SCALE_CONNECTIONS=8 QUILLO_SCALE_ROUNDS=1 \
#     bench/send_scale_bench.sh build/release      # the peak memory at a million
#   QUILLO_SCALE_PG=postgresql://... bench/send_scale_bench.sh build/release
#                                                   # also: 2 processes on PostgreSQL
#                                                   # (QUILLO_SCALE_ROUNDS=0: PostgreSQL only)
#
# Postfix is unpacked from Debian's package into a temporary folder (apt-get
# download postfix; dpkg-deb -x); nothing is installed or started besides
# smtp-sink on 127.0.0.1.
set -euo pipefail
BUILD=$(cd "${1:?build directory}" && pwd)
N=${QUILLO_SCALE_MESSAGES:-100000}
CONNECTIONS=${QUILLO_SCALE_CONNECTIONS:-"1 4 8"}
ROUNDS=${QUILLO_SCALE_ROUNDS:-3}
WORK=$(mktemp -d /tmp/quillo-scale.XXXXXX)
SINK=
cleanup() {
  [ -n "$SINK" ] && kill "$SINK" 2>/dev/null && wait "$SINK" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT

# shellcheck source=bench/support/postfix_sink.sh
source "$(dirname "${BASH_SOURCE[0]}")/support/postfix_sink.sh"
start_postfix_sink

q() { "$BUILD/cli/quillo" "$@"; }
now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }

printf '[HEADER]\r\nReplace: FIRST\r\nReplace: FULLNAME\r\n[/HEADER]\r\nDear <!--FIRST-->,\r\n\r\nthis note was written for <!--FULLNAME-->.\r\n' \
  >"$WORK/note.txt"
awk -v n="$N" 'BEGIN {
  print "email,first,last"
  for (i = 0; i < n; i++) printf "c%d@example.test,First%d,Last%d\n", i, i, i
}' >"$WORK/clients.csv"
awk -v n="$N" 'BEGIN { print "email,date"; for (i = 0; i < n; i++) printf "c%d@example.test,2026-03-01\n", i }' \
  >"$WORK/enrol.csv"

# Seeds database $1, runs the campaign into the queue and prints the run's seconds.
seed_and_run() {
  local db=$1 t0 t1
  q --db "$db" init >/dev/null
  q --db "$db" client import "$WORK/clients.csv" >/dev/null
  q --db "$db" campaign add --name Bench --type 1 >/dev/null
  q --db "$db" campaign item --campaign Bench --file "$WORK/note.txt" --interval 0 --description "Bench note" >/dev/null
  q --db "$db" enrol import --campaign Bench "$WORK/enrol.csv" >/dev/null
  t0=$(now)
  q --db "$db" run --campaign Bench --date 2026-03-01 --queue "$WORK/queue.txt" -q >/dev/null
  t1=$(now)
  secs "$t0" "$t1"
}

run_seconds=$(seed_and_run "sqlite:$WORK/base.db")
sqlite3 "$WORK/base.db" "PRAGMA wal_checkpoint(TRUNCATE);" >/dev/null
# The size smtp-source sends: our message for the first client, as composed.
SIZE=$(q --db "sqlite:$WORK/base.db" preview --template "$WORK/note.txt" --client c0@example.test |
  wc -c)
echo "$N messages of about $SIZE bytes; run: $run_seconds s ($(awk -v n="$N" -v s="$run_seconds" 'BEGIN { printf "%.0f", n / s }') messages/s)"

# Prints "<seconds> <peak KB>" of one send on a fresh copy of the run's database.
ours() {
  rm -f "$WORK/send.db" "$WORK/send.db-wal" "$WORK/send.db-shm"
  cp "$WORK/base.db" "$WORK/send.db"
  /usr/bin/time -f "%e %M" -o "$WORK/time.txt" "$BUILD/cli/quillo" --db "sqlite:$WORK/send.db" send \
    --queue "$WORK/queue.txt" --smtp "smtp://127.0.0.1:$PORT" --from news@quillo.example \
    --connections "$1" -q >"$WORK/send.out"
  grep -q "^sent $N," "$WORK/send.out" || { cat "$WORK/send.out" >&2; exit 1; }
  cat "$WORK/time.txt"
}
source_seconds() {
  local t0 t1
  t0=$(now)
  "$WORK/postfix/usr/sbin/smtp-source" -d -s "$1" -m "$N" -l "$SIZE" "127.0.0.1:$PORT" >/dev/null
  t1=$(now)
  secs "$t0" "$t1"
}

printf '\n%-11s %5s %14s %12s %7s %12s\n' connections round "source msg/s" "ours msg/s" ratio "peak MB"
: >"$WORK/ratios"
for c in $CONNECTIONS; do
  for round in $(seq 1 "$ROUNDS"); do
    src=$(source_seconds "$c")
    read -r mine peak < <(ours "$c")
    awk -v c="$c" -v r="$round" -v n="$N" -v s="$src" -v o="$mine" -v p="$peak" 'BEGIN {
      printf "%-11d %5d %14.0f %12.0f %7.2f %12.1f\n", c, r, n / s, n / o, s / o, p / 1024 }' |
      tee -a "$WORK/ratios"
  done
done
echo
awk '{ r[$1] = r[$1] " " $5; m[$1] = m[$1] " " $6 }
  function median(list,   a, k, i, j, t) {
    k = split(list, a, " ")
    for (i = 1; i <= k; i++) for (j = i + 1; j <= k; j++) if (a[j] < a[i]) { t = a[i]; a[i] = a[j]; a[j] = t }
    return a[int((k + 1) / 2)]
  }
  END { for (c in r) printf "C=%s: median ratio %.2f, median peak %.1f MB\n", c, median(r[c]), median(m[c]) }' \
  "$WORK/ratios" | sort -t= -k2 -n

if [ -n "${QUILLO_SCALE_PG:-}" ]; then
  echo
  echo "PostgreSQL, 2 sending processes on one queue:"
  pg_seconds=$(seed_and_run "$QUILLO_SCALE_PG")
  echo "run: $pg_seconds s"
  for c in $CONNECTIONS; do
    t0=$(now)
    senders=()
    for _ in 1 2; do
      "$BUILD/cli/quillo" --db "$QUILLO_SCALE_PG" send --queue "$WORK/queue.txt" \
        --smtp "smtp://127.0.0.1:$PORT" --from news@quillo.example --connections "$c" -q \
        >>"$WORK/pg.out" 2>&1 &
      senders+=($!)
    done
    wait "${senders[@]}"
    t1=$(now)
    src=$(source_seconds "$((2 * c))")
    awk -v c="$c" -v n="$N" -v s="$src" -v o="$(secs "$t0" "$t1")" 'BEGIN {
      printf "2 x %d connections: %.0f msg/s; smtp-source -s %d: %.0f msg/s; ratio %.2f\n", c, n / o, 2 * c, n / s, s / o }'
    # The next C sends the same queue again: reset what was sent.
    psql "$QUILLO_SCALE_PG" -qc "DELETE FROM quillo_deliveries; DELETE FROM dmsentitems;" >/dev/null
  done
fi
