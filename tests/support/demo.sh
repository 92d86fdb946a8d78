#!/usr/bin/env bash
# The demo job: a fresh SQLite database, a few dozen clients, one campaign of
# each kind, a real SMTP server on loopback filing mail in a Maildir, three
# consecutive days of run-and-send, then four days of `quillo tick`, the daily
# job. Prints what went to whom, where it landed, and writes the HTML report.
#
#   tests/support/demo.sh BUILD_DIR [OUT_DIR]
set -euo pipefail
BUILD=${1:?build directory}
OUT=${2:-$(pwd)/demo-out}
QUILLO="$BUILD/cli/quillo"
SUPPORT=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
rm -rf "$OUT"
mkdir -p "$OUT/templates"
DB="sqlite:$OUT/demo.db"
q() { "$QUILLO" --db "$DB" "$@"; }

echo "-- database $OUT/demo.db"
q init

T="$OUT/templates"
printf 'GIF89a\x01\x00\x01\x00\x80\x00\x00\x00\x00\x00\xff\xff\xff!\xf9\x04\x01\x00\x00\x00\x00,\x00\x00\x00\x00\x01\x00\x01\x00\x00\x02\x02D\x01\x00;' >"$T/logo.gif"
printf '%%PDF-1.4\n%% quillo demo price list\n1 0 obj << >> endobj\ntrailer << >>\n%%%%EOF\n' >"$T/price-list.pdf"
crlf() { sed 's/$/\r/'; }
crlf >"$T/welcome.txt" <<TEMPLATE
[HEADER]
Replace: FIRST
Replace: FULLNAME
Replace: SHORTDATE
X-Campaign: welcome
[/HEADER]
Dear <!--FIRST-->,

welcome aboard! This note was written for <!--FULLNAME--> on <!--SHORTDATE-->.
TEMPLATE
crlf >"$T/day2.txt" <<TEMPLATE
[HEADER]
Replace: FIRST
Replace: CSZ
Attach: $T/price-list.pdf
[/HEADER]
Hello <!--FIRST-->, our price list for <!--CSZ-->is attached.
TEMPLATE
crlf >"$T/tips.html" <<TEMPLATE
[HEADER]
Replace: FIRST
Inline: $T/logo.gif, logo01
X-PRIORITY: 3
[/HEADER]
<html><body><img src="cid:logo01"><p>Tip for <!--FIRST-->: send less, say more.</p></body></html>
TEMPLATE
crlf >"$T/tips2.txt" <<TEMPLATE
[HEADER]
Replace: FIRST
[/HEADER]
Second tip for <!--FIRST-->: keep lists clean.
TEMPLATE
crlf >"$T/news.txt" <<TEMPLATE
[HEADER]
Replace: FULLNAMEADDRCRLF
[/HEADER]
<!--FULLNAMEADDRCRLF-->

This month's news, for every client on the list.
TEMPLATE

echo "-- clients"
{
  echo "email,first,last,company,address,city,state,zip,country"
  names=(Ada Alan Grace Edsger Barbara Donald Ken Dennis Bjarne Margaret Linus Guido Niklaus
    Frances John Radia Leslie Tony Butler Shafi Whitfield Martin Anita Sophie Yukihiro Brian
    Rob Lorinda Hedy Katherine)
  i=0
  for n in "${names[@]}"; do
    i=$((i + 1))
    echo "$(echo "$n" | tr 'A-Z' 'a-z')@example.test,$n,Client$i,Example Co,$i Main Street,Springfield,IL,6270$((i % 10)),USA"
  done
  echo "~tmp-placeholder@example.test,Temp,Placeholder,,,,,,"
} >"$OUT/clients.csv"
q client import "$OUT/clients.csv"

echo "-- campaigns"
q campaign add --name "Welcome series" --type 1 --description "Sequential offset: items on day 0 and 2" >/dev/null
q campaign item --campaign "Welcome series" --file "$T/welcome.txt" --interval 0 --description "Welcome!" >/dev/null
q campaign item --campaign "Welcome series" --file "$T/day2.txt" --interval 2 --description "Our price list" >/dev/null
q campaign add --name "Tips" --type 2 --description "Incremental: one new tip per run" >/dev/null
q campaign item --campaign "Tips" --file "$T/tips.html" --interval 1 --description "Tip one" >/dev/null
q campaign item --campaign "Tips" --file "$T/tips2.txt" --interval 2 --description "Tip two" >/dev/null
q campaign add --name "Newsletter" --type 0 --description "Standard list: everyone, every run" >/dev/null
q campaign item --campaign "Newsletter" --file "$T/news.txt" --interval 0 --description "Monthly news" >/dev/null
q campaign add --name "Digest" --type 406 --interval 2 --effective "$(date -d '+3 days' +%F)" \
  --description "Every 2 days from day 3, for the daily tick" >/dev/null
q campaign item --campaign "Digest" --file "$T/tips2.txt" --interval 0 --description "The digest" >/dev/null
q campaign list

START=$(date -d '-2 days' +%F)
DAY1=$(date +%F)
echo "-- enrolments from $START"
{
  echo "email,date"
  tail -n +2 "$OUT/clients.csv" | cut -d, -f1 | head -n 12 | while read -r e; do echo "$e,$START"; done
} >"$OUT/welcome.csv"
{
  echo "email,date"
  tail -n +2 "$OUT/clients.csv" | cut -d, -f1 | sed -n '10,20p' | while read -r e; do echo "$e,$START"; done
} >"$OUT/tips.csv"
{
  echo "email,date"
  tail -n +2 "$OUT/clients.csv" | cut -d, -f1 | sed -n '20,40p' | while read -r e; do echo "$e,$START"; done
} >"$OUT/news.csv"
q enrol import --campaign "Welcome series" "$OUT/welcome.csv"
q enrol import --campaign "Tips" "$OUT/tips.csv"
q enrol import --campaign "Newsletter" "$OUT/news.csv"
q enrol import --campaign "Digest" "$OUT/tips.csv"

echo "-- SMTP server (aiosmtpd) on loopback, Maildir $OUT/Maildir"
/usr/bin/python3 "$SUPPORT/maildir_smtpd.py" --maildir "$OUT/Maildir" --port-file "$OUT/smtp.port" \
  --seconds 120 &
SMTPD=$!
trap 'kill $SMTPD 2>/dev/null; wait $SMTPD 2>/dev/null || true' EXIT
for _ in $(seq 100); do [ -s "$OUT/smtp.port" ] && break; sleep 0.1; done
PORT=$(cat "$OUT/smtp.port")
q account add --email news@quillo.example --server 127.0.0.1 --port "$PORT" --friendly "Quillo Demo" --default >/dev/null

echo "-- a DKIM key for quillo.example, and the unsubscribe server"
q dkim keygen --key "$OUT/dkim.pem" --selector demo --domain quillo.example | tee "$OUT/dkim.txt"
q serve --listen 127.0.0.1:0 --seconds 120 >"$OUT/serve.out" &
SERVE_PID=$!
trap 'kill $SMTPD $SERVE_PID 2>/dev/null; wait $SMTPD $SERVE_PID 2>/dev/null || true' EXIT
for _ in $(seq 100); do grep -q listening "$OUT/serve.out" 2>/dev/null && break; sleep 0.1; done
SERVE=$(sed -n 's/^listening on //p' "$OUT/serve.out")
echo "   unsubscribe links answered at $SERVE"
SIGN=(--dkim-key "$OUT/dkim.pem" --dkim-selector demo --unsubscribe-url "$SERVE"
  --unsubscribe-mailto unsubscribe@quillo.example --verp bounce@quillo.example)
q account list

for offset in 0 1 2; do
  if [ "$offset" = 1 ]; then
    echo "-- a signed message, checked by dkimpy and OpenDKIM; its unsubscribe link, followed"
    /usr/bin/python3 - "$OUT/Maildir" "$OUT/dkim.txt" "$SUPPORT" <<'PY'
import mailbox, re, sys, urllib.request
import dkim
sys.path.insert(0, sys.argv[3])
from opendkim_verify import OpenDkim
record = re.search(r'IN TXT "(.*)"', open(sys.argv[2]).read()).group(1).encode()
box = mailbox.Maildir(sys.argv[1], create=False)
message = next(m for m in box if m["Subject"] == "Tip one")
raw = message.as_bytes().replace(b"\r\n", b"\n").replace(b"\n", b"\r\n")
print("   DKIM signature of the message to", message["To"], "verifies:",
      dkim.verify(raw, dnsfunc=lambda name, timeout=5: record), "(dkimpy)")
if OpenDkim.unavailable():
    print("   OpenDKIM cannot run here:", OpenDkim.unavailable())
else:
    with OpenDkim({"demo._domainkey.quillo.example": record}) as opendkim:
        print("   ... and", opendkim.verify(raw)[0], "(opendkim-testmsg);",
              "with one byte of the body changed:", opendkim.verify(raw[:-4] + b"X\r\n")[0])
link = re.search(r"<(http[^>]+)>", message["List-Unsubscribe"]).group(1)
req = urllib.request.Request(link, data=b"List-Unsubscribe=One-Click", method="POST")
with urllib.request.urlopen(req, timeout=10) as r:
    print("   one-click unsubscribe:", r.status, "(", link, ")")
PY
    q suppress list | sed 's/^/   /'
  fi
  D=$(date -d "$DAY1 +$offset days" +%F)
  for c in "Welcome series" "Tips" "Newsletter"; do
    echo "-- $D: $c"
    q send --campaign "$c" --date "$D" --queue "$OUT/queue-$D-${c// /_}.txt" --quiet "${SIGN[@]}"
  done
done

echo "-- returned mail: a bounce that names only a forward, and a complaint, imported"
/usr/bin/python3 - "$OUT/Maildir" "$OUT/Bounces" <<'PY'
import email.utils, mailbox, sys
box = mailbox.Maildir(sys.argv[1], create=False)
news = sorted((m for m in box if m["Subject"] == "Monthly news"), key=lambda m: m["To"])
bounced, complained = news[-1], news[-2]
out = mailbox.Maildir(sys.argv[2], create=True)
# The report came back to the message's own return path (its VERP address)
# and names only the address the mail was forwarded to.
out.add(mailbox.MaildirMessage(
    "From: MAILER-DAEMON@mx.example.net\nTo: %s\nDate: %s\nSubject: Undelivered Mail\n"
    "MIME-Version: 1.0\nContent-Type: multipart/report; report-type=delivery-status; boundary=B\n\n"
    "--B\nContent-Type: text/plain\n\nGone.\n--B\nContent-Type: message/delivery-status\n\n"
    "Reporting-MTA: dns; mx.example.net\n\nFinal-Recipient: rfc822; old-box@forward.example.net\n"
    "Action: failed\nStatus: 5.1.1\n\n--B--\n" % (bounced["X-MailFrom"].strip(), bounced["Date"])))
out.add(mailbox.MaildirMessage(
    "From: fbl@isp.example.net\nTo: abuse@quillo.example\nDate: %s\nSubject: Complaint\n"
    "MIME-Version: 1.0\nContent-Type: multipart/report; report-type=feedback-report; boundary=F\n\n"
    "--F\nContent-Type: message/feedback-report\n\nFeedback-Type: abuse\nVersion: 1\n"
    "Original-Rcpt-To: %s\n\n--F--\n" % (complained["Date"], email.utils.parseaddr(complained["To"])[1])))
print("   bounce for", bounced["To"], "| complaint from", complained["To"])
PY
q bounces import "$OUT/Bounces" | sed 's/^/   /'
q suppress list | sed 's/^/   /'

# From here on the daily job does it: each tick runs every campaign that is
# due that day (and catches up a missed day), once.
for offset in 3 4 5 6; do
  D=$(date -d "$DAY1 +$offset days" +%F)
  echo "-- $D: quillo tick"
  q tick --date "$D" "${SIGN[@]}" | sed -n 's/^.* tick /   /p'
done

echo "-- report of the welcome series"
q report --campaign "Welcome series" --date "$(date -d "$DAY1 +6 days" +%F)" --days 9 \
  --html "$OUT/report.html"

echo "-- schedule of the newsletter"
q schedule --campaign "Newsletter" --date "$DAY1"

echo "-- what landed in $OUT/Maildir"
/usr/bin/python3 - "$OUT/Maildir" <<'PY'
import mailbox, sys
box = mailbox.Maildir(sys.argv[1], create=False)
rows = sorted((m["To"], m["Subject"], len(m.get_payload()) if m.is_multipart() else 1) for m in box)
for to, subject, parts in rows:
    print(f"  {to:<32} {subject:<20} {parts} part(s)")
print(f"{len(rows)} messages delivered to {sys.argv[1]}")
PY
echo "-- the campaign report, with charts, is in $OUT/report.html"
