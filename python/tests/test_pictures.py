"""Pictures against ffmpeg's decode of the same frames."""
import numpy as np
import pytest

import tessalo
from conftest import frames, media, presentation_index

MAIN = media("main.mp4")


def _i420_truth(pts: int) -> np.ndarray:
    return frames(MAIN, "yuv420p")[presentation_index(MAIN, pts)]


def test_key_pictures_equal_ffmpegs_decode(main_media, bare_host):
    host = bare_host(MAIN)
    rgb_truth = frames(MAIN, "rgb24").reshape(-1, 240, 320, 3).astype(int)
    for key in main_media.keys():
        assert np.array_equal(main_media.picture(key, format="i420"), _i420_truth(key))
        rgb = main_media.picture(key)
        # The library's own 24-bit picture, rows bottom-up and bytes B, G, R.
        own = np.frombuffer(host.bgr_picture(key), np.uint8).reshape(240, 320, 3)[::-1, :, ::-1]
        assert rgb.shape == (240, 320, 3) and np.array_equal(rgb, own)
        assert np.array_equal(main_media.picture(key, format="bgr"), rgb[..., ::-1])
        # libyuv's rounding is not swscale's: close, but not within 1.
        difference = np.abs(rgb - rgb_truth[presentation_index(MAIN, key)])
        assert difference.max() <= 3 and difference.mean() < 1


def test_a_whole_group_comes_in_order(main_media):
    group = main_media.group(2000)
    delivered = list(main_media.pictures(group, format="i420"))
    assert [pts for pts, _ in delivered] == group
    for pts, picture in delivered:
        assert np.array_equal(picture, _i420_truth(pts)), pts


def test_any_timestamps_come_under_their_own_labels(main_media):
    asked = [1400, 1080, 3000, 0, 4000, 2960, 2000, 2040]
    delivered = list(main_media.pictures(asked, format="i420"))
    assert [pts for pts, _ in delivered] == asked
    for pts, picture in delivered:
        assert np.array_equal(picture, _i420_truth(pts)), pts
    with pytest.raises(ValueError, match="no picture of .* has the timestamp 1401 ms"):
        main_media.pictures([1000, 1401])


def test_an_abandoned_request_leaves_the_next_one_its_format(main_media):
    pictures = main_media.pictures(main_media.keys(), format="rgb")
    next(pictures)
    pictures.close()  # the library's worker may still be decoding in 24-bit
    assert np.array_equal(main_media.picture(3000, format="i420"), _i420_truth(3000))
    stale = main_media.pictures([0, 1000])
    next(stale)
    main_media.picture(2000)
    with pytest.raises(tessalo.PictureError, match="given up for a later request"):
        next(stale)


def test_every_picture_of_the_last_group_comes_or_is_named_missing(main_media):
    last = main_media.group(main_media.keys()[-1])
    delivered, missing = [], []
    try:
        for pts, picture in main_media.pictures(last, format="i420"):
            assert np.array_equal(picture, _i420_truth(pts)), pts
            delivered.append(pts)
    except tessalo.MissingPictures as e:
        missing = e.missing
    assert delivered + missing == last


def test_pictures_come_upright_by_the_display_rotation():
    rotated = media("rotated90.mp4")  # stored landscape, shown turned 90 degrees clockwise
    with tessalo.open(rotated) as m:
        height, width = m.info.height, m.info.width
        assert m.info.rotation == 90 and m.info.display_size == (height, width)
        upright, stored = m.picture(0), m.picture(0, rotate=False)
    assert stored.shape == (height, width, 3)
    truth = frames(rotated, "rgb24")[0].reshape(width, height, 3)  # ffmpeg turns it by the display matrix
    assert upright.shape == (width, height, 3) and np.abs(upright.astype(int) - truth).mean() < 1.5
