#!/usr/bin/env bash
# End to end: `quillo run` then `quillo send` of N messages (default 20,000) to
# a local SMTP sink, on a fresh SQLite database. Prints messages per second end
# to end and the share of time in each stage.
#
#   bench/end_to_end.sh BUILD_DIR            (./run bench runs it on build/release)
#   QUILLO_E2E_MESSAGES=2000 bench/end_to_end.sh build/release   # a quick look
set -euo pipefail
BUILD=$(cd "${1:?build directory}" && pwd)
N=${QUILLO_E2E_MESSAGES:-20000}
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
WORK=$(mktemp -d /tmp/quillo-e2e.XXXXXX)
SINK=
cleanup() {
  [ -n "$SINK" ] && kill "$SINK" 2>/dev/null && wait "$SINK" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT
q() { "$BUILD/cli/quillo" --db "sqlite:$WORK/e2e.db" "$@"; }
now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }

printf '[HEADER]\r\nReplace: FIRST\r\nReplace: FULLNAME\r\n[/HEADER]\r\nDear <!--FIRST-->,\r\n\r\nthis note was written for <!--FULLNAME-->.\r\n' \
  >"$WORK/note.txt"
awk -v n="$N" 'BEGIN {
  print "email,first,last,company,address,city,state,zip,country"
  for (i = 0; i < n; i++) printf "c%d@example.test,First%d,Last%d,Co,%d Main St,Springfield,IL,62701,USA\n", i, i, i, i
}' >"$WORK/clients.csv"
awk -v n="$N" 'BEGIN { print "email,date"; for (i = 0; i < n; i++) printf "c%d@example.test,2026-03-01\n", i }' \
  >"$WORK/enrol.csv"

t0=$(now)
q init >/dev/null
q client import "$WORK/clients.csv" >/dev/null
q campaign add --name Bench --type 1 >/dev/null
q campaign item --campaign Bench --file "$WORK/note.txt" --interval 0 --description "Bench note" >/dev/null
q enrol import --campaign Bench "$WORK/enrol.csv" >/dev/null
t1=$(now)
q run --campaign Bench --date 2026-03-01 --queue "$WORK/queue.txt" -q
t2=$(now)

/usr/bin/python3 "$HERE/smtp_sink.py" --port-file "$WORK/sink.port" --seconds 1200 &
SINK=$!
for _ in $(seq 100); do [ -s "$WORK/sink.port" ] && break; sleep 0.1; done
t3=$(now)
/usr/bin/time -f "send process: %e s wall, %U s user, %S s sys" "$BUILD/cli/quillo" --db "sqlite:$WORK/e2e.db" send --queue "$WORK/queue.txt" --smtp "smtp://127.0.0.1:$(cat "$WORK/sink.port")" -q --timings
t4=$(now)
# Anchor in the same run: Python's smtplib doing the same dialogue with a
# message of the same size, one connection per message, to the same sink. It
# does no database work and no composing, so it is the sink's ceiling.
t5=$(now)
/usr/bin/python3 - "$(cat "$WORK/sink.port")" "$N" <<'PY'
import smtplib, sys
port, n = int(sys.argv[1]), int(sys.argv[2])
body = "Subject: Bench note\r\n\r\n" + "x" * 200 + "\r\n"
for i in range(n):
    s = smtplib.SMTP("127.0.0.1", port)
    s.sendmail("news@quillo.example", ["c%d@example.test" % i], body)
    s.quit()
PY
t6=$(now)
kill "$SINK" && wait "$SINK" || true
SINK=

seed=$(secs "$t0" "$t1") run=$(secs "$t1" "$t2") send=$(secs "$t3" "$t4") anchor=$(secs "$t5" "$t6")
awk -v n="$N" -v seed="$seed" -v run="$run" -v send="$send" -v anchor="$anchor" 'BEGIN {
  total = run + send
  printf "\n%d messages: seed %.1f s (not counted), run %.2f s, send %.2f s\n", n, seed, run, send
  printf "end to end (run + send): %.0f messages/s\n", n / total
  printf "stage shares: run %.1f %%, send %.1f %%\n", 100 * run / total, 100 * send / total
  printf "run alone: %.0f messages/s; send alone: %.0f messages/s\n", n / run, n / send
  printf "anchor (smtplib to the same sink, no database): %.0f messages/s; send / anchor = %.2f\n", n / anchor, anchor / send
}'
