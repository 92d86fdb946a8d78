# Sourced by the benchmarks that measure against Postfix: unpacks Postfix from
# Debian's package into $WORK/postfix (apt-get download postfix; dpkg-deb -x;
# nothing is installed) and starts its smtp-sink on 127.0.0.1. Sets POSTFIX
# (the unpacked tree), PORT and SINK (the sink's pid, for the caller's
# cleanup).
start_postfix_sink() {
  (cd "$WORK" && apt-get download postfix >/dev/null 2>&1) || { echo "cannot download postfix" >&2; exit 1; }
  dpkg-deb -x "$WORK"/postfix_*.deb "$WORK/postfix"
  POSTFIX="$WORK/postfix"
  export LD_LIBRARY_PATH="$POSTFIX/usr/lib/postfix"
  PORT=$(/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
  "$POSTFIX/usr/sbin/smtp-sink" -u nobody "127.0.0.1:$PORT" 1000 &
  SINK=$!
  sleep 0.5
}
