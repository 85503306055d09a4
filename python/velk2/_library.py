"""Finding and loading libvelk2.so.1, and the C declarations the binding uses.

The library is loaded on first use, not on import, so ``import velk2`` and
``help(velk2)`` work on a machine without it. ``VELK2_LIBRARY``, when set,
names the file to load (and nothing else is tried); otherwise the dynamic
linker looks for ``libvelk2.so.1`` the usual way (LD_LIBRARY_PATH, the
linker cache, the system directories).
"""

from __future__ import annotations

import ctypes
import os
import threading
from typing import Iterator, List, Optional, Tuple

SONAME = "libvelk2.so.1"
#: The interface this binding was written for: Velk2VersionNumber // 10000.
MAJOR_VERSION = 1

_handle = ctypes.c_void_p
_text = ctypes.c_char_p
_result = ctypes.c_uint32


class FileItem(ctypes.Structure):
    """struct FileItem of velk2.h: one name of a list the library hands out."""


FileItem._fields_ = [
    ("wide_name", ctypes.c_void_p),
    ("wide_value", ctypes.c_void_p),
    ("name", ctypes.POINTER(ctypes.c_char)),
    ("value", ctypes.POINTER(ctypes.c_char)),
    ("next", ctypes.POINTER(FileItem)),
    ("size", ctypes.c_uint32),
    ("is_directory", ctypes.c_uint32),
]
_items = ctypes.POINTER(FileItem)

# name: (result type, argument types)
_DECLARATIONS = {
    "Velk2VersionNumber": (ctypes.c_int32, []),
    "Velk2VersionExtraA": (_text, []),
    "Velk2ErrorMessageA": (_text, [_result]),
    "Velk2GlobalDirectory": (_result, [ctypes.c_void_p]),
    "Velk2CertVerifyFileA": (_result, [_text, _text, ctypes.c_int64, ctypes.c_int64]),
    "CreateManifestContextA": (_result, [ctypes.POINTER(_handle), _text, _text, _text]),
    "DeleteManifestContext": (_result, [_handle]),
    "VerifyManifest": (_result, [_handle, ctypes.c_int64, ctypes.c_int64]),
    "CompareManifestA": (_result, [_handle, _text]),
    "GetValidEntries": (_items, [_handle]),
    "GetInvalidEntries": (_items, [_handle]),
    "GetMissingEntries": (_items, [_handle]),
    "GetExtraEntries": (_items, [_handle]),
    "SetIgnoredEntries": (_result, [_handle, _items]),
    "FailOnExtraEntries": (None, [_handle]),
    "SetScanPackageRoot": (_result, [_handle, ctypes.c_uint32]),
    "GetTimeOfSigning": (ctypes.c_int64, [_handle]),
}

_lock = threading.Lock()
_library: Optional[ctypes.CDLL] = None


def _load() -> ctypes.CDLL:
    named = os.environ.get("VELK2_LIBRARY")
    where = f"{named!r} (from VELK2_LIBRARY)" if named else SONAME
    # Only a regular file is handed to the loader: a FIFO would block it.
    if named and "/" in named and not os.path.isfile(named):
        raise OSError(f"velk2: cannot load {where}: not a regular file")
    try:
        lib = ctypes.CDLL(named or SONAME)
    except OSError as error:
        hint = ("" if named else
                ": install the libvelk2 package, add the directory that holds it to "
                "LD_LIBRARY_PATH, or name the file in VELK2_LIBRARY")
        raise OSError(f"velk2: cannot load {where}: {error}{hint}") from None
    for name, (restype, argtypes) in _DECLARATIONS.items():
        try:
            function = getattr(lib, name)
        except AttributeError:
            raise OSError(f"velk2: {where} has no {name}: it is older than this binding") from None
        function.restype = restype
        function.argtypes = argtypes
    major = lib.Velk2VersionNumber() // 10000
    if major != MAJOR_VERSION:
        raise OSError(f"velk2: {where} is version {major} of the interface; "
                      f"this binding needs version {MAJOR_VERSION}")
    return lib


def library() -> ctypes.CDLL:
    """Return the loaded library, loading it on the first call.

    Raises OSError, naming what was tried, when it cannot be loaded.
    """
    global _library
    if _library is None:
        with _lock:
            if _library is None:
                _library = _load()
    return _library


def walk(head: "ctypes._Pointer[FileItem]") -> Iterator[Tuple[bytes, bool]]:
    """Yield (name bytes, is_directory) for each item of a FileItem list."""
    node = head
    while node:
        item = node.contents
        if item.size < ctypes.sizeof(FileItem):
            raise OSError(f"velk2: a FileItem of {item.size} bytes, "
                          f"expected {ctypes.sizeof(FileItem)}: a foreign library?")
        if item.name:
            yield ctypes.string_at(item.name), bool(item.is_directory)
        node = item.next


class NameList:
    """A FileItem list that Python owns, for the library to copy (names
    relative to a package); keeps its memory alive while it is referenced."""

    def __init__(self, names: List[bytes]) -> None:
        self._buffers = [ctypes.create_string_buffer(name) for name in names]
        self._items = (FileItem * max(1, len(names)))()
        for index, buffer in enumerate(self._buffers):
            item = self._items[index]
            item.size = ctypes.sizeof(FileItem)
            item.name = ctypes.cast(buffer, ctypes.POINTER(ctypes.c_char))
            if index + 1 < len(names):
                item.next = ctypes.pointer(self._items[index + 1])

    def head(self) -> Optional["ctypes._Pointer[FileItem]"]:
        """The first item, or None for an empty list."""
        return ctypes.pointer(self._items[0]) if self._buffers else None
