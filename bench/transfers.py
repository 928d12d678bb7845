"""Bodies of any length: streams that the server sends, and uploads that it takes in."""

import hashlib
import http.client
import time

from load import BenchError, Exchange, signed
from servers import PASSWORD, USER, Floor, fresh_device

MIB = 1024 * 1024
STREAM = "/api/stream/player:player/audio"
STREAM_BYTES = 1024 * MIB
UPDATE = "/firmware/update"
UPLOAD_BYTES = 256 * MIB
BLOCK = bytes(range(256)) * (MIB // 256)
ROUNDS = 3


def read_chunks(server, target):
    """Reads the stream's first GiB; the middle size of a chunk, and the server's processor time for one MiB."""
    connection = server.connect()
    try:
        connection.request("GET", target)
        response = connection.getresponse()
        if response.status != 200 or not response.chunked:
            raise BenchError(f"{target}: {response.status}")
        source, sizes, left = response.fp, [], STREAM_BYTES
        before = server.cpu_seconds()
        while left > 0:
            size = int(source.readline(), 16)
            if len(source.read(size + 2)) != size + 2:
                raise BenchError(f"{target}: the stream ends early")
            sizes.append(size)
            left -= size
        cost = (server.cpu_seconds() - before) / (STREAM_BYTES / MIB) * 1e6
    finally:
        connection.close()
    return sorted(sizes)[len(sizes) // 2], cost


def stream_cost(bench, name, at_most):
    """The floor sends chunks of the same size, which it has already; the device's come through a pipe, whose writer counts
    too."""
    with fresh_device(bench) as device, Floor(bench.build, bench.scratch) as floor:
        ours, reference = [], []
        for _ in range(ROUNDS):
            size, cost = read_chunks(device, STREAM)
            ours.append(cost)
            reference.append(read_chunks(floor, f"/stream?{size}")[1])
    ours, reference = min(ours), min(reference)
    return at_most(name, ours, reference, "us CPU/MiB", ours / reference, 1.2, f"in chunks of {size:,} bytes")


def upload(server, target, headers=None):
    """Sends 256 MiB as the part "firmware" of a form; MiB a second until the answer."""
    head = b'--bench\r\nContent-Disposition: form-data; name="firmware"; filename="image"\r\n\r\n'
    tail = b"\r\n--bench--\r\n"
    fields = {
        "Content-Type": "multipart/form-data; boundary=bench",
        "Content-Length": str(len(head) + UPLOAD_BYTES + len(tail)),
        **(headers or {}),
    }
    connection = server.connect()
    started = time.monotonic()
    try:
        connection.request("POST", target, headers=fields)
        connection.send(head)
        for _ in range(UPLOAD_BYTES // len(BLOCK)):
            connection.send(BLOCK)
        connection.send(tail)
        response = connection.getresponse()
        answer = response.read()
    except (OSError, http.client.HTTPException) as error:
        raise BenchError(f"{target}: {error}") from error
    finally:
        connection.close()
    if response.status != 200:
        raise BenchError(f"{target}: {response.status} {answer[:200]!r}")
    return UPLOAD_BYTES / MIB / (time.monotonic() - started)


def sum_rate():
    """MiB a second of a SHA-256 sum of what is in the processor's cache."""
    started = time.monotonic()
    total = hashlib.sha256()
    for _ in range(UPLOAD_BYTES // len(BLOCK)):
        total.update(BLOCK)
    return UPLOAD_BYTES / MIB / (time.monotonic() - started)


def upload_rate(bench, name, at_least):
    """The device finds the part, makes its sum, and has it on disk before it answers. The floor counts the bytes; once
    more, it makes the sum and the file as well, since a sum alone may take longer than counting allows."""
    with fresh_device(bench) as device, Floor(bench.build, bench.scratch) as floor:
        headers = signed(Exchange(UPDATE), device.port, USER, PASSWORD).headers
        rounds = [
            (upload(device, UPDATE, headers), upload(floor, "/upload"), upload(floor, "/upload?store"), sum_rate())
            for _ in range(ROUNDS)
        ]
    ours, counted, stored, summed = (max(rates) for rates in zip(*rounds))
    note = f"a SHA-256 sum alone: {summed:,.0f} MiB/s"
    return [
        at_least(name, ours, counted, "MiB/s", ours / counted, 0.6, note),
        at_least(f"{name}, floor stores", ours, stored, "MiB/s", ours / stored, 0.6),
    ]
