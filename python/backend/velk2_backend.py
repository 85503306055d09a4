"""The build backend of the velk2 binding (PEP 517, PEP 660).

The package is a few pure Python files, so building it needs nothing but the
standard library: ``pip install ./python`` works offline, with no setuptools
to fetch. The metadata comes from the [project] table of pyproject.toml.
"""

import base64
import hashlib
import io
import os
import re
import tarfile
import zipfile

_HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
_PACKAGE = "velk2"


def _project():
    """The string fields of pyproject.toml's [project] table (all it uses)."""
    fields, section = {}, None
    with open(os.path.join(_HERE, "pyproject.toml"), encoding="utf-8") as f:
        for line in f:
            line = line.strip()
            if line.startswith("["):
                section = line.strip("[]").strip()
            elif section == "project":
                match = re.fullmatch(r'([A-Za-z-]+)\s*=\s*"([^"\\]*)"', line)
                if match:
                    fields[match.group(1)] = match.group(2)
    return fields


def _metadata():
    p = _project()
    lines = ["Metadata-Version: 2.1", f"Name: {p['name']}", f"Version: {p['version']}",
             f"Summary: {p.get('description', '')}"]
    if "requires-python" in p:
        lines.append(f"Requires-Python: {p['requires-python']}")
    if "license" in p:
        lines.append(f"License: {p['license']}")
    return p["name"], p["version"], "\n".join(lines) + "\n"


def _sources():
    """(path in the archive, file) of each file of the package, sorted."""
    root = os.path.join(_HERE, _PACKAGE)
    found = []
    for directory, subdirectories, files in os.walk(root):
        subdirectories[:] = sorted(d for d in subdirectories if d != "__pycache__")
        for name in sorted(files):
            if name.endswith((".py", ".typed")):
                path = os.path.join(directory, name)
                found.append((os.path.relpath(path, _HERE).replace(os.sep, "/"), path))
    return found


def _wheel(directory, members):
    """Writes a wheel of |members| ((name, bytes) pairs) with its dist-info."""
    name, version, metadata = _metadata()
    info = f"{name}-{version}.dist-info"
    members = list(members) + [
        (f"{info}/METADATA", metadata.encode()),
        (f"{info}/WHEEL", b"Wheel-Version: 1.0\nGenerator: velk2_backend\n"
                          b"Root-Is-Purelib: true\nTag: py3-none-any\n"),
    ]
    record = []
    for member, data in members:
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=")
        record.append(f"{member},sha256={digest.decode()},{len(data)}")
    record.append(f"{info}/RECORD,,")
    members.append((f"{info}/RECORD", ("\n".join(record) + "\n").encode()))
    basename = f"{name}-{version}-py3-none-any.whl"
    with zipfile.ZipFile(os.path.join(directory, basename), "w", zipfile.ZIP_DEFLATED) as z:
        for member, data in members:
            entry = zipfile.ZipInfo(member, date_time=(1980, 1, 1, 0, 0, 0))
            entry.external_attr = 0o644 << 16
            z.writestr(entry, data, zipfile.ZIP_DEFLATED)
    return basename


def _read(path):
    with open(path, "rb") as f:
        return f.read()


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def get_requires_for_build_editable(config_settings=None):
    return []


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    return _wheel(wheel_directory, [(member, _read(path)) for member, path in _sources()])


def build_editable(wheel_directory, config_settings=None, metadata_directory=None):
    # A path file puts the source directory on sys.path.
    return _wheel(wheel_directory, [(f"_{_PACKAGE}_editable.pth", (_HERE + "\n").encode())])


def build_sdist(sdist_directory, config_settings=None):
    name, version, metadata = _metadata()
    base = f"{name}-{version}"
    files = [("pyproject.toml", os.path.join(_HERE, "pyproject.toml")),
             ("backend/velk2_backend.py", os.path.abspath(__file__))] + _sources()
    basename = f"{base}.tar.gz"
    with tarfile.open(os.path.join(sdist_directory, basename), "w:gz", format=tarfile.PAX_FORMAT) as t:
        for member, data in [(m, _read(p)) for m, p in files] + [("PKG-INFO", metadata.encode())]:
            entry = tarfile.TarInfo(f"{base}/{member}")
            entry.size, entry.mode = len(data), 0o644
            t.addfile(entry, io.BytesIO(data))
    return basename
