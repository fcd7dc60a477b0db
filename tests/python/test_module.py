# The vorel Python module against the command line it mirrors: the same frame through arrays and
# through files must give the same values, the same errors and the same knobs.
import concurrent.futures
import os
import warnings

import numpy as np
import pytest

import vorel
from conftest import run, scene

LOOKS = {
    "defocus": dict(focalPlane=150, focusRegionSize=20, multiplier=4, max_kernelsize=16),
    "matte": {"outputType": "Focus Matte", "focalPlane": 150},
    "aberrations": dict(focalPlane=90, multiplier=3, max_kernelsize=16, kChrAbb=2,
                        kChrAbbOff=(0.6, 1, 1.4), bloom=0.5, kNumSides=6,
                        normalizeVisualization=True),
    "slices": dict(focalPlane=200, multiplier=5, correctiveSlices=3, max_kernelsize=16),
}


def file_render(tmp_path, image, depth, **knobs):
    names = ["R", "G", "B", "A"][: image.shape[2]]
    src, dst = str(tmp_path / "in.exr"), str(tmp_path / "out.exr")
    vorel.write_image(src, np.dstack([image, depth]), names + ["Z"])
    vorel.render_file(src, dst, **knobs)
    out, out_names = vorel.read_image(dst)
    assert out_names == names + ["Z"]
    return out[:, :, : len(names)]


@pytest.mark.parametrize("look", LOOKS)
def test_arrays_and_files_give_the_same_frame(tmp_path, look):
    image, depth = scene()
    expected = file_render(tmp_path, image, depth, **LOOKS[look])
    got = vorel.render(image, depth, **LOOKS[look])
    assert got.dtype == np.float32 and got.shape == image.shape
    np.testing.assert_array_equal(got, expected)
    assert not np.array_equal(got, image) or look == "matte"


def test_any_layout_reads_the_same_pixels():
    image, depth = scene(channels=3)
    knobs = LOOKS["defocus"]
    expected = vorel.render(image, depth, **knobs)
    # Views with steps and reversed axes, Fortran order, and other dtypes.
    big = np.zeros((48, 80, 5), np.float32)
    big[::2, ::2, 1:4] = image
    flipped = np.ascontiguousarray(image[:, ::-1])[:, ::-1]
    for img, dep in [(big[::2, ::2, 1:4], np.asfortranarray(depth)),
                     (flipped, depth.astype(np.float64)),
                     (image.transpose(1, 0, 2).copy().transpose(1, 0, 2), depth)]:
        np.testing.assert_array_equal(vorel.render(img, dep, **knobs), expected)
    # One channel as a 2-D array.
    single = vorel.render(image[:, :, 0], depth, **knobs)
    assert single.shape == depth.shape
    np.testing.assert_array_equal(single, expected[:, :, 0])


def test_in_focus_frame_is_returned_unchanged_and_inputs_untouched():
    image, depth = scene()
    before = image.copy()
    out = vorel.render(image, depth, focalPlane=150, focusRegionSize=1e6)
    np.testing.assert_array_equal(out, image)
    np.testing.assert_array_equal(image, before)


def test_lens_inputs_match_the_command_line(tmp_path, vorel_binary):
    image, depth = scene()
    src = str(tmp_path / "in.exr")
    vorel.write_image(src, np.dstack([image, depth]), ["R", "G", "B", "A", "Z"])
    kernel = np.zeros((9, 9, 4), np.float32)
    kernel[2:7, 1:8] = 1.0
    vorel.write_image(str(tmp_path / "k.exr"), kernel, ["R", "G", "B", "A"])
    camera = dict(focal=35, fstop=1.4, focus=120)
    proc = run([vorel_binary, "render", src, "-o", str(tmp_path / "out.exr"), "--kernel",
                str(tmp_path / "k.exr"), "--camera", "focal=35,fstop=1.4,focus=120",
                "--set", "max_kernelsize=16"])
    assert proc.returncode == 0, proc.stderr
    expected = vorel.read_image(str(tmp_path / "out.exr"))[0][:, :, :4]
    got = vorel.render(image, depth, kernel=kernel, camera=camera, max_kernelsize=16)
    np.testing.assert_array_equal(got, expected)


def test_errors_carry_the_command_line_messages(tmp_path, vorel_binary):
    image, depth = scene()
    src = str(tmp_path / "in.exr")
    vorel.write_image(src, np.dstack([image, depth]), ["R", "G", "B", "A", "Z"])
    cases = [  # (keyword knobs, command-line --set values, exception)
        ({"fstopp": 2}, ["fstopp=2"], vorel.UsageError),
        ({"outputType": "Sharp"}, ["outputType=Sharp"], vorel.UsageError),
        ({"kernelType": "Input"}, ["kernelType=Input"], vorel.RenderError),
    ]
    for knobs, sets, error in cases:
        argv = [vorel_binary, "render", src, "-o", str(tmp_path / "x.exr")]
        for s in sets:
            argv += ["--set", s]
        line = run(argv).stderr.strip().splitlines()[-1]
        assert line.startswith("vorel: ")
        message = line[len("vorel: "):]
        with pytest.raises(error) as arrays:
            vorel.render(image, depth, **knobs)
        with pytest.raises(error) as files:
            vorel.render_file(src, str(tmp_path / "x.exr"), **knobs)
        assert str(files.value) == message
        # Only where the knob came from differs: "--set" on the command line.
        assert str(arrays.value) == message.replace("--set", "vorel.render", 1)
    assert not os.path.exists(tmp_path / "x.exr")

    with pytest.raises(vorel.UsageError, match="no channel 'Q'"):
        vorel.render_file(src, str(tmp_path / "x.exr"), channels="Q")
    with pytest.raises(vorel.UsageError, match="depth must be 24x40"):
        vorel.render(image, depth[:, :5])
    with pytest.raises(vorel.UsageError, match="1 to 4 channels"):
        vorel.render(np.zeros((4, 4, 6), np.float32), np.zeros((4, 4), np.float32))
    with pytest.raises(vorel.UsageError, match="--camera: fstop must be a positive number"):
        vorel.render(image, depth, camera={"fstop": -1})
    assert issubclass(vorel.UsageError, vorel.Error) and issubclass(vorel.RenderError, vorel.Error)


def test_knob_listing_round_trips_every_default():
    knobs = vorel.knobs()
    names = [k["name"] for k in knobs]
    assert len(names) == len(set(names)) and "focalPlane" in names
    by_name = {k["name"]: k for k in knobs}
    assert "Focus Matte" in by_name["outputType"]["entries"]
    assert by_name["focalPlane"]["kind"] == "float"
    # Every default, handed back as text, renders what no knobs render.
    image, depth = scene(height=8, width=12)
    defaults = {k["name"]: k["default"] for k in knobs}
    np.testing.assert_array_equal(vorel.render(image, depth, **defaults),
                                  vorel.render(image, depth))


def test_renders_from_many_threads_at_once_match_one_by_one():
    frames = [scene(seed=s) for s in range(6)]
    knobs = LOOKS["aberrations"]
    alone = [vorel.render(i, d, threads=1, **knobs) for i, d in frames]
    # Thread counts differ from call to call, so some renders must wait to set theirs.
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        together = list(pool.map(lambda i: vorel.render(*frames[i], threads=1 + i % 3, **knobs),
                                 range(len(frames))))
    for a, b in zip(alone, together):
        np.testing.assert_array_equal(a, b)


def test_a_dataset_of_small_frames_in_one_loop():
    # The RGB-D use: many frames, one call each, nothing kept between calls.
    rng = np.random.default_rng(7)
    depth = np.repeat(np.linspace(50, 500, 64, dtype=np.float32)[:, None], 64, axis=1)
    first = None
    for i in range(100):
        image = rng.random((64, 64, 3), dtype=np.float32)
        out = vorel.render(image, depth, focalPlane=100 + i, multiplier=2, max_kernelsize=16)
        assert out.shape == (64, 64, 3) and np.isfinite(out).all()
        if i == 0:
            first = (image, out)
    np.testing.assert_array_equal(
        vorel.render(first[0], depth, focalPlane=100, multiplier=2, max_kernelsize=16), first[1])


def test_node_warnings_become_python_warnings():
    image, depth = scene()
    with pytest.warns(RuntimeWarning, match="Max kernel size is less than the maximum coc"):
        vorel.render(image, depth, focalPlane=100, multiplier=40, max_kernelsize=8)
