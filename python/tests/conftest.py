"""Shared fixtures: the real scans of tests/data and the quarvel tool (the C
path every binding result is compared with)."""
import os
import shutil
import subprocess

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DATA = os.environ.get("QUARVEL_TEST_DATA", os.path.join(ROOT, "tests", "data"))
REAL = ["deskew-2.png", "linn.png", "feyn-fract.tif", "breviar.38.150.jpg"]


@pytest.fixture(scope="session")
def data():
    return lambda name: os.path.join(DATA, name)


@pytest.fixture(scope="session")
def tool():
    path = os.environ.get("QUARVEL_TOOL") or shutil.which("quarvel")
    if not path or not os.access(path, os.X_OK):
        pytest.skip("the quarvel tool is not built")

    def run(*args, check=True):
        return subprocess.run([path, *map(str, args)], capture_output=True, text=True, check=check)

    return run


@pytest.fixture(scope="session")
def batch_files(tmp_path_factory):
    """Seven inputs: the real scans, two copies under other names and a two-page TIFF."""
    import quarvel

    d = tmp_path_factory.mktemp("inputs")
    files = []
    for name in REAL + ["deskew-2.png", "breviar.38.150.jpg"]:
        target = d / (name if not (d / name).exists() else "copy-" + name)
        shutil.copyfile(os.path.join(DATA, name), target)
        files.append(str(target))
    pages = quarvel.read(os.path.join(DATA, "deskew-2.png"))
    quarvel.write(d / "two.tif", [pages[0], quarvel.mirror(pages[0])])
    files.append(str(d / "two.tif"))
    return files
