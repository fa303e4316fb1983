"""Marbleway for Python, through ctypes and the C interface.

Loads the library from the system's folders, or from the file that the environment variable MARBLEWAY_LIBRARY names. Dictionaries are
Python's own; None is an absent text or value. An argument that the library cannot read raises ValueError. Everything else is reported
on the console.
"""

import ctypes
import json
import os
import pathlib
import sys
import traceback

_library = ctypes.CDLL(os.environ.get("MARBLEWAY_LIBRARY", "libmarbleway_c.so.2"))
_library.marbleway_version.restype = ctypes.c_char_p
_library.marbleway_wait_until_idle.argtypes = [ctypes.c_int64]
_library.marbleway_get_status.argtypes = [ctypes.c_int, ctypes.c_char_p, ctypes.c_size_t]
_library.marbleway_set_device_token.argtypes = [ctypes.c_char_p, ctypes.c_size_t]


def _text(text):
    return None if text is None else text.encode()


def _json(value):
    return None if value is None else json.dumps(value).encode()


def _call(name, *arguments):
    if getattr(_library, "marbleway_" + name)(*arguments) != 0:
        raise ValueError(f"marbleway: invalid argument of {name}")


def version():
    return _library.marbleway_version().decode()


_Diagnostics = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_void_p)
_functions = []  # referenced as long as the library may call them


def configure(diagnostics=None, **members):
    """Sets any of documentsDirectory, developmentURL, testURL, productionURL, bundleIdentifier, appVersion, sites, uploadOnStart.

    The bundle identifier is the script's name, if none is given. `diagnostics` is called with a dictionary for each diagnostic, on one of
    the library's threads.
    """
    script = pathlib.Path(sys.argv[0]).stem if hasattr(sys, "argv") else ""
    if not script.startswith("-"):  # as in python3 -c
        members.setdefault("bundleIdentifier", script)
    _functions.append(diagnostics and _Diagnostics(lambda text, _: diagnostics(json.loads(text))))
    _call("configure_with_diagnostics", _json(members), _functions[-1], None)


def status(count_rows=False):
    """The library's state, a dictionary; with the pending rows by table if they are to be counted."""
    text = ctypes.create_string_buffer(1 << 16)
    _library.marbleway_get_status(int(count_rows), text, len(text))
    return json.loads(text.value)


def wait_until_idle(seconds):
    return _library.marbleway_wait_until_idle(round(seconds * 1000)) == 1


def upload_now():
    """Begins an upload; the session goes on."""
    _call("upload_now")


def init(project_token, options=None):
    """Starts the library. Without options it uses the default ones: privacy mode off. With {} privacy mode is on."""
    if options is None:
        _call("init", _text(project_token))
    else:
        _call("init_with_options", _text(project_token), _json(options))


def start_session():
    _call("start_session")


def stop_session():
    _call("stop_session")


def link_user(identifier, kind="id"):
    _call("link_user", _text(identifier), _text(kind))


def unlink_user():
    _call("unlink_user")


def set_user_attribute(attribute, value):
    _call("set_user_attribute", _text(attribute), _text(value))


def increment_user_attribute(attribute, amount):
    _call("increment_user_attribute", _text(attribute), _json(amount))


def decrement_user_attribute(attribute, amount):
    _call("decrement_user_attribute", _text(attribute), _json(amount))


def link_company(name):
    _call("link_company", _text(name))


def unlink_company():
    _call("unlink_company")


def set_company_attribute(attribute, value):
    _call("set_company_attribute", _text(attribute), _text(value))


def increment_company_attribute(attribute, amount):
    _call("increment_company_attribute", _text(attribute), _json(amount))


def decrement_company_attribute(attribute, amount):
    _call("decrement_company_attribute", _text(attribute), _json(amount))


def track_event(name, attributes=None):
    _call("track_event", _text(name), _json(attributes))


def track_screen_view(name, attributes=None):
    _call("track_screen_view", _text(name), _json(attributes))


def track_ad_impression(details):
    _call("track_ad_impression", _json(details))


def track_ad_interaction(details, kind):
    _call("track_ad_interaction", _json(details), _text(kind))


def track_ad_conversion(details, conversion):
    _call("track_ad_conversion", _json(details), _json(conversion))


def track_deep_link(url):
    _call("track_deep_link", _text(url))


def log_error(name, message, error):
    """Records a caught exception with its type, its text and, as user info, Python's traceback."""
    lines = traceback.format_exception(error)
    _call("log_error", _text(name), _text(message), _text(type(error).__name__), _text(str(error)), _json({"traceback": lines}))


def is_tracking_enabled():
    return _library.marbleway_get_tracking_enabled() == 1


def set_tracking_enabled(enabled):
    _call("set_tracking_enabled", int(enabled))


def is_uploading_enabled():
    return _library.marbleway_get_uploading_enabled() == 1


def set_uploading_enabled(enabled):
    _call("set_uploading_enabled", int(enabled))


def set_device_token(token):
    _call("set_device_token", token, 0 if token is None else len(token))


def track_push_notification(user_info):
    _call("track_push_notification", _json(user_info))


def set_location_monitoring_enabled(enabled):
    _call("set_location_monitoring_enabled", int(enabled))


def install_desktop(desktop_entry=None):
    """Installs the services of a Linux desktop, before init. Needs libmarbleway_desktop, or the file that MARBLEWAY_DESKTOP_LIBRARY
    names. The desktop entry is named without ".desktop"; None takes the name of Python's own file."""
    desktop = ctypes.CDLL(os.environ.get("MARBLEWAY_DESKTOP_LIBRARY", "libmarbleway_desktop.so.2"))
    desktop.marbleway_desktop_install_as(_text(desktop_entry))
