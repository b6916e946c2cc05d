"""The sandbox (qs-sandbox, found through $QS_SANDBOX_BIN) for the package's
tests: a local collector and blocking backend over loopback HTTPS, with a log
of the activities it decrypted."""

from __future__ import annotations

import json
import os
import re
import ssl
import subprocess
import time
import urllib.error
import urllib.request
from pathlib import Path
from typing import Any, Callable, Dict, Iterator, List, Mapping, Tuple

import pytest


class Sandbox:
    def __init__(self, directory: Path) -> None:
        binary = os.environ.get("QS_SANDBOX_BIN")
        self.ca_file = os.environ.get("QS_CA_FILE", "")
        if not binary or not self.ca_file:
            pytest.skip("QS_SANDBOX_BIN and QS_CA_FILE name the sandbox and its CA")
        self.log = directory / "events.jsonl"
        self.output = directory / "sandbox.out"
        self.store = str(directory / "store.sqlite")
        with open(self.output, "wb") as out:
            self.process = subprocess.Popen(
                [binary, "--port", "0", "--log", str(self.log), "--quiet"],
                stdout=out, stderr=subprocess.STDOUT)
        self.port = 0
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and not self.port:
            found = re.search(r"listening on https://127\.0\.0\.1:(\d+)\n", self.output.read_text())
            if found:
                self.port = int(found.group(1))
            else:
                time.sleep(0.05)
        assert self.port, self.output.read_text()

    def settings(self) -> Dict[str, str]:
        """Manager keyword arguments that point it at this sandbox."""
        return {
            "collector_host_pattern": f"{{appId}}.collector.localhost:{self.port}",
            "web_domain": f"localhost:{self.port}",
            "ca_file": self.ca_file,
            "store_path": self.store,
        }

    def events(self) -> List[Dict[str, Any]]:
        if not self.log.exists():
            return []
        return [json.loads(line) for line in self.log.read_text().splitlines() if line.strip()]

    def wait_for(self, match: Callable[[Dict[str, Any]], bool], seconds: float = 20) -> List[Dict[str, Any]]:
        deadline = time.monotonic() + seconds
        while True:
            found = [e for e in self.events() if match(e)]
            if found or time.monotonic() >= deadline:
                return found
            time.sleep(0.05)

    def backend(self, headers: Mapping[str, str], query: str = "") -> Tuple[int, bytes]:
        """The host's own call to its backend, /api/orders."""
        request = urllib.request.Request(
            f"https://localhost:{self.port}/api/orders{query}", headers=dict(headers))
        context = ssl.create_default_context(cafile=self.ca_file)
        try:
            with urllib.request.urlopen(request, context=context, timeout=15) as answer:
                return answer.status, answer.read()
        except urllib.error.HTTPError as error:
            return error.code, error.read()

    def stop(self) -> None:
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


@pytest.fixture
def sandbox(tmp_path: Path) -> Iterator[Sandbox]:
    running = Sandbox(tmp_path)
    yield running
    running.stop()


@pytest.fixture(scope="session")
def private_display() -> str:
    """The display for the web view (ctest runs the package under xvfb-run).
    Skips without one, or without the web view component."""
    if not os.environ.get("QUARRYSTONE_GTK_LIBRARY") or not os.environ.get("DISPLAY"):
        pytest.skip("no display, or the web view component is not named (QUARRYSTONE_GTK_LIBRARY)")
    return os.environ["DISPLAY"]
