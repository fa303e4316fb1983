"""The C interface: every function with good, absent and ill-formed arguments and the rows that it writes, and both examples.

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
LIBRARY = os.environ["MARBLEWAY_LIBRARY"]
OK, BAD_JSON, REFUSED = 0, 1, 2
BAD = (b"", b"{", b"{'a': 1}", b'{"a": NaN}')  # no JSON
NO_DICTIONARY = BAD + (b"[]", b"7", b'"text"')

AD = {"adID": "1", "adName": "n", "adType": "t", "adCategory": "c", "orgID": "2", "orgName": "o"}
CONVERSION = {"conversionType": "sale", "conversionValue": 3}


def packed(value):
    return json.dumps(value, separators=(",", ":"))


def user_attribute(key, value, kind="Set"):
    return {"AttributeKey": key, "AttributeValue": value, "AttributeType": kind}


# Function, arguments, the table and the columns of its one row; without a table the call writes none.
WRITES = [
    ("link_user", (b"ann", b"id"), "users", {"UserID": "ann", "TypeID": "id"}),
    ("link_user", (b"ann", None)),
    ("link_user", (None, b"id")),
    ("set_user_attribute", (b"City", "Köln".encode()), "user_attributes", user_attribute("City", "Köln")),
    ("set_user_attribute", (b"City", None), "user_attributes", user_attribute("City", None)),
    ("set_user_attribute", (None, b"x")),
    ("increment_user_attribute", (b"Logins", b"2.5"), "user_attributes", user_attribute("Logins", "2.5", "Increment")),
    ("increment_user_attribute", (b"Logins", None), "user_attributes", user_attribute("Logins", None, "Increment")),
    ("increment_user_attribute", (None, b"1")),
    ("decrement_user_attribute", (b"Logins", b"[1, 2]"), "user_attributes", user_attribute("Logins", "[1,2]", "Decrement")),
    ("decrement_user_attribute", (None, b"1")),
    ("link_company", (b"Acme",), "companies", {"CompanyName": "Acme"}),
    ("link_company", (None,)),
    ("unlink_company", (), "user_attributes", user_attribute("CompanyID", "0")),
    ("set_company_attribute", (b"Size", b"9"), "company_attributes", user_attribute("Size", "9")),
    ("set_company_attribute", (None, b"9")),
    ("increment_company_attribute", (b"Seats", b"true"), "company_attributes", user_attribute("Seats", "1", "Increment")),
    ("increment_company_attribute", (None, b"1")),
    ("decrement_company_attribute", (b"Seats", b'"3"'), "company_attributes", user_attribute("Seats", "3", "Decrement")),
    ("decrement_company_attribute", (None, b"1")),
    ("track_event", (b"Sale", b' {"a": {"b": [1, null]}} '), "events", {"EventName": "Sale", "EventAttributes": '{"a":{"b":[1,null]}}'}),
    ("track_event", (b"Sale", b"{}"), "events", {"EventName": "Sale", "EventAttributes": "{}"}),
    ("track_event", (b"Sale", None), "events", {"EventName": "Sale", "EventAttributes": None}),
    ("track_event", (b"Sale", b"null"), "events", {"EventName": "Sale", "EventAttributes": None}),
    ("track_event", (None, None), "events", {"EventName": None, "EventAttributes": None}),
    ("track_screen_view", (b"Home", b'{"a": 1}'), "screen_views", {"ScreenName": "Home", "ScreenAttributes": '{"a":1}'}),
    ("track_screen_view", (b"Home", None), "screen_views", {"ScreenName": "Home", "ScreenAttributes": None}),
    ("track_ad_impression", (packed(AD).encode(),), "ads", {"AdType": "Impression", "AdDetails": packed(AD)}),
    ("track_ad_impression", (None,)),
    ("track_ad_interaction", (packed(AD).encode(), b"tap"), "ads", {"AdType": "Interaction", "InteractionType": "tap"}),
    ("track_ad_interaction", (packed(AD).encode(), None), "ads", {"AdType": "Interaction", "InteractionType": None}),
    ("track_ad_interaction", (None, b"tap")),
    ("track_ad_conversion", (packed(AD).encode(), packed(CONVERSION).encode()), "ads",
     {"AdType": "Conversion", "ConversionDetails": packed(CONVERSION)}),
    ("track_ad_conversion", (packed(AD).encode(), None)),
    ("track_deep_link", (b"app://x?mrbw_dlid=7",), "deep_links", {"DeepLinkID": "7"}),
    ("track_deep_link", (None,)),
    ("log_error", (b"Import", b"failed", b"IOError", b"gone", b'{"file": 3}'), "errors", {"ErrorName": "Import", "ErrorMessage": "failed"}),
    ("log_error", (b"Import", None, None, b"gone", None), "errors", {"ErrorName": "Import", "ErrorMessage": None}),
    ("log_error", (b"Import", b"failed", None, None, None)),
    ("set_device_token", (b"\x00\xff", ctypes.c_size_t(2)), "user_attributes", user_attribute("ApplePushToken", "<00ff>")),
    ("set_device_token", (None, ctypes.c_size_t(2))),
    ("track_push_notification", (b'{"aps": {"mrbw_data": "1", "mrbw_messageID": "m"}}',), "messages", {"MessageID": "m"}),
    ("track_push_notification", (None,)),
    ("set_location_monitoring_enabled", (0,)),
    ("set_location_monitoring_enabled", (1,)),
    ("set_uploading_enabled", (0,)),
    ("set_tracking_enabled", (0,)),
    ("track_event", (b"Sale", None)),
    ("set_tracking_enabled", (-1,)),
    ("set_uploading_enabled", (1,)),
    ("stop_session", ()),
    ("link_company", (b"Acme",)),
]

# Function, the arguments before its JSON text, those after it, and what it takes for none.
ILL_FORMED = [
    ("configure", (), (), NO_DICTIONARY),
    ("init_with_options", (b"other",), (), NO_DICTIONARY),
    ("increment_user_attribute", (b"a",), (), BAD),
    ("decrement_user_attribute", (b"a",), (), BAD),
    ("increment_company_attribute", (b"a",), (), BAD),
    ("decrement_company_attribute", (b"a",), (), BAD),
    ("track_event", (b"a",), (), NO_DICTIONARY),
    ("track_screen_view", (b"a",), (), NO_DICTIONARY),
    ("track_ad_impression", (), (), NO_DICTIONARY),
    ("track_ad_interaction", (), (b"tap",), NO_DICTIONARY),
    ("track_ad_conversion", (), (packed(CONVERSION).encode(),), NO_DICTIONARY),
    ("track_ad_conversion", (packed(AD).encode(),), (), NO_DICTIONARY),
    ("log_error", (b"a", b"b", b"c", b"d"), (), NO_DICTIONARY),
    ("track_push_notification", (), (), NO_DICTIONARY),
]

REFUSED_MEMBERS = [
    {"unknown": "x"}, {"appVersion": 1}, {"documentsDirectory": None}, {"developmentURL": "ftp://h/v2/"}, {"testURL": "http://h/"},
    {"sites": []}, {"sites": [1, 2, 3]}, {"sites": [{"latitude": 1}] * 3},
]


class Store:
    """The rows that came since the last look."""

    def __init__(self, documents):
        self.store = sqlite3.connect(pathlib.Path(documents, "mrbw-analytics-prod-220.sqlite"))
        self.store.row_factory = sqlite3.Row
        tables = self.store.execute("SELECT name FROM sqlite_master WHERE name LIKE 'mrbw%'").fetchall()
        self.seen = {name: 0 for (name,) in tables}

    def new_rows(self):
        new = []
        for table, last in self.seen.items():
            rows = self.store.execute(f"SELECT * FROM {table} WHERE id > ? ORDER BY id", (last,)).fetchall()
            new += [(table.removeprefix("mrbw_v2_"), dict(row)) for row in rows]
            self.seen[table] = max([last] + [row["id"] for row in rows])
        return new


class Case(unittest.TestCase):
    """A documents directory, and a server's address that nobody answers at."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.documents = folder.name
        port = socket.socket()  # bound and not listening: whoever connects is refused
        self.addCleanup(port.close)
        port.bind(("127.0.0.1", 0))
        self.server = f"http://127.0.0.1:{port.getsockname()[1]}/v2/"

    def run_example(self, *command):
        subprocess.run([*command, "--once", self.documents, self.server], check=True, timeout=30)
        rows = Store(self.documents).new_rows()
        return {table: [row for name, row in rows if name == table] for table, _ in rows}


class Functions(Case):
    def call(self, name, *arguments):
        return getattr(self.library, "marbleway_" + name)(*arguments)

    def test_every_function(self):
        self.library = ctypes.CDLL(LIBRARY)
        self.check_names()
        self.start()
        self.store = Store(self.documents)
        self.check_sessions(self.store.new_rows())
        for name, arguments, *written in WRITES:
            with self.subTest(name, arguments=arguments):
                self.assertEqual(OK, self.call(name, *arguments))
                self.check_written(written)
        self.check_restart()
        self.check_ill_formed()
        self.assertEqual(OK, self.call("unlink_user"))
        self.assertEqual([], self.store.new_rows())

    def check_names(self):
        header = ROOT.joinpath("Marbleway/marbleway_c.h").read_text()
        declared = set(re.findall(r"^[a-z][\w *]* (marbleway_\w+)\(", header, re.M))
        symbols = subprocess.check_output(["nm", "-D", "--defined-only", LIBRARY], text=True)
        self.assertEqual(declared, {line.split()[-1] for line in symbols.splitlines()})
        used = {name for name, *_ in WRITES + ILL_FORMED}
        rest = {"version", "configure", "wait_until_idle", "init", "start_session", "unlink_user"}
        rest |= {"get_tracking_enabled", "get_uploading_enabled"}
        self.assertEqual(declared, {"marbleway_" + name for name in used | rest})

    def start(self):
        self.library.marbleway_version.restype = ctypes.c_char_p
        self.assertRegex(self.call("version"), rb"^2\.\d+\.\d+$")
        sites = [{"latitude": 1, "longitude": 2.5}] * 3
        configuration = {"documentsDirectory": self.documents, "developmentURL": self.server, "productionURL": self.server,
                         "bundleIdentifier": "org.example.c", "appVersion": "7", "sites": sites}
        self.assertEqual(OK, self.call("configure", None))
        self.assertEqual(OK, self.call("configure", packed(configuration).encode()))
        for members in REFUSED_MEMBERS:
            self.assertEqual(REFUSED, self.call("configure", packed({"bundleIdentifier": "other"} | members).encode()), members)
        self.assertEqual(OK, self.call("init_with_options", b"token", b'{"PrivacyMode": false, "PerformanceMonitoringEnabled": 0}'))
        self.assertEqual(1, self.call("wait_until_idle", ctypes.c_int64(20000)))

    def check_sessions(self, rows):
        self.assertEqual(["sessions", "users"], [table for table, _ in rows])
        session = rows[0][1]
        self.assertEqual(("token", "org.example.c", "7", "No"),
                         tuple(session[name] for name in ("ProjectToken", "BundleID", "AppVersion", "PrivacyMode")))

    def check_written(self, written):
        rows = self.store.new_rows()
        if not written:
            return self.assertEqual([], rows)
        (table, columns), ((in_table, row),) = written, rows
        self.assertEqual((table, columns), (in_table, {name: row[name] for name in columns}))
        if table == "errors" and columns["ErrorMessage"]:
            details = json.loads(row["ErrorDetails"])
            self.assertEqual(("IOError", "gone", {"file": 3}),
                             tuple(details["Exception" + name] for name in ("Name", "Reason", "UserInfo")))
            symbols, addresses = (details["ExceptionCallStack" + name] for name in ("Symbols", "ReturnAddresses"))
            self.assertEqual(len(symbols), len(addresses))
            self.assertRegex(symbols[0], r"^0 libffi")  # who called, and nothing of the library's own
        return None

    def check_restart(self):
        self.assertEqual(OK, self.call("start_session"))
        self.check_sessions(self.store.new_rows())
        for name in ("tracking", "uploading"):
            for enabled in (0, 1):
                self.call(f"set_{name}_enabled", enabled)
                self.assertEqual(enabled, self.call(f"get_{name}_enabled"))

    def check_ill_formed(self):
        for name, before, after, texts in ILL_FORMED:
            for text in texts:
                with self.subTest(name, text=text):
                    self.assertEqual(BAD_JSON, self.call(name, *before, text, *after))
                    self.assertEqual([], self.store.new_rows())


class ExampleInC(Case):
    def test_its_rows(self):
        rows = self.run_example(os.environ["TILL"])
        sales = [json.loads(row["EventAttributes"]) for row in rows["events"]]
        self.assertEqual([{"bread": bread, "Value": value} for bread, value in (("Rye", 4.2), ("Wheat", 3.9), ("Spelt", 5))], sales)
        self.assertEqual(["Till"], [row["ScreenName"] for row in rows["screen_views"]])
        details = json.loads(rows["errors"][0]["ErrorDetails"])
        self.assertEqual(("IOError", "No such file or directory"), (details["ExceptionName"], details["ExceptionReason"]))
        self.assertRegex(details["ExceptionCallStackSymbols"][0], r"^0 till ")


class ExampleInPython(Case):
    def test_its_rows(self):
        rows = self.run_example(sys.executable, "-B", str(ROOT / "examples/python/example.py"))
        details = json.loads(rows["errors"][0]["ErrorDetails"])
        self.assertIn("in total", "".join(details["ExceptionUserInfo"]["traceback"]))


if __name__ == "__main__":
    unittest.main()
