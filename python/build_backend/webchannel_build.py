"""Build backend of the webchannel package (PEP 517), standard library only.

pip builds a package in an isolated environment into which it installs the
backend's requirements; with none to install, `pip install ./python` needs
no package index. The package is pure Python (it finds the shared library at
run time), so its wheel holds the sources as they are.
"""
from __future__ import annotations

import base64
import hashlib
import io
import re
import tarfile
import zipfile
from pathlib import Path
from typing import Dict, List, Optional, Tuple

ROOT = Path(__file__).resolve().parent.parent
PACKAGE = "webchannel"
# Fixed times make the same sources give the same archive bytes.
EPOCH = (1980, 1, 1, 0, 0, 0)


def _project() -> Dict[str, str]:
    """The string entries of pyproject.toml's [project] table."""
    text = (ROOT / "pyproject.toml").read_text(encoding="utf-8")
    try:
        import tomllib  # Python 3.11 and later

        return {k: v for k, v in tomllib.loads(text)["project"].items() if isinstance(v, str)}
    except ImportError:
        # The table holds plain `key = "value"` lines only.
        table = re.search(r"^\[project\]\n(.*?)(?=^\[|\Z)", text, re.M | re.S)
        return dict(re.findall(r'^([\w-]+)\s*=\s*"([^"]*)"', table.group(1) if table else "", re.M))


def _names() -> Tuple[str, str]:
    project = _project()
    return project["name"], project["version"]


def _metadata() -> str:
    project = _project()
    return (
        "Metadata-Version: 2.1\n"
        f"Name: {project['name']}\n"
        f"Version: {project['version']}\n"
        f"Summary: {project.get('description', '')}\n"
        f"Requires-Python: {project.get('requires-python', '>=3.8')}\n"
    )


def _sources() -> List[Path]:
    """The package's files, relative to the project root."""
    return sorted(
        p.relative_to(ROOT)
        for p in (ROOT / PACKAGE).rglob("*")
        if p.is_file() and "__pycache__" not in p.parts and p.suffix in (".py", ".typed")
    )


def _digest(data: bytes) -> str:
    return "sha256=" + base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()


def _dist_info(metadata_directory: Path) -> str:
    name, version = _names()
    info = metadata_directory / f"{name}-{version}.dist-info"
    info.mkdir(parents=True, exist_ok=True)
    (info / "METADATA").write_text(_metadata(), encoding="utf-8")
    return info.name


def get_requires_for_build_wheel(config_settings: Optional[dict] = None) -> List[str]:
    return []


def get_requires_for_build_sdist(config_settings: Optional[dict] = None) -> List[str]:
    return []


def prepare_metadata_for_build_wheel(metadata_directory: str, config_settings: Optional[dict] = None) -> str:
    return _dist_info(Path(metadata_directory))


def build_wheel(
    wheel_directory: str, config_settings: Optional[dict] = None, metadata_directory: Optional[str] = None
) -> str:
    name, version = _names()
    info = f"{name}-{version}.dist-info"
    files = [(str(path), (ROOT / path).read_bytes()) for path in _sources()]
    files.append((f"{info}/METADATA", _metadata().encode()))
    files.append(
        (f"{info}/WHEEL", b"Wheel-Version: 1.0\nGenerator: webchannel_build\nRoot-Is-Purelib: true\nTag: py3-none-any\n")
    )
    record = "".join(f"{path},{_digest(data)},{len(data)}\n" for path, data in files) + f"{info}/RECORD,,\n"
    files.append((f"{info}/RECORD", record.encode()))
    wheel = f"{name}-{version}-py3-none-any.whl"
    with zipfile.ZipFile(Path(wheel_directory) / wheel, "w", zipfile.ZIP_DEFLATED) as archive:
        for path, data in files:
            archive.writestr(zipfile.ZipInfo(path, EPOCH), data, zipfile.ZIP_DEFLATED)
    return wheel


def build_sdist(sdist_directory: str, config_settings: Optional[dict] = None) -> str:
    name, version = _names()
    base = f"{name}-{version}"
    paths = [Path("pyproject.toml"), Path("build_backend/webchannel_build.py"), *_sources()]
    files = [(str(path), (ROOT / path).read_bytes()) for path in paths]
    files.append(("PKG-INFO", _metadata().encode()))
    sdist = f"{base}.tar.gz"
    with tarfile.open(Path(sdist_directory) / sdist, "w:gz", format=tarfile.PAX_FORMAT) as archive:
        for path, data in files:
            member = tarfile.TarInfo(f"{base}/{path}")
            member.size, member.mode = len(data), 0o644
            archive.addfile(member, io.BytesIO(data))
    return sdist
