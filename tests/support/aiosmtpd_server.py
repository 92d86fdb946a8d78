"""An aiosmtpd server on loopback for the SMTP integration tests.

Writes every message it receives to the mail folder as N.eml (the DATA bytes
as received, dot-unstuffed) with N.env beside it (MAIL FROM, then one RCPT TO
per line), and writes its port to the ready file once it accepts connections.
With --cert and --key it speaks implicit TLS; with --user and --password it
offers AUTH LOGIN and refuses other credentials. Stops on SIGTERM.
"""
import argparse
import logging
import os
import signal
import socket
import ssl
import threading
import warnings

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import AuthResult, LoginPassword


class Sink:
    def __init__(self, folder):
        self.folder = folder
        self.count = 0
        self.lock = threading.Lock()

    async def handle_DATA(self, server, session, envelope):
        with self.lock:
            self.count += 1
            n = self.count
        base = os.path.join(self.folder, str(n))
        with open(base + ".tmp", "wb") as f:
            f.write(envelope.original_content)
        with open(base + ".env", "w") as f:
            f.write(envelope.mail_from + "\n")
            for rcpt in envelope.rcpt_tos:
                f.write(rcpt + "\n")
        os.rename(base + ".tmp", base + ".eml")
        return "250 2.0.0 Ok: queued"


def main():
    warnings.simplefilter("ignore")
    logging.getLogger("mail.log").setLevel(logging.CRITICAL)
    parser = argparse.ArgumentParser()
    parser.add_argument("--folder", required=True)
    parser.add_argument("--ready", required=True)
    parser.add_argument("--cert")
    parser.add_argument("--key")
    parser.add_argument("--user")
    parser.add_argument("--password")
    args = parser.parse_args()

    probe = socket.socket()
    probe.bind(("127.0.0.1", 0))
    port = probe.getsockname()[1]
    probe.close()

    kwargs = {}
    if args.cert:
        context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
        context.load_cert_chain(args.cert, args.key)
        kwargs["ssl_context"] = context
    if args.user:
        def authenticate(server, session, envelope, mechanism, auth_data):
            ok = (mechanism == "LOGIN" and isinstance(auth_data, LoginPassword)
                  and auth_data.login == args.user.encode()
                  and auth_data.password == args.password.encode())
            return AuthResult(success=ok, handled=False)
        kwargs["authenticator"] = authenticate
        kwargs["auth_require_tls"] = False
        kwargs["auth_required"] = True

    controller = Controller(Sink(args.folder), hostname="127.0.0.1", port=port,
                            decode_data=False, **kwargs)
    controller.start()
    with open(args.ready + ".tmp", "w") as f:
        f.write(str(port))
    os.rename(args.ready + ".tmp", args.ready)

    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    stop.wait(120)  # Never outlives a test run.
    controller.stop()


if __name__ == "__main__":
    main()
