"""Result codes: their names, their messages and the exception that carries them."""

from __future__ import annotations

from typing import Dict

from . import _library

# The names of the result codes, as include/velk2.h defines them.
CODE_NAMES: Dict[int, str] = {
    0: "VELK2_SUCCESS",
    1: "VELK2_FAILURE",
    2: "VELK2_ERR_INVALID_PARAM",
    3: "VELK2_ERR_MEM_ALLOC",
    4: "VELK2_ERR_STAT_FILE",
    5: "VELK2_ERR_FILE_NOT_FOUND",
    6: "VELK2_ERR_INVALID_DATA",
    7: "VELK2_ERR_FILE_OPEN",
    8: "VELK2_ERR_RESERVED8",
    9: "VELK2_ERR_PARSE_FILE",
    10: "VELK2_ERR_READ_FILE",
    11: "VELK2_ERR_PRINCIPAL",
    12: "VELK2_ERR_INVALID_HASH",
    13: "VELK2_ERR_UNKNOWN_HASH_ID",
    14: "VELK2_ERR_MAX_BYTE_STRING",
    15: "VELK2_ERR_SIGNATURE_ID",
    16: "VELK2_ERR_HASH_ID",
    17: "VELK2_ERR_BIG_INT_BUFFER_SIZE",
    18: "VELK2_ERR_NOT_IMPLEMENTED",
    19: "VELK2_ERR_OPEN_MANIFEST_FILE",
    20: "VELK2_ERR_COMMAND_LINE_OPTION",
    21: "VELK2_ERR_SIGNATURE",
    22: "VELK2_ERR_HASH_MISMATCH",
    23: "VELK2_ERR_PRIVATE_KEY_TYPE",
    24: "VELK2_ERR_NOT_SUPPORTED",
    25: "VELK2_ERR_CREATE_DIR",
    26: "VELK2_ERR_FIND_DIR",
    27: "VELK2_ERR_SUB_COMMAND",
    28: "VELK2_ERR_UNEXPECTED_CHAR",
    29: "VELK2_ERR_INVALID_S_EXPRESSION",
    30: "VELK2_ERR_BUFFER_OVERFLOW",
    31: "VELK2_ERR_NOT_AUTHORIZED",
    32: "VELK2_ERR_HASH_MATCH",
    33: "VELK2_ERR_RANDOM_TOKEN",
    34: "VELK2_ERR_TIME_STAMP",
    35: "VELK2_ERR_AUTH_TAG_MISSING",
    36: "VELK2_ERR_SIGNING_CERT_ORDER",
    37: "VELK2_ERR_CONTAINING_DIR",
    38: "VELK2_ERR_PARAM_NULL",
    39: "VELK2_ERR_PARAM_NOT_NULL",
    40: "VELK2_ERR_ALL_USERS_DIR",
    41: "VELK2_ERROR_SUBJECT_FOUND",
    42: "VELK2_ERROR_FINDING_ISSUER",
    43: "VELK2_ERR_LOG_FILE_OPEN",
    44: "VELK2_ERR_ZERO_AUTH_MATCH",
    45: "VELK2_ERR_MULTI_AUTH_MATCH",
    46: "VELK2_ERR_ISSUER_SIGNER_MATCH",
    47: "VELK2_ERR_ISSUER_MISMATCH",
    48: "VELK2_ERR_PROPAGATE",
    49: "VELK2_ERR_NO_ISSUER_FOUND",
    50: "VELK2_ERR_SIGNER_AUTH_NARROWER",
    51: "VELK2_ERR_NOT_BEFORE",
    52: "VELK2_ERR_NOT_AFTER",
    53: "VELK2_ERR_NEEDS_MORE_SIGNING",
    54: "VELK2_ERR_ACL_ENTRY_NOT_FOUND",
    55: "VELK2_ERR_AUTH_NOT_SUBSET",
    56: "VELK2_ERR_MANIFEST_VERSION",
    57: "VELK2_ERR_MANIFEST_TYPE",
    58: "VELK2_ERR_NOT_BEFORE_AFTER",
    59: "VELK2_ERR_NO_REVOCATION_ACL",
    60: "VELK2_ERR_USER_INTERRUPT",
    61: "VELK2_ERR_NO_REVOCATION_SPEC",
    62: "VELK2_ERR_ACL_KEY_NOT_FOUND",
    63: "VELK2_ERR_AUTH_TAGS_ARE_EQUAL",
    64: "VELK2_ERR_INVALID_SEQUENCE",
    65: "VELK2_ERR_ALREADY_ISSUED_BY_KEY",
    66: "VELK2_ERR_CERT_REVOKED",
    67: "VELK2_ERR_NOT_GRANTED",
    68: "VELK2_ERR_KEY_REVOKED",
    69: "VELK2_ERR_NOT_IN_LIST",
    70: "VELK2_ERR_INVALID_REVOCATION_TAG",
    71: "VELK2_ERR_NOT_OBJECT_CERT",
    72: "VELK2_ERR_INVALID_PASSPHRASE",
    73: "VELK2_ERR_CRL_NOT_FOUND",
    74: "VELK2_ERR_EXTRA_FILES",
    75: "VELK2_ERR_FAILURE",
    76: "VELK2_ERR_WRITE_FILE",
}

#: The result codes that say how a package differs from its manifest (an
#: entry changed, missing or extra) rather than that the manifest failed.
DIFFERENCE_CODES = frozenset({22, 5, 74})

_MAX_CODE = 0xFFFFFFFF


def _check_code(code: object) -> int:
    if isinstance(code, bool) or not isinstance(code, int):
        raise TypeError(f"a result code is an int, not {type(code).__name__}")
    if not 0 <= code <= _MAX_CODE:
        raise ValueError(f"{code} is not a result code: they are 0 to {_MAX_CODE}")
    return code


def message(code: int) -> str:
    """Return the library's message for the result code ``code``.

    Most codes have their own name as message ("VELK2_ERR_NOT_AUTHORIZED");
    a few have a sentence (67: "The specified package is not granted the
    specified authorization"). Any unsigned 32-bit value is accepted; those
    the library does not know give "VELK_UNKNOWN_ERROR".

    Raises TypeError for a non-int, ValueError for a value outside
    0..4294967295, and OSError when the library cannot be loaded.
    """
    code = _check_code(code)
    text = _library.library().Velk2ErrorMessageA(code)
    return text.decode("utf-8", "replace") if text is not None else ""


def code_name(code: int) -> str:
    """Return the header's name of a result code ("VELK2_ERR_NOT_AUTHORIZED"),
    or "VELK_UNKNOWN_ERROR" for a code the header does not define."""
    return CODE_NAMES.get(_check_code(code), "VELK_UNKNOWN_ERROR")


class Velk2Error(Exception):
    """A verification that the library refused, or input it could not use.

    Attributes:
        code: the library's result code (an int, 1..76), as velk2.h numbers it.
        name: the code's name in velk2.h, such as "VELK2_ERR_NOT_AUTHORIZED".
        message: the library's message for the code (``velk2.message(code)``).
        detail: what was being asked when it failed (paths, tag), in words.

    ``str(error)`` gives the detail, the message and the code on one line.
    """

    def __init__(self, code: int, detail: str = "") -> None:
        self.code: int = _check_code(code)
        self.name: str = code_name(code)
        try:
            self.message: str = message(code)
        except OSError:
            self.message = self.name
        self.detail: str = detail
        super().__init__(self._text())

    def _text(self) -> str:
        said = self.message if self.message == self.name else f"{self.message} ({self.name})"
        text = f"{said}, result {self.code}"
        return f"{self.detail}: {text}" if self.detail else text

    def __reduce__(self):  # pickles (and so crosses processes) with its detail
        return (type(self), (self.code, self.detail))
