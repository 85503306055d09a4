"""velk2: may this signed package, this credential, be trusted?

A binding of libvelk2, the library that verifies signed package manifests
against the files on disk and the SPKI credentials behind them. It calls the
library's C interface (velk2.h) through ctypes; nothing is compiled.

Verifying a package
-------------------
>>> import velk2
>>> report = velk2.verify_package("/opt/hello", store="/etc/velk2", tag="(pkg install)")
>>> report.ok, report.changed, report.missing, report.extra
(True, [], [], [])

The store is a directory with ``acl/`` (the ACL entries the device trusts)
and ``cert/`` (revocation lists). The manifest (``/opt/hello/manifest`` unless
``manifest=`` names another) must be signed by a key the store's ACL
authorizes, through its certificate chain, for the tag. If it is not, or it
cannot be read, verify_package raises Velk2Error. How the files differ from
what the manifest lists is in the Report: lists of valid, changed, missing
and extra paths relative to the package, sorted, directories ending in "/",
and the moved files (a missing file whose content turned up as an extra
file). A directory is changed when it differs itself (type, mode, owner),
not because something below it does.

Errors
------
Velk2Error carries the library's result code (``code``, as velk2.h numbers
it), its name (``name``, such as "VELK2_ERR_NOT_AUTHORIZED"), the library's
message (``message``) and what was asked (``detail``). Arguments that are of
the wrong type or cannot be passed on (a path holding NUL or that is not
UTF-8, a date that is not one) raise TypeError or ValueError before the
library is asked. OSError means the library could not be loaded.

Dates
-----
``not_before`` and ``not_after`` take a datetime (naive means UTC), a date
(its midnight, UTC), or text as the velk2 tool takes it: the library's
"YYYY-MM-DD_hh:mm:ss" in UTC, "YYYY-MM-DD", or "YYYY-MM-DDThh:mm:ss"
followed by nothing (UTC), "Z" or an offset such as "+02:00". Each form of
one moment gives the same answer. Without them, a manifest is judged at its
time of signing, a chain without a period.

The library
-----------
``libvelk2.so.1`` is loaded on first use, through the dynamic linker
(LD_LIBRARY_PATH, its cache), or from the file that the environment variable
VELK2_LIBRARY names. The binding only reads the store: it asks for no
rollback records. The library's store directory is one per process: the
binding sets it on every call, and calls from several threads take turns,
so threads may share the module.

Functions: verify_package, verify_chain, compare_manifests, message, version.
"""

from ._api import Report, compare_manifests, verify_chain, verify_package, version
from ._errors import Velk2Error, message

__all__ = [
    "verify_package",
    "verify_chain",
    "compare_manifests",
    "message",
    "version",
    "Report",
    "Velk2Error",
]
__version__ = "1.1.0"
