"""Runs quorvane-node with real NATS servers that want a key, or a token signed by an operator."""
import base64
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

import nats_test
from end_to_end_test import OTHER_ARGUMENTS

OPENSSL = shutil.which("openssl")
OPERATOR, ACCOUNT, USER, SEED = 14 << 3, 0, 20 << 3, 18 << 3  # First letters of what NATS calls keys.


def checksum(data):
    """CRC-16 of XMODEM."""
    crc = 0
    for byte in data:
        crc ^= byte << 8
        for _ in range(8):
            crc = (crc << 1 ^ (0x1021 if crc & 0x8000 else 0)) & 0xFFFF
    return crc.to_bytes(2, "little")


def letters(data):
    return base64.b32encode(data + checksum(data)).decode().rstrip("=")


def base64url(data):
    return base64.urlsafe_b64encode(data).decode().rstrip("=")


class Key:
    """A pair of keys (Ed25519) as NATS writes them."""

    def __init__(self, home, kind):
        self.path = home / f"key{len(list(home.iterdir()))}"
        self.openssl("genpkey", "-algorithm", "ed25519", "-outform", "DER", "-out", self.path)
        public = self.openssl("pkey", "-inform", "DER", "-in", self.path, "-pubout", "-outform",
                              "DER")[-32:]
        self.public = letters(bytes([kind]) + public)
        self.seed = letters(bytes([SEED | kind >> 5, (kind & 31) << 3]) +
                            self.path.read_bytes()[-32:])

    @staticmethod
    def openssl(*arguments):
        return subprocess.run([OPENSSL, *map(str, arguments)], check=True,
                              stdout=subprocess.PIPE).stdout

    def token(self, subject, name, claims):
        """A JWT about the key `subject`."""
        parts = [{"typ": "JWT", "alg": "ed25519-nkey"},
                 {"jti": name, "iat": 1_700_000_000, "iss": self.public, "name": name,
                  "sub": subject.public, "nats": {"version": 2, **claims}}]
        text = ".".join(base64url(json.dumps(part).encode()) for part in parts)
        message = self.path.with_suffix(".text")
        message.write_text(text)
        signature = self.openssl("pkeyutl", "-sign", "-rawin", "-keyform", "DER", "-inkey",
                                 self.path, "-in", message)
        return text + "." + base64url(signature)


@unittest.skipIf(nats_test.SERVER is None, "nats-server is not installed")
@unittest.skipIf(OPENSSL is None, "openssl is not installed")
class NatsLoginTest(unittest.TestCase):
    def setUp(self):
        home = tempfile.TemporaryDirectory(prefix="quorvane-nats-")
        self.addCleanup(home.cleanup)
        self.home = pathlib.Path(home.name)

    def server(self, extra):
        server = nats_test.Server(self.home, extra=extra)
        self.addCleanup(server.stop)
        return server

    def file(self, name, text):
        path = self.home / name
        path.write_text(text)
        path.chmod(0o600)
        return path

    def node(self, server, settings):
        node = nats_test.Node("--rate", "8000", "--nats", server.url, "--nats-config",
                              str(self.file("nats.conf", settings)))
        self.addCleanup(node.__exit__)
        return node

    def assert_works(self, server, settings):
        node = self.node(server, settings)
        node.wait_for("nats connected")
        node.send_call()
        node.wait_for("nats stream")
        self.assertEqual(node.stop(), 0, node.text())
        self.assertNotIn("nats trouble", node.text())

    def assert_refused(self, server, settings, reason="Authorization Violation"):
        node = self.node(server, settings + "exit_wait = 0\n")
        node.wait_for(rf"nats trouble +not connected yet \({reason}")
        node.stop()
        self.assertNotIn("nats connected", node.text())

    def test_node_shows_a_shared_token(self):
        server = self.server('authorization { token: "t0ken" }\n')
        self.assert_works(server, "token = t0ken\n")
        self.assert_refused(server, "token = other\n")

    def test_node_signs_with_its_key(self):
        key, stranger = Key(self.home, USER), Key(self.home, USER)
        server = self.server("authorization { users: [ { nkey: %s } ] }\n" % key.public)
        seed = self.file("seed", key.seed + "\n")
        self.assert_works(server, f"nkey = {key.public}\nseed = {seed}\n")
        self.assert_refused(server, f"nkey = {stranger.public}\nseed = "
                                    f"{self.file('other', stranger.seed)}\n")
        self.assert_refused(server, f"nkey = {key.public}\nseed = {self.file('none', 'x')}\n",
                            "no nkey user seed found in ")

    def test_node_shows_a_token_of_its_operator_and_may_do_what_it_needs(self):
        operator, account, system, user = (Key(self.home, kind)
                                           for kind in (OPERATOR, ACCOUNT, ACCOUNT, USER))
        common = ("subs", "data", "payload", "imports", "exports", "conn", "leaf")
        stored = ("mem_storage", "disk_storage", "streams", "consumer")

        def account_token(each, limits):
            return operator.token(each, "account", {"type": "account", "limits": {
                "wildcards": True, **{name: -1 for name in limits}}})

        server = self.server(
            "operator: %s\nsystem_account: %s\nresolver: MEMORY\n"
            "resolver_preload: { %s: %s, %s: %s }\n" % (
                operator.token(operator, "operator", {"type": "operator"}), system.public,
                system.public, account_token(system, common),
                account.public, account_token(account, common + stored)))
        may = {"pub": {"allow": ["quorvane.>", "$JS.API.STREAM.CREATE.quorvane-events"]},
               "sub": {"allow": ["_INBOX.>"]}}
        token = account.token(user, "user", {"type": "user", "subs": -1, "data": -1,
                                             "payload": -1, **may})

        def credentials(name, seed):
            return self.file(name, "-----BEGIN NATS USER JWT-----\n%s\n"
                                   "------END NATS USER JWT------\n\n"
                                   "-----BEGIN USER NKEY SEED-----\n%s\n"
                                   "------END USER NKEY SEED------\n" % (token, seed))

        self.assert_works(server, f"credentials = {credentials('right', user.seed)}\n")
        stranger = Key(self.home, USER)
        self.assert_refused(server, f"credentials = {credentials('wrong', stranger.seed)}\n")
        self.assert_refused(server, f"credentials = {self.file('empty', '')}\n")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + OTHER_ARGUMENTS, verbosity=1)
