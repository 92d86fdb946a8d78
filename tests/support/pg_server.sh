#!/bin/sh
# A throw-away PostgreSQL server for the test suites and benchmarks.
#
#   pg_server.sh start          starts a server and prints two lines:
#                                 export QUILLO_TEST_PG='postgresql://...'
#                                 export QUILLO_PG_DIR='/tmp/quillo-pg.XXXX'
#                               (eval "$(pg_server.sh start)" to take them)
#   pg_server.sh stop DIR       stops the server of DIR and removes DIR
#   pg_server.sh run CMD ARG..  starts a server, runs CMD with QUILLO_TEST_PG
#                               set, stops the server, exits with CMD's status
#
# The cluster lives in a temporary directory, listens only on 127.0.0.1 on a
# free port, trusts local connections and runs without fsync. When started as
# root it runs as the unprivileged user "postgres" (the server refuses root).
set -eu

PGBIN=${PGBIN:-/usr/lib/postgresql/15/bin}

as_owner() {
  if [ "$(id -u)" = 0 ]; then
    runuser -u postgres -- "$@"
  else
    "$@"
  fi
}

free_port() {
  /usr/bin/python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1]); s.close()'
}

start() {
  dir=$(mktemp -d /tmp/quillo-pg.XXXXXX)
  chmod 755 "$dir"
  if [ "$(id -u)" = 0 ]; then chown postgres "$dir"; fi
  port=$(free_port)
  as_owner "$PGBIN/initdb" -D "$dir/data" -U postgres --auth=trust -E UTF8 --no-sync \
    >"$dir/initdb.log" 2>&1 || { cat "$dir/initdb.log" >&2; exit 1; }
  as_owner "$PGBIN/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w -t 60 \
    -o "-p $port -k $dir -c listen_addresses=127.0.0.1 -c fsync=off -c synchronous_commit=off -c full_page_writes=off -c max_connections=100" \
    start >/dev/null 2>&1 || { cat "$dir/server.log" >&2; exit 1; }
  echo "export QUILLO_TEST_PG='postgresql://postgres@127.0.0.1:$port/postgres'"
  echo "export QUILLO_PG_DIR='$dir'"
}

stop() {
  dir=$1
  case "$dir" in
    /tmp/quillo-pg.*) ;;
    *) echo "pg_server.sh: not a test server directory: $dir" >&2; exit 2 ;;
  esac
  if [ -d "$dir/data" ]; then
    as_owner "$PGBIN/pg_ctl" -D "$dir/data" -m fast -w -t 60 stop >/dev/null 2>&1 || true
  fi
  rm -rf "$dir"
}

case "${1:-}" in
  start) start ;;
  stop) stop "${2:?directory}" ;;
  run)
    shift
    eval "$(start)"
    trap 'stop "$QUILLO_PG_DIR"' EXIT INT TERM
    status=0
    QUILLO_TEST_PG=$QUILLO_TEST_PG "$@" || status=$?
    exit $status
    ;;
  *) echo "usage: pg_server.sh start | stop DIR | run CMD [ARG...]" >&2; exit 2 ;;
esac
