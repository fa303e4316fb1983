"""What the C library exports, and both examples of the C interface. Scenarios test the functions themselves.

The environment's MARBLEWAY_LIBRARY is the library, TILL the example in C. Nothing is sent: the server's port is closed.
"""

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


class Example(unittest.TestCase):
    def rows(self, *command):
        """Runs an example and returns its rows by table."""
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        with socket.socket() as port:  # bound and not listening: whoever connects is refused
            port.bind(("127.0.0.1", 0))
            server = f"http://127.0.0.1:{port.getsockname()[1]}/v2/"
            environment = os.environ | {"MARBLEWAY_DIAGNOSTICS": self.diagnostics}
            run = subprocess.run([*command, "--once", folder.name, server], check=True, timeout=30, env=environment, stderr=subprocess.PIPE, text=True)
            reported = re.findall(r"^Marbleway Diagnostic: handshake: no response, .*connect.*" + server, run.stderr, re.M)
            self.assertEqual(int(self.diagnostics), len(reported), run.stderr)
        store = sqlite3.connect(pathlib.Path(folder.name, "mrbw-analytics-prod-220.sqlite"))
        store.row_factory = sqlite3.Row
        return {table: store.execute(f"SELECT * FROM mrbw_v2_{table} ORDER BY id").fetchall() for table in ("events", "screen_views", "errors")}


class ExampleInC(Example):
    diagnostics = "1"

    def test_its_rows(self):
        rows = self.rows(os.environ["TILL"])
        sales = [json.loads(row["EventAttributes"]) for row in rows["events"]]
        self.assertEqual([{"bread": bread, "Value": value} for bread, value in (("Rye", 4.2), ("Wheat", 3.9), ("Spelt", 5))], sales)
        self.assertEqual(["Till"], [row["ScreenName"] for row in rows["screen_views"]])
        details = json.loads(rows["errors"][0]["ErrorDetails"])
        self.assertEqual(("IOError", "No such file or directory"), (details["ExceptionName"], details["ExceptionReason"]))
        self.assertRegex(details["ExceptionCallStackSymbols"][0], r"^0 till ")


class ExampleInPython(Example):
    diagnostics = "0"

    def test_its_rows(self):
        rows = self.rows(sys.executable, "-B", str(ROOT / "examples/python/example.py"))
        details = json.loads(rows["errors"][0]["ErrorDetails"])
        self.assertIn("in total", "".join(details["ExceptionUserInfo"]["traceback"]))


if __name__ == "__main__":
    unittest.main()
