"""An in-tree build backend (PEP 517) for ``pip install .``: it needs
nothing from the network and nothing beyond the standard library, so pip's
build isolation has nothing to download. It configures the CMake project
for the interpreter that runs it (the library and tests off, the module
on), builds the quarvel_python target in build-pip-<tag>-<interpreter>/ at
the root (kept, so a second install is incremental), and zips the package and the
module into a wheel by hand.
"""
import base64
import hashlib
import os
import re
import shutil
import subprocess
import sys
import sysconfig
import zipfile

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
PACKAGE = os.path.join(ROOT, "python", "quarvel")


def _version():
    with open(os.path.join(PACKAGE, "__init__.py"), encoding="utf-8") as f:
        return re.search(r'^__version__ = "([^"]+)"', f.read(), re.M).group(1)


def _tag():
    impl = f"cp{sys.version_info[0]}{sys.version_info[1]}"
    platform = sysconfig.get_platform().replace("-", "_").replace(".", "_")
    return f"{impl}-{impl}-{platform}"


def _build():
    # One tree per interpreter: CMake caches what it found for the first one.
    interpreter = hashlib.sha256(sys.executable.encode()).hexdigest()[:8]
    build = os.path.join(ROOT, f"build-pip-{_tag()}-{interpreter}")
    configure = ["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DQUARVEL_BUILD_TESTS=OFF",
                 "-DQUARVEL_BUILD_BENCH=OFF", "-DQUARVEL_PYTHON=ON", f"-DPython3_EXECUTABLE={sys.executable}"]
    if shutil.which("ccache"):
        configure += ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_C_COMPILER_LAUNCHER=ccache"]
    subprocess.run(configure, check=True, stdout=sys.stderr)
    jobs = str(os.cpu_count() or 2)
    subprocess.run(["cmake", "--build", build, "--target", "quarvel_python", "-j", jobs], check=True, stdout=sys.stderr)
    out = os.path.join(build, "python", "quarvel")
    if not any(n.startswith("_quarvel.") for n in os.listdir(out)):
        raise RuntimeError("the Python module was not built: pybind11 or the Python headers are missing")
    return out


def _record_line(name, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(data)}"


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    built = _build()
    version, tag = _version(), _tag()
    dist_info = f"quarvel-{version}.dist-info"
    files = {}
    for name in sorted(os.listdir(built)):
        if name.endswith((".py", ".pyi", ".so")) or name == "py.typed":
            with open(os.path.join(built, name), "rb") as f:
                files[f"quarvel/{name}"] = f.read()
    files[f"{dist_info}/METADATA"] = (
        "Metadata-Version: 2.1\nName: quarvel\n"
        f"Version: {version}\nSummary: Document-image operations for scanned pages, on NumPy arrays\n"
        "Requires-Python: >=3.8\n\nPages as NumPy arrays (NumPy is needed for them; Dask for cluster batches).\n"
    ).encode()
    files[f"{dist_info}/WHEEL"] = (f"Wheel-Version: 1.0\nGenerator: quarvel_build\nRoot-Is-Purelib: false\n"
                                   f"Tag: {tag}\n").encode()
    files[f"{dist_info}/top_level.txt"] = b"quarvel\n"
    record = [_record_line(n, d) for n, d in files.items()] + [f"{dist_info}/RECORD,,"]
    files[f"{dist_info}/RECORD"] = ("\n".join(record) + "\n").encode()
    wheel = f"quarvel-{version}-{tag}.whl"
    with zipfile.ZipFile(os.path.join(wheel_directory, wheel), "w", zipfile.ZIP_DEFLATED) as z:
        for name, data in files.items():
            z.writestr(name, data)
    return wheel


def build_sdist(sdist_directory, config_settings=None):
    import tarfile

    version = _version()
    name = f"quarvel-{version}"
    tracked = subprocess.run(["git", "-C", ROOT, "ls-files"], capture_output=True, text=True, check=True).stdout.split()
    with tarfile.open(os.path.join(sdist_directory, f"{name}.tar.gz"), "w:gz") as tar:
        for path in tracked:
            tar.add(os.path.join(ROOT, path), arcname=f"{name}/{path}")
    return f"{name}.tar.gz"
