#!/usr/bin/env python3
"""Full disk and read-only file system: the real daemon runs with its working directory
and base directory (va.ini, mellosound.ini, the sets) on a 4 MB tmpfs in a private mount
namespace, with /tmp on the same tmpfs. The tmpfs is filled to its last byte and later
remounted read-only; every kind of file the daemon rewrites is then asked for over HTTP.
Each request must get its answer (an error, or the success the web API gives by contract
for edits that take effect at once) and a log line naming the file and the reason;
every file keeps its bytes, no temporary is left, and the daemon still plays a bus
command (in SDL's disk-driver capture, kept outside the tmpfs) and answers /version.
Last, the daemon must start and play on the read-only directory.

A script rather than a GoogleTest: the daemon is a separate process anyway, and the
namespace, the mounts and the HTTP client are the system's own tools (unshare, mount,
urllib), as in tests/soak/powercut.py, whose daemon helpers it shares.

Needs root for the mount namespace; exits 77 (ctest's SKIP) with the reason when that is
not permitted. Usage: fsfault.py --korvo <program> --source <source tree> [--scratch DIR]
"""
import argparse
import errno
import importlib.util
import io
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.error
import zipfile

SKIP = 77
INSIDE = "KORVO_FSFAULT_INSIDE"
DEADLINE = 20  # seconds for any one observable event
ENOSPC = "No space left on device"
EROFS = "Read-only file system"
BUS_RECORDING = b"# bus recording v1 protocol=DATAEAST\n0 0x0A\n"  # command 10: the bumper
TEMPORARY_RE = re.compile(r"\.tmp[A-Za-z0-9]{6}$")
# A power cut's leftover that the start-up on the read-only directory cannot remove.
STALE = os.path.join("sets", "velt-demo", "config.ini.tmpSTALE1")

pc = None  # tests/soak/powercut.py, loaded in main()


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


def run(*cmd):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


# ---- the namespace ----

def enter_namespace(argv):
    """Re-runs this script in a private mount namespace; SKIP when that is refused."""
    if os.geteuid() != 0:
        print("SKIP: a private mount namespace needs root", flush=True)
        return SKIP
    if shutil.which("unshare") is None or shutil.which("mount") is None:
        print("SKIP: unshare or mount is not installed", flush=True)
        return SKIP
    probe = run("unshare", "--mount", "--propagation", "private", "true")
    if probe.returncode != 0:
        print(f"SKIP: unshare --mount is not permitted here: {probe.stdout.strip()}", flush=True)
        return SKIP
    env = dict(os.environ, **{INSIDE: "1"})
    return subprocess.call(["unshare", "--mount", "--propagation", "private", sys.executable,
                            os.path.abspath(__file__), *argv], env=env)


def mount_tmpfs(base):
    """The 4 MB tmpfs on `base`, and /tmp on it too (recordings go to /tmp). False
    (with the reason printed) when mounting is refused."""
    os.makedirs(base)
    r = run("mount", "-t", "tmpfs", "-o", "size=4m", "tmpfs", base)
    if r.returncode != 0:
        print(f"SKIP: mounting a tmpfs is not permitted here: {r.stdout.strip()}", flush=True)
        return False
    os.makedirs(os.path.join(base, "tmp"))
    r = run("mount", "--bind", os.path.join(base, "tmp"), "/tmp")
    check(r.returncode == 0, f"bind mount of /tmp failed: {r.stdout}")
    return True


def keep_reachable(args):
    """The tmpfs goes over /tmp, which may hold the program, the source tree and the
    scratch directory (a clone in /tmp). The old /tmp stays reachable under a directory
    outside it, and those paths are moved there."""
    under_tmp = [p for p in (args.korvo, args.source, args.scratch) if p == "/tmp" or p.startswith("/tmp/")]
    if not under_tmp:
        return
    hold = tempfile.mkdtemp(prefix="korvo-fsfault-tmp-", dir="/var/tmp")
    r = run("mount", "--rbind", "/tmp", hold)
    check(r.returncode == 0, f"bind mount of /tmp on {hold} failed: {r.stdout}")
    args.hold = hold
    move = lambda p: hold + p[len("/tmp"):] if p == "/tmp" or p.startswith("/tmp/") else p
    args.korvo, args.source, args.scratch = move(args.korvo), move(args.source), move(args.scratch)


def remount_read_only(base):
    r = run("mount", "-o", "remount,ro", base)
    check(r.returncode == 0, f"remount,ro failed: {r.stdout}")


def fill(base, leave=0):
    """Fills the tmpfs until at most `leave` bytes are free; with 0 to the last byte."""
    with open(os.path.join(base, "filler"), "ab", buffering=0) as f:
        while True:
            st = os.statvfs(base)
            free = st.f_bavail * st.f_frsize
            if leave:
                if free <= leave:
                    return
                f.write(b"\xaa" * min(1 << 20, free - leave))
                continue
            try:
                f.write(b"\xaa" * (1 << 16))  # a short write fills the last page first
            except OSError as e:
                check(e.errno == errno.ENOSPC, f"filling the tmpfs: {e}")
                check(os.statvfs(base).f_bavail == 0, "the tmpfs is not full after ENOSPC")
                return


def unfill(base):
    os.unlink(os.path.join(base, "filler"))


def snapshot(base):
    """Every file below `base` but the filler: relative path -> bytes."""
    out = {}
    for root, _, files in os.walk(base):
        for name in files:
            path = os.path.join(root, name)
            if path != os.path.join(base, "filler"):
                out[os.path.relpath(path, base)] = pc.read(path)
    return out


def temporaries(base):
    found = []
    for root, dirs, files in os.walk(base):
        found += [os.path.join(root, n) for n in dirs + files if TEMPORARY_RE.search(n)]
    return [f for f in found if f != os.path.join(base, STALE)]


# ---- the daemon ----

class Run:
    """One daemon on the tmpfs, with its capture file outside it."""

    def __init__(self, args, base):
        self.args, self.base = args, base
        self.capture = os.path.join(args.scratch, f"capture-{time.monotonic_ns()}.raw")
        env = {"SDL_AUDIODRIVER": "disk", "SDL_DISKAUDIOFILE": self.capture,
               "TMPDIR": os.path.join(args.scratch, "uploads")}
        self.d = pc.start_daemon(args.korvo, args.source, base, [], env=env)
        check(self.d.wait_ready(0), "daemon did not start; log:\n" + "".join(self.d.log))

    def wait_log(self, mark, *patterns):
        """The first line after `mark` matching every pattern, waited for."""
        regexes = [re.compile(p) for p in patterns]
        line = None

        def found():
            nonlocal line
            line = next((l for l in self.d.log[mark:] if all(r.search(l) for r in regexes)), None)
            return line is not None
        check(pc.wait_until(found, DEADLINE),
              f"no log line matching {patterns}; lines since the request:\n" + "".join(self.d.log[mark:]))
        return line

    def captured(self):
        return os.path.getsize(self.capture) if os.path.exists(self.capture) else 0

    def plays_bus_command(self):
        """A bus command (replayed through the capture's interrupt routine) is heard."""
        pc.http(self.d, "/sounds/play/stop")
        quiet = 44100 // 5 * 4  # 0.2 s of silence, S16LE stereo

        def silent():
            size = self.captured()
            if size < quiet:
                return False
            with open(self.capture, "rb") as f:
                f.seek(size - quiet)
                return not f.read().strip(b"\0")
        check(pc.wait_until(silent, DEADLINE), "the capture never fell silent")
        mark = self.captured()
        answer = pc.post_file(self.d, "/recording", "bus.rec", BUS_RECORDING)
        check(b"success" in answer, f"bus recording refused: {answer!r}")

        def heard():
            with open(self.capture, "rb") as f:
                f.seek(mark)
                return bool(f.read().strip(b"\0"))
        check(pc.wait_until(heard, DEADLINE), "the bus command was not heard in the capture")
        check(b"version" in pc.http(self.d, "/version"), "/version did not answer")

    def stop(self):
        """SIGTERM: the orderly shutdown, which must end by itself."""
        self.d.proc.send_signal(signal.SIGTERM)
        try:
            rc = self.d.proc.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            self.d.kill()
            raise Failure("the daemon did not stop on SIGTERM")
        check(rc == 0, f"the daemon's shutdown ended with {rc}; log ends:\n" + "".join(self.d.log[-20:]))


def answer_of(request):
    """(HTTP status, body) of a request; an error status is an answer too."""
    try:
        return 200, request()
    except urllib.error.HTTPError as e:
        return e.code, e.read()


def is_error(status, body):
    return status >= 400 or re.search(rb'"result"\s*:\s*"(error|failed)"', body) is not None


def zip_bytes():
    buf = io.BytesIO()
    with zipfile.ZipFile(buf, "w") as z:
        z.writestr("new-set/sfx/10-bumper/bumper.ogg", b"x" * 3000)
    return buf.getvalue()


# ---- the requests ----

def requests_for(r, reason):
    """Each rewrite the web service offers: (what, request, log patterns, answer). The
    patterns name the file (or its directory) and the reason, in the daemon's words. The
    answer is "error", or "success" where the web API answers success by contract: the
    volume, the type gain and the per-sound fields take effect at once and report a
    failed save only in the log."""
    d = r.d
    upload_full = r"does not fit into .*\(0 bytes free\)" if reason == ENOSPC else reason

    def sound(field, value):
        return lambda: pc.post_form(d, f"/sounds/10/{field}", {"value": value})
    return [
        ("volume (va.ini)", lambda: pc.http(d, "/volume/33"), [r"va\.ini", reason], "success"),
        ("configuration (mellosound.ini)",
         lambda: pc.post_form(d, "/config", {"log_level": "3", "say_mode": "1"}), [r"mellosound\.ini", reason], "error"),
        ("set configuration", lambda: pc.http(d, "/gainByType/2/77"), [r"velt-demo/config\.ini", reason], "success"),
        ("gain.txt", sound("gain", "7"), [r"10-bumper/gain\.txt", reason], "success"),
        ("ducking.txt", sound("ducking", "9"), [r"10-bumper/ducking\.txt", reason], "success"),
        ("serial.txt", sound("serial", "PORT 2 off"), [r"10-bumper/serial\.txt", reason], "success"),
        ("shaker.txt", sound("shaker", "10;20"), [r"10-bumper/shaker\.txt", reason], "success"),
        ("uploaded sample", lambda: pc.post_file(d, "/sounds/11/sample/add", "up.ogg", b"y" * 5000),
         [r"sfx/11-ramp", upload_full], "error"),
        ("set upload (zip)", lambda: pc.post_file(d, "/soundsets", "new-set.zip", zip_bytes()),
         [r"/sets\b", upload_full], "error"),
        ("AltSound export", lambda: pc.http(d, "/soundsets/velt-demo/altsound.zip"), [r"altsound", reason], "error"),
        ("recording", lambda: pc.http(d, "/recording/start"), [r"/tmp/\d+\.rec", reason], "error"),
    ]


def writes_fail_cleanly(r, reason, requests):
    """Every request is answered as its contract says, its log line names the file and
    the reason, and nothing on disk changed."""
    before = snapshot(r.base)
    for what, request, patterns, expected in requests:
        mark = len(r.d.log)
        status, body = answer_of(request)
        answered = "error" if is_error(status, body) else "success"
        check(answered == expected, f"{what}: answered {answered} ({status} {body[:200]!r}) on '{reason}'")
        line = r.wait_log(mark, *patterns)
        print(f"  {what}: {answered}; {line.split('] ', 3)[-1].strip()}", flush=True)
    after = snapshot(r.base)
    changed = sorted(k for k in set(before) | set(after) if before.get(k) != after.get(k))
    check(not changed, f"files changed on '{reason}': {changed}")
    left = temporaries(r.base)
    check(not left, f"temporaries left behind on '{reason}': {left}")
    print(f"  {len(before)} files unchanged, no temporaries", flush=True)


def container_set(args, scratch_sets):
    """The demo set converted into a container by the daemon itself (-K)."""
    work = os.path.join(args.scratch, "convert")
    shutil.copytree(scratch_sets, os.path.join(work, "sets"))
    d = pc.start_daemon(args.korvo, args.source, work, ["-K", "demo.xsnd"])
    d.kill()
    path = os.path.join(work, "demo.xsnd")
    check(os.path.exists(path), "the demo set was not converted; log ends:\n" + "".join(d.log[-20:]))
    return path


def switch_to(r, name):
    sets = pc.http(r.d, "/soundsets").decode()
    m = re.search(r'"id": "(\d+)", "name": "' + re.escape(name) + '"', sets)
    check(m, f"set {name} not listed: {sets}")
    mark = len(r.d.log)
    check(b"success" in pc.http(r.d, f"/soundsets/{m.group(1)}"), f"switch to {name} refused")
    r.wait_log(mark, "ready|loaded|switch")


def prepare_files(r):
    """One successful write of each kind first, so each file exists and the requests
    are known to reach it."""
    d = r.d
    switch_to(r, "velt-demo")  # the container set may come first in the catalogue
    for path in ["/volume/60", "/gainByType/2/40"]:
        check(b"success" in pc.http(d, path), f"{path} failed with room on the disk")
    for field, value in [("gain", "20"), ("ducking", "35"), ("serial", "PORT 1 on"), ("shaker", "100,50")]:
        body = pc.post_form(d, f"/sounds/10/{field}", {"value": value})
        check(b"success" in body, f"{field} failed with room on the disk: {body!r}")
    sound = os.path.join(r.base, "sets", "velt-demo", "sfx", "10-bumper")
    files = ["gain.txt", "ducking.txt", "serial.txt", "shaker.txt"]
    check(pc.wait_until(lambda: all(os.path.exists(os.path.join(sound, f)) for f in files), DEADLINE),
          f"the per-sound files were not written: {sound} holds {os.listdir(sound)}; log ends:\n"
          + "".join(d.log[-30:]))


def full_disk(r):
    print("full disk:", flush=True)
    fill(r.base)
    writes_fail_cleanly(r, ENOSPC, requests_for(r, ENOSPC))
    r.plays_bus_command()
    unfill(r.base)


def full_disk_container(r):
    """Room for the upload but not for the new container: the append is refused and
    the container keeps its bytes."""
    print("container append on an almost full disk:", flush=True)
    switch_to(r, "demo.xsnd")
    fill(r.base, leave=64 * 1024)
    writes_fail_cleanly(r, ENOSPC, [
        ("container append", lambda: pc.post_file(r.d, "/sounds/10/sample/add", "up.ogg", b"z" * 5000),
         [r"demo\.xsnd", ENOSPC], "error")])
    r.plays_bus_command()
    unfill(r.base)


def read_only(r):
    print("read-only file system:", flush=True)
    with open(os.path.join(r.base, STALE), "w") as f:
        f.write("gain_sfx=1")
    remount_read_only(r.base)
    writes_fail_cleanly(r, EROFS, [
        ("container append", lambda: pc.post_file(r.d, "/sounds/10/sample/add", "up.ogg", b"z" * 5000),
         [r"sets", EROFS], "error")])
    switch_to(r, "velt-demo")
    writes_fail_cleanly(r, EROFS, requests_for(r, EROFS) + [
        ("sample removal", lambda: pc.http(r.d, "/sounds/11/sample/0/remove"), [r"11-ramp/ramp\.ogg", EROFS], "error"),
        ("move to a group", lambda: pc.http(r.d, "/sounds/10/move/voice"), [r"10-bumper", EROFS], "error")])
    r.plays_bus_command()


def start_read_only(args, base):
    """A daemon started on the read-only directory starts, says so and plays."""
    print("start-up on a read-only file system:", flush=True)
    r = Run(args, base)
    try:
        for line in [r.wait_log(0, "read-only", re.escape(base)),
                     r.wait_log(0, "cannot remove stale temporary file", re.escape(STALE), EROFS)]:
            print(f"  {line.split('] ', 3)[-1].strip()}", flush=True)
        r.plays_bus_command()
        print("  started and plays", flush=True)
    finally:
        r.d.kill()


def scenario(args):
    base = os.path.join(args.scratch, "base")
    os.makedirs(os.path.join(args.scratch, "uploads"))
    if not mount_tmpfs(base):
        return SKIP
    shutil.copytree(os.path.join(args.source, "demo"), os.path.join(base, "sets"))
    shutil.copy(container_set(args, os.path.join(args.source, "demo")), os.path.join(base, "sets"))
    with open(os.path.join(base, "sets", "mellosound.ini"), "w") as f:
        f.write("log_level=3\n")
    r = Run(args, base)
    try:
        prepare_files(r)
        full_disk(r)
        full_disk_container(r)
        read_only(r)
        r.stop()
    except BaseException:
        r.d.kill()
        raise
    start_read_only(args, base)
    return 0


def main():
    global pc
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--korvo", required=True)
    ap.add_argument("--source", required=True)
    ap.add_argument("--scratch", help="where the capture and the tmpfs go (default: the current directory)")
    a = ap.parse_args()
    a.korvo, a.source = os.path.abspath(a.korvo), os.path.abspath(a.source)
    if os.environ.get(INSIDE) != "1":
        return enter_namespace(sys.argv[1:])
    found = importlib.util.spec_from_file_location("powercut", os.path.join(a.source, "tests", "soak", "powercut.py"))
    pc = importlib.util.module_from_spec(found)
    found.loader.exec_module(pc)
    a.scratch = tempfile.mkdtemp(prefix="korvo-fsfault-", dir=os.path.abspath(a.scratch or os.getcwd()))
    scratch, a.hold = a.scratch, None
    keep_reachable(a)
    started = time.time()
    try:
        rc = scenario(a)
    except Failure as e:
        print(f"FAILED: {e}", flush=True)
        rc = 1
    finally:
        run("umount", "/tmp")
        run("umount", os.path.join(a.scratch, "base"))
        if a.hold:
            run("umount", "-R", a.hold)
            os.rmdir(a.hold)
        shutil.rmtree(scratch, ignore_errors=True)
    print(f"fsfault: {'passed' if rc == 0 else 'skipped' if rc == SKIP else 'failed'} "
          f"({time.time() - started:.0f} s)", flush=True)
    return rc


if __name__ == "__main__":
    sys.exit(main())
