#!/usr/bin/env python3
"""Power cut at random moments: for every file the daemon rewrites, the real daemon is
started on a copy of the demo set, made to rewrite the file (HTTP requests for va.ini,
mellosound.ini, the set configuration, per-sound files, sample uploads and uploads into
a container set; -K and -T for containers and CSV tables; -R for recordings) and killed
with SIGKILL at a random moment.
After each kill the file must hold its old or a new complete content, never a torn one.
Prints trials, writes and failures per file; exits 1 on any failure.

Usage: powercut.py --korvo <program> --source <source tree> [--trials N] [--only NAME]
"""
import argparse
import os
import random
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse
import urllib.request

READY = "start-up done, entering the main loop"
PORT_RE = re.compile(r"started http service on port (\d+)")
TEMPORARY_RE = re.compile(r"\.tmp[A-Za-z0-9]{6}$")
CALIBRATION_DEADLINE = 20  # seconds for one calibration write to show in its file


class Daemon:
    """One korvo process on a work directory; its log is collected by a reader thread."""

    def __init__(self, korvo, source, work, extra, env=None):
        env = dict(os.environ, KORVO_GPIO="sim", SDL_AUDIODRIVER="dummy",
                   KORVO_SOUNDS_DIR=os.path.join(source, "sounds")) | (env or {})
        self.log = []
        self.ready = threading.Event()
        self.port = None
        port = free_port_pair()
        self.proc = subprocess.Popen([korvo, "-H", "-N", str(port), "-l", "3", *extra, os.path.join(work, "sets")],
                                     cwd=work, env=env, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace")
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.log.append(line)
            m = PORT_RE.search(line)
            if m:
                self.port = int(m.group(1))
            if READY in line:
                self.ready.set()
        self.ready.set()  # ended: nobody waits forever

    def wait_ready(self, timeout=30):
        return self.ready.wait(timeout) and self.proc.poll() is None and self.port

    def kill(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGKILL)
        self.proc.wait()

    def url(self, path):
        return f"http://127.0.0.1:{self.port}{path}"


def free_port_pair():
    """A TCP port free now whose next port is free for UDP (the event service's)."""
    for _ in range(100):
        with socket.socket() as t:
            t.bind(("127.0.0.1", 0))
            port = t.getsockname()[1]
        try:
            with socket.socket() as t2, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as u:
                t2.bind(("0.0.0.0", port))
                u.bind(("0.0.0.0", port + 1))
            return port
        except OSError:
            continue
    raise RuntimeError("no free port pair")


def start_daemon(korvo, source, work, extra, attempts=5, env=None):
    """A daemon that is up with its web service; another port when the first was taken
    between the choice and the daemon's bind."""
    for _ in range(attempts):
        d = Daemon(korvo, source, work, extra, env)
        if d.wait_ready():
            return d
        d.kill()
        if not any("starting http service failed" in l for l in d.log):
            return d
    return d


def http(daemon, path, data=None, headers=None):
    req = urllib.request.Request(daemon.url(path), data=data, headers=headers or {})
    with urllib.request.urlopen(req, timeout=10) as r:
        return r.read()


def post_form(daemon, path, fields):
    return http(daemon, path, urllib.parse.urlencode(fields).encode(),
                {"Content-Type": "application/x-www-form-urlencoded"})


def post_file(daemon, path, name, content):
    boundary = "korvopowercut%08x" % random.getrandbits(32)
    body = (f"--{boundary}\r\nContent-Disposition: form-data; name=\"file\"; filename=\"{name}\"\r\n"
            "Content-Type: application/octet-stream\r\n\r\n").encode() + content + \
           (f"\r\n--{boundary}\r\nContent-Disposition: form-data; name=\"endOfUpload\"\r\n\r\n1\r\n"
            f"--{boundary}--\r\n").encode()
    return http(daemon, path, body, {"Content-Type": f"multipart/form-data; boundary={boundary}"})


def wait_until(condition, timeout):
    """Polls `condition` until it holds or `timeout` seconds have passed; its last answer."""
    deadline = time.time() + timeout
    while not condition():
        if time.time() > deadline:
            return condition()
        time.sleep(0.01)
    return True


def read(path):
    try:
        with open(path, "rb") as f:
            return f.read()
    except FileNotFoundError:
        return None


class Kind:
    """A rewritten file: how a write is made, and which contents are complete."""
    name = ""
    extra = []          # daemon options
    http_writes = True  # writes come from HTTP requests after start-up (else at start-up)
    kill_window = 0.3   # seconds after the first write (or the start) the kill falls in

    def prepare(self, work):
        pass

    def target(self, work):
        raise NotImplementedError

    def write(self, daemon, i):
        pass

    def complete(self, content, work):
        """True when `content` (bytes, or None for a missing file) is whole."""
        return content in self.accepted


class PoolKind(Kind):
    """Writes cycle through a pool of values; the complete contents are learnt by a
    calibration run that waits for every write before reading the file."""
    pool = []

    def calibrate(self, korvo, source, work):
        self.accepted = {read(self.target(work))}
        for i in range(len(self.pool)):
            d = start_daemon(korvo, source, work, self.extra)
            try:
                if not d.wait_ready(0):
                    d.kill()
                    sys.exit(f"{self.name}: daemon did not start for calibration (exit {d.proc.returncode}):\n"
                             + "".join(d.log))
                before = read(self.target(work))
                self.write(d, i)
                if self.restarts_after_write:
                    d.proc.wait(10)
                # Some writes are deferred to the sound service thread: wait for the change.
                if not wait_until(lambda: self.calibration_done(before, read(self.target(work))),
                                  CALIBRATION_DEADLINE):
                    sys.exit(f"{self.name}: calibration write {i} did not change {self.target(work)} within "
                             f"{CALIBRATION_DEADLINE} s; log ends:\n" + "".join(d.log[-20:]))
                self.accepted.add(read(self.target(work)))
            finally:
                d.kill()
        return True

    restarts_after_write = False

    def calibration_done(self, before, now):
        """True once the calibration write's content shows in the file."""
        return now != before


class VaIni(PoolKind):
    name = "va.ini"
    pool = [3, 17, 64, 99, 128, 40]

    def target(self, work):
        return os.path.join(work, "va.ini")

    def write(self, d, i):
        http(d, f"/volume/{self.pool[i % len(self.pool)]}")


class MellosoundIni(PoolKind):
    name = "mellosound.ini"
    # The log level stays at 3: the start-up line the test waits for is an INFO line.
    pool = [{"log_level": "3", "say_mode": "0", "pin_shaker": "8"},
            {"log_level": "3", "say_mode": "1", "pin_shaker": "8"},
            {"log_level": "3", "say_mode": "1", "pin_shaker": "36"}]
    restarts_after_write = True  # a saved configuration restarts the daemon

    def target(self, work):
        return os.path.join(work, "sets", "mellosound.ini")

    def write(self, d, i):
        post_form(d, "/config", self.pool[i % len(self.pool)])


class SetConfig(PoolKind):
    name = "set config.ini"
    pool = [0, 25, 50, 75, 100]

    def target(self, work):
        return os.path.join(work, "sets", "velt-demo", "config.ini")

    def write(self, d, i):
        http(d, f"/gainByType/2/{self.pool[i % len(self.pool)]}")


class SoundFile(PoolKind):
    def __init__(self, field, file_name, pool):
        self.field, self.file_name, self.pool = field, file_name, pool
        self.name = f"per-sound {file_name}"

    def target(self, work):
        return os.path.join(work, "sets", "velt-demo", "sfx", "10-bumper", self.file_name)

    def write(self, d, i):
        post_form(d, f"/sounds/10/{self.field}", {"value": self.pool[i % len(self.pool)]})


class SampleUpload(Kind):
    name = "uploaded sample"
    kill_window = 0.5

    def prepare(self, work):
        rng = random.Random(7)
        self.payload = b"RIFF" + bytes(rng.getrandbits(8) for _ in range(300000))

    def target(self, work):
        return os.path.join(work, "sets", "velt-demo", "sfx", "11-ramp", "upload.wav")

    def write(self, d, i):
        post_file(d, "/sounds/11/sample/add", "upload.wav", self.payload)

    def complete(self, content, work):
        # A taken name gets the next free "<n>-upload.wav": every one of them is whole.
        d = os.path.dirname(self.target(work))
        names = [n for n in os.listdir(d) if re.fullmatch(r"(\d+-)?upload\.wav", n)]
        whole = all(read(os.path.join(d, n)) == self.payload for n in names)
        for n in names:  # the next trial starts without them: the free names do not run out
            os.unlink(os.path.join(d, n))
        return whole


class ContainerAppend(Kind):
    """A sample uploaded to a container set: the container is copied with the new chunk
    at its end and renamed over the old one. After a cut it holds its old bytes, or
    those followed by whole appended chunks."""
    name = "container append"
    kill_window = 0.5

    def __init__(self, korvo, source):
        self.korvo, self.source = korvo, source
        self.payload = bytes(random.Random(11).getrandbits(8) for _ in range(20000))
        # xSMP chunk: name, u32 length, u16 check word (sum of the name bytes), u16 state 1
        self.chunk = b"xSMP" + struct.pack(">IHH", 2 + len(self.payload), sum(b"xSMP"), 1) + self.payload

    def prepare(self, work):
        # The demo set converted by the daemon itself (-K), then the only set.
        d = start_daemon(self.korvo, self.source, work, ["-K", "demo.xsnd"])
        d.kill()
        if read(os.path.join(work, "demo.xsnd")) is None:
            sys.exit(f"{self.name}: the demo set was not converted; log ends:\n" + "".join(d.log[-20:]))
        shutil.rmtree(os.path.join(work, "sets", "velt-demo"))
        os.replace(os.path.join(work, "demo.xsnd"), self.target(work))
        self.original = read(self.target(work))

    def target(self, work):
        return os.path.join(work, "sets", "demo.xsnd")

    def write(self, d, i):
        post_file(d, "/sounds/10/sample/add", "up.ogg", self.payload)

    def complete(self, content, work):
        whole = content is not None and content.startswith(self.original)
        rest = content[len(self.original):] if whole else b""
        whole = whole and rest == self.chunk * (len(rest) // len(self.chunk))
        with open(self.target(work), "wb") as f:  # the next trial starts from the original
            f.write(self.original)
        return whole


class Recording(Kind):
    name = "recording (-R)"
    http_writes = False
    kill_window = 3.0
    LINE = re.compile(rb"^\d+ 0x[0-9A-Fa-f]{2}$")

    def __init__(self, source):
        self.extra = ["-P", os.path.join(source, "demo", "session.rec"), "-R", "session.rec"]

    def target(self, work):
        return os.path.join(work, "session.rec")

    def complete(self, content, work):
        if content is None or content == b"":
            return content is None  # created with its header in one write
        if not content.endswith(b"\n"):
            return False
        lines = content.split(b"\n")[:-1]
        return lines[0].startswith(b"# bus recording v1") and all(
            l.startswith(b"#") or self.LINE.match(l) for l in lines[1:])


class Conversion(PoolKind):
    """-K / -T: written during start-up; the complete content is the one a run that is
    left alone writes (calibrated twice, so it must not change from run to run)."""
    http_writes = False
    kill_window = 1.5

    def __init__(self, option, file_name, label):
        self.option, self.file_name, self.name = option, file_name, label
        self.extra = [option, file_name]
        self.pool = [0, 1]

    def target(self, work):
        return os.path.join(work, self.file_name)

    def write(self, d, i):
        pass  # the conversion happened during start-up

    def calibration_done(self, before, now):
        # Written before the daemon was ready, and the same bytes on every run.
        return now is not None

    def complete(self, content, work):
        if content not in self.accepted:
            return False
        if self.option == "-T":  # the files copied beside the table are whole too
            for name in os.listdir(work):
                if name.startswith("0x") and not TEMPORARY_RE.search(name):
                    if not self.copied_ok(os.path.join(work, name), work):
                        return False
        return True

    def copied_ok(self, path, work):
        name = os.path.basename(path).split("-", 1)[1] if "-" in os.path.basename(path) else ""
        for root, _, files in os.walk(os.path.join(work, "sets")):
            if name in files:
                return read(os.path.join(root, name)) == read(path)
        return True


def run_kind(kind, korvo, source, trials, min_writes, rng):
    work = tempfile.mkdtemp(prefix="korvo-powercut-")
    try:
        shutil.copytree(os.path.join(source, "demo"), os.path.join(work, "sets"))
        kind.prepare(work)
        if isinstance(kind, PoolKind):
            kind.calibrate(korvo, source, work)
        complete = len(getattr(kind, "accepted", ()))
        writes = failures = done = 0
        while done < trials or writes < min_writes:
            done += 1
            d = start_daemon(korvo, source, work, kind.extra) if kind.http_writes else Daemon(
                korvo, source, work, kind.extra)
            stop = threading.Event()
            counter = [0]

            def writer():
                i = rng.randrange(1000)
                while not stop.is_set():
                    try:
                        kind.write(d, i)
                    except Exception:
                        counter[0] += 1  # the write the kill interrupted (or a restart refused)
                        return
                    counter[0] += 1
                    i += 1

            if kind.http_writes:
                if not d.wait_ready():
                    d.kill()
                    print(f"  {kind.name}: trial {done}: daemon did not start (exit {d.proc.returncode}); log ends:\n"
                          + "".join(d.log[-6:]), flush=True)
                    failures += 1
                    continue
                t = threading.Thread(target=writer, daemon=True)
                t.start()
            else:
                counter[0] = 1
            time.sleep(rng.uniform(0, kind.kill_window))
            d.kill()
            stop.set()
            writes += counter[0]
            content = read(kind.target(work))
            if not kind.complete(content, work):
                failures += 1
                keep = os.path.join(tempfile.gettempdir(), f"korvo-powercut-torn-{os.getpid()}-{done}")
                if content is not None:
                    with open(keep, "wb") as f:
                        f.write(content)
                print(f"  {kind.name}: trial {done}: torn content ({len(content or b'')} bytes) kept as {keep}",
                      flush=True)
        return done, writes, failures, complete
    finally:
        shutil.rmtree(work, ignore_errors=True)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--korvo", required=True)
    ap.add_argument("--source", required=True)
    ap.add_argument("--trials", type=int, default=200, help="kills per file (default 200)")
    ap.add_argument("--writes", type=int, default=200, help="writes per file at least (default 200)")
    ap.add_argument("--only", help="run only the file whose name contains this")
    ap.add_argument("--seed", type=int, default=int(time.time()))
    a = ap.parse_args()
    a.korvo, a.source = os.path.abspath(a.korvo), os.path.abspath(a.source)
    rng = random.Random(a.seed)
    kinds = [VaIni(), MellosoundIni(), SetConfig(),
             SoundFile("gain", "gain.txt", ["0", "10", "20", "30", "45"]),
             SoundFile("ducking", "ducking.txt", ["5", "35", "65", "95"]),
             SoundFile("serial", "serial.txt", ["PORT 1 on", "PORT 2 off", "x" * 200]),
             SoundFile("shaker", "shaker.txt", ["100,50,100", "10;20;30;40", "300"]),
             SampleUpload(), ContainerAppend(a.korvo, a.source), Recording(a.source),
             Conversion("-K", "set.xsnd", "container (-K)"), Conversion("-T", "altsound.csv", "altsound.csv (-T)")]
    if a.only:
        kinds = [k for k in kinds if a.only in k.name]
    print(f"power cut: seed {a.seed}, {a.trials} kills per file", flush=True)
    total_failures = 0
    for kind in kinds:
        started = time.time()
        trials, writes, failures, complete = run_kind(kind, a.korvo, a.source, a.trials, a.writes if kind.http_writes else 0, rng)
        total_failures += failures
        known = f"  complete contents {complete}" if complete else ""
        print(f"{kind.name:24} trials {trials:4}  writes {writes:5}  failures {failures}{known}"
              f"  ({time.time() - started:.0f} s)", flush=True)
    print(f"power cut: {total_failures} failures", flush=True)
    return 1 if total_failures else 0


if __name__ == "__main__":
    sys.exit(main())
