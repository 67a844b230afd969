"""The weftmap Python module: arrays in and out, runs, cancellation, errors."""

import _thread
import ast
import os
import pathlib
import pydoc
import subprocess
import threading
import time

import numpy as np
import pytest

import weftmap

FIXED = {"seed": 5, "bands": 1}  # reproducible runs
TOP = {"uint8": 255, "uint16": 65535, "float32": 1.0, "float64": 1.0}


def texture(h, w, channels=3, dtype="uint8"):
    """A periodic texture in [0, 1] scaled to `dtype`, HxW for 0 channels."""
    y, x = np.mgrid[0:h, 0:w]
    planes = [0.5 + 0.4 * np.sin((x * (c + 1) + y * (3 - c)) * 0.45) for c in range(4)]
    picture = np.stack(planes[:channels], axis=-1) if channels else planes[0]
    scaled = picture * TOP[dtype]
    return (np.round(scaled) if TOP[dtype] > 1 else scaled).astype(dtype)


def disc(h, w, r):
    y, x = np.mgrid[0:h, 0:w]
    return (x - w / 2) ** 2 + (y - h / 2) ** 2 < r * r


@pytest.mark.parametrize("dtype", ["uint8", "uint16", "float32", "float64"])
@pytest.mark.parametrize("shape", [(), (1,), (3,), (4,)], ids=["gray", "gray1", "rgb", "cmyk"])
def test_fill_keeps_dtype_shape_known_pixels_and_inputs(dtype, shape):
    channels = shape[0] if shape else 0
    image, hole = texture(32, 40, channels, dtype), disc(32, 40, 6)
    image_before, hole_before = image.copy(), hole.copy()
    result = weftmap.fill(image, hole, cmyk=channels == 4, **FIXED)
    assert result.dtype == image.dtype and result.shape == image.shape
    assert not np.shares_memory(result, image)
    worked_on = image.astype(np.float32) if dtype == "float64" else image
    np.testing.assert_array_equal(result[~hole], worked_on[~hole])
    assert np.abs(result[hole].astype(float) - image[hole]).mean() < 0.15 * TOP[dtype]
    np.testing.assert_array_equal(image, image_before)
    np.testing.assert_array_equal(hole, hole_before)


def test_sample_keeps_every_known_pixel_and_grow_takes_the_halo():
    image, hole = texture(32, 40, 3), disc(32, 40, 5)
    sample = np.zeros((32, 40), bool)
    sample[:, :14] = True
    result = weftmap.fill(image, hole, sample=sample, **FIXED)
    np.testing.assert_array_equal(result[~hole], image[~hole])
    plain = weftmap.fill(image, hole, sample=sample, texture=False, mirror=False, rows=False,
                         **FIXED)
    np.testing.assert_array_equal(plain[~hole], image[~hole])
    # A red halo just outside the hole, found nowhere else, goes with it.
    halo = disc(32, 40, 7) & ~hole
    image[halo] = (255, 0, 0)
    grown = weftmap.fill(image, hole, grow=3, **FIXED)
    assert (grown[halo] != (255, 0, 0)).any(axis=-1).all()
    np.testing.assert_array_equal(grown[~disc(32, 40, 8.5)], image[~disc(32, 40, 8.5)])


def test_strided_views_give_the_fill_of_their_packed_copies():
    big = texture(64, 96, 3)
    big_hole = np.zeros((64, 96), bool)
    big_hole[24:40, 30:60] = True
    for image, hole in [
        (big[::-1, ::2], big_hole[::-1, ::2]),  # rows reversed, every other column
        (big[..., ::-1], big_hole.astype(np.uint8) * 255),  # a BGR view: channels copied first
        (big[10:50, 20:90], big_hole[10:50, 20:90]),  # a crop
    ]:
        packed = weftmap.fill(np.ascontiguousarray(image), np.ascontiguousarray(hole), **FIXED)
        np.testing.assert_array_equal(weftmap.fill(image, hole, **FIXED), packed)


def test_result_equals_the_command_line_host(tmp_path):
    tool = os.environ.get("WEFTMAP_TOOL")
    if not tool:
        pytest.skip("WEFTMAP_TOOL names the command-line host (set by CTest)")
    weftmap.write_image(tmp_path / "in.png", texture(48, 64, 3))
    weftmap.write_image(tmp_path / "mask.png", disc(48, 64, 9).astype(np.uint8) * 255)
    command = "fill in.png mask.png out.png --seed 7 --threads 1 --quiet".split()
    subprocess.run([tool, *command], cwd=tmp_path, check=True)
    image = weftmap.read_image(tmp_path / "in.png").pixels
    mask = weftmap.read_image(tmp_path / "mask.png").pixels
    ours = weftmap.fill(image, mask, seed=7, bands=1)
    np.testing.assert_array_equal(weftmap.read_image(tmp_path / "out.png").pixels, ours)


def test_options_are_dashed_stringified_and_flagged():
    image, hole = texture(32, 40), disc(32, 40, 7)
    def run(options):
        return weftmap.fill(image, hole, options=options, **FIXED)

    plain = run({"-em_iters": "1"})
    np.testing.assert_array_equal(run({"em_iters": 1}), plain)
    np.testing.assert_array_equal(run({"em_iters": 1, "minnn": False}), plain)
    assert not np.array_equal(run({"em_iters": 1, "no_minnn": None}), plain)
    # Values are checked and name their option; unknown options are told.
    with pytest.raises(weftmap.InvalidInputError, match="-em_iters needs a whole number"):
        run({"em_iters": "abc"})
    with pytest.warns(UserWarning, match="no option '-frobnicate'"):
        np.testing.assert_array_equal(run({"em_iters": 1, "frobnicate": 3}), plain)
    with pytest.raises(weftmap.InvalidInputError, match="retargeting votes both ways"):
        weftmap.retarget(image, width=30, comparator="gain-bias")


def test_ctrl_c_stops_a_long_fill_within_about_a_second():
    image, hole = texture(600, 600), disc(600, 600, 120)
    fired = []
    timer = threading.Timer(0.5, lambda: (fired.append(time.monotonic()), _thread.interrupt_main()))
    timer.start()
    try:
        with pytest.raises(KeyboardInterrupt):
            weftmap.fill(image, hole, options={"em_iters": 1000})
        assert time.monotonic() - fired[0] < 3.0
    finally:
        timer.cancel()


def test_progress_fractions_and_an_exception_from_the_callback():
    image, hole = texture(48, 64), disc(48, 64, 10)
    seen = []
    weftmap.fill(image, hole, progress=seen.append, **FIXED)
    assert seen and all(0.0 <= f <= 1.0 for f in seen) and seen == sorted(seen)

    class Stop(Exception):
        pass

    def stop(fraction):
        raise Stop(fraction)

    with pytest.raises(Stop):
        weftmap.fill(image, hole, progress=stop)


def test_retarget_sizes_and_types():
    image = texture(40, 48, 3, "uint16")
    assert weftmap.retarget(image, width=60, **FIXED).shape == (40, 60, 3)
    assert weftmap.retarget(image, height=30, **FIXED).shape == (30, 48, 3)
    result = weftmap.retarget(image[..., 0], scale=1.25, **FIXED)
    assert result.shape == (50, 60) and result.dtype == np.uint16


def test_retarget_remove_keeps_the_marked_region_out():
    # Texture channels stay within 0.1 to 0.9: pure red can only come from
    # the band on the left.
    image = texture(40, 72)
    image[:, :14] = (255, 0, 0)
    band = np.zeros((40, 72), bool)
    band[:, :14] = True
    red = lambda picture: np.count_nonzero(
        (picture[..., 0] > 200) & (picture[..., 1] < 8) & (picture[..., 2] < 8))
    assert red(weftmap.retarget(image, width=52, **FIXED)) > 100
    # Any non-zero value removes.
    result = weftmap.retarget(image, width=52, remove=band.astype(np.uint8) * 9, **FIXED)
    assert result.shape == (40, 52, 3) and red(result) == 0
    with pytest.raises(weftmap.InvalidInputError, match="remove mask"):
        weftmap.retarget(image, width=52, remove=band[:, :60])


def test_failures_raise_their_classes(tmp_path):
    image, hole = texture(32, 40), disc(32, 40, 6)
    cases = [
        (weftmap.InvalidInputError, lambda: weftmap.fill(image, hole[:, :30])),
        (weftmap.InvalidInputError, lambda: weftmap.fill(image, hole.astype(float))),
        (weftmap.InvalidInputError, lambda: weftmap.fill(image.astype(np.int32), hole)),
        (weftmap.InvalidInputError, lambda: weftmap.fill(texture(32, 40, 4), hole)),  # RGBA
        (weftmap.InvalidInputError, lambda: weftmap.fill(image, hole, mode="fast")),
        (weftmap.InvalidInputError, lambda: weftmap.retarget(image, width=9, scale=2)),
        (weftmap.HoleTooLargeError, lambda: weftmap.fill(image, np.ones((32, 40), bool))),
        (weftmap.InvalidInputError, lambda: weftmap.read_image(tmp_path / "none.png")),
        (weftmap.OutputError, lambda: weftmap.write_image(tmp_path / "no" / "x.png", image)),
    ]
    for expected, call in cases:
        with pytest.raises(expected) as caught:
            call()
        assert isinstance(caught.value, weftmap.Error) and str(caught.value)
    assert issubclass(weftmap.InvalidInputError, ValueError)
    assert issubclass(weftmap.OutputError, OSError)
    assert not (tmp_path / "no").exists()


def test_memory_limit_and_results_counted_until_freed():
    image, hole = texture(64, 64), disc(64, 64, 10)
    held = weftmap.memory_in_use()
    result = weftmap.fill(image, hole, **FIXED)
    assert weftmap.memory_in_use() >= held + result.nbytes
    del result
    assert weftmap.memory_in_use() == held
    old = weftmap.memory_limit()
    try:
        with pytest.raises(MemoryError) as caught:
            weftmap.fill(image, hole, memory_limit=held + 4096)
        assert isinstance(caught.value, weftmap.MemoryLimitError)
        assert weftmap.memory_in_use() == held
    finally:
        weftmap.set_memory_limit(old)
    assert weftmap.memory_limit() == old


@pytest.mark.parametrize("name, dtype, channels", [("a.tif", "float32", 4), ("b.png", "uint16", 0),
                                                   ("c.tif", "uint8", 3)])
def test_files_round_trip(tmp_path, name, dtype, channels):
    pixels = texture(20, 24, channels, dtype)
    written = weftmap.write_image(tmp_path / name, pixels, cmyk=channels == 4)
    assert written.endswith("PNG" if name.endswith("png") else "TIFF")
    read = weftmap.read_image(str(tmp_path / name))
    assert read.cmyk == (channels == 4)
    np.testing.assert_array_equal(read.pixels, pixels)


def test_pillow_pictures_fill_directly(tmp_path):
    image_module = pytest.importorskip("PIL.Image")
    photo = image_module.fromarray(texture(48, 64))
    hole = image_module.fromarray(disc(48, 64, 8))
    filled = weftmap.fill(np.asarray(photo), np.asarray(hole), **FIXED)
    image_module.fromarray(filled).save(tmp_path / "filled.png")
    np.testing.assert_array_equal(np.asarray(image_module.open(tmp_path / "filled.png")), filled)


def test_help_and_type_stub_cover_the_module():
    text = pydoc.plain(pydoc.render_doc(weftmap.fill))
    for word in ["image", "mask", "mode", "comparator", "options", "seed", "bands", "scalar",
                 "memory_limit", "sample", "grow", "progress", "cmyk", "HoleTooLargeError"]:
        assert word in text
    stub = pathlib.Path(weftmap.__file__).with_name("weftmap.pyi")
    tree = ast.parse(stub.read_text())
    declared = {n.name for n in tree.body if isinstance(n, (ast.FunctionDef, ast.ClassDef))}
    public = {n for n in dir(weftmap) if not n.startswith("_")}
    assert declared == public
