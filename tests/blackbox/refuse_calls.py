"""Runs a command on a kernel that seems older: refuse_calls.py CALL,CALL... COMMAND ARGUMENT...

The calls fail with ENOSYS, for the command and all that it starts.
"""

import ctypes
import errno
import os
import platform
import struct
import sys

NUMBERS = {"pidfd_open": 434, "clone3": 435, "close_range": 436, "faccessat2": 439,
           "statx": 291 if platform.machine() == "aarch64" else 332}
PR_SET_SECCOMP, PR_SET_NO_NEW_PRIVS, SECCOMP_MODE_FILTER = 22, 38, 2
LOAD, JUMP_IF_EQUAL, RETURN = 0x20, 0x15, 0x06
REFUSE, ALLOW = 0x00050000 | errno.ENOSYS, 0x7fff0000


def refuse(calls):
    """See seccomp(2): the number of the call is the first word of the data."""
    steps = [(LOAD, 0, 0, 0)]
    for call in calls:
        steps += [(JUMP_IF_EQUAL, 0, 1, NUMBERS[call]), (RETURN, 0, 0, REFUSE)]
    code = b"".join(struct.pack("=HBBI", *step) for step in [*steps, (RETURN, 0, 0, ALLOW)])
    buffer = ctypes.create_string_buffer(code, len(code))
    program = ctypes.create_string_buffer(
        struct.pack("@HP", len(code) // 8, ctypes.addressof(buffer)))
    libc = ctypes.CDLL(None, use_errno=True)
    for arguments in ((PR_SET_NO_NEW_PRIVS, 1, None), (PR_SET_SECCOMP, SECCOMP_MODE_FILTER, program)):
        if libc.prctl(*arguments, None, None):
            raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


if __name__ == "__main__":
    refuse(sys.argv[1].split(","))
    os.execv(sys.argv[2], sys.argv[2:])
