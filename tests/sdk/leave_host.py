"""A host that leaves while data flows: leave_host.py LIBRARY PORT. Ends with code 7, whatever its callbacks are doing."""
import ctypes
import sys
import time

sdk = ctypes.CDLL(sys.argv[1])
packets = 0


@ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_int, ctypes.POINTER(ctypes.c_int), ctypes.c_int)
def on_raw(device, channel, samples, count):
    global packets
    packets += sum(samples[:count]) != 0


sdk.SDK_SetRawDataCallback(on_raw)
assert sdk.SDK_Init() == 1
assert sdk.SDK_ConnectPort(sys.argv[2].encode()) == 1
assert sdk.SDK_ConnectDevice(b"A1B2C3D4E501", 1) == 1
assert sdk.SDK_StartDataCollection() == 1
deadline = time.monotonic() + 20
while packets < 20 and time.monotonic() < deadline:
    time.sleep(0.005)
sys.exit(7 if packets >= 20 else 1)
