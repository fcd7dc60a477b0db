#!/usr/bin/env python3
"""End-to-end cases of `vorel render` beside GEGL's gegl:lens-blur given the same per-pixel radius.

Called by scripts/bench after the build. For each case it runs vorel --reps times with each
thread count, the counts taking turns (the best wall time counts, and apart from it the best
compute), reads its own account of where the time went (--timings: read, open with its serial
parts when vorel reports them, rows, write), and its peak resident set, also as a multiple of the
input and output pixels; on the flat cases at f/2.8 and f/1.4 it also runs the peer on the CoC
pass vorel wrote (--coc-out), the peer's copy alone (load and save, no blur), and measures how
far apart the two outputs are. Then it prints the table of targets from those numbers.

Cases: the benchmark frame (f/2.8, max_kernelsize 64), f/1.4 with 128, a frame of twice the
size at f/1.4 with 256, the deep benchmark, aperture blades and a kernel image, each with 1 and 2
threads. --quick runs 2 threads only, and 1 thread for the benchmark frame alone (for the
scaling), and leaves out the double-size frame.
"""
import argparse
import os
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LENS = ["--set", "realWorldLens=on", "--set", "focalLength=50", "--set", "focalPlane=200",
        "--set", "worldScale=cm", "--set", "filmFormat=35mm", "--set", "correctiveSlices=10"]


def lens(fstop, size, *extra):
    return LENS + ["--set", "fStop=%s" % fstop, "--set", "max_kernelsize=%d" % size] + list(extra)


def run(args, env=None):
    """Runs a child that has to succeed; returns (seconds, stdout, stderr)."""
    start = time.monotonic()
    p = subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=env)
    seconds = time.monotonic() - start
    if p.returncode != 0:
        sys.exit("failed (%d): %s\n%s" % (p.returncode, " ".join(args), p.stderr))
    return seconds, p.stdout, p.stderr


def run_measured(args):
    """One run of `args` that has to succeed, through GNU time: (seconds, stdout, peak MB)."""
    record = os.path.join(ROOT, "build/bench-scene/.time-%d" % os.getpid())
    seconds, stdout, _ = run(["/usr/bin/time", "-f", "%M", "-o", record] + args)
    with open(record) as f:
        peak = int(f.read().strip().splitlines()[-1]) / 1024.0
    os.remove(record)
    return seconds, stdout, peak


NUMBER = r"([\d.e+-]+) s"


def timings(stdout):
    """vorel's --timings line: read, open, rows, write, and the parts of open (scan, bank, tables)
    when it gives them, else None."""
    line = next((l for l in stdout.splitlines() if l.startswith("timings:")), "")
    split = {}
    for key in ["read", "open", "rows", "write", "scan", "bank", "tables"]:
        m = re.search(r"\b%s %s" % (key, NUMBER), line)
        split[key] = float(m.group(1)) if m else None
    for key in ["read", "open", "rows", "write"]:
        split[key] = split[key] or 0.0
    return split


def compute(split):
    """The frame's own work: the rows, the kernel bank and the source tables; the whole of open
    when vorel does not split it."""
    if split["bank"] is not None and split["tables"] is not None:
        return split["rows"] + split["bank"] + split["tables"]
    return split["rows"] + split["open"]


def seconds_or_dash(value, width=6):
    return ("%*.2f" % (width, value)) if value is not None else "%*s" % (width, "-")


def mean_abs_rgb(a, b):
    """Mean absolute difference over R, G and B of two EXR files, by oiiotool."""
    p = subprocess.run(["oiiotool", a, "--ch", "R,G,B", b, "--ch", "R,G,B", "--diff"],
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    m = re.search(r"Mean error = ([\d.e+-]+)", p.stdout)
    return float(m.group(1)) if m else float("nan")


def max_coc(path):
    p = subprocess.run(["oiiotool", path, "--printstats"], stdout=subprocess.PIPE, text=True)
    m = re.search(r"Stats Max: ([\d.e+-]+)", p.stdout)
    return float(m.group(1))


class Bench:
    def __init__(self, opts):
        self.o = opts
        self.vorel = os.path.join(ROOT, "build/app/vorel")
        self.dir = os.path.join(ROOT, "build/bench-scene")
        self.results = {}

    def scene(self, name, width, height):
        d = os.path.join(self.dir, name)
        if not os.path.exists(os.path.join(d, "scene.exr")):
            subprocess.run([os.path.join(ROOT, "build/bench/vorel_scene"), d, str(width), str(height)], check=True)
        return d

    def vorel_case(self, name, inputs, settings, thread_counts, pixels_mb, coc_out=None, reps=None):
        """Runs the case with each thread count in turn, round after round, so that every count
        meets the machine in the same state. Per count: the run with the best wall time, and the
        best compute over all runs (a busy moment in one stage need not spoil the others)."""
        best, least, results = {}, {}, {}
        for _ in range(reps or self.o.reps):
            for threads in thread_counts:
                out = os.path.join(self.dir, "out_%s_%d.exr" % (name, threads))
                args = [self.vorel, "render"] + inputs + ["-o", out, "--threads", str(threads), "--quiet",
                                                          "--timings"] + settings
                if coc_out and threads == 2:
                    args += ["--coc-out", coc_out]
                seconds, stdout, peak = run_measured(args)
                split = timings(stdout)
                if threads not in best or seconds < best[threads][0]:
                    best[threads] = (seconds, split, peak, out)
                least[threads] = min(least.get(threads, float("inf")), compute(split))
        for threads in thread_counts:
            seconds, split, peak, out = best[threads]
            r = dict(split, wall=seconds, peak=peak, ratio=peak / pixels_mb, out=out, compute=least[threads])
            self.results[(name, threads)] = results[threads] = r
            open_split = " ".join(seconds_or_dash(r[k], 5) for k in ["scan", "bank", "tables"])
            print("%-22s %2d %8.2f %6.2f %6.2f %s %7.2f %6.2f %8.1f %5.2fx %7.2f" % (
                name, threads, r["wall"], r["read"], r["open"], open_split, r["rows"], r["write"], r["peak"],
                r["ratio"], r["compute"]), flush=True)
        return results

    def peer(self, name, scene_exr, coc_exr, vorel_out):
        """gegl:lens-blur with vorel's radii: a mask of CoC / largest CoC scales radius = largest / 2."""
        largest = max_coc(coc_exr)
        mask = os.path.join(self.dir, "mask_%s.exr" % name)
        subprocess.run(["oiiotool", coc_exr, "--divc", repr(largest), "-o", mask], check=True)
        out = os.path.join(self.dir, "gegl_%s.exr" % name)
        copy = os.path.join(self.dir, "gegl_copy_%s.exr" % name)
        env = dict(os.environ, GEGL_THREADS="2")
        blur = ["gegl", scene_exr, "-o", out, "--", "gegl:lens-blur", "radius=%r" % (largest / 2.0),
                "linear-mask=true", "aux=[", "gegl:load", "path=%s" % mask, "]"]
        best = min(run(blur, env)[0] for _ in range(self.o.reps))
        best_copy = min(run(["gegl", scene_exr, "-o", copy], env)[0] for _ in range(self.o.reps))
        agreement = mean_abs_rgb(out, vorel_out)
        self.results[("peer", name)] = {"wall": best, "copy": best_copy, "agreement": agreement}
        print("  gegl:lens-blur (radius %.1f, 2 threads): %.2f s end to end, %.2f s load and save alone; "
              "mean |vorel - gegl| over RGB %.4f" % (largest / 2.0, best, best_copy, agreement), flush=True)

    def all(self):
        print("load: %s  cores: %d" % (" ".join(open("/proc/loadavg").read().split()[:3]), os.cpu_count()))
        w, h = self.o.width, self.o.height
        frame = self.scene("frame_%dx%d" % (w, h), w, h)
        demo = os.path.join(self.dir, "demo")
        if not os.path.exists(os.path.join(demo, "kernel.exr")):
            run([self.vorel, "demo-scene", demo])
        flat = [os.path.join(frame, "scene.exr")]
        deep = ["--deep", os.path.join(frame, "scene_deep.exr")]
        # Input and output pixels, RGBA and Z as float each way (the deep case counts its flat
        # equivalent).
        pixels = w * h * 4 * (5 + 5) / 1e6
        cases = [
            ("f2.8_64", flat, lens(2.8, 64), True, pixels),
            ("f1.4_128", flat, lens(1.4, 128), True, pixels),
            ("deep_f2.8_64", deep, lens(2.8, 64), False, pixels),
            ("blades_f2.8_64", flat, lens(2.8, 64, "--set", "kernelType=Aperture Blades"), False, pixels),
            ("kernel_image_f2.8_64", flat + ["--kernel", os.path.join(demo, "kernel.exr")], lens(2.8, 64), False,
             pixels),
        ]
        if not self.o.quick:
            big = self.scene("frame_%dx%d" % (2 * w, 2 * h), 2 * w, 2 * h)
            cases.append(("large_f1.4_256", [os.path.join(big, "scene.exr")], lens(1.4, 256), False, 4 * pixels))
        print("%-22s %2s %8s %6s %6s %5s %5s %5s %7s %6s %8s %6s %7s" % (
            "case", "th", "wall s", "read", "open", "scan", "bank", "table", "rows", "write", "peak MB", "/pix",
            "compute"))
        for name, inputs, settings, with_peer, pixels_mb in cases:
            coc = os.path.join(self.dir, "coc_%s.exr" % name) if with_peer else None
            # The large frame runs for minutes: once is enough to see where it stands.
            results = self.vorel_case(name, inputs, settings, self.threads_for(name), pixels_mb, coc,
                                      1 if name.startswith("large") else None)
            if coc:
                self.peer(name, inputs[0], coc, results[2]["out"])
        self.table()

    def threads_for(self, name):
        if not self.o.quick or name == "f2.8_64":
            return [2, 1]
        return [2]

    def table(self):
        R = self.results
        w, h = self.o.width, self.o.height
        def get(name, threads=2):
            return R.get((name, threads))
        skipped = "not run (--quick)" if self.o.quick else "not run"
        rows = []
        def target(case, value, limit, met):
            rows.append((case, value if met is not None else skipped, limit,
                         "-" if met is None else ("met" if met else "not met")))
        f, peer = get("f2.8_64"), R.get(("peer", "f2.8_64"))
        ratio = f["wall"] / peer["wall"] if f and peer else None
        target("benchmark frame end to end vs gegl:lens-blur",
               ratio and "%.2f s vs %.2f s: ratio %.2f" % (f["wall"], peer["wall"], ratio), "<= 0.9",
               ratio and ratio <= 0.9)
        target("benchmark frame, compute (rows + tables + bank)", f and "%.2f s" % f["compute"], "<= 0.5 s",
               f and f["compute"] <= 0.5)
        g = get("f1.4_128")
        slower = g["compute"] / f["compute"] if f and g else None
        target("f/1.4 128 vs f/2.8 64, compute", slower and "%.2fx" % slower, "<= 1.6x", slower and slower <= 1.6)
        k = get("large_f1.4_256")
        target("%dx%d f/1.4 256, end to end" % (2 * w, 2 * h), k and "%.1f s" % k["wall"], "<= 15 s",
               k and k["wall"] <= 15)
        d = get("deep_f2.8_64")
        deeper = d["compute"] / f["compute"] if f and d else None
        target("deep vs flat, compute", deeper and "%.2fx" % deeper, "<= 1.5x", deeper and deeper <= 1.5)
        scaling = []
        for name in ["f2.8_64", "f1.4_128", "deep_f2.8_64", "blades_f2.8_64", "kernel_image_f2.8_64",
                     "large_f1.4_256"]:
            one, two = get(name, 1), get(name, 2)
            if one and two:
                serial = " ".join("%s %s" % (k, seconds_or_dash(two[k], 0)) for k in ["scan", "bank", "tables"])
                scaling.append((name, one["compute"] / two["compute"], "open %.2f s: %s" % (two["open"], serial)))
        scaling = scaling or None
        target("2 threads vs 1, compute",
               scaling and "; ".join("%s %.2f (%s)" % s for s in scaling), ">= 1.85 each",
               scaling and all(s[1] >= 1.85 for s in scaling))
        target("peak memory vs input + output pixels",
               f and "%.0f MB / %.0f MB = %.2fx" % (f["peak"], f["peak"] / f["ratio"], f["ratio"]), "<= 2.5x",
               f and f["ratio"] <= 2.5)
        print("\n| case | now | target | |\n|---|---|---|---|")
        for case, now, limit, met in rows:
            print("| %s | %s | %s | %s |" % (case, now, limit, met))


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--reps", type=int, default=2, help="runs per case; the best counts")
    ap.add_argument("--quick", action="store_true",
                    help="2 threads, 1 thread for the benchmark frame alone, no double-size case")
    ap.add_argument("--width", type=int, default=2048, help="benchmark frame width (the large case doubles it)")
    ap.add_argument("--height", type=int, default=1556, help="benchmark frame height")
    Bench(ap.parse_args()).all()


if __name__ == "__main__":
    main()
