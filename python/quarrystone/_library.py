"""Finds and loads the shared library and declares the C functions it uses.

The library is looked for, in order: the file named by the QUARRYSTONE_LIBRARY
environment variable, the copy installed beside this package by
``cmake --install`` (see _location.py), what ctypes.util.find_library finds,
and the SONAME. Its C interface's major version must be the one this package
was written for.
"""

from __future__ import annotations

import ctypes
import ctypes.util
import os
from typing import Optional

API_MAJOR = 1

c_status = ctypes.c_int


class Header(ctypes.Structure):
    """qs_header_t: one name/value pair of NUL-terminated UTF-8 strings."""

    _fields_ = [("name", ctypes.c_char_p), ("value", ctypes.c_char_p)]


HEADERS_FN = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(Header), ctypes.c_size_t)
LOG_FN = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p)

_P = ctypes.c_void_p
_PP = ctypes.POINTER(ctypes.c_void_p)
_S = ctypes.c_char_p

# name: (result type, argument types)
_PROTOTYPES = {
    "qs_api_version": (ctypes.c_uint32, []),
    "qs_last_error_message": (_S, []),
    "qs_free": (None, [_P]),
    "qs_settings_new": (c_status, [_PP]),
    "qs_settings_free": (None, [_P]),
    "qs_settings_set_collector_host_pattern": (c_status, [_P, _S]),
    "qs_settings_set_web_domain": (c_status, [_P, _S]),
    "qs_settings_set_store_path": (c_status, [_P, _S]),
    "qs_settings_set_ca_file": (c_status, [_P, _S]),
    "qs_platform_options_new": (c_status, [_PP]),
    "qs_platform_options_free": (None, [_P]),
    "qs_platform_options_set_bundle": (c_status, [_P, _S, _S, _S]),
    "qs_platform_options_set_log": (c_status, [_P, LOG_FN, _P, ctypes.c_int]),
    "qs_platform_options_set_main_context": (c_status, [_P, _P]),
    "qs_manager_create": (c_status, [_P, _P, _PP]),
    "qs_manager_shared": (c_status, [_P, _P, _PP]),
    "qs_manager_destroy": (None, [_P]),
    "qs_manager_set_callbacks": (c_status, [_P, HEADERS_FN, HEADERS_FN, _P]),
    "qs_manager_start": (c_status, [_P, _S]),
    "qs_manager_wakeup": (c_status, [_P]),
    "qs_manager_headers": (
        c_status,
        [_P, ctypes.POINTER(ctypes.POINTER(Header)), ctypes.POINTER(ctypes.c_size_t)],
    ),
    "qs_headers_free": (None, [ctypes.POINTER(Header)]),
    "qs_manager_set_custom_parameters": (c_status, [_P, _S]),
    "qs_manager_block_code": (c_status, [_P, ctypes.POINTER(ctypes.c_int64)]),
    "qs_manager_set_block_code": (c_status, [_P, ctypes.c_int64]),
    "qs_manager_force_block_token": (c_status, [_P]),
    "qs_manager_force_captcha_token": (c_status, [_P]),
    "qs_manager_reset_debug_settings": (c_status, [_P]),
    "qs_manager_check_error": (c_status, [_P, _S, _PP]),
    "qs_block_response_free": (None, [_P]),
    "qs_block_response_type": (ctypes.c_int, [_P]),
    "qs_block_response_uuid": (_S, [_P]),
    "qs_block_response_vid": (_S, [_P]),
    "qs_block_response_app_id": (_S, [_P]),
    "qs_block_response_page": (_S, [_P]),
}


def _installed_path() -> Optional[str]:
    try:
        from ._location import LIBRARY  # written by cmake --install
    except ImportError:
        return None
    return LIBRARY if os.path.exists(LIBRARY) else None


def _candidates() -> list[str]:
    named = os.environ.get("QUARRYSTONE_LIBRARY")
    if named:
        return [named]  # an explicit choice: no fallback that would hide a typo
    found = [_installed_path(), ctypes.util.find_library("quarrystone")]
    return [path for path in found if path] + [f"libquarrystone.so.{API_MAJOR}"]


def _declare(library: ctypes.CDLL, prototypes: dict) -> None:
    for name, (result, arguments) in prototypes.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments


def _load_first(candidates: list[str], prototypes: dict, what: str, variable: str, accept=None):
    """Loads the first candidate that opens (and that `accept` passes: it
    returns None or a reason to refuse), declaring `prototypes` on it.
    Raises OSError naming every candidate's failure."""
    errors = []
    for path in candidates:
        try:
            library = ctypes.CDLL(path)
        except OSError as error:
            errors.append(f"{path}: {error}")
            continue
        _declare(library, prototypes)
        refused = accept(library) if accept else None
        if refused:
            errors.append(f"{path}: {refused}")
            continue
        return library
    raise OSError(f"{what} could not be loaded (set {variable} to its path): " + "; ".join(errors))


def _check_major(library: ctypes.CDLL) -> Optional[str]:
    major = library.qs_api_version() >> 16
    return None if major == API_MAJOR else f"C interface {major}, this package needs {API_MAJOR}"


def load() -> ctypes.CDLL:
    """Loads the library and declares its functions. Raises OSError when no
    candidate loads or the loaded one has another C interface major version."""
    return _load_first(
        _candidates(), _PROTOTYPES, "the Quarrystone library", "QUARRYSTONE_LIBRARY", _check_major
    )


# The web view component's C entry points (libquarrystone_gtk_c.so).
_GTK_PROTOTYPES = {
    "qs_platform_options_use_gtk": (c_status, [_P]),
    "qs_manager_show_block_response": (c_status, [_P, _P, _P]),
}


def load_gtk(core: ctypes.CDLL) -> ctypes.CDLL:
    """Loads the web view component: the file named by QUARRYSTONE_GTK_LIBRARY,
    else libquarrystone_gtk_c beside the loaded core library, else by SONAME.
    Raises OSError when none loads."""
    named = os.environ.get("QUARRYSTONE_GTK_LIBRARY")
    beside = os.path.join(os.path.dirname(core._name), f"libquarrystone_gtk_c.so.{API_MAJOR}")
    candidates = [named] if named else [beside, f"libquarrystone_gtk_c.so.{API_MAJOR}"]
    return _load_first(
        candidates,
        _GTK_PROTOTYPES,
        "the Quarrystone web view component",
        "QUARRYSTONE_GTK_LIBRARY",
    )
