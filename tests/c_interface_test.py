"""What the C library exports, and both examples of the C interface. Scenarios test the functions themselves.

The environment's MARBLEWAY_LIBRARY is the library, TILL the example in C. Nothing is sent: the server's port is closed.
"""

import ctypes
import json
import os
import pathlib
import re
import socket
import sqlite3
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).parent.parent


class Exports(unittest.TestCase):
    def test_they_are_the_header_s_functions(self):
        header = ROOT.joinpath("Marbleway/marbleway_c.h").read_text()
        declared = set(re.findall(r"^[a-z][\w *]* (marbleway_\w+)\(", header, re.M))
        symbols = subprocess.check_output(["nm", "-D", "--defined-only", os.environ["MARBLEWAY_LIBRARY"]], text=True)
        self.assertEqual(declared, {line.split()[-1] for line in symbols.splitlines()})

    def test_nothing_is_recorded_before_the_start(self):
        library = ctypes.CDLL(os.environ["MARBLEWAY_LIBRARY"])
        self.assertFalse(library.marbleway_get_tracking_enabled() or library.marbleway_get_uploading_enabled())


class Examples(unittest.TestCase):
    def details(self, diagnostics, *command):
        """Runs an example and returns its error's details, its event's attributes and its name."""
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        with socket.socket() as port:  # bound and not listening: whoever connects is refused
            port.bind(("127.0.0.1", 0))
            server = f"http://127.0.0.1:{port.getsockname()[1]}/v2/"
            environment = os.environ | {"MARBLEWAY_DIAGNOSTICS": diagnostics}
            run = subprocess.run([*command, "--once", folder.name, server], check=True, timeout=30, env=environment, capture_output=True, text=True)
        reported = re.findall(r"^Marbleway Diagnostic: handshake: no response, .*connect to 127.0.0.1 port.*" + server, run.stderr, re.M)
        self.assertEqual(int(diagnostics), len(reported), run.stderr)
        self.assertNotIn("] delivered", run.stdout)
        store = sqlite3.connect(pathlib.Path(folder.name, "mrbw-analytics-prod-220.sqlite"))
        select = "SELECT ErrorDetails, EventAttributes, BundleID FROM mrbw_v2_errors, mrbw_v2_events, mrbw_v2_sessions ORDER BY mrbw_v2_events.id"
        error, event, bundle = store.execute(select).fetchone()
        return json.loads(error), json.loads(event), bundle

    def test_in_c(self):
        error, sale, _ = self.details("1", os.environ["TILL"])
        self.assertEqual({"bread": "Rye", "Value": 4.2}, sale)
        self.assertEqual(("IOError", "No such file or directory"), (error["ExceptionName"], error["ExceptionReason"]))
        self.assertRegex(error["ExceptionCallStackSymbols"][0], r"^0 till ")

    def test_in_python(self):
        error, _, bundle = self.details("0", sys.executable, "-B", str(ROOT / "examples/python/example.py"))
        self.assertEqual("example", bundle)
        self.assertIn("in total", "".join(error["ExceptionUserInfo"]["traceback"]))


if __name__ == "__main__":
    unittest.main()
