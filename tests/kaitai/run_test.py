#!/usr/bin/env python3
"""Tests run.sh with a package registry that it cannot use. If it cannot reach the registry, it
skips and gives the reason; if the registry sends anything but the packages, it fails."""
import http.server
import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

RUN = pathlib.Path(__file__).resolve().parent / "run.sh"
SKIPPED = 77


class Registry(http.server.ThreadingHTTPServer):
    """A registry on loopback that gives the same answer to every request."""

    def __init__(self, answer):
        self.answer = answer
        super().__init__(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def stop(self):
        self.shutdown()
        self.server_close()

    def address(self):
        return f"http://127.0.0.1:{self.server_port}/"


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        status, body = self.server.answer(self.path)
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


def closed_port():
    """A loopback port on which nothing listens."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def unavailable(_):
    return 503, b"{}"


def other_content(path):
    """Every package, with the versions of the lock file and the wrong content."""
    if path.endswith(".tgz"):
        return 200, b"not the package"
    name = path.strip("/")
    lock = json.loads((RUN.parent / "package-lock.json").read_text())
    versions = [package["version"] for folder, package in lock["packages"].items()
                if package.get("name", folder.removeprefix("node_modules/")) == name
                and "version" in package] or ["1.0.0"]
    packages = {version: {"name": name, "version": version,
                          "dist": {"tarball": f"http://127.0.0.1:1/{name}.tgz"}}
                for version in versions}
    return 200, json.dumps({"name": name, "dist-tags": {"latest": versions[0]},
                            "versions": packages}).encode()


class RegistryTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)

    def run_with(self, registry):
        environment = {**os.environ, "npm_config_registry": registry,
                       "npm_config_cache": str(self.folder / "cache")}
        for name in ("http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY"):
            environment.pop(name, None)
        return subprocess.run([RUN, self.folder / "packages"], env=environment, text=True,
                              capture_output=True, timeout=150, check=False)

    def test_a_closed_port_skips_with_the_reason(self):
        result = self.run_with(f"http://127.0.0.1:{closed_port()}/")
        self.assertEqual(result.returncode, SKIPPED, result.stderr)
        self.assertIn("skipped: the package registry cannot be reached (ECONNREFUSED)",
                      result.stdout)

    def test_a_registry_that_is_out_of_service_skips_with_the_reason(self):
        registry = Registry(unavailable)
        self.addCleanup(registry.stop)
        result = self.run_with(registry.address())
        self.assertEqual(result.returncode, SKIPPED, result.stderr)
        self.assertIn("skipped: the package registry cannot be reached (E503)", result.stdout)

    def test_a_registry_with_other_content_fails(self):
        registry = Registry(lambda path: self.at(registry, *other_content(path)))
        self.addCleanup(registry.stop)
        result = self.run_with(registry.address())
        self.assertEqual(result.returncode, 1, result.stdout)
        self.assertIn("npm ci failed, though the package registry answers", result.stderr)
        self.assertIn("EINTEGRITY", result.stderr)

    @staticmethod
    def at(registry, status, body):
        return status, body.replace(b"http://127.0.0.1:1/", registry.address().encode())


if __name__ == "__main__":
    if not shutil.which("node") or not shutil.which("npm"):
        print("skipped: node or npm is not installed (Debian: apt-get install nodejs npm)")
        sys.exit(SKIPPED)
    unittest.main()
