#!/usr/bin/python3
"""A real SMTP server on loopback that files every accepted message in a Maildir.

Used by the demo and the end-to-end tests:

    maildir_smtpd.py --maildir DIR [--port 0] [--port-file FILE] [--refuse ADDRESS ...]
                     [--auth USER:PASSWORD] [--tls CERT:KEY] [--starttls CERT:KEY]
                     [--seconds N]

It listens on 127.0.0.1 only, writes the port it got to --port-file once it is
ready, refuses RCPT TO for the --refuse addresses with 550, and stops by
itself after --seconds (default 120) or on SIGTERM. With --tls it speaks
implicit TLS (the handshake comes first, as on port 465) with the given PEM
certificate chain and key. With --starttls it offers STARTTLS on a plain
connection instead, with that certificate and key; with --require-starttls
as well, it refuses mail on a connection that did not start TLS.
"""
import argparse
import mailbox
import signal
import sys
import threading
import time

from aiosmtpd.controller import Controller
from aiosmtpd.handlers import Mailbox
from aiosmtpd.smtp import AuthResult, LoginPassword


class Handler(Mailbox):
    def __init__(self, maildir, refused):
        super().__init__(maildir)
        self.refused = {a.lower() for a in refused}

    async def handle_RCPT(self, server, session, envelope, address, rcpt_options):
        if address.lower() in self.refused:
            return "550 5.1.1 mailbox unavailable"
        envelope.rcpt_tos.append(address)
        return "250 OK"


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--maildir", required=True)
    p.add_argument("--port", type=int, default=0)
    p.add_argument("--port-file")
    p.add_argument("--refuse", action="append", default=[])
    p.add_argument("--auth")
    p.add_argument("--tls")
    p.add_argument("--starttls")
    p.add_argument("--require-starttls", action="store_true")
    p.add_argument("--seconds", type=float, default=120.0)
    args = p.parse_args()

    mailbox.Maildir(args.maildir, create=True)
    handler = Handler(args.maildir, args.refuse)
    kwargs = {}
    if args.auth:
        user, password = args.auth.split(":", 1)

        def authenticator(server, session, envelope, mechanism, auth_data):
            ok = (isinstance(auth_data, LoginPassword) and auth_data.login.decode() == user
                  and auth_data.password.decode() == password)
            return AuthResult(success=ok)

        kwargs = dict(authenticator=authenticator, auth_require_tls=False)
    port = args.port
    if port == 0:
        import socket
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            port = s.getsockname()[1]
    if args.tls:
        import ssl
        cert, key = args.tls.split(":", 1)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(cert, key)
        kwargs["ssl_context"] = context
    if args.starttls:
        import ssl
        cert, key = args.starttls.split(":", 1)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(cert, key)
        kwargs["tls_context"] = context
        kwargs["require_starttls"] = args.require_starttls
    controller = Controller(handler, hostname="127.0.0.1", port=port, **kwargs)
    controller.start()
    if args.port_file:
        with open(args.port_file + ".tmp", "w") as f:
            f.write(str(port))
        import os
        os.replace(args.port_file + ".tmp", args.port_file)
    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    stop.wait(args.seconds)
    controller.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
