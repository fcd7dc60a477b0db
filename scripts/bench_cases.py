#!/usr/bin/env python3
"""End-to-end cases of `vorel render` beside GEGL's gegl:lens-blur given the same per-pixel radius.

Called by scripts/bench after the build. For each case and thread count it runs vorel (best of
--reps), reads its own account of where the time went (--timings), and its peak resident set;
on the flat cases at f/2.8 and f/1.4 it also runs the peer on the CoC pass vorel wrote
(--coc-out), the peer's copy alone (load and save, no blur), and measures how far apart the two
outputs are. Then it prints the target table of the issue from those numbers.
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


def peak_mb(args):
    """Peak resident set of one run of `args`, through GNU time."""
    p = subprocess.run(["/usr/bin/time", "-f", "%M"] + args, stdout=subprocess.PIPE,
                       stderr=subprocess.PIPE, text=True)
    return int(p.stderr.strip().splitlines()[-1]) / 1024.0


def timings(stdout):
    m = re.search(r"timings: read ([\d.e-]+) s, open ([\d.e-]+) s, rows ([\d.e-]+) s, write ([\d.e-]+) s", stdout)
    return tuple(float(v) for v in m.groups()) if m else (0.0, 0.0, 0.0, 0.0)


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

    def vorel_case(self, name, inputs, settings, threads, coc_out=None, reps=None):
        out = os.path.join(self.dir, "out_%s_%d.exr" % (name, threads))
        args = [self.vorel, "render"] + inputs + ["-o", out, "--threads", str(threads), "--quiet", "--timings"]
        args += settings
        if coc_out:
            args += ["--coc-out", coc_out]
        best = None
        for _ in range(reps or self.o.reps):
            seconds, stdout, _ = run(args)
            split = timings(stdout)
            if best is None or seconds < best[0]:
                best = (seconds, split)
        peak = peak_mb(args) if threads == 2 else 0.0
        r = {"wall": best[0], "read": best[1][0], "open": best[1][1], "rows": best[1][2], "write": best[1][3],
             "peak": peak, "out": out}
        self.results[(name, threads)] = r
        print("%-22s %2d  %8.2f %7.2f %7.2f %8.2f %7.2f %8.1f" % (name, threads, r["wall"], r["read"], r["open"],
                                                                r["rows"], r["write"], r["peak"]), flush=True)
        return r

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
        frame = self.scene("frame_%dx%d" % (self.o.width, self.o.height), self.o.width, self.o.height)
        demo = os.path.join(self.dir, "demo")
        if not os.path.exists(os.path.join(demo, "kernel.exr")):
            run([self.vorel, "demo-scene", demo])
        flat = [os.path.join(frame, "scene.exr")]
        deep = ["--deep", os.path.join(frame, "scene_deep.exr")]
        cases = [
            ("f2.8_64", flat, lens(2.8, 64), True),
            ("f1.4_128", flat, lens(1.4, 128), True),
            ("deep_f2.8_64", deep, lens(2.8, 64), False),
            ("blades_f2.8_64", flat, lens(2.8, 64, "--set", "kernelType=Aperture Blades"), False),
            ("kernel_image_f2.8_64", flat + ["--kernel", os.path.join(demo, "kernel.exr")], lens(2.8, 64), False),
        ]
        if not self.o.quick:
            big = self.scene("frame_%dx%d" % (2 * self.o.width, 2 * self.o.height), 2 * self.o.width,
                             2 * self.o.height)
            cases.append(("large_f1.4_256", [os.path.join(big, "scene.exr")], lens(1.4, 256), False))
        print("%-22s %2s  %8s %7s %7s %8s %7s %8s" % ("case", "th", "wall s", "read", "open", "rows", "write",
                                                     "peak MB"))
        for name, inputs, settings, with_peer in cases:
            for threads in ([2] if self.o.quick else [1, 2]):
                coc = os.path.join(self.dir, "coc_%s.exr" % name) if with_peer and threads == 2 else None
                # The large frame runs for minutes: once is enough to see where it stands.
                r = self.vorel_case(name, inputs, settings, threads, coc, 1 if name.startswith("large") else None)
                if coc:
                    self.peer(name, inputs[0], coc, r["out"])
        self.table()

    def table(self):
        R = self.results
        def get(name, threads=2):
            return R.get((name, threads))
        def compute(r):
            return r["open"] + r["rows"]
        rows = []
        f = get("f2.8_64")
        peer = R.get(("peer", "f2.8_64"))
        if f and peer:
            rows.append(("benchmark frame end to end vs gegl:lens-blur", "%.2f s vs %.2f s: ratio %.2f"
                         % (f["wall"], peer["wall"], f["wall"] / peer["wall"]), "<= 0.9"))
        if f:
            rows.append(("benchmark frame, compute (rows + tables + bank)", "%.2f s" % compute(f), "<= 0.5 s"))
        g = get("f1.4_128")
        if f and g:
            rows.append(("f/1.4 128 vs f/2.8 64, compute", "%.2fx" % (compute(g) / compute(f)), "<= 1.6x"))
        k = get("large_f1.4_256")
        if k:
            rows.append(("%dx%d f/1.4 256, end to end" % (2 * self.o.width, 2 * self.o.height), "%.1f s" % k["wall"], "<= 15 s"))
        d = get("deep_f2.8_64")
        if f and d:
            rows.append(("deep vs flat (compute)", "%.2fx" % (compute(d) / compute(f)), "<= 1.5x"))
        scaling = []
        for name in ["f2.8_64", "f1.4_128", "deep_f2.8_64", "blades_f2.8_64", "kernel_image_f2.8_64", "large_f1.4_256"]:
            one, two = get(name, 1), get(name, 2)
            if one and two:
                scaling.append("%s %.2f (serial open %.2f s)" % (name, compute(one) / compute(two), two["open"]))
        if scaling:
            rows.append(("2 threads vs 1, compute", "; ".join(scaling), ">= 1.85 each"))
        if f:
            pixels_mb = self.o.width * self.o.height * 4 * (5 + 5) / 1e6  # RGBAZ in and out, float
            rows.append(("peak memory vs input + output pixels", "%.0f MB / %.0f MB = %.2fx"
                         % (f["peak"], pixels_mb, f["peak"] / pixels_mb), "<= 2.5x"))
        print("\n| case | now | target |\n|---|---|---|")
        for case, now, target in rows:
            print("| %s | %s | %s |" % (case, now, target))


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--reps", type=int, default=2, help="runs per case; the best counts")
    ap.add_argument("--quick", action="store_true", help="2 threads only, no double-size case")
    ap.add_argument("--width", type=int, default=2048, help="benchmark frame width (the large case doubles it)")
    ap.add_argument("--height", type=int, default=1556, help="benchmark frame height")
    Bench(ap.parse_args()).all()


if __name__ == "__main__":
    main()
