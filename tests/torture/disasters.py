"""What befalls a whole device. Each returns what it saw, in words, or raises Wrong."""

import contextlib
import json
import resource
import signal
import socket
import ssl
import subprocess
import sys
import threading
import time

torture = sys.modules["__main__"]
Exchange, Refused, Wrong, BenchError, WORK = (
    getattr(torture, name) for name in ("Exchange", "Refused", "Wrong", "BenchError", "WORK")
)


def outcomes(device):
    """Of each scenario, whether it went well; the device is up and answers after each."""
    told = []
    for name in torture.SCENARIOS:
        try:
            torture.SCENARIOS[name](device)
        except Refused as refusal:
            told.append(f"{name}: {refusal}")
        device.check()
    return told


def all_fine(device, when):
    if refused := outcomes(device):
        raise Wrong(f"{when}: {'; '.join(refused)}")


def must_refuse(device, names):
    told = outcomes(device)
    if {one.partition(":")[0] for one in told} != set(names):
        raise Wrong(f"refused: {told}")
    return f"refused {', '.join(names)}; all else served"


def start(device):
    """Each call that a start makes fails once: the device serves all the same, or says why not and ends."""
    command, device.command = device.command, [*device.command, "--set", "settings:webserver/httpsPort=0"]
    deadline, starts, ends = time.monotonic() + 90, 0, {}
    try:
        for fault in torture.FAULTS:
            number = 0
            while True:
                number += 1 + number // 20
                device.process.kill()
                device.process.wait()
                if fault[1] == "memory" or time.monotonic() > deadline or not start_with(device, fault, number):
                    break
                starts += 1
                if device.process.poll() is not None:
                    ends[fault[0]] = ends.get(fault[0], 0) + 1
    finally:
        device.command = command
    device.restart()
    return f"{starts} starts, of which end with a word: {ends}" + ("" if time.monotonic() < deadline else "; TIME WAS UP")


def start_with(device, fault, number):
    """Whether there was such a call."""
    with device.plan.armed(fault, number, number):
        try:
            device.__enter__()
        except BenchError as error:
            status, said = device.process.poll(), str(error).rpartition("\n")[2]
            # Without a pipe for signals the host aborts.
            if status not in (2, 3, -signal.SIGABRT) or "ready" in said:
                raise Wrong(f"{fault[0]} {number}: {torture.ending(status)}: {error}") from error
            return True
    try:
        device.check()
        device.verify()
        torture.set_data(device)
    except (Refused, Wrong) as failure:
        if "was not stored" not in str(failure):  # A database that could be opened for reading alone.
            raise Wrong(f"{fault[0]} {number}: {failure}; {device.log.read_text()[-500:]}") from failure
    return device.plan["failed"]


def full_disk(device):
    """Filled to the last byte, while the device runs and across a start."""
    filler = WORK / "disk/filler"
    with filler.open("wb", buffering=0) as file, contextlib.suppress(OSError):
        while True:
            file.write(bytes(4096))
    seen = must_refuse(device, ["setData", "upload"])
    device.restart()
    must_refuse(device, ["setData", "upload"])
    filler.unlink()
    all_fine(device, "the disk has room again")
    device.restart()
    return seen


def read_only_disk(device):
    device.process.kill()
    device.process.wait()
    subprocess.run(["mount", "-o", "remount,ro", WORK / "disk"], check=True)
    try:
        status = subprocess.run(device.command, env=device.options["env"], capture_output=True, text=True, timeout=20)
        if status.returncode not in (2, 3) or not status.stderr.strip():
            raise Wrong(f"ended with {status.returncode}: {status.stderr[-200:]}")
    finally:
        subprocess.run(["mount", "-o", "remount,rw", WORK / "disk"], check=True)
    device.restart()
    all_fine(device, "the disk can be written again")
    return f"does not start, status {status.returncode}: {status.stderr.strip().splitlines()[-1][-120:]}"


def few_descriptors(device):
    command = device.command
    device.command = ["prlimit", "--nofile=40", *command]
    device.restart()
    outcomes(device)
    before = device.descriptors()
    with contextlib.ExitStack() as stack:
        for _ in range(100):
            stack.enter_context(socket.create_connection(("127.0.0.1", device.port)))
        refused = outcomes(device)
    all_fine(device, "the connections have gone")
    device.settle(before)
    device.command = command
    device.restart()
    return f"beside 100 connections {len(torture.SCENARIOS) - len(refused)} of {len(torture.SCENARIOS)} served: {refused}"


def address_space(device):
    """From none to spare upwards. GLib and Qt abort without memory; whatever happens, a start finds everything."""
    aborts, told = 0, []
    for spare in (0, 1, 2, 4, 8, 16, 32, 64):
        size = next(int(line.split()[1]) << 10 for line in open(f"/proc/{device.process.pid}/status") if line.startswith("VmSize"))
        resource.prlimit(device.process.pid, resource.RLIMIT_AS, (size + (spare << 20), resource.RLIM_INFINITY))
        for name in torture.SCENARIOS:
            with contextlib.suppress(Refused):
                torture.SCENARIOS[name](device)
        with contextlib.suppress(subprocess.TimeoutExpired):
            status = device.process.wait(0.5)
            told.append(f"{spare} MiB: {torture.ending(status)}")
            if not device.was_given_up():
                raise Wrong(told[-1])
            aborts += 1
        device.restart()
    all_fine(device, "a restart")
    return ", ".join(told) or "served throughout"


def clock(device):
    """A year and more ahead (certificates end), back to 1970, an hour either way, and right again."""
    now = int(time.time())
    versions = []
    for offset in (3600, -3600, 400 * 86400, -now + 60, 20 * 365 * 86400, 0):
        device.plan["clockSeconds"] = offset
        device.process.send_signal(signal.SIGHUP)
        time.sleep(2.5)
        all_fine(device, f"at {offset:+} s")
        rows = json.loads(torture.ask(device, Exchange("/api/getRows?path=demo:lists/large&roles=title&from=0&to=0")))
        versions.append(rows["rowsVersion"])
        begins, ends = certificate_dates(device)
        if not begins <= time.time() + offset <= ends:
            raise Wrong(f"at {offset:+} s the certificate is not valid: {begins} to {ends}")
    if versions != sorted(versions):
        raise Wrong(f"versions go back: {versions}")
    device.restart()
    return "served, and a valid certificate at each of 6 times"


def certificate_dates(device, address="127.0.0.1"):
    pem = ssl.get_server_certificate((address, device.https_port), timeout=5)
    text = subprocess.run(["openssl", "x509", "-noout", "-dates"], input=pem, capture_output=True, text=True).stdout
    return [ssl.cert_time_to_seconds(line.partition("=")[2]) for line in text.splitlines()]


def interface(device):
    """The address goes and comes 20 times; a poll over loopback waits through all of it."""
    all_fine(device, "before")
    before = device.descriptors()
    queue = json.loads(torture.ask(device, torture.post_json("/api/event/modifyQueue", {"subscribe": [{"path": "demo:volatile/counter"}]})))
    answers = []
    poll = Exchange(f"/api/event/pollQueue?queueId={queue}&timeout=60")
    waiting = threading.Thread(target=lambda: answers.append(torture.ask(device, poll, patience=60)))
    waiting.start()
    for _ in range(20):
        for command in ("ip address del 192.0.2.1/24 dev zark0", "ip link set zark0 down", "ip link set zark0 up",
                        "ip address add 192.0.2.1/24 dev zark0"):
            subprocess.run(command.split(), check=True)
            time.sleep(0.1)
        device.check()
    torture.set_value(device, "demo:volatile/counter", 4711)
    waiting.join(10)
    if not answers or b'"value":4711' not in answers[0]:
        raise Wrong(f"the poll was answered {answers}")
    deadline = time.monotonic() + 20
    while True:
        with contextlib.suppress(OSError):
            certificate_dates(device, "192.0.2.1")
            break
        if time.monotonic() > deadline:
            raise Wrong("no HTTPS at the address that came back")
        time.sleep(0.1)
    all_fine(device, "the interface is back")
    device.settle(before)
    return "HTTP served throughout, the poll answered, HTTPS back at the address"


def hanging_openssl(device):
    """From the start, and later when a certificate is renewed. Nobody waits longer than the tool may run."""
    tool = WORK / "bin/openssl"
    real = subprocess.run(["which", "openssl"], capture_output=True, text=True).stdout.strip()
    tool.write_text(f'#!/bin/sh\n[ ! -e {WORK}/hang ] || exec sleep 1000\nexec {real} "$@"\n')
    tool.chmod(0o755)
    hang = WORK / "hang"
    longest = []

    def watch(seconds):
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            begun = time.monotonic()
            torture.ask(device, Exchange("/api/getData?path=demo:values/i32&roles=title"), patience=30)
            longest.append(time.monotonic() - begun)
            time.sleep(0.05)

    try:
        device.restart()
        hang.touch()
        device.process.send_signal(signal.SIGHUP)
        watch(12)
        device.restart()
        watch(12)
        sleepers = subprocess.run(["pgrep", "-x", "sleep"], capture_output=True, text=True).stdout.split()
        if sleepers:
            raise Wrong(f"{len(sleepers)} tools left behind")
        hang.unlink()
        device.process.send_signal(signal.SIGHUP)
        device.started = time.monotonic()
        device.wait_for_https()
        all_fine(device, "the tool works again")
    finally:
        hang.unlink(missing_ok=True)
        tool.unlink()
    if max(longest) > 20:
        raise Wrong(f"an answer took {max(longest):.1f} s")
    return f"HTTP goes on, longest answer {max(longest):.1f} s; HTTPS is there once the tool works"


DISASTERS = {
    "start": start,
    "full disk": full_disk,
    "read-only disk": read_only_disk,
    "40 descriptors": few_descriptors,
    "address space": address_space,
    "clock": clock,
    "interface": interface,
    "openssl hangs": hanging_openssl,
}
