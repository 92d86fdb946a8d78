#!/usr/bin/python3
"""A minimal SMTP sink on loopback for the end-to-end benchmark.

    smtp_sink.py --port-file FILE [--seconds N]

Answers every command with success, takes DATA up to the lone dot and throws
the message away, counting messages and bytes. It is deliberately thin (no
parsing beyond the command word) so that the client, not the server, is what
the benchmark measures. Prints the counts on exit; stops by itself after
--seconds (default 600) or on SIGTERM.
"""
import argparse
import asyncio
import os
import signal
import socket

counts = {"messages": 0, "bytes": 0, "sessions": 0}


async def session(reader, writer):
    counts["sessions"] += 1
    writer.write(b"220 sink ESMTP\r\n")
    try:
        while True:
            line = await reader.readline()
            if not line:
                break
            word = line[:4].upper()
            if word == b"DATA":
                writer.write(b"354 go ahead\r\n")
                await writer.drain()
                body = await reader.readuntil(b"\r\n.\r\n")
                counts["messages"] += 1
                counts["bytes"] += len(body)
                writer.write(b"250 2.0.0 queued\r\n")
            elif word == b"QUIT":
                writer.write(b"221 bye\r\n")
                await writer.drain()
                break
            elif word in (b"EHLO", b"HELO"):
                writer.write(b"250-sink\r\n250 8BITMIME\r\n")
            else:
                writer.write(b"250 OK\r\n")
            await writer.drain()
    except (ConnectionError, asyncio.IncompleteReadError):
        pass
    finally:
        writer.close()


async def main(args):
    sock = socket.socket()
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind(("127.0.0.1", 0))
    server = await asyncio.start_server(session, sock=sock, backlog=512)
    with open(args.port_file + ".tmp", "w") as f:
        f.write(str(sock.getsockname()[1]))
    os.replace(args.port_file + ".tmp", args.port_file)
    stop = asyncio.Event()
    loop = asyncio.get_running_loop()
    loop.add_signal_handler(signal.SIGTERM, stop.set)
    loop.add_signal_handler(signal.SIGINT, stop.set)
    try:
        await asyncio.wait_for(stop.wait(), args.seconds)
    except asyncio.TimeoutError:
        pass
    server.close()
    print("sink: %(sessions)d sessions, %(messages)d messages, %(bytes)d bytes" % counts,
          flush=True)


if __name__ == "__main__":
    p = argparse.ArgumentParser()
    p.add_argument("--port-file", required=True)
    p.add_argument("--seconds", type=float, default=600.0)
    asyncio.run(main(p.parse_args()))
