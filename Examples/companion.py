"""A companion in Python: holds a fan at a speed until Enter or the end of its input, and reports what happens to it.

usage: companion.py FAN RPM     (with a signed interpreter: see README.md)
"""
import ctypes
import sys

DONE = 0
EVENTS = ("forced", "the helper is unreachable", "given back",
          "given back after the longest manual period", "taken back", "refused")

library = ctypes.CDLL("libquorvane-fancontrol.so.1")
HANDLER = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_char_p)
for function, result, arguments in (
        ("client_new", ctypes.c_void_p, ()),
        ("client_free", None, (ctypes.c_void_p,)),
        ("client_connect", ctypes.c_int, (ctypes.c_void_p,)),
        ("client_text", ctypes.c_char_p, (ctypes.c_void_p,)),
        ("keeper_new", ctypes.c_void_p, (HANDLER, ctypes.c_void_p)),
        ("keeper_hold", ctypes.c_int, (ctypes.c_void_p, ctypes.c_int, ctypes.c_int64)),
        ("keeper_free", None, (ctypes.c_void_p,))):
    entry = getattr(library, "quorvane_" + function)
    entry.restype, entry.argtypes = result, arguments


@HANDLER
def tell(_context, fan, event, text):  # on the keeper's thread
    print(f"fan {fan}: {EVENTS[event]}. {text.decode()}", flush=True)


if len(sys.argv) != 3:
    sys.exit(__doc__)
client = library.quorvane_client_new()
if library.quorvane_client_connect(client) != DONE:
    sys.exit(library.quorvane_client_text(client).decode())
library.quorvane_client_free(client)
keeper = library.quorvane_keeper_new(tell, None)
if not keeper:
    sys.exit("no memory")
library.quorvane_keeper_hold(keeper, int(sys.argv[1]), int(sys.argv[2]))
sys.stdin.readline()
library.quorvane_keeper_free(keeper)  # gives the fan back; ctypes releases the interpreter lock, so tell() can run meanwhile
