#!/usr/bin/env python3
"""A harness in Python: loads libzel-tc-lib.so with ctypes and runs its three entry points.

The library finds the TEE as any client does: on a host, the zel-vaultd at $ZEL_TEE_SOCKET (or
the default socket). Usage: harness.py [PATH/TO/libzel-tc-lib.so]
"""
import ctypes
import sys


def main() -> int:
    library = ctypes.CDLL(sys.argv[1] if len(sys.argv) > 1 else "libzel-tc-lib.so")
    library.test_lifetime.restype = ctypes.c_int
    library.test_process_inspection.restype = ctypes.c_int
    library.test_get_info.restype = None

    lifetime = library.test_lifetime()
    inspection = library.test_process_inspection()
    library.test_get_info()  # reports its outcome only as a line on stdout

    print(f"harness: test_lifetime returned {lifetime & 0xFFFFFFFF:#010x}", file=sys.stderr)
    print(f"harness: test_process_inspection returned {inspection}", file=sys.stderr)
    return 0 if lifetime == 0 and inspection == 1 else 1


if __name__ == "__main__":
    sys.exit(main())
