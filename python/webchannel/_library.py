"""Finding and loading libwebchannel.so, and the prototypes of its C interface (webchannel.h)."""
from __future__ import annotations

import ctypes
import ctypes.util
import os
from typing import Optional

#: Path of the shared library to load, instead of the loader's search.
LIBRARY_VARIABLE = "WEBCHANNEL_LIBRARY"
_SONAME = "libwebchannel.so.1"


class _Channel(ctypes.Structure):
    """The C interface's opaque `webchannel`."""


HANDLE = ctypes.POINTER(_Channel)
#: int (*)(int finished, long long done, long long total, int job, void* user)
PROGRESS = ctypes.CFUNCTYPE(
    ctypes.c_int, ctypes.c_int, ctypes.c_longlong, ctypes.c_longlong, ctypes.c_int, ctypes.c_void_p
)

_int, _text, _size = ctypes.c_int, ctypes.c_char_p, ctypes.c_size_t
_length = ctypes.POINTER(ctypes.c_size_t)
_PROTOTYPES = {
    "webchannel_create": (HANDLE, []),
    "webchannel_destroy": (None, [HANDLE]),
    "webchannel_init": (_int, [HANDLE, ctypes.c_uint]),
    "webchannel_close": (None, [HANDLE]),
    "webchannel_set_log": (None, [HANDLE, _text]),
    "webchannel_set_param": (_int, [HANDLE, _int, _text, _int]),
    "webchannel_get_param": (_int, [HANDLE, _int, _int, _text, _size, _length]),
    "webchannel_set_proxy": (_int, [HANDLE, _text, _text]),
    "webchannel_resolve_proxy": (_int, [HANDLE, _text, _text, _size, _length]),
    "webchannel_set_progress": (_int, [HANDLE, PROGRESS, ctypes.c_void_p]),
    "webchannel_get": (_int, [HANDLE, _text]),
    "webchannel_get_file": (_int, [HANDLE, _text, _text]),
    "webchannel_post": (_int, [HANDLE, _text, _text, _text, _int]),
    "webchannel_response": (_int, [HANDLE, _text, _size, _length, ctypes.POINTER(ctypes.c_longlong)]),
    "webchannel_add_job": (_int, [HANDLE, _text, _text, ctypes.c_longlong, _text, _text]),
    "webchannel_remove_job": (_int, [HANDLE, _text]),
    "webchannel_is_valid": (_int, [HANDLE, _text, _text, _text]),
    "webchannel_run_batch": (_int, [HANDLE, _int]),
    "webchannel_next_downloaded": (_int, [HANDLE]),
    "webchannel_error": (_int, [HANDLE, _text, _size, _length]),
    "webchannel_result_text": (_text, [_int]),
}

_library: Optional[ctypes.CDLL] = None


def _open() -> ctypes.CDLL:
    path = os.environ.get(LIBRARY_VARIABLE)
    if path:
        return ctypes.CDLL(path)
    try:
        return ctypes.CDLL(_SONAME)  # the dynamic loader's search: LD_LIBRARY_PATH, its cache, the system directories
    except OSError as missing:
        found = ctypes.util.find_library("webchannel")
        if found is None:
            raise OSError(
                f"libwebchannel not found ({missing}); set {LIBRARY_VARIABLE} to its path "
                "or put its directory on the loader's search path"
            ) from None
        return ctypes.CDLL(found)


def library() -> ctypes.CDLL:
    """The loaded library with its functions' prototypes, loaded on first use.

    Raises OSError when it cannot be found or is too old to have the C interface.
    """
    global _library
    if _library is None:
        loaded = _open()
        for name, (result, arguments) in _PROTOTYPES.items():
            try:
                function = getattr(loaded, name)
            except AttributeError:
                raise OSError(f"{loaded._name} has no {name}: a library without the C interface") from None
            function.restype, function.argtypes = result, arguments
        _library = loaded
    return _library


def encode(text: Optional[str]) -> Optional[bytes]:
    """Text for the C interface: UTF-8, None staying NULL."""
    return None if text is None else text.encode("utf-8")


def encode_path(path: "os.PathLike[str] | str") -> bytes:
    """A file system path as the system spells it."""
    return os.fsencode(path)
