"""The package against the sandbox: readiness, custom parameters, raising
callbacks, a forced captcha recognised and solved in a window. These also
drive the C interface's captcha path (check_error, show_block_response)."""

from __future__ import annotations

import ctypes
import logging
import threading
import time

import pytest

import quarrystone
from quarrystone import BlockResponseType, Manager, QuarrystoneError, Status

CHALLENGE = "QS329"


def test_ready_token_parameters_and_raising_callbacks(sandbox, caplog) -> None:
    """Ready with a level-3 token the backend accepts, delivered on the
    library's thread; custom parameters reach the collector; callbacks that
    raise are logged and contained."""
    seen = []
    lines = []

    def on_ready(headers):
        seen.append((threading.get_ident(), headers))
        raise RuntimeError("host bug")

    def log(level, line):
        lines.append(line)
        raise ValueError("log sink bug")

    parameters = {"plan": "gold", "seats": 3}
    caplog.set_level(logging.ERROR, logger="quarrystone")
    with Manager("py-app", bundle_identifier="com.example.py", custom_parameters=parameters,
                 on_ready=on_ready, log=log, log_level=quarrystone.LogLevel.DEBUG,
                 **sandbox.settings()) as manager:
        headers = manager.wait_ready(timeout=30)
        assert headers["X-QS-AUTHORIZATION"].startswith("3:")
        assert sandbox.backend(headers)[0] == 200
    thread, delivered = seen[0]
    assert delivered == headers
    assert thread != threading.get_ident(), "callbacks come on the library's thread"
    messages = [r.getMessage() for r in caplog.records]
    assert any("on_ready callback raised" in m for m in messages), messages
    assert any("log callback raised" in m for m in messages), messages
    assert lines, "the log sink received the library's trace"

    app_activities = sandbox.wait_for(
        lambda e: e.get("event") == "activity" and e.get("type") != CHALLENGE)
    assert app_activities, sandbox.events()
    for activity in app_activities:
        assert {k: activity["d"].get(k) for k in parameters} == parameters, activity


def test_forced_captcha_is_recognised_and_errors_raise(sandbox) -> None:
    with Manager("py-app", **sandbox.settings()) as manager:
        manager.wait_ready(timeout=30)
        before = manager.new_headers_count
        manager.force_captcha_token()
        status, body = sandbox.backend(manager.wait_new_headers(before, timeout=30))
        assert status == manager.block_code == 403
        response = manager.check_error(body.decode())
        assert response.type == BlockResponseType.CAPTCHA
        assert response.uuid and response.vid and response.app_id == "py-app"
        assert "<html" in response.page.lower()
        assert manager.check_error({"action": "none"}).type == BlockResponseType.FOREIGN
        with pytest.raises(QuarrystoneError) as bad:
            manager.check_error("{not json")
        assert bad.value.status == Status.BAD_JSON
        assert "qs_manager_check_error" in str(bad.value)
    manager.close()  # a second time
    with pytest.raises(QuarrystoneError):
        manager.start()


def test_forced_captcha_is_solved_in_a_window(sandbox, private_display) -> None:
    """The page of a forced captcha, shown over a GTK window through the web
    view component, solves itself and brings a token the backend accepts."""
    gtk = ctypes.CDLL("libgtk-4.so.1")
    glib = ctypes.CDLL("libglib-2.0.so.0")
    gtk.gtk_window_new.restype = ctypes.c_void_p
    gtk.gtk_window_present.argtypes = [ctypes.c_void_p]
    gtk.gtk_window_destroy.argtypes = [ctypes.c_void_p]
    glib.g_main_context_iteration.argtypes = [ctypes.c_void_p, ctypes.c_int]
    assert gtk.gtk_init_check()
    window = gtk.gtk_window_new()
    gtk.gtk_window_present(window)

    def iterate_until(done, seconds: float = 60) -> bool:
        # The library runs on this thread's GLib context, as the pages do.
        deadline = time.monotonic() + seconds
        while not done() and time.monotonic() < deadline:
            if not glib.g_main_context_iteration(None, 0):
                time.sleep(0.01)
        return done()

    with Manager("py-app", gtk=True, **sandbox.settings()) as manager:
        assert iterate_until(lambda: manager.headers.get("X-QS-AUTHORIZATION", "1") != "1")
        before = manager.new_headers_count
        manager.force_captcha_token()
        assert iterate_until(lambda: manager.new_headers_count > before)
        status, body = sandbox.backend(manager.headers, "?autosolve=1")
        assert status == 403
        manager.reset_debug_settings()
        forced = manager.headers["X-QS-AUTHORIZATION"]
        before = manager.new_headers_count
        manager.show_block_response(body.decode(), window)
        assert iterate_until(lambda: manager.new_headers_count > before)
        fresh = manager.headers
        assert fresh["X-QS-AUTHORIZATION"].startswith("3:")
        assert fresh["X-QS-AUTHORIZATION"] != forced
        assert sandbox.backend(fresh)[0] == 200
    gtk.gtk_window_destroy(window)
