"""Arrays to pages and back: every depth, strided views, resolution, what
Pillow sees in the files, and the arrays that are refused."""
import numpy as np
import pytest
from PIL import Image

import quarvel

rng = np.random.default_rng(7)
# Odd widths: 1-bit rows end inside a byte, 24-bit rows need padding.
ARRAYS = {
    "bool": rng.random((9, 13)) > 0.5,
    "gray": rng.integers(0, 256, (9, 13), dtype=np.uint8),
    "rgb": rng.integers(0, 256, (9, 5, 3), dtype=np.uint8),
    "rgba": rng.integers(0, 256, (9, 5, 4), dtype=np.uint8),
}


@pytest.mark.parametrize("kind", ARRAYS)
@pytest.mark.parametrize("view", ["plain", "reversed", "strided", "fortran"])
def test_round_trip_is_exact(kind, view):
    a = ARRAYS[kind]
    a = {"plain": a, "reversed": a[::-1, ::-1], "strided": a[::2, ::3], "fortran": np.asfortranarray(a)}[view]
    dib = quarvel.to_dib(a, dpi=(300, 150))
    assert dib.bits == {"bool": 1, "gray": 8, "rgb": 24, "rgba": 32}[kind]
    back = quarvel.from_dib(dib)
    assert back.dtype == a.dtype and back.flags.c_contiguous
    np.testing.assert_array_equal(back, a)
    assert back.dpi == (300.0, 150.0)


@pytest.mark.parametrize("kind", ARRAYS)
def test_files_agree_with_pillow(kind, tmp_path):
    # Rows top first, R G B order, True white: an independent reader sees the array.
    a = quarvel.as_page(ARRAYS[kind], dpi=200)
    quarvel.write(tmp_path / "a.png", a)
    with Image.open(tmp_path / "a.png") as im:
        np.testing.assert_array_equal(np.asarray(im.convert("1") if kind == "bool" else im), a)
    Image.fromarray(a).save(tmp_path / "b.png", dpi=(200, 200))
    (page,) = quarvel.read(tmp_path / "b.png")
    np.testing.assert_array_equal(page, a)
    assert page.dpi == pytest.approx((200, 200), abs=0.01)


def test_pickles_keep_pixels_and_resolution():
    import pickle

    page = quarvel.as_page(ARRAYS["rgb"], dpi=(300, 200))
    again = pickle.loads(pickle.dumps(page))
    assert again.dpi == (300.0, 200.0)
    np.testing.assert_array_equal(again, page)
    dib = pickle.loads(pickle.dumps(quarvel.to_dib(page)))
    assert dib.dpi == (300.0, 200.0)
    np.testing.assert_array_equal(quarvel.from_dib(dib), page)


def test_pillow_images_in_and_out():
    rgb = ARRAYS["rgb"]
    im = Image.fromarray(rgb).convert("P", palette=Image.ADAPTIVE, colors=256)
    np.testing.assert_array_equal(quarvel.from_pil(im), np.asarray(im.convert("RGB")))
    np.testing.assert_array_equal(quarvel.mirror(Image.fromarray(rgb)), rgb[:, ::-1])
    out = quarvel.to_pil(quarvel.as_page(ARRAYS["bool"], dpi=300))
    assert out.mode == "1" and out.info["dpi"] == (300.0, 300.0)


@pytest.mark.parametrize("bad, message", [
    (np.zeros((4, 4), np.float32), "dtype"),
    (np.zeros((4, 4), np.uint16), "dtype"),
    (np.zeros(4, np.uint8), "dimensions"),
    (np.zeros((4, 4, 2), np.uint8), "dimensions"),
    (np.zeros((4, 4, 3), bool), "dimensions"),
    (np.zeros((0, 4), np.uint8), "bytes of rows"),
    (np.broadcast_to(np.uint8(0), (1 << 16, 1 << 16)), "bytes of rows"),
])
def test_unusable_arrays_are_refused(bad, message):
    with pytest.raises(ValueError, match=message):
        quarvel.invert(bad)


def test_dib_in_dib_out_and_inputs_untouched():
    gray = ARRAYS["gray"].copy()
    other = np.full_like(gray, 0x0F)
    dib = quarvel.to_dib(gray)
    out = quarvel.image_and(dib, other)
    assert isinstance(out, quarvel.Dib)
    np.testing.assert_array_equal(quarvel.from_dib(out), gray & 0x0F)
    # ImageAnd writes its first page in C; the binding's callers keep theirs.
    np.testing.assert_array_equal(quarvel.from_dib(dib), ARRAYS["gray"])
    np.testing.assert_array_equal(quarvel.image_and(gray, other), gray & 0x0F)
    np.testing.assert_array_equal(gray, ARRAYS["gray"])
