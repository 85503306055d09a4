"""What a manifest lists, read from its body, for the parts of a Report that
the C interface does not hand out: which paths are listed directories, what
a directory records of itself, and the digests of listed files (to pair a
missing file with the extra file it was moved to).

The library verifies the manifest first; this reader only looks inside a
file the library has accepted. A manifest is one canonical S-expression:

    (8:manifest (7:version ...) (4:type ...) (15:signature-block ...)
      [(3:crl ...)] (4:body (12:random-token ....) entry...))
    entry: (4:file NAME ATTRIBUTES DIGEST) | (3:dir NAME ATTRIBUTES entry...)

ATTRIBUTES is one atom of tokens: a file's size, "mode=OOOO" (octal),
"uid=N gid=N", "link=HEX" for a symbolic link.
"""

from __future__ import annotations

import hashlib
import os
import stat
from typing import Dict, List, NamedTuple, Optional, Union

# Manifests are read up to this size, as the library reads them.
_MAX_SIZE = 256 << 20

Expression = Union[bytes, List["Expression"]]


class Entry(NamedTuple):
    """One listed entry: a directory, or a file with its SHA-256 digest."""

    directory: bool
    digest: Optional[bytes] = None
    link: bool = False
    mode: Optional[int] = None
    owner: Optional[tuple] = None  # (uid, gid)


class Listing:
    """The entries of a manifest by their path relative to the package
    (bytes, "/" between names, no trailing "/"). Names match byte for byte,
    as the library matches them: "BIN" beside a listed "bin" is another entry."""

    def __init__(self, entries: Dict[bytes, Entry]) -> None:
        self._entries = entries

    def get(self, path: bytes) -> Optional[Entry]:
        return self._entries.get(path)

    def is_directory(self, path: bytes) -> bool:
        found = self.get(path)
        return found is not None and found.directory


def _parse(data: bytes) -> Expression:
    """The canonical S-expression |data| as nested lists of atoms (bytes).
    Raises ValueError for anything else."""
    stack: List[List[Expression]] = []
    top: Optional[Expression] = None
    position, size = 0, len(data)

    def atom(at: int) -> tuple:
        colon = data.find(b":", at, at + 12)
        if colon <= at or not data[at:colon].isdigit():
            raise ValueError(f"no atom at byte {at}")
        end = colon + 1 + int(data[at:colon])
        if end > size:
            raise ValueError(f"an atom at byte {at} runs past the end")
        return data[colon + 1:end], end

    while position < size:
        byte = data[position]
        if byte == 0x28:  # (
            stack.append([])
            position += 1
        elif byte == 0x29:  # )
            if not stack:
                raise ValueError(f"an unopened ')' at byte {position}")
            done = stack.pop()
            position += 1
            if stack:
                stack[-1].append(done)
            else:
                top = done
                break
        elif byte == 0x5B:  # [hint] before an atom: passed over
            _, position = atom(position + 1)
            if data[position:position + 1] != b"]":
                raise ValueError(f"an unclosed display hint at byte {position}")
            position += 1
        else:
            value, position = atom(position)
            if not stack:
                raise ValueError("an atom outside any list")
            stack[-1].append(value)
    if top is None or position != size:
        raise ValueError("not one complete expression")
    return top


def _attributes(text: bytes, directory: bool, digest: Optional[bytes]) -> Entry:
    link, mode, uid, gid = False, None, None, None
    for token in text.split(b" "):
        if token.startswith(b"mode="):
            mode = int(token[5:], 8)
        elif token.startswith(b"uid="):
            uid = int(token[4:])
        elif token.startswith(b"gid="):
            gid = int(token[4:])
        elif token.startswith(b"link="):
            link = True
    owner = (uid, gid) if uid is not None and gid is not None else None
    return Entry(directory, digest, link, mode, owner)


def _entries(level: List[Expression], prefix: bytes, out: Dict[bytes, Entry]) -> None:
    for entry in level:
        if not isinstance(entry, list) or len(entry) < 3 or entry[0] not in (b"file", b"dir"):
            raise ValueError("an entry that is neither a file nor a directory")
        name, attributes = entry[1], entry[2]
        if not isinstance(name, bytes) or not isinstance(attributes, bytes):
            raise ValueError("an entry without a name")
        path = prefix + name
        if entry[0] == b"file":
            digest = entry[3] if len(entry) == 4 and isinstance(entry[3], bytes) else None
            out[path] = _attributes(attributes, False, digest)
        else:
            out[path] = _attributes(attributes, True, None)
            _entries(entry[3:], path + b"/", out)


Identity = tuple


def identity(path: bytes) -> Optional[Identity]:
    """What tells the file at |path| from another or a rewritten one: device,
    inode, size, modification and change times; None when it cannot be seen."""
    try:
        st = os.stat(path)
    except OSError:
        return None
    return (st.st_dev, st.st_ino, st.st_size, st.st_mtime_ns, st.st_ctime_ns)


def read(path: bytes, expected: Optional[Identity]) -> Optional[Listing]:
    """The entries listed in the manifest file at |path|, which must still be
    the file |expected| identifies (the one the library verified); None when
    it is another, is no regular file or cannot be read as a manifest (the
    parts of a Report that need it stay empty)."""
    try:
        # Non-blocking: a FIFO put in the manifest's place must not hang.
        fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK | getattr(os, "O_CLOEXEC", 0))
        with os.fdopen(fd, "rb") as f:
            st = os.fstat(f.fileno())
            if (not stat.S_ISREG(st.st_mode) or expected is None or
                    (st.st_dev, st.st_ino, st.st_size, st.st_mtime_ns, st.st_ctime_ns) != expected):
                return None
            data = f.read(_MAX_SIZE + 1)
        if len(data) > _MAX_SIZE:
            return None
        manifest = _parse(data)
        if not isinstance(manifest, list) or manifest[:1] != [b"manifest"]:
            return None
        for part in manifest[1:]:
            if isinstance(part, list) and part[:1] == [b"body"]:
                found: Dict[bytes, Entry] = {}
                _entries([e for e in part[1:] if not (isinstance(e, list) and
                                                      e[:1] == [b"random-token"])], b"", found)
                return Listing(found)
    except (OSError, ValueError, RecursionError):
        pass
    return None


def directory_state(path: bytes, recorded: Entry) -> str:
    """How the directory at |path| compares with what its manifest records
    of it, leaving aside what lies below it: "missing" when nothing is
    there, "changed" when its type, mode or owner differ or it cannot be
    listed, else "same"."""
    try:
        found = os.lstat(path)
    except FileNotFoundError:
        return "missing"
    except OSError:
        return "changed"
    if not stat.S_ISDIR(found.st_mode):
        return "changed"
    if recorded.mode is not None and stat.S_IMODE(found.st_mode) != recorded.mode:
        return "changed"
    if recorded.owner is not None and (found.st_uid, found.st_gid) != recorded.owner:
        return "changed"
    try:
        with os.scandir(path):
            pass
    except OSError:
        return "changed"
    return "same"


def digest_of_file(path: bytes) -> Optional[bytes]:
    """The SHA-256 of the regular file at |path|, never following a link or
    waiting on a FIFO; None for anything else or what cannot be read."""
    flags = os.O_RDONLY | getattr(os, "O_NOFOLLOW", 0) | getattr(os, "O_NONBLOCK", 0)
    try:
        fd = os.open(path, flags | getattr(os, "O_CLOEXEC", 0))
    except OSError:
        return None
    try:
        if not stat.S_ISREG(os.fstat(fd).st_mode):
            return None
        digest = hashlib.sha256()
        while True:
            block = os.read(fd, 1 << 20)
            if not block:
                return digest.digest()
            digest.update(block)
    except OSError:
        return None
    finally:
        os.close(fd)
