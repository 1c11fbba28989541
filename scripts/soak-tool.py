#!/usr/bin/env python3
"""Mistreats the command kelpa for minutes: far more cases than the tests have time for.

    scripts/soak-tool.py [--kelpa build/test/tool/kelpa] [--particles 10000000] [SECTION...]

Sections: options files outputs threads memory interrupts; all by default. Whatever happens, a run
must end with a documented exit code and at most one line that says why, and leave neither a part of
a file nor a temporary one. Prints each fault and their number; exits with 1 when there are any.
`outputs` mounts a small file system when it may, `threads` limits processes when it is root.
"""

import argparse
import itertools
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
DONE, FAILED, USAGE, INPUT, OUTPUT, INTERRUPTED = 0, 1, 2, 3, 4, 130


class Soak:
    def __init__(self, kelpa, particles):
        self.kelpa = str(pathlib.Path(kelpa).resolve())
        self.particles = particles
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="soak-"))
        self.faults = 0
        self.runs = 0

    # ------------------------------------------------------------------ running and judging ----

    def fault(self, words, what):
        self.faults += 1
        print(f"FAULT: kelpa {' '.join(words)}\n       {what}", flush=True)

    def start(self, words, **how):
        how.setdefault("stdin", subprocess.DEVNULL)
        how.setdefault("stdout", subprocess.PIPE)
        how.setdefault("stderr", subprocess.PIPE)
        return subprocess.Popen([self.kelpa, *words], cwd=self.folder, **how)

    def is_whole(self, name):
        return name.endswith(".png") and b"IEND" in (self.folder / name).read_bytes()[-12:]

    def judge(self, words, code, err, allowed, known):
        """One line and a documented code when it fails, nothing left behind."""
        self.runs += 1
        text = err.decode(errors="replace")
        lines = [line for line in text.splitlines() if line and " note: " not in line]
        if code not in allowed:
            self.fault(words, f"exit {code}, expected {sorted(allowed)}: {text[-300:]!r}")
        elif code > 0 and (len(lines) != 1 or not lines[0].startswith("kelpa: ")):
            self.fault(words, f"exit {code} with other than one line: {text[-300:]!r}")
        left = sorted(set(os.listdir(self.folder)) - known)
        # Of a series what was finished stays, whole.
        series = any("#" in word for word in words)
        whole = [name for name in left if code == DONE or (series and self.is_whole(name))]
        if left != [name for name in whole if ".part" not in name]:
            self.fault(words, f"exit {code} leaves {left}")
        for name in left:
            path = self.folder / name
            shutil.rmtree(path) if path.is_dir() else path.unlink()

    def run(self, words, allowed, seconds=60, **how):
        words = [words[0], "-q", *words[1:]] if words else []
        known = set(os.listdir(self.folder))
        child = self.start(words, **how)
        try:
            _, err = child.communicate(timeout=seconds)
        except subprocess.TimeoutExpired:
            child.kill()
            child.communicate()
            self.fault(words, f"still runs after {seconds} s")
            return None
        self.judge(words, child.returncode, err or b"", allowed, known)
        return child.returncode

    def make(self, name, count, kind="galaxy", *more):
        """A sample file, made once."""
        if not (self.folder / name).exists():
            subprocess.run([self.kelpa, "generate", kind, "--count", str(count), "-q", "-o", name,
                            *more], cwd=self.folder, check=True)
        return name

    def write(self, name, content):
        (self.folder / name).write_bytes(content)
        return name

    # ----------------------------------------------------------------------------- sections ----

    def options(self):
        """Hostile values for every option that takes some, and every pair of options."""
        self.make("s.ply", 300)
        values = ["0", "1", "-1", "-0", "nan", "-nan", "inf", "-inf", "1e-320", "1e30", "-1e30", "1e300",
                  "1e999", "2147483647", "2147483648", "-2147483649", "18446744073709551616", "",
                  " ", "1,", "x", "0x10", "1e", "\xff", "-", "--", "{}", "%s%n", "0.0000001", "180",
                  "179.9999999"]
        single = ["--frame", "--radius", "--radius-from", "--radius-scale", "--radii", "--dt",
                  "--max-depth", "--leaf-size-factor", "--min-node-size", "--motion", "--bounds",
                  "--format", "--threads", "--progress"]
        picture = ["--fov", "--zoom", "--turntable", "--samples", "--ao-samples", "--ao-distance",
                   "--seed", "--color", "--color-by", "--view", "--up", "--shade", "--background"]
        for option, value in itertools.product(single, values):
            self.run(["info", "s.ply", option, value], {DONE, USAGE, INPUT})
        small = ["--size", "8x6", "--samples", "2"]
        ends = {DONE, USAGE, INPUT, FAILED, OUTPUT}
        for option, value in itertools.product(single + picture, values):
            rest = [word for word in small if option != "--samples" or word not in ("--samples", "2")]
            if option == "--samples" or option == "--ao-samples":
                rest = ["--size", "1x1"]
            if option == "--turntable" and value == "2147483647":
                continue
            self.run(["render", "s.ply", "-o", "o.ppm", *rest, option, value], ends)
        for size in ["0x0", "1x0", "-1x5", "1x1", "65536x1", "1x65536", "65537x1", "1000000x1000000",
                     "99999999999x1", "5", "5x", "x5", "5x5x5", "nanxnan", "1e3x5"]:
            self.run(["render", "s.ply", "-o", "o.ppm", "--samples", "1", "--size", size], ends)
        for crop in ["0,0,0,0", "0,0,1,1", "4,4,2,2", "0,0,9,6", "-1,0,4,4", "0,0,4", "0,0,4,4,4",
                     "nan,0,4,4", "2147483647,0,2147483648,1", "7,5,8,6"]:
            self.run(["render", "s.ply", "-o", "o.exr", *small, f"--crop={crop}"], ends)
        vectors = ["0,0,0", "1,2,3", "1e30,1e30,1e30", "-1e38,0,0", "1e39,0,0", "nan,0,0", "1,2",
                   "1,2,3,4", "1e-45,0,0", "0,0,1", "0,1,0", "inf,0,0", ""]
        for option, value in itertools.product(["--eye", "--look-at", "--up"], vectors):
            self.run(["render", "s.ply", "-o", "o.png", *small, f"{option}={value}"], ends)
        for eye, up in itertools.product(vectors[:5], ["0,0,1", "1e-30,0,0", "1e38,1e38,1e38"]):
            self.run(["render", "s.ply", "-o", "o.png", *small, f"--eye={eye}", f"--up={up}"], ends)
        for pair in ["0:0", "1:0", "0:1", "-1e300:1e300", "nan:1", "0:inf", "0", ":", "1e308:-1e308",
                     "5:6", "0:1e-300"]:
            self.run(["render", "s.ply", "s.ply", "-o", "o.ppm", *small, f"--shutter={pair}"], ends)
            self.run(["render", "s.ply", "--motion", "velocity", "-o", "o.ppm", *small,
                      f"--shutter={pair}"], ends)
            self.run(["render", "s.ply", "-o", "o.ppm", *small, "--color-by", "x",
                      f"--range={pair}"], ends)
            if ":" in pair:
                self.run(["info", "s.ply", "--motion", "s.ply", f"--times={','.join(pair.split(':'))}"], ends)
        for kind in ["galaxy", "splash", "crystal", "cloud"]:
            for count in ["0", "1", "2", "3", "17", "-1", "1e3", "2147483648", "nan"]:
                self.run(["generate", kind, "--count", count, "-o", "g.ply"], ends)
                if (self.folder / "g.ply").exists():
                    self.run(["info", "g.ply"], ends)
        used = [["--radius", "1"], ["--radius-from", "x"], ["--radii", "covalent"], ["--points"],
                ["--radius-scale", "2"], ["--motion", "velocity"], ["--times", "0", "1"],
                ["--shutter", "0:1"], ["--dt", "2"], ["--bounds", "moving"], ["--color", "#112233"],
                ["--color-by", "x"], ["--colormap", "viridis"], ["--range", "0:1"],
                ["--view", "top"], ["--eye", "9,9,9"], ["--look-at", "0,0,1"], ["--up", "y"],
                ["--fov", "50"], ["--ortho"], ["--zoom", "2"], ["--turntable", "2"],
                ["--background", "none"], ["--crop", "0,0,4,4"], ["--aov", "depth"],
                ["--shade", "flat"], ["--shade", "lit"], ["--ao-samples", "1"],
                ["--ao-distance", "1"], ["--shadows"], ["--no-shadows"], ["--seed", "3"],
                ["--reproducible"], ["--stats"], ["--threads", "2"], ["--verbose"],
                ["--progress", "plain"], ["--frame", "0"], ["--format", "ply"], ["--format", "xyz"],
                ["--max-depth", "0"], ["--min-node-size", "1"], ["--leaf-size-factor", "0"]]
        for first, second in itertools.combinations(used, 2):
            self.run(["render", "s.ply", "-o", "o#.exr" if "--turntable" in first + second else "o.exr",
                      *small, *first, *second], {DONE, USAGE, INPUT})

    def files(self):
        """Inputs that are no files, damaged, or change while they are read."""
        self.make("s.ply", 300)
        whole = (self.folder / "s.ply").read_bytes()
        header = whole[:whole.index(b"end_header\n") + 11]
        os.mkdir(self.folder / "folder.ply")
        os.symlink("nowhere", self.folder / "dangling.ply")
        os.symlink("loop.ply", self.folder / "loop.ply")
        for name in ["none.ply", "folder.ply", "dangling.ply", "loop.ply", "", "/dev/null", ".", "/",
                     "/proc/self/mem", "/dev/tty", "a" * 255 + ".ply", "d/" * 2000 + "x.ply",
                     "/dev/stdin", "s.ply/", "-"]:
            self.run(["info", name], {INPUT, USAGE})
            self.run(["render", name, "-o", "o.ppm"], {INPUT, USAGE})
        for name in ["/dev/zero", "/dev/urandom"]:
            self.run(["info", name], {INPUT})
        for cut in list(range(len(header) + 50)) + list(range(len(whole) - 50, len(whole))):
            self.write("cut.ply", whole[:cut])
            self.run(["info", "cut.ply"], {INPUT})
        for promise in [b"2147483648", b"4294967296", b"18446744073709551615", b"99999999999999999999",
                        b"-1", b"1e3", b"0"]:
            for form in [b"ascii", b"binary_little_endian", b"binary_big_endian"]:
                self.write("much.ply", b"ply\nformat " + form + b" 1.0\nelement vertex " + promise +
                           b"\nproperty float x\nproperty float y\nproperty float z\nend_header\n" +
                           b"1 2 3\n4 5 6\n")
                for limit in [None, 400 << 20]:
                    self.run(["info", "much.ply"], {INPUT}, preexec_fn=limit and address_limit(limit))
            self.write("much.xyz", promise + b"\n\nFe 0 0 0\n")
            self.run(["info", "much.xyz"], {INPUT})
        for odd in ["\u00e4\u6f22\U0001f300.ply", "sp ace.ply", "new\nline.ply", "-dash.ply", "%s%n{}.ply"]:
            shutil.copy(self.folder / "s.ply", self.folder / odd)
            for locale in ["C", "de_DE.UTF-8", "tr_TR.UTF-8", "no_SUCH", ""]:
                self.run(["info", "./" + odd], {DONE}, env={"LC_ALL": locale})
                self.run(["info", "./" + odd, "--json"], {DONE}, env={"LC_ALL": locale})
            self.run(["render", "./" + odd, "-o", "./" + odd + ".ppm", "--size", "8x8"], {DONE})
        # A pipe, whole and cut; nobody writes; somebody writes without an end.
        os.mkfifo(self.folder / "pipe.ply")
        for content, allowed in [(whole, {DONE}), (whole[:-9], {INPUT}), (b"", {INPUT})]:
            writer = threading.Thread(target=lambda: (self.folder / "pipe.ply").write_bytes(content))
            writer.start()
            self.run(["info", "pipe.ply"], allowed)
            writer.join()
        self.run(["info", "/dev/stdin"], {DONE}, stdin=open(self.folder / "s.ply", "rb"))
        # Changes underfoot: shorter, longer, gone, another content.
        self.make("big.ply", 3000000)
        big = (self.folder / "big.ply").read_bytes()
        for change in [lambda: os.truncate(self.folder / "change.ply", 1000),
                       lambda: os.truncate(self.folder / "change.ply", 0),
                       lambda: open(self.folder / "change.ply", "ab").write(big),
                       lambda: os.unlink(self.folder / "change.ply"),
                       lambda: open(self.folder / "change.ply", "r+b").write(os.urandom(len(big)))]:
            for wait in [0.002, 0.01, 0.03, 0.06, 0.1]:
                self.write("change.ply", big)
                changer = threading.Timer(wait, change)
                changer.start()
                self.run(["info", "change.ply"], {DONE, INPUT})
                changer.join()

    def outputs(self):
        """Outputs that cannot be written, at every size where the disk may end."""
        self.make("s.ply", 3000)
        known = [["render", "s.ply", "--samples", "1", "--size", "200x200", "-o", "o.png"],
                 ["render", "s.ply", "--samples", "1", "--size", "200x200", "-o", "o.ppm"],
                 ["render", "s.ply", "--samples", "1", "--size", "200x200", "-o", "o.exr"],
                 ["render", "s.ply", "--samples", "1", "--size", "200x200", "--turntable", "3",
                  "-o", "o#.png"],
                 ["generate", "cloud", "--count", "3000", "-o", "o.ply"],
                 ["generate", "cloud", "--count", "3000", "--ascii", "-o", "o.ply"]]
        for words in known:
            for limit in [0, 1, 10, 100, 1000, 4095, 4096, 10000, 50000, 100000, 119999]:
                def limited(limit=limit):
                    resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
                self.run(words, {DONE, OUTPUT}, preexec_fn=limited)
            for target in ["none/o", "s.ply/o", "/proc/o", "a" * 256]:
                self.run([*words[:-1], target + os.path.splitext(words[-1])[1]], {OUTPUT, USAGE})
            for target in ["/dev/full", ".", "..", "", "/", "/dev/null/x"]:
                self.run([*words[:-1], target], {OUTPUT, USAGE})
        for words in (["info", "s.ply"], ["info", "s.ply", "--json"], ["--help"], ["--version"],
                      ["render", "--help"]):
            with open("/dev/full", "wb") as full:
                child = self.start(words, stdout=full)
                _, err = child.communicate()
                self.judge(words, child.returncode, err, {OUTPUT}, {"s.ply"})
        for closed in [">&-", "2>&-", ">&- 2>&-", ">&- 2>&- <&-", "2>/dev/full", "2>&1 | true"]:
            for words in known:
                script = f"'{self.kelpa}' {' '.join(words)} {closed}"
                subprocess.run(["bash", "-o", "pipefail", "-c", script], cwd=self.folder,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                for name in set(os.listdir(self.folder)) - {"s.ply"}:
                    content = (self.folder / name).read_bytes()
                    if b"kelpa:" in content or b"wrote" in content or b"note" in content:
                        self.fault(words, f"with {closed} a message went into {name}")
                    (self.folder / name).unlink()
        self.fullDisk(known)

    def fullDisk(self, known):
        disk = self.folder / "disk"
        disk.mkdir()
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=8k", "kelpa", disk],
                          stderr=subprocess.DEVNULL).returncode != 0:
            print("outputs: no right to mount, the full disk is left out")
            return
        try:
            for words in known:
                self.run([*words[:-1], "disk/" + words[-1]], {OUTPUT})
                if os.listdir(disk):
                    self.fault(words, f"leaves {os.listdir(disk)} on a full disk")
                    for name in os.listdir(disk):
                        (disk / name).unlink()
            subprocess.run(["mount", "-o", "remount,ro", disk], check=True)
            for words in known:
                self.run([*words[:-1], "disk/" + words[-1]], {OUTPUT})
        finally:
            subprocess.run(["umount", disk], check=True)
            disk.rmdir()

    def threads(self):
        """Few processors, and threads that do not start."""
        self.make("s.ply", 200000)
        words = ["render", "s.ply", "--samples", "1", "--size", "64x64", "-o", "o.ppm"]
        for count in ["0", "1", "2", "17", "4096"]:
            self.run([*words, "-n", count], {DONE})
            self.run([*words, "-n", count], {DONE},
                     preexec_fn=lambda: os.sched_setaffinity(0, {0}))
            for limit in range(0, 12):
                # Root's processes are not counted: another user's are.
                def limited(limit=limit):
                    resource.setrlimit(resource.RLIMIT_NPROC, (limit, limit))
                    if os.getuid() == 0:
                        os.setgid(65534)
                        os.setuid(65534)
                os.chmod(self.folder, 0o777)
                self.run([*words, "-n", count], {DONE}, preexec_fn=limited)

    def memory(self):
        """Address space from as much as the loader and the libraries need to start, to enough."""
        self.make("m.ply", 1000000)
        least = next(limit for limit in range(8 << 20, 1 << 30, 4 << 20)
                     if self.start(["--version"], preexec_fn=address_limit(limit)).wait() == DONE)
        for words in (["info", "m.ply"], ["info", "m.ply", "--motion", "m.ply"],
                      ["info", "m.ply", "--motion", "velocity", "--json"],
                      ["render", "m.ply", "--samples", "1", "--size", "640x480", "-o", "o.png"],
                      ["render", "m.ply", "--samples", "1", "--size", "640x480", "-o", "o.exr"],
                      ["generate", "crystal", "--count", "1000000", "-o", "o.ply"],
                      ["render", "m.ply", "-o", "o.ppm", "--size", "65536x65536"]):
            for count in ["1", "4"]:
                limit = least
                while limit < 1200 << 20:
                    started = self.run([*words, "-n", count], {DONE, FAILED},
                                       preexec_fn=address_limit(limit))
                    if started == DONE:
                        break
                    limit += max(4 << 20, limit // 25)

    def interrupts(self):
        """Both signals at every moment of a run; at most a second to the end."""
        self.make("i.ply", self.particles, "cloud")
        self.make("small.ply", 1000)
        slowest = 0.0
        for words in (["render", "i.ply", "--samples", "4", "-o", "o.png"],
                      ["render", "i.ply", "--samples", "1", "--turntable", "3", "-o", "t#.png"],
                      ["render", "i.ply", "i.ply", "--samples", "1", "-o", "o.exr"],
                      ["render", "i.ply", "--color-by", "x", "--radii", "covalent", "--samples", "1",
                       "-o", "o.ppm"],
                      ["render", "small.ply", "--samples", "1", "--shade", "flat", "--size",
                       "8000x6000", "-o", "o.png"],
                      ["info", "i.ply"], ["bench", "i.ply"],
                      ["generate", "galaxy", "--count", str(self.particles), "-o", "o.ply"],
                      ["generate", "splash", "--count", str(self.particles), "--ascii", "-o", "o.ply"]):
            wait = 0.02
            while wait < 60:
                known = set(os.listdir(self.folder))
                number = signal.SIGINT if int(wait * 100) % 2 else signal.SIGTERM
                child = self.start([*words, "-q"])
                time.sleep(wait)
                begin = time.monotonic()
                child.send_signal(number)
                _, err = child.communicate()
                took = time.monotonic() - begin
                slowest = max(slowest, took)
                if child.returncode != DONE and took > 1:
                    self.fault(words, f"{took:.2f} s from the signal after {wait:.2f} s to the end")
                # Before its handlers are set the process ends by the signal itself.
                early = {-number} if wait < 0.05 else set()
                self.judge(words, child.returncode, err, {DONE, INTERRUPTED} | early, known)
                if child.returncode == DONE:
                    break
                wait = wait * 1.07 + 0.03
        print(f"interrupts: {slowest:.2f} s at most from a signal to the end")


def address_limit(size):
    return lambda: resource.setrlimit(resource.RLIMIT_AS, (size, size))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--kelpa", default=ROOT / "build/test/tool/kelpa")
    parser.add_argument("--particles", type=int, default=10000000)
    parser.add_argument("sections", nargs="*", default=[])
    given = parser.parse_args()
    sections = given.sections or ["options", "files", "outputs", "threads", "memory", "interrupts"]
    faults = 0
    for section in sections:
        soak = Soak(given.kelpa, given.particles)
        begin = time.monotonic()
        try:
            getattr(soak, section)()
        finally:
            shutil.rmtree(soak.folder, ignore_errors=True)
        faults += soak.faults
        print(f"{section}: {soak.runs} runs, {soak.faults} faults, "
              f"{time.monotonic() - begin:.0f} s", flush=True)
    sys.exit(1 if faults else 0)


main()
