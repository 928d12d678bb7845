"""abuse.py PID PORT HTTPS-PORT: clients that do what they should not: slow in six ways, with wrong signatures, malformed, gone in the middle. What they
are answered does not matter; that the device still answers others does."""

import asyncio
import os
import random
import signal
import socket
import struct
import sys

from servers import ADDRESS

WRONG = "HMAC_SHA256 YWRtaW4=.AAECAwQFBgcICQoLDA0ODw==.1700000000000." + "A" * 43 + "="
RENEWAL_SECONDS = 30
EACH = 10

MALFORMED = [
    b"GET / HTTP/1.1\r\n\r\n",
    b"GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n",
    b"CONNECT a:1 HTTP/1.1\r\nHost: a\r\n\r\n",
    b"POST /api/setData HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
    b"POST /api/setData HTTP/1.1\r\nHost: a\r\nContent-Length: -1\r\n\r\n",
    b"GET /api/getData?" + b"x" * 100000 + b" HTTP/1.1\r\nHost: a\r\n\r\n",
    b"GET / HTTP/1.1\r\nHost: a\r\n" + b"X: y\r\n" * 500 + b"\r\n",
    b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(200),
    b"\r\n" * 1000,
    b"GET / HTTP/9.9\r\nHost: a\r\n\r\n",
    b"POST /api/getData HTTP/1.1\r\nHost: a\r\nContent-Type: application/json\r\nContent-Length: 600\r\n\r\n" + b"[" * 600,
    b"POST /x HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\nZZ\r\n\r\n",
    b"GET /api/getData?path=demo:values/i32&roles=value HTTP/1.1\r\nHost: a\r\n\r\n" * 300,
]


async def drip(reader, writer, data, seconds):
    for byte in data:
        writer.write(bytes([byte]))
        await writer.drain()
        await asyncio.sleep(seconds)


async def slow_head(reader, writer):
    await drip(reader, writer, b"GET / HTTP/1.1\r\nHost: a\r\n" + b"X: y\r\n" * 100, 0.5)


async def silent(reader, writer):
    await reader.read(1)


async def slow_body(reader, writer):
    writer.write(b"POST /api/setData HTTP/1.1\r\nHost: a\r\nContent-Type: application/json\r\nContent-Length: 1000\r\n\r\n")
    await drip(reader, writer, b" " * 1000, 0.5)


async def slow_reader(reader, writer):
    writer.transport.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    writer.write(b"GET /large.bin HTTP/1.1\r\nHost: 192.0.2.1\r\n\r\n")
    for _ in range(40):
        await reader.read(1000)
        await asyncio.sleep(0.5)


async def slow_upload(reader, writer):
    writer.write(b"POST /firmware/update HTTP/1.1\r\nHost: 192.0.2.1\r\nContent-Type: multipart/form-data; boundary=b\r\n"
                 b"Transfer-Encoding: chunked\r\n\r\n")
    await drip(reader, writer, b"1\r\n-\r\n" * 20, 0.5)


async def half_closed(reader, writer):
    writer.write(b"GET /api/event/pollQueue?queueId=none&timeout=20 HTTP/1.1\r\nHost: 192.0.2.1\r\n")
    writer.write_eof()
    await reader.read()


async def wrong_signature(reader, writer):
    writer.write(f"GET /api/getData?path=demo:permissions/protected&roles=value HTTP/1.1\r\nHost: 192.0.2.1\r\n"
                 f"Authorization: {WRONG}\r\n\r\n".encode())
    await reader.read(100)
    await asyncio.sleep(1)


async def malformed(reader, writer):
    writer.write(random.choice(MALFORMED))
    await asyncio.wait_for(reader.read(1000), 1)


async def mutated(reader, writer):
    data = bytearray(random.choice(MALFORMED)[:2000])
    for _ in range(random.randrange(1, 8)):
        data[random.randrange(len(data))] = random.randrange(256)
    writer.write(bytes(data))
    await asyncio.wait_for(reader.read(1000), 1)


async def vanishing(reader, writer):
    """Reset at any moment of an answer."""
    target = random.choice(("large.bin", "api/stream/player:player/audio", "api/getRows?path=demo:lists/large&roles=@all&from=0&to=999"))
    writer.write(f"GET /{target} HTTP/1.1\r\nHost: 192.0.2.1\r\n\r\n".encode())
    await asyncio.sleep(random.uniform(0, 0.05))
    writer.transport.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


KINDS = [
    (slow_head, 0), (silent, 0), (slow_body, 0), (slow_reader, 0), (slow_upload, 0), (half_closed, 0.1),
    (wrong_signature, 0.5), (malformed, 0.2), (mutated, 0.2), (vanishing, 0.3),
]


async def again_and_again(kind, pause, port):
    while True:
        writer = None
        try:
            reader, writer = await asyncio.wait_for(asyncio.open_connection(ADDRESS, port), 10)
            await asyncio.wait_for(kind(reader, writer), 60)
        except (OSError, asyncio.TimeoutError, asyncio.IncompleteReadError):
            pass
        finally:
            if writer:
                writer.transport.abort()
        await asyncio.sleep(pause + random.random() * 0.2)


async def renew(pid):
    """Each SIGHUP makes the device a new certificate."""
    while True:
        await asyncio.sleep(RENEWAL_SECONDS)
        os.kill(pid, signal.SIGHUP)


async def misbehave(pid, port, https_port):
    tasks = [again_and_again(kind, pause, port) for kind, pause in KINDS for _ in range(EACH)]
    # Over HTTPS none of it comes beyond the handshake.
    tasks += [again_and_again(kind, 0.5, https_port) for kind in (silent, slow_head, malformed)]
    await asyncio.gather(renew(pid), *tasks)


if __name__ == "__main__":
    asyncio.run(misbehave(*map(int, sys.argv[1:])))
