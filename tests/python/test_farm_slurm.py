# vorel farm on a real single-node Slurm (scripts/slurm-local): a 20-frame shot as a job array,
# one task killed in the middle of a frame, and the same submission again finishing the shot with
# every frame complete and none rendered twice. Skipped, saying why, where Slurm cannot run.
import os
import re
import subprocess
import tempfile
import time

import numpy as np
import pytest

import vorel
from conftest import run

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FRAMES = range(1, 21)
# The second task's last four frames: a task cancelled just after finishing frame 6 leaves them
# unrendered. Frame 7 is large (seconds, against a fraction of one for the others), so that the
# cancel catches the task inside it however fast the renderer gets.
CANCELLED = range(7, 11)
LARGE = (7,)
KNOBS = dict(focalPlane=60, multiplier=40, max_kernelsize=64)


@pytest.fixture
def task_program(vorel_binary):
    """The vorel the tasks run (VOREL_FARM_VOREL names another, e.g. a build of another branch)."""
    path = os.environ.get("VOREL_FARM_VOREL") or vorel_binary
    help_text = run([path, "render", "--help"]).stdout
    if "--frames" not in help_text or "--skip-existing" not in help_text:
        pytest.skip("this vorel render has no --frames/--skip-existing yet, which every farm task "
                    "runs; the job script and chunking are tested by test_farm")
    return path


@pytest.fixture
def slurm(task_program):
    if os.geteuid() != 0:
        pytest.skip("Slurm's slurmd must run as root to start jobs; this run is not root")
    state = tempfile.mkdtemp(prefix="vorel-slurm-")  # short: munge's socket path has a limit
    started = run([os.path.join(ROOT, "scripts", "slurm-local"), "start", state])
    if started.returncode != 0:
        subprocess.run([os.path.join(ROOT, "scripts", "slurm-local"), "stop", state])
        reason = started.stderr.strip().splitlines()[-1] if started.stderr.strip() else "no message"
        pytest.skip(f"Slurm cannot start on this machine: {reason}")
    env = dict(os.environ, SLURM_CONF=os.path.join(state, "slurm.conf"))
    yield env
    subprocess.run([os.path.join(ROOT, "scripts", "slurm-local"), "stop", state])
    subprocess.run(["rm", "-rf", state])


def shot(directory):
    rng = np.random.default_rng(3)
    frames = {}
    for f in FRAMES:
        height, width = (960, 1280) if f in LARGE else (48, 64)
        image = rng.random((height, width, 4), dtype=np.float32)
        depth = np.repeat(np.linspace(20, 400, width, dtype=np.float32)[None, :], height, axis=0) + f
        vorel.write_image(os.path.join(directory, f"shot.{f:04d}.exr"), np.dstack([image, depth]),
                          ["R", "G", "B", "A", "Z"])
        frames[f] = vorel.render(image, depth, **KNOBS)
    return frames


def wait_for(what, condition, logs, seconds=180):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return
        time.sleep(0.2)
    pytest.fail(f"timed out waiting for {what}; logs:\n" + logs())


def test_a_killed_task_and_a_resubmit_complete_the_shot(tmp_path, monkeypatch, vorel_binary,
                                                        task_program, slurm):
    work = tmp_path / "a shot"  # a space, which the job script's #SBATCH lines must carry
    work.mkdir()
    monkeypatch.chdir(work)
    os.mkdir("out")
    expected = shot(str(work))
    submit = [vorel_binary, "farm", "submit", "shot.####.exr", "-o", "out/soft.####.exr",
              "--frames", "1-20", "--chunk", "5", "--cpus", "1", "--vorel", task_program,
              "--quiet"] + [f"--set={k}={v}" for k, v in KNOBS.items()]

    def logs():
        text = ""
        for name in sorted(os.listdir("out/vorel-farm")) if os.path.isdir("out/vorel-farm") else []:
            with open(os.path.join("out/vorel-farm", name), errors="replace") as f:
                text += f"--- {name}\n{f.read()}"
        return text

    def finished(job):
        q = subprocess.run(["squeue", "-h", "-j", job, "-o", "%i %T"], capture_output=True,
                           text=True, env=slurm, timeout=30)
        return q.returncode != 0 or q.stdout.strip() == ""

    def outputs():
        return sorted(n for n in os.listdir("out") if n != "vorel-farm")

    first = subprocess.run(submit, capture_output=True, text=True, env=slurm, timeout=60)
    assert first.returncode == 0, first.stderr
    job = first.stdout.split()[-1]  # after the node's load banner
    print(f"$ {' '.join(submit[1:])}\n{first.stdout}{first.stderr}")

    # Task 1 (frames 6-10) has finished its first frame and is inside the large seventh: cancel it.
    wait_for("task 1's first frame", lambda: os.path.exists("out/soft.0006.exr"), logs)
    cancel = subprocess.run(["scancel", f"{job}_1"], capture_output=True, text=True, env=slurm)
    assert cancel.returncode == 0, cancel.stderr
    wait_for(f"job {job} to end", lambda: finished(job), logs)
    after_kill = outputs()
    print("after the cancel:", after_kill)
    missing = [f for f in FRAMES if f"soft.{f:04d}.exr" not in after_kill]
    assert 7 in missing and set(missing) <= set(CANCELLED), after_kill
    assert all(re.fullmatch(r"soft\.\d{4}\.exr", n) for n in after_kill), after_kill  # no partial file
    kept = {n: os.stat(os.path.join("out", n)).st_mtime_ns for n in after_kill}

    again = subprocess.run(submit, capture_output=True, text=True, env=slurm, timeout=60)
    assert again.returncode == 0, again.stderr
    print(f"$ {' '.join(submit[1:])}\n{again.stdout}{again.stderr}")
    job2 = again.stdout.split()[-1]
    wait_for(f"job {job2} to end", lambda: finished(job2), logs)

    assert outputs() == [f"soft.{f:04d}.exr" for f in FRAMES], logs()
    for f in FRAMES:
        image, names = vorel.read_image(f"out/soft.{f:04d}.exr")
        assert names == ["R", "G", "B", "A", "Z"]
        np.testing.assert_array_equal(image[:, :, :4], expected[f])
    for name, mtime in kept.items():  # rendered once only
        assert os.stat(os.path.join("out", name)).st_mtime_ns == mtime, name
    print(logs())
