"""Quarrystone for Python: the client library's manager over its C interface.

    import quarrystone

    with quarrystone.Manager("my-app-id", bundle_identifier="com.example.app") as manager:
        headers = manager.wait_ready(timeout=30)   # {"X-QS-AUTHORIZATION": "3:..."}

Callbacks (``on_ready``, ``on_new_headers``, ``log``) run on the library's
network thread. An exception raised in one is logged through the
``quarrystone`` logger and never reaches the library.
"""

from __future__ import annotations

import atexit
import ctypes
import enum
import json
import logging
import threading
import weakref
from dataclasses import dataclass
from typing import Any, Callable, Dict, Mapping, Optional, Union

from . import _library

__all__ = [
    "BlockResponse",
    "BlockResponseType",
    "LogLevel",
    "Manager",
    "QuarrystoneError",
    "Status",
]

_logger = logging.getLogger("quarrystone")
_lib: Optional[ctypes.CDLL] = None
_lib_lock = threading.Lock()
# Managers not closed yet; closed at exit, so that no library thread calls
# into an interpreter that is shutting down.
_open_managers: "weakref.WeakSet[Manager]" = weakref.WeakSet()
# Log trampolines are never released: the platform that calls them may
# outlive its manager (the shared one lives for the whole process).
_log_trampolines: list = []


@atexit.register
def _close_all() -> None:
    for manager in list(_open_managers):
        manager.close()


_gtk_lib: Optional[ctypes.CDLL] = None


def _gtk() -> ctypes.CDLL:
    """The web view component, loaded on first use."""
    global _gtk_lib
    core = _c()
    with _lib_lock:
        if _gtk_lib is None:
            _gtk_lib = _library.load_gtk(core)
        return _gtk_lib


def _c() -> ctypes.CDLL:
    """The loaded library, loaded on first use."""
    global _lib
    with _lib_lock:
        if _lib is None:
            _lib = _library.load()
        return _lib


class Status(enum.IntEnum):
    """qs_status_t: why a call failed."""

    OK = 0
    NULL_ARGUMENT = 1
    INVALID_ARGUMENT = 2
    BAD_JSON = 3
    MISSING_CALLBACK = 4
    ALREADY_EXISTS = 5
    OUT_OF_MEMORY = 6
    INTERNAL = 7
    WRONG_THREAD = 8
    REQUEST_FAILED = 9


class LogLevel(enum.IntEnum):
    DEBUG = 0
    INFO = 1
    WARNING = 2
    ERROR = 3


class BlockResponseType(enum.IntEnum):
    BLOCK = 0
    CAPTCHA = 1
    FOREIGN = 2  # not the service's block or captcha body


class QuarrystoneError(Exception):
    """A call into the library failed; ``status`` says how."""

    def __init__(self, status: int, message: str) -> None:
        super().__init__(message)
        try:
            self.status: Union[Status, int] = Status(status)
        except ValueError:
            self.status = status


def _check(status: int) -> None:
    if status != Status.OK:
        message = _c().qs_last_error_message() or b""
        raise QuarrystoneError(status, message.decode("utf-8", "replace"))


def _text(value: str) -> bytes:
    return value.encode("utf-8")


def _headers(array: Any, count: int) -> Dict[str, str]:
    return {
        array[i].name.decode("utf-8", "replace"): array[i].value.decode("utf-8", "replace")
        for i in range(count)
    }


@dataclass(frozen=True)
class BlockResponse:
    """The host backend's block or captcha answer, as check_error recognised it."""

    type: BlockResponseType
    uuid: str
    vid: str
    app_id: str
    page: str  # the page's HTML; empty when the body carried none


HeadersCallback = Callable[[Dict[str, str]], None]
LogCallback = Callable[[LogLevel, str], None]


def _log_trampoline(log: LogCallback) -> Callable[[object, int, bytes], None]:
    """What the library calls for each log line, from any thread. Holds only
    ``log``, not the manager, since it is kept for the life of the process."""

    def deliver(_user: object, level: int, line: bytes) -> None:
        try:
            log(LogLevel(level), line.decode("utf-8", "replace"))
        except Exception:
            _logger.exception("the log callback raised; the library carries on")

    return deliver


class Manager:
    """One Quarrystone manager. ``with Manager(...) as m`` starts it on entry
    and releases it on exit; ``start()`` and ``close()`` do the same by hand.

    The deployment settings not given come from the environment
    (QS_COLLECTOR_HOST_PATTERN, QS_WEB_DOMAIN, QS_STORE_PATH, QS_CA_FILE) or the
    compiled-in defaults. ``shared=True`` uses the process-wide manager (its
    settings are taken on first use only). Methods may be called from any
    thread.
    """

    def __init__(
        self,
        app_id: str,
        *,
        collector_host_pattern: Optional[str] = None,
        web_domain: Optional[str] = None,
        store_path: Optional[str] = None,
        ca_file: Optional[str] = None,
        bundle_identifier: Optional[str] = None,
        bundle_name: Optional[str] = None,
        bundle_version: Optional[str] = None,
        on_ready: Optional[HeadersCallback] = None,
        on_new_headers: Optional[HeadersCallback] = None,
        log: Optional[LogCallback] = None,
        log_level: LogLevel = LogLevel.WARNING,
        custom_parameters: Optional[Mapping[str, Any]] = None,
        shared: bool = False,
        gtk: bool = False,
    ) -> None:
        lib = _c()
        # With gtk=True the pages show in GTK windows on the thread that runs
        # GLib's default main context: the caller calls gtk_init() first and
        # iterates that context (see show_block_response).
        self._gtk = _gtk() if gtk else None
        self.app_id = app_id
        self._on_ready = on_ready
        self._on_new_headers = on_new_headers
        self._ready = threading.Event()
        self._changed = threading.Condition()
        self._new_headers_count = 0  # guarded by _changed
        # The ctypes callback objects must outlive every call the library may
        # make through them: the header callbacks are kept here (none runs
        # after close()), the log one for the life of the process.
        self._c_ready = _library.HEADERS_FN(self._ready_from_library)
        self._c_new_headers = _library.HEADERS_FN(self._new_headers_from_library)
        self._c_log = _library.LOG_FN(_log_trampoline(log)) if log is not None else None
        self._handle: Optional[int] = None

        settings = ctypes.c_void_p()
        options = ctypes.c_void_p()
        try:
            _check(lib.qs_settings_new(ctypes.byref(settings)))
            for setter, value in (
                (lib.qs_settings_set_collector_host_pattern, collector_host_pattern),
                (lib.qs_settings_set_web_domain, web_domain),
                (lib.qs_settings_set_store_path, store_path),
                (lib.qs_settings_set_ca_file, ca_file),
            ):
                if value is not None:
                    _check(setter(settings, _text(value)))
            _check(lib.qs_platform_options_new(ctypes.byref(options)))
            _check(
                lib.qs_platform_options_set_bundle(
                    options,
                    *(_text(v) if v is not None else None
                      for v in (bundle_identifier, bundle_name, bundle_version)),
                )
            )
            if self._gtk is not None:
                glib = ctypes.CDLL("libglib-2.0.so.0")
                glib.g_main_context_default.restype = ctypes.c_void_p
                _check(lib.qs_platform_options_set_main_context(options,
                                                                glib.g_main_context_default()))
                _check(self._gtk.qs_platform_options_use_gtk(options))
            if log is not None:
                _log_trampolines.append(self._c_log)
                _check(lib.qs_platform_options_set_log(options, self._c_log, None, int(log_level)))
            handle = ctypes.c_void_p()
            create = lib.qs_manager_shared if shared else lib.qs_manager_create
            _check(create(settings, options, ctypes.byref(handle)))
            self._handle = handle.value
            _open_managers.add(self)
        finally:
            lib.qs_platform_options_free(options)
            lib.qs_settings_free(settings)
        # The manager always gets a ready callback, so start never lacks one.
        _check(lib.qs_manager_set_callbacks(self._handle, self._c_ready, self._c_new_headers, None))
        if custom_parameters is not None:
            self.set_custom_parameters(custom_parameters)

    # -- life cycle --------------------------------------------------------

    def __enter__(self) -> "Manager":
        try:
            self.start()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *exc_info: object) -> None:
        self.close()

    def start(self) -> None:
        """Starts (or restarts) the library for ``app_id``."""
        _check(_c().qs_manager_start(self._live(), _text(self.app_id)))

    def close(self) -> None:
        """Releases the manager. No callback runs once this returns. Idempotent."""
        if self._handle is not None:
            handle, self._handle = self._handle, None
            _c().qs_manager_destroy(handle)

    def __del__(self) -> None:
        try:
            self.close()
        except Exception:  # interpreter shutdown
            pass

    def _live(self) -> int:
        if self._handle is None:
            raise QuarrystoneError(Status.NULL_ARGUMENT, "the manager is closed")
        return self._handle

    # -- headers -----------------------------------------------------------

    @property
    def headers(self) -> Dict[str, str]:
        """The headers to attach to the host's own requests now."""
        array = ctypes.POINTER(_library.Header)()
        count = ctypes.c_size_t()
        _check(_c().qs_manager_headers(self._live(), ctypes.byref(array), ctypes.byref(count)))
        try:
            return _headers(array, count.value)
        finally:
            _c().qs_headers_free(array)

    def wait_ready(self, timeout: Optional[float] = None) -> Dict[str, str]:
        """Waits until the manager is ready and returns its headers. Raises
        TimeoutError when ``timeout`` seconds pass first."""
        if not self._ready.wait(timeout):
            raise TimeoutError(f"the manager was not ready within {timeout} s")
        return self.headers

    def wait_new_headers(self, after: int, timeout: Optional[float] = None) -> Dict[str, str]:
        """Waits until more than ``after`` new-headers calls came (see
        new_headers_count) and returns the headers."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._new_headers_count > after, timeout):
                raise TimeoutError(f"no new headers within {timeout} s")
        return self.headers

    @property
    def new_headers_count(self) -> int:
        """How many times new headers arrived since this manager was made."""
        with self._changed:
            return self._new_headers_count

    # -- settings and debug ------------------------------------------------

    def wakeup(self) -> None:
        """Tells the library the application came back to the foreground."""
        _check(_c().qs_manager_wakeup(self._live()))

    def set_custom_parameters(self, parameters: Mapping[str, Any]) -> None:
        """Parameters sent with every activity; ``{}`` clears them."""
        _check(
            _c().qs_manager_set_custom_parameters(self._live(), _text(json.dumps(dict(parameters))))
        )

    @property
    def block_code(self) -> int:
        """The HTTP status with which the host's backend answers a blocked request."""
        code = ctypes.c_int64()
        _check(_c().qs_manager_block_code(self._live(), ctypes.byref(code)))
        return code.value

    @block_code.setter
    def block_code(self, code: int) -> None:
        _check(_c().qs_manager_set_block_code(self._live(), code))

    def force_block_token(self) -> None:
        """Debug: asks the service for a token its backend blocks."""
        _check(_c().qs_manager_force_block_token(self._live()))

    def force_captcha_token(self) -> None:
        """Debug: asks the service for a token its backend challenges."""
        _check(_c().qs_manager_force_captcha_token(self._live()))

    def reset_debug_settings(self) -> None:
        """Debug: back to normal tokens."""
        _check(_c().qs_manager_reset_debug_settings(self._live()))

    def check_error(self, body: Union[Mapping[str, Any], str, bytes]) -> BlockResponse:
        """Recognises the body with which the host's backend blocked a request:
        a parsed JSON object, or the JSON text itself."""
        lib = _c()
        handle = self._block_response(body)
        try:

            def field(get: Any) -> str:
                return (get(handle) or b"").decode("utf-8", "replace")

            return BlockResponse(
                type=BlockResponseType(lib.qs_block_response_type(handle)),
                uuid=field(lib.qs_block_response_uuid),
                vid=field(lib.qs_block_response_vid),
                app_id=field(lib.qs_block_response_app_id),
                page=field(lib.qs_block_response_page),
            )
        finally:
            lib.qs_block_response_free(handle)

    def show_block_response(self, body: Union[Mapping[str, Any], str, bytes], window: int) -> None:
        """Shows the block or captcha page of a blocked answer's body in a modal
        window over ``window`` (a GtkWindow pointer, as an int). A solved
        captcha brings fresh headers through ``on_new_headers``. GTK thread
        only; the manager must have been made with ``gtk=True``."""
        if self._gtk is None:
            raise QuarrystoneError(Status.INVALID_ARGUMENT, "the manager was made without gtk=True")
        handle = self._block_response(body)
        try:
            _check(self._gtk.qs_manager_show_block_response(self._live(), handle, window))
        finally:
            _c().qs_block_response_free(handle)

    def _block_response(self, body: Union[Mapping[str, Any], str, bytes]) -> ctypes.c_void_p:
        """A qs_block_response_t for a body (the caller frees it)."""
        text = body if isinstance(body, (str, bytes)) else json.dumps(dict(body))
        raw = text.encode("utf-8") if isinstance(text, str) else text
        handle = ctypes.c_void_p()
        _check(_c().qs_manager_check_error(self._live(), raw, ctypes.byref(handle)))
        return handle

    # -- calls from the library's thread -----------------------------------

    def _ready_from_library(self, _user: object, array: Any, count: int) -> None:
        self._ready.set()
        self._deliver(self._on_ready, array, count, "on_ready")

    def _new_headers_from_library(self, _user: object, array: Any, count: int) -> None:
        with self._changed:
            self._new_headers_count += 1
            self._changed.notify_all()
        self._deliver(self._on_new_headers, array, count, "on_new_headers")

    def _deliver(self, callback: Optional[HeadersCallback], array: Any, count: int,
                 name: str) -> None:
        if callback is None:
            return
        try:
            callback(_headers(array, count))
        except Exception:
            _logger.exception("the %s callback raised; the library carries on", name)

