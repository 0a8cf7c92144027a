"""A share whose server greets and then answers nothing: what asks it can be killed, and does not end while this runs. Runs on
the host, with the folder that the share is mounted at."""

import ctypes
import os
import struct
import sys

GREETING = 26
VERSION = (7, 31)

folder = sys.argv[1]
os.makedirs(folder, exist_ok=True)
if not os.path.exists("/dev/fuse"):
    os.mknod("/dev/fuse", 0o20666, os.makedev(10, 229))
device = os.open("/dev/fuse", os.O_RDWR)
libc = ctypes.CDLL(None, use_errno=True)
options = f"fd={device},rootmode=40000,user_id=0,group_id=0,allow_other"
if libc.mount(b"server:/share", folder.encode(), b"fuse", 0, options.encode()) != 0:
    sys.exit(os.strerror(ctypes.get_errno()))
while True:
    request = os.read(device, 1 << 20)
    _, operation, unique = struct.unpack_from("IIQ", request)
    if operation == GREETING:
        # Most of what can be agreed on is left out; the longest write is not.
        reply = struct.pack("6I2H2I8I", *VERSION, 0, 0, 0, 4096, 0, 0, *[0] * 10)[:64]
        os.write(device, struct.pack("IiQ", 16 + len(reply), 0, unique) + reply)
        print("greeted", flush=True)
