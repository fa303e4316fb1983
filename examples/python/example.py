#!/usr/bin/env python3
"""Reads numbers from files and records the results and the errors.

    example.py FILE...                  sends to http://127.0.0.1:8080/v2/; ends with 0 when the rows were delivered
    example.py --once DOCUMENTS SERVER  records one good and one bad file in that directory, checks the rows, and ends
"""

import pathlib
import sqlite3
import sys
import tempfile

import marbleway


def total(path):
    numbers = [float(line) for line in pathlib.Path(path).read_text().split()]
    marbleway.track_event("File read", {"lines": len(numbers), "Value": sum(numbers)})


def read(paths):
    marbleway.track_screen_view("Files")
    for path in paths:
        try:
            total(path)
        except (OSError, ValueError) as error:
            marbleway.log_error("Read", "a file was skipped", error)


def record(paths, **configuration):
    """True when the server has accepted the rows."""
    marbleway.configure(appVersion="1.0", **configuration)
    marbleway.init("my-project", {"SDKEnvironment": 1, "PrivacyMode": False})
    marbleway.wait_until_idle(5)  # for the server's answer to the start
    read(paths)
    marbleway.stop_session()  # begins an upload
    marbleway.wait_until_idle(5)
    batch = marbleway.status()["batch"]
    return batch is not None and not batch["isFailure"]


def once(documents, server):
    with tempfile.TemporaryDirectory() as folder:
        good, bad = pathlib.Path(folder, "good"), pathlib.Path(folder, "bad")
        good.write_text("1 2.5")
        bad.write_text("one")
        delivered = record([good, bad], documentsDirectory=documents, developmentURL=server)
    with sqlite3.connect(pathlib.Path(documents, "mrbw-analytics-prod-220.sqlite")) as store:
        attributes = store.execute("SELECT EventAttributes FROM mrbw_v2_events").fetchall()
        errors = store.execute("SELECT ErrorDetails ->> 'ExceptionName' FROM mrbw_v2_errors").fetchall()
    print(attributes, errors, "delivered" if delivered else "not delivered")
    return attributes == [('{"lines":2,"Value":3.5}',)] and errors == [("ValueError",)]


def main(arguments):
    if arguments[:1] == ["--once"]:
        return once(*arguments[1:])
    return record(arguments)


if __name__ == "__main__":
    sys.exit(0 if main(sys.argv[1:]) else 1)
