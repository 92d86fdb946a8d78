"""A second, independent DKIM verifier for the tests: OpenDKIM's
`opendkim-testmsg`, which looks the public key up in DNS.

    from opendkim_verify import OpenDkim
    with OpenDkim({"s2026._domainkey.quillo.example": b"v=DKIM1; k=rsa; p=..."}) as v:
        ok, why = v.verify(raw_message_bytes)

The key is served by a small DNS server on a loopback address of its own
(127.53.0.1, port 53, UDP), and opendkim-testmsg runs in a private mount
namespace (`unshare -m`) where /etc/resolv.conf names only that server: the
machine's own resolver configuration is never touched and nothing leaves
loopback. `OpenDkim.unavailable()` says why it cannot run here (no
opendkim-testmsg, or no right to make a mount namespace), else None.
"""
import os
import shutil
import socket
import struct
import subprocess
import tempfile
import threading

ADDRESS = "127.53.0.1"
TESTMSG = "/usr/sbin/opendkim-testmsg"


def _question(packet):
    """(id, qname labels as bytes, qtype, end of question) of a DNS query."""
    ident, _flags, qdcount = struct.unpack("!HHH", packet[:6])
    if qdcount != 1:
        raise ValueError("one question expected")
    pos = 12
    labels = []
    while packet[pos]:
        n = packet[pos]
        labels.append(packet[pos + 1:pos + 1 + n])
        pos += 1 + n
    pos += 1
    qtype, _qclass = struct.unpack("!HH", packet[pos:pos + 4])
    return ident, labels, qtype, pos + 4


def _answer(packet, records):
    ident, labels, qtype, end = _question(packet)
    name = b".".join(labels).decode("ascii", "replace").lower().rstrip(".")
    txt = records.get(name)
    found = txt is not None and qtype == 16
    flags = 0x8400 | (0 if txt is not None else 3)  # Response, authoritative; NXDOMAIN if unknown.
    header = struct.pack("!HHHHHH", ident, flags, 1, 1 if found else 0, 0, 0)
    out = header + packet[12:end]
    if found:
        # A TXT record longer than 255 bytes goes as several character-strings.
        chunks = [txt[i:i + 255] for i in range(0, len(txt), 255)] or [b""]
        rdata = b"".join(bytes([len(c)]) + c for c in chunks)
        out += struct.pack("!HHHIH", 0xC00C, 16, 1, 60, len(rdata)) + rdata
    return out


class OpenDkim:
    def __init__(self, records):
        self.records = {k.lower().rstrip("."): v for k, v in records.items()}

    @staticmethod
    def unavailable():
        if not os.path.exists(TESTMSG):
            return "opendkim-testmsg is not installed (Debian package opendkim-tools)"
        probe = subprocess.run(["unshare", "-m", "true"], capture_output=True, text=True)
        if probe.returncode != 0:
            return "cannot make a mount namespace here: " + probe.stderr.strip()
        return None

    def __enter__(self):
        self.folder = tempfile.mkdtemp(prefix="quillo-opendkim-")
        self.resolv = os.path.join(self.folder, "resolv.conf")
        with open(self.resolv, "w") as f:
            f.write("nameserver %s\noptions attempts:1 timeout:2\n" % ADDRESS)
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind((ADDRESS, 53))
        self.sock.settimeout(0.2)
        self.stopping = False
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()
        return self

    def _serve(self):
        while not self.stopping:
            try:
                packet, peer = self.sock.recvfrom(4096)
            except socket.timeout:
                continue
            except OSError:
                return
            try:
                self.sock.sendto(_answer(packet, self.records), peer)
            except (ValueError, IndexError, struct.error):
                continue

    def __exit__(self, *exc):
        self.stopping = True
        self.thread.join(timeout=5)
        self.sock.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def verify(self, raw):
        """(True, "") when opendkim-testmsg accepts `raw`, else (False, what it said)."""
        script = 'mount --bind "$1" /etc/resolv.conf && exec "$2" -t "$3"'
        done = subprocess.run(["unshare", "-m", "--propagation", "private", "sh", "-c", script,
                               "sh", self.resolv, TESTMSG, self.folder],
                              input=raw, capture_output=True, timeout=60)
        said = (done.stdout + done.stderr).decode("utf-8", "replace").strip()
        return done.returncode == 0 and not said, said
