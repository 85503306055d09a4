"""Fixtures of the binding's tests: the bundled example, and an authority
made with the velk2 tool (keys, a store whose ACL trusts a root key for
packages and revocation lists, a signer certificate that asks for a list,
and a list that clears it), to sign packages with.

The library is the one VELK2_LIBRARY names (CTest sets it), else the one the
dynamic linker finds; the tool is VELK2_TOOL, else the one beside the
library in a build tree. Verification may record the newest manifest it
verified in a store, so each test verifies against its own copy.
"""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path
from typing import Dict, List, Optional

import pytest

SOURCE = Path(__file__).resolve().parents[2]
EXAMPLE_STORE = SOURCE / "examples" / "authority"
EXAMPLE_PACKAGE = SOURCE / "examples" / "package" / "hello-1.0"
TAG = "(pkg install)"
# The fixture's signer certificate is good in this period, the manifests it
# signs are signed at SIGNED, and its store's revocation list lasts longer.
PERIOD = ("2026-01-01_00:00:00", "2027-01-01_00:00:00")
SIGNED = "2026-06-01_12:00:00"


def _tool_path() -> Optional[Path]:
    named = os.environ.get("VELK2_TOOL")
    if named:
        return Path(named)
    library = os.environ.get("VELK2_LIBRARY")
    if library:
        beside = Path(library).resolve().parent / "tools" / "velk2" / "velk2"
        if beside.exists():
            return beside
    return None


class Tool:
    """The velk2 tool, run with no configuration file of the machine's."""

    def __init__(self, path: Path) -> None:
        self.path = path

    def run(self, *args: object) -> subprocess.CompletedProcess:
        env = dict(os.environ, VELK2_CONFIG="")
        return subprocess.run([str(self.path), *map(str, args)], env=env,
                              capture_output=True, text=True, timeout=120)

    def __call__(self, *args: object) -> str:
        """Runs the tool, which must succeed; its output."""
        done = self.run(*args)
        if done.returncode != 0:
            raise AssertionError(f"velk2 {' '.join(map(str, args))}: exit {done.returncode}\n"
                                 f"{done.stdout}{done.stderr}")
        return done.stdout


@pytest.fixture(scope="session")
def tool() -> Tool:
    path = _tool_path()
    if path is None or not path.exists():
        pytest.skip("the velk2 tool is needed to make fixtures: set VELK2_TOOL")
    return Tool(path)


class Authority:
    """Keys and a store made with the tool, and a way to sign packages."""

    def __init__(self, tool: Tool, root: Path) -> None:
        self.tool, self.dir = tool, root
        self.store = root / "store"
        (self.store / "acl").mkdir(parents=True)
        for key in ("root", "build"):
            tool("key", "new", "--type", "rsa", "--out", root / key)
        tool("acl", "add", "--subject", root / "root.pub", "--tag", "(pkg)", "--propagate",
             "--out", self.store / "acl" / "root.acl")
        tool("acl", "add", "--subject", root / "root.pub", "--tag", "(revoke pkg)",
             "--out", self.store / "acl" / "revoke.acl")
        self.signer = root / "signer.cert"
        tool("cert", "issue", "--issuer", root / "root.pem", "--subject", root / "build.pub",
             "--tag", TAG, "--revocation-scope", "(revoke pkg)", "--not-before", PERIOD[0],
             "--not-after", PERIOD[1], "--owner", "root", "--out", self.signer)
        self.import_list("clearing", [])

    def import_list(self, name: str, revoke: List[str], store: Optional[Path] = None,
                    not_before: str = "2026-01-01_00:00:00") -> None:
        """Issues a (revoke pkg) list revoking |revoke| (--revoke-cert
        operands) and imports it into |store| (the authority's own by
        default)."""
        incoming = self.dir / f"incoming-{name}"
        incoming.mkdir()
        options: List[object] = []
        for what in revoke:
            options += ["--revoke-cert", what, "--revoked-at", "2026-01-01_00:00:00"]
        self.tool("crl", "issue", "--issuer", self.dir / "root.pem", "--tag", "(revoke pkg)",
                  *options, "--not-before", not_before, "--not-after", "2036-01-01_00:00:00",
                  "--out", incoming / "list.crl")
        self.tool("crl", "import", incoming, "--store", store or self.store)

    def sign(self, package: Path, out: Optional[Path] = None, *options: object) -> Path:
        """Signs a manifest of |package| (into it by default), at SIGNED."""
        out = out or package / "manifest"
        self.tool("manifest", "sign", package, "--key", self.dir / "build.pem", "--chain",
                  self.signer, "--tag", TAG, "--time-of-signing", SIGNED, "--out", out,
                  *options)
        return out

    def copy_store(self, where: Path) -> Path:
        shutil.copytree(self.store, where)
        return where


@pytest.fixture(scope="session")
def authority(tool: Tool, tmp_path_factory: pytest.TempPathFactory) -> Authority:
    return Authority(tool, tmp_path_factory.mktemp("authority"))


def make_tree(root: Path, files: Dict[str, str]) -> Path:
    """Writes |files| (relative path: content) below |root|."""
    for relative, content in files.items():
        path = root / relative
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(content)
    return root


@pytest.fixture
def example_store(tmp_path: Path) -> Path:
    """A copy of the bundled example's store."""
    return Path(shutil.copytree(EXAMPLE_STORE, tmp_path / "example-store"))


@pytest.fixture
def example_copy(tmp_path: Path) -> Path:
    """A copy of the bundled example package, modes kept."""
    return Path(shutil.copytree(EXAMPLE_PACKAGE, tmp_path / "hello-1.0", symlinks=True))
