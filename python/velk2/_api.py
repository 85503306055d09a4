"""The verifications: packages against their manifests, certificate chains,
and two manifests against each other."""

from __future__ import annotations

import calendar
import contextlib
import ctypes
import os
import re
import threading
from dataclasses import dataclass, field
from datetime import date, datetime, timedelta, timezone
from typing import Callable, Iterable, Iterator, List, Optional, Set, Tuple, Union

from . import _library, _manifest
from ._errors import DIFFERENCE_CODES, Velk2Error

#: A path as the os module takes it: text, bytes or an os.PathLike.
PathArg = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
#: A date: a datetime (naive means UTC), a date (its midnight, UTC) or text:
#: "YYYY-MM-DD_hh:mm:ss" (UTC), "YYYY-MM-DD" or "YYYY-MM-DDThh:mm:ss" with
#: "Z" or an offset such as "+02:00" (without one, UTC).
DateArg = Union[datetime, date, str]

_INVALID_PARAM = 2
_FIND_DIR = 26
# The library keeps its store root in 260 UTF-16 units, the NUL included.
_MAX_STORE_UNITS = 259
_NATIVE_DATE = re.compile(r"(\d{4})-(\d{2})-(\d{2})_(\d{2}):(\d{2}):(\d{2})", re.ASCII)
_ISO_DATE = re.compile(r"(\d{4})-(\d{2})-(\d{2})(?:[T ](\d{2}):(\d{2}):(\d{2}))?"
                       r"(?:(Z)|([+-])(\d{2}):?(\d{2}))?", re.ASCII)
_DATE_FORMS = ("YYYY-MM-DD_hh:mm:ss (UTC), YYYY-MM-DD, or YYYY-MM-DDThh:mm:ss "
               "with Z or an offset such as +02:00")

# (path relative to the package, whether a directory), as the library lists it.
_Found = Tuple[bytes, bool]


@dataclass(frozen=True)
class Report:
    """What a package (or a second manifest) holds, entry by entry.

    Every list holds paths relative to the package directory, sorted by their
    bytes; a directory ends in "/". A name that is not UTF-8 comes back as
    os.fsdecode gives it (surrogate escapes), so ``os.path.join(pkgdir,
    path)`` reaches the entry.

    Attributes:
        ok: True when nothing is changed or missing, and nothing is extra
            (unless extra entries were allowed).
        valid: entries exactly as the manifest records them; a directory
            when everything below it is too.
        changed: entries that differ from what the manifest records (content,
            size, mode, owner, link target or type), or that could not be
            read. A directory is here when it differs itself, not merely
            because something below it does.
        missing: entries the manifest lists that are not there; below a
            missing directory, each of its entries too.
        extra: entries that are there but not listed; an unlisted directory
            is one entry (what lies in it is not listed separately).
        moved: (from, to) pairs: a missing file whose content turned up as an
            extra file, each extra file paired once. Both stay in ``missing``
            and ``extra``; moving a file is still a difference.
        time_of_signing: when the manifest was signed (timezone-aware, UTC).
        code: the library's result: 0, or 22 (something changed), 5 (missing)
            or 74 (extra), the first of them that applies.
    """

    ok: bool
    valid: List[str] = field(default_factory=list)
    changed: List[str] = field(default_factory=list)
    missing: List[str] = field(default_factory=list)
    extra: List[str] = field(default_factory=list)
    moved: List[Tuple[str, str]] = field(default_factory=list)
    time_of_signing: Optional[datetime] = None
    code: int = 0

    def __str__(self) -> str:
        lines = [f"{kind} {path}" for kind, paths in
                 (("changed", self.changed), ("missing", self.missing), ("extra", self.extra))
                 for path in paths]
        lines += [f"moved {source} -> {target}" for source, target in self.moved]
        signed = (self.time_of_signing.strftime("%Y-%m-%d_%H:%M:%S")
                  if self.time_of_signing else "unknown")
        lines.append(f"{'ok' if self.ok else 'not ok'}: valid {len(self.valid)}, "
                     f"changed {len(self.changed)}, missing {len(self.missing)}, "
                     f"extra {len(self.extra)}, moved {len(self.moved)}; signed {signed}")
        return "\n".join(lines)


# The library keeps one global store directory per process and promises
# nothing about calls running at once, so calls take turns: each sets the
# store and asks its question under this lock. ctypes releases the GIL while
# the library works, so other Python threads run on meanwhile.
_library_lock = threading.Lock()


@contextlib.contextmanager
def _store_in_use(store: bytes) -> Iterator[None]:
    with _library_lock:
        _set_store(store)  # every time: whoever called last may have set another
        yield


def _set_store(store: bytes) -> None:
    wide = store.decode("utf-8").encode("utf-16-le")
    buffer = ctypes.create_string_buffer(wide + b"\0\0")
    code = _library.library().Velk2GlobalDirectory(buffer)
    if code != 0:
        raise Velk2Error(_INVALID_PARAM, f"the library refused the store {os.fsdecode(store)!r}")


def _path(value: PathArg, what: str) -> bytes:
    """A path argument as the bytes the C interface takes, or a clear error."""
    try:
        raw = os.fsencode(value)
    except TypeError:
        raise TypeError(f"{what} must be a path (str, bytes or os.PathLike), "
                        f"not {type(value).__name__}") from None
    if not raw:
        raise ValueError(f"{what} is empty")
    if b"\0" in raw:
        raise ValueError(f"{what} {value!r} holds a NUL character")
    try:
        raw.decode("utf-8")
    except UnicodeDecodeError:
        raise ValueError(f"{what} {value!r} is not UTF-8: the library takes UTF-8 paths "
                         "(a name of any bytes inside a package is fine)") from None
    return raw


def _tag(value: str) -> bytes:
    if not isinstance(value, str):
        raise TypeError(f"tag must be a str such as '(pkg install)', not {type(value).__name__}")
    if "\0" in value:
        raise ValueError("tag holds a NUL character")
    try:
        return value.encode("utf-8")
    except UnicodeEncodeError:
        raise ValueError(f"tag {value!r} is not valid Unicode text") from None


def _moment(value: str, what: str) -> datetime:
    """Date text as a UTC datetime, read as ``velk2`` reads its dates."""
    native = _NATIVE_DATE.fullmatch(value)
    iso = None if native else _ISO_DATE.fullmatch(value)
    if native is None and iso is None:
        raise ValueError(f"{what} {value!r} is not a date: write {_DATE_FORMS}")
    fields = native.groups() if native else iso.groups()
    try:
        moment = datetime(*(int(f or 0) for f in fields[:6]), tzinfo=timezone.utc)
    except ValueError as error:
        raise ValueError(f"{what} {value!r} is not a date: {error}") from None
    if iso is not None and iso.group(8):
        hours, minutes = int(iso.group(9)), int(iso.group(10))
        if hours > 23 or minutes > 59:
            raise ValueError(f"{what} {value!r} has an offset that is not one")
        east = timedelta(hours=hours, minutes=minutes)
        moment = moment - east if iso.group(8) == "+" else moment + east
    return moment


def _seconds(value: Optional[DateArg], what: str) -> int:
    """A date argument as seconds since 1970 UTC; 0 for None (not given)."""
    if value is None:
        return 0
    if isinstance(value, datetime):
        moment = value if value.utcoffset() is not None else value.replace(tzinfo=timezone.utc)
    elif isinstance(value, date):
        moment = datetime(value.year, value.month, value.day, tzinfo=timezone.utc)
    elif isinstance(value, str):
        moment = _moment(value, what)
    else:
        raise TypeError(f"{what} must be a datetime, a date or date text, "
                        f"not {type(value).__name__}")
    seconds = calendar.timegm(moment.utctimetuple())
    if seconds <= 0:
        raise ValueError(f"{what} {value!r} is not after 1970-01-01_00:00:00 UTC, "
                         "the earliest date the library takes")
    return seconds


def _period(not_before: Optional[DateArg], not_after: Optional[DateArg]) -> Tuple[int, int]:
    start, end = _seconds(not_before, "not_before"), _seconds(not_after, "not_after")
    if start and end and start > end:
        raise ValueError(f"not_before ({not_before!r}) is after not_after ({not_after!r})")
    return start, end


def _ignored(ignore: Iterable[PathArg]) -> List[bytes]:
    if isinstance(ignore, (str, bytes, os.PathLike)):
        raise TypeError("ignore must be a list of paths, not one path")
    try:
        entries = list(ignore)
    except TypeError:
        raise TypeError(f"ignore must be a list of paths, not {type(ignore).__name__}") from None
    names = []
    for entry in entries:
        raw = _path(entry, "an ignored path")
        parts = raw.strip(b"/").split(b"/")
        if raw.startswith(b"/") or b".." in parts:
            raise ValueError(f"ignored path {entry!r} must lie inside the package "
                             "(relative, without '..')")
        name = b"/".join(part for part in parts if part not in (b"", b"."))
        if not name:
            raise ValueError(f"ignored path {entry!r} names the package itself")
        names.append(name)
    return names


def _require_directory(path: bytes, what: str) -> None:
    if not os.path.isdir(path):
        reason = "does not exist" if not os.path.lexists(path) else "is not a directory"
        raise Velk2Error(_FIND_DIR, f"{what} {os.fsdecode(path)!r} {reason}")


def _store(store: PathArg) -> bytes:
    raw = _path(store, "store")
    _require_directory(raw, "the store")
    _require_directory(os.path.join(raw, b"acl"), "the store's ACL directory")
    absolute = os.path.abspath(raw)
    if len(absolute.decode("utf-8").encode("utf-16-le")) // 2 > _MAX_STORE_UNITS:
        raise Velk2Error(_INVALID_PARAM, f"the store path {os.fsdecode(absolute)!r} is longer "
                         f"than the library's {_MAX_STORE_UNITS} units")
    return absolute


def _flag(value: object, what: str) -> bool:
    if not isinstance(value, bool):
        raise TypeError(f"{what} must be True or False, not {type(value).__name__}")
    return value


@contextlib.contextmanager
def _manifest_context(package: bytes, manifest: bytes, tag: bytes,
                      detail: str) -> Iterator[ctypes.c_void_p]:
    lib = _library.library()
    handle = ctypes.c_void_p()
    try:
        code = lib.CreateManifestContextA(ctypes.byref(handle), package, manifest, tag)
        if code != 0:
            raise Velk2Error(code, detail)
        yield handle
    finally:
        if handle.value:
            lib.DeleteManifestContext(handle)


class _Lists:
    """The library's four lists, read out of a context before it is deleted,
    with paths relative to the package."""

    def __init__(self, handle: ctypes.c_void_p, prefix: Optional[bytes]) -> None:
        lib = _library.library()

        def entries(getter: Callable) -> Set[_Found]:
            return {(self._relative(name, prefix), is_directory)
                    for name, is_directory in _library.walk(getter(handle))}

        self.valid = entries(lib.GetValidEntries)
        self.changed = entries(lib.GetInvalidEntries)
        self.missing = entries(lib.GetMissingEntries)
        self.extra = entries(lib.GetExtraEntries)
        seconds = lib.GetTimeOfSigning(handle)
        self.time_of_signing = (datetime.fromtimestamp(seconds, timezone.utc)
                                if seconds > 0 else None)

    @staticmethod
    def _relative(name: bytes, prefix: Optional[bytes]) -> bytes:
        if prefix is not None and name.startswith(prefix):
            name = name[len(prefix):]
        return name.strip(b"/")

    def differs(self) -> bool:
        return bool(self.changed or self.missing or self.extra)


def _below(directory: bytes, found: Iterable[_Found]) -> bool:
    start = directory + b"/"
    return any(path.startswith(start) for path, _ in found)


def _refine(lists: _Lists, listing: _manifest.Listing,
            state: Callable[[bytes, _manifest.Entry], str]) -> None:
    """Puts the listed directories where they belong. The library calls a
    listed directory extra when an extra entry lies below it, and changed
    when a changed or missing one does, or when it is missing itself. |state|
    tells how a directory compares itself ("missing", "changed", "same"): a
    missing one goes to the missing entries, one that is the same leaves
    the lists."""
    everything = lists.changed | lists.missing | lists.extra
    lists.extra = {(p, d) for p, d in lists.extra if not (d and listing.is_directory(p))}
    kept = set()
    for path, directory in lists.changed:
        recorded = listing.get(path) if directory else None
        if recorded is not None and recorded.directory and _below(path, everything):
            verdict = state(path, recorded)
            if verdict == "missing":
                lists.missing.add((path, directory))
            if verdict != "changed":
                continue
        kept.add((path, directory))
    lists.changed = kept


def _moves(missing: Iterable[_Found], extra: Iterable[_Found],
           recorded: Callable[[bytes], Optional[_manifest.Entry]],
           digest_of_extra: Callable[[bytes], Optional[bytes]]) -> List[Tuple[bytes, bytes]]:
    """Pairs each missing file with an extra file of the same content, each
    extra file once, both in path order."""
    gone = []
    for path, directory in sorted(missing):
        entry = None if directory else recorded(path)
        if entry is not None and not entry.directory and not entry.link and entry.digest:
            gone.append((path, entry.digest))
    if not gone:
        return []
    wanted = {digest for _, digest in gone}
    arrived = {}
    for path, directory in sorted(extra):
        if directory:
            continue
        digest = digest_of_extra(path)
        if digest in wanted:
            arrived.setdefault(digest, []).append(path)
    moves = []
    for path, digest in gone:
        if arrived.get(digest):
            moves.append((path, arrived[digest].pop(0)))
    return moves


def _report(lists: _Lists, code: int, moves: List[Tuple[bytes, bytes]]) -> Report:
    def shown(found: Set[_Found]) -> List[str]:
        return [os.fsdecode(path + (b"/" if directory else b""))
                for path, directory in sorted(found)]

    return Report(ok=code == 0, valid=shown(lists.valid), changed=shown(lists.changed),
                  missing=shown(lists.missing), extra=shown(lists.extra),
                  moved=[(os.fsdecode(a), os.fsdecode(b)) for a, b in moves],
                  time_of_signing=lists.time_of_signing, code=code)


def _failed(code: int, lists: _Lists) -> bool:
    """Whether the manifest itself failed: the library's lists are empty
    after such a failure, and a difference from the disk names an entry."""
    return code != 0 and not (code in DIFFERENCE_CODES and lists.differs())


def verify_package(pkgdir: PathArg, *, store: PathArg, tag: str,
                   manifest: Optional[PathArg] = None,
                   not_before: Optional[DateArg] = None, not_after: Optional[DateArg] = None,
                   allow_extra: bool = False, ignore: Iterable[PathArg] = (),
                   scan_root: bool = True) -> Report:
    """Verify the package in ``pkgdir`` against its signed manifest.

    The manifest (default ``pkgdir/manifest``) must verify under ``store`` (a
    directory holding ``acl/`` and ``cert/``): its signatures, the revocation
    lists of its chain, its signer's authorization for ``tag`` (readable text
    such as "(pkg install)") at its time of signing, or in the period from
    ``not_before`` to ``not_after`` when they are given, and its digest. Then
    every entry it lists is compared with the disk; how they differ is the
    returned Report, not an exception.

    Arguments:
        ignore: paths relative to ``pkgdir`` (a file, or a directory and
            everything below it) left out of the comparison. They are paths,
            not patterns; the patterns signed into the manifest apply as well.
        allow_extra: extra entries leave ``ok`` True (they are still listed).
        scan_root: look for extra entries in ``pkgdir`` itself too (the
            manifest file excepted), as ``velk2 verify`` does; False looks
            only in the directories below it, as the C interface does by
            default.
        not_before, not_after: datetimes (naive means UTC), dates, or text:
            "YYYY-MM-DD_hh:mm:ss" in UTC, "YYYY-MM-DD", or ISO 8601 such as
            "2026-01-01T12:00:00Z" or "...+02:00"; to the second.

    Returns a Report. Nothing is written: the store is only read.

    Raises:
        Velk2Error: the manifest does not verify (signature, revocation,
            authorization, digest), cannot be read or is no manifest; the
            store or ``pkgdir`` is not a directory.
        TypeError, ValueError: an argument of the wrong type, a path holding
            NUL or that is not UTF-8, a date that is not one, not_before
            after not_after.
        OSError: the library cannot be loaded.
    """
    package = _path(pkgdir, "pkgdir")
    manifest_path = (_path(manifest, "manifest") if manifest is not None
                     else os.path.join(package, b"manifest"))
    tag_text = _tag(tag)
    start, end = _period(not_before, not_after)
    allow_extra, scan_root = _flag(allow_extra, "allow_extra"), _flag(scan_root, "scan_root")
    ignored = _library.NameList(_ignored(ignore))
    store_path = _store(store)
    _require_directory(package, "the package directory")
    # The library joins entry names to the directory as given; a trailing
    # "/" would double.
    package = package.rstrip(b"/") or b"/"
    detail = (f"the manifest {os.fsdecode(manifest_path)!r} of the package "
              f"{os.fsdecode(package)!r} does not verify for the tag {tag!r} under the store "
              f"{os.fsdecode(store_path)!r}")
    lib = _library.library()
    # The report's refinements read the manifest again: only the very file
    # the library verified is read.
    verified = _manifest.identity(manifest_path)
    with _store_in_use(store_path), \
            _manifest_context(package, manifest_path, tag_text, detail) as handle:
        if lib.SetIgnoredEntries(handle, ignored.head()) != 0 or \
                lib.SetScanPackageRoot(handle, 1 if scan_root else 0) != 0:
            raise Velk2Error(_INVALID_PARAM, "the library refused the options")
        if not allow_extra:
            lib.FailOnExtraEntries(handle)
        code = lib.VerifyManifest(handle, start, end)
        lists = _Lists(handle, package if package != b"/" else b"")
    if _failed(code, lists):
        raise Velk2Error(code, detail)
    moves: List[Tuple[bytes, bytes]] = []
    if lists.differs():
        listing = _manifest.read(manifest_path, verified)
        if listing is None:
            # Without the manifest's entries (a file replaced since it was
            # verified): an unlisted directory is reported alone, so one
            # with an extra entry below it is a listed one.
            lists.extra = {(p, d) for p, d in lists.extra
                           if not (d and _below(p, lists.extra))}
        else:
            _refine(lists, listing,
                    lambda path, recorded: _manifest.directory_state(
                        os.path.join(package, path), recorded))
            moves = _moves(lists.missing, lists.extra, listing.get,
                           lambda path: _manifest.digest_of_file(os.path.join(package, path)))
    return _report(lists, code, moves)


def verify_chain(cert_file: PathArg, *, store: PathArg, tag: str,
                 not_before: Optional[DateArg] = None,
                 not_after: Optional[DateArg] = None) -> bool:
    """Verify the certificate chain in ``cert_file`` under ``store``.

    Checks every signature, the store's revocation lists that its ACL names
    (a revoked certificate, or one asking for a list that none clears, fails
    the chain), and whether the ACL grants the first certificate's subject
    ``tag`` (readable text such as "(pkg install)") in the period from
    ``not_before`` to ``not_after`` (as for verify_package). Without dates no
    period is asked about (``velk2 cert verify`` asks about now instead).

    Returns True; every other answer is an exception.

    Raises:
        Velk2Error: the chain does not verify (such as 31, not authorized;
            66, revoked; 21, a bad signature), the file cannot be read, or
            the store is not a directory.
        TypeError, ValueError: bad arguments, as for verify_package.
        OSError: the library cannot be loaded.
    """
    path = _path(cert_file, "cert_file")
    tag_text = _tag(tag)
    start, end = _period(not_before, not_after)
    store_path = _store(store)
    lib = _library.library()
    with _store_in_use(store_path):
        code = lib.Velk2CertVerifyFileA(path, tag_text, start, end)
    if code != 0:
        raise Velk2Error(code, f"the chain {os.fsdecode(path)!r} does not verify for the tag {tag!r} "
                         f"under the store {os.fsdecode(store_path)!r}")
    return True


def compare_manifests(a: PathArg, b: PathArg, ignore: Iterable[PathArg] = ()) -> Report:
    """Compare manifest ``a`` with manifest ``b``, entry by entry.

    Both must read as manifests whose digests hold; their signers are not
    checked (verify_package does that). In the Report, ``missing`` are the
    entries of ``a`` only, ``extra`` those of ``b`` only (below a directory
    of one only, every entry of it), ``changed`` those both list but record
    differently, ``moved`` files of ``a`` only whose content ``b`` lists
    under another path, and ``time_of_signing`` is ``a``'s. ``ignore`` takes
    paths, as in verify_package.

    Raises:
        Velk2Error: either manifest cannot be read or is altered.
        TypeError, ValueError: bad arguments. OSError: no library.
    """
    first, second = _path(a, "a"), _path(b, "b")
    ignored = _library.NameList(_ignored(ignore))
    detail = f"cannot compare {os.fsdecode(first)!r} with {os.fsdecode(second)!r}"
    lib = _library.library()
    identities = _manifest.identity(first), _manifest.identity(second)
    # The context wants a package directory and a tag; a comparison uses neither.
    with _library_lock, _manifest_context(os.path.dirname(first) or b".", first,
                                          b"(compare)", detail) as handle:
        if lib.SetIgnoredEntries(handle, ignored.head()) != 0:
            raise Velk2Error(_INVALID_PARAM, "the library refused the ignored paths")
        code = lib.CompareManifestA(handle, second)
        lists = _Lists(handle, None)
    if _failed(code, lists):
        raise Velk2Error(code, detail)
    moves: List[Tuple[bytes, bytes]] = []
    if lists.differs():
        listing_a = _manifest.read(first, identities[0])
        listing_b = _manifest.read(second, identities[1])

        def state(path: bytes, recorded: _manifest.Entry) -> str:
            other = listing_b.get(path)
            differs = (other is None or not other.directory or
                       (recorded.mode is not None and other.mode is not None
                        and recorded.mode != other.mode) or
                       (recorded.owner is not None and other.owner is not None
                        and recorded.owner != other.owner))
            return "changed" if differs else "same"

        if listing_a is not None and listing_b is not None:
            _refine(lists, listing_a, state)

            def digest_in_b(path: bytes) -> Optional[bytes]:
                entry = listing_b.get(path)
                return entry.digest if entry is not None and not entry.link else None

            moves = _moves(lists.missing, lists.extra, listing_a.get, digest_in_b)
    return _report(lists, code, moves)


def version() -> str:
    """Return the loaded library's version, such as "1.1.0 dev".

    Raises OSError when the library cannot be loaded.
    """
    lib = _library.library()
    number = lib.Velk2VersionNumber()
    extra = (lib.Velk2VersionExtraA() or b"").decode("utf-8", "replace")
    text = f"{number // 10000}.{number // 100 % 100}.{number % 100}"
    return f"{text} {extra}" if extra else text
