#!/usr/bin/python3
"""An SMTP sink on loopback for the sending fault tests: it accepts every
message (pipelining, 8BITMIME) and appends one line per accepted message to
--log, flushed before its 250 reply goes out:

    ACCEPTED <recipient> <session number> <seconds since start>

    fault_sink.py --log FILE --port-file FILE [--port N] [--defer-every N]
                  [--stop-after N] [--data-delay SECONDS] [--seconds N]

--defer-every N answers "451 4.3.0 try again later" to the data of every
Nth message that was never deferred before (by recipient), and takes it the
next time. --stop-after N exits, dropping every connection, right after the
Nth accepted message (a server that dies mid-run; start another one on the
same --port). --data-delay waits that long before answering each message's
data (a slower server, so that a sender can be stopped mid-run at full
speed). It also writes "SESSION <n>" for each connection. Stops by
itself after --seconds (default 300) or on SIGTERM.
"""
import argparse
import asyncio
import os
import signal
import socket
import sys
import time


class Sink:
    def __init__(self, args):
        self.args = args
        self.log = open(args.log, "a", buffering=1)
        self.start = time.monotonic()
        self.sessions = 0
        self.accepted = 0
        self.seen = 0
        self.deferred = set()
        self.stopping = asyncio.Event()

    def write(self, line):
        # Flushed, so the log is in the file before the reply goes out.
        self.log.write(line + "\n")
        self.log.flush()

    async def session(self, reader, writer):
        self.sessions += 1
        number = self.sessions
        # Replies go out at once (no Nagle delay waiting for the client's ACK).
        writer.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.write("SESSION %d" % number)
        writer.write(b"220 sink ESMTP\r\n")
        rcpt = None
        try:
            while True:
                line = await reader.readline()
                if not line:
                    break
                word = line[:4].upper()
                if word in (b"EHLO", b"HELO"):
                    writer.write(b"250-sink\r\n250-PIPELINING\r\n250-8BITMIME\r\n250 SIZE 0\r\n")
                elif word == b"RCPT":
                    rcpt = line[line.index(b"<") + 1:line.index(b">")].decode()
                    writer.write(b"250 2.1.5 ok\r\n")
                elif word == b"DATA":
                    writer.write(b"354 go ahead\r\n")
                    await writer.drain()
                    while True:
                        data = await reader.readline()
                        if not data or data == b".\r\n":
                            break
                    if not data:
                        break
                    if self.args.data_delay:
                        await asyncio.sleep(self.args.data_delay)
                    self.seen += 1
                    every = self.args.defer_every
                    if every and self.seen % every == 0 and rcpt not in self.deferred:
                        self.deferred.add(rcpt)
                        self.write("DEFERRED %s %d" % (rcpt, number))
                        writer.write(b"451 4.3.0 try again later\r\n")
                    else:
                        self.accepted += 1
                        self.write("ACCEPTED %s %d %.3f" % (rcpt, number,
                                                             time.monotonic() - self.start))
                        writer.write(b"250 2.0.0 queued\r\n")
                        if self.args.stop_after and self.accepted >= self.args.stop_after:
                            await writer.drain()
                            self.stopping.set()
                            return
                elif word == b"QUIT":
                    writer.write(b"221 bye\r\n")
                    await writer.drain()
                    break
                else:  # MAIL, RSET, NOOP
                    writer.write(b"250 ok\r\n")
                await writer.drain()
        except (ConnectionError, asyncio.IncompleteReadError):
            pass
        finally:
            writer.close()


async def main():
    p = argparse.ArgumentParser()
    p.add_argument("--log", required=True)
    p.add_argument("--port", type=int, default=0)
    p.add_argument("--port-file")
    p.add_argument("--defer-every", type=int, default=0)
    p.add_argument("--stop-after", type=int, default=0)
    p.add_argument("--data-delay", type=float, default=0)
    p.add_argument("--seconds", type=float, default=300)
    args = p.parse_args()
    sink = Sink(args)
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind(("127.0.0.1", args.port))
    server = await asyncio.start_server(sink.session, sock=sock, backlog=128)
    if args.port_file:
        tmp = args.port_file + ".tmp"
        with open(tmp, "w") as f:
            f.write(str(sock.getsockname()[1]))
        os.rename(tmp, args.port_file)
    loop = asyncio.get_running_loop()
    loop.add_signal_handler(signal.SIGTERM, sink.stopping.set)
    try:
        await asyncio.wait_for(sink.stopping.wait(), args.seconds)
    except asyncio.TimeoutError:
        pass
    server.close()
    sys.stdout.flush()
    os._exit(0)  # Drop every connection at once, as a dying server does.


if __name__ == "__main__":
    asyncio.run(main())
