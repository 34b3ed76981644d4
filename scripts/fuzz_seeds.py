#!/usr/bin/env python3
"""Writes the fuzzers' seed corpora: well-formed codec messages, requests for every TA command,
daemon exchanges (session, registration with a request in the block, invocation) and inputs for
each support parser and for the TAs' DER readers. Usage: fuzz_seeds.py OUTPUT_DIR"""
import os
import re
import struct
import sys

INT, UINT, BLOB = 1, 2, 3


def field(tag, payload):
    return struct.pack("<II", tag, len(payload)) + payload + b"\0" * (-len(payload) % 4)


def i32(value):
    return field(INT, struct.pack("<i", value))


def u32(value):
    return field(UINT, struct.pack("<I", value))


def blob(data):
    return u32(len(data)) + field(BLOB, data)


VAULT = [0x00, 0x02, 0x03, 0x04, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0e, 0x0f, 0x10,
         0x1b, 0x23, 0x24, 0x25, 0x26, 0x2d]
SECURE_PROCESSOR = [0x12, 0x13, 0x17, 0x18, 0x19, 0x1a, 0x1c, 0x1d, 0x1e, 0x20, 0x27, 0x28,
                    0x2a, 0x2b, 0x2c]
# A P-256 SubjectPublicKeyInfo prefix and point: enough structure for the parser to go deep.
SPKI = bytes.fromhex("3059301306072a8648ce3d020106082a8648ce3d030107034200") + b"\x04" + bytes(64)

REQUESTS = {
    0x00: i32(3) + blob(b"stored data"),
    0x02: i32(3),
    0x03: i32(3),
    0x04: i32(1),
    0x06: i32(3) + i32(0),
    0x07: i32(4) + i32(6) + blob(bytes(32)),
    0x08: i32(2) + i32(1) + blob(b"message"),
    0x09: i32(0) + i32(2) + blob(bytes(32)),
    0x0a: i32(5) + i32(1) + i32(1) + i32(2) + i32(1) + blob(b"\x00\x10" + bytes(16) + bytes(32)),
    0x0b: i32(0) + i32(6) + blob(bytes(64)) + blob(bytes(12)) + blob(SPKI),
    0x0c: i32(3) + i32(0),
    0x0e: i32(0) + blob(SPKI),
    0x0f: i32(2),
    0x10: i32(2),
    0x23: i32(1) + i32(1) + i32(32) + i32(1) + blob(bytes(16)) + blob(b"plain text"),
    0x24: i32(1) + i32(1) + i32(32) + i32(1) + blob(bytes(16)) + blob(bytes(32)),
    0x25: i32(1) + blob(bytes(32)),
    0x26: i32(7) + i32(2),
    0x2d: i32(3),
    0x17: blob(b"30" * 270),
    0x18: blob(b"30" * 270),
    0x12: i32(1),
    0x1e: i32(1),
}


def test_vector(name):
    """A hex vector of src/support/test_vectors.h, as bytes."""
    path = os.path.join(os.path.dirname(__file__), "..", "src", "support", "test_vectors.h")
    with open(path) as header:
        text = header.read()
    match = re.search(r"constexpr char " + name + r"\[\] =((?:\s*\"[0-9A-Fa-f]*\")+);", text)
    return bytes.fromhex("".join(re.findall(r'"([0-9A-Fa-f]*)"', match.group(1))))


def write(directory, name, data):
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, name), "wb") as out:
        out.write(data)


def request(op, session=0, command=0, param_types=0, uuid=bytes(16), size=0, flags=0,
            params=()):
    body = struct.pack("<IIII", op, session, command, param_types) + uuid
    body += struct.pack("<IIII", 0, 0, size, flags)
    padded = list(params) + [(0, 0, 0, 0, 0)] * (4 - len(params))
    for a, b, memory, offset, length in padded:
        body += struct.pack("<IIIII", a, b, memory, offset, length)
    return body


def record(kind, message):
    message = message + b"\0" * (-len(message) % 4)
    return bytes([kind, len(message) // 4]) + message


def main():
    out = sys.argv[1]
    vault_uuid = bytes.fromhex("58d500011105000f97997f5af3f9c7bb")
    sp_uuid = bytes.fromhex("0000000000000000000000000000f5cc")
    all_commands = VAULT + SECURE_PROCESSOR
    for n, command in enumerate(all_commands):
        message = REQUESTS.get(command, b"")
        # The fuzz_ta_requests selector: vault ids first, then the secure processor's.
        write(f"{out}/fuzz_ta_requests", f"seed-{command:02x}-{n}", bytes([n]) + message)
        write(f"{out}/fuzz_codec_reader", f"seed-{command:02x}", message)
        uuid = vault_uuid if command in VAULT else sp_uuid
        exchange = record(0, request(1, uuid=uuid))
        exchange += record(1, request(3, size=4096, flags=3) + message)
        exchange += record(0, request(5, session=1, command=command,
                                      param_types=0x7, params=[(0, 0, 2, 0, 4096)]))
        exchange += record(0, request(2, session=1))
        write(f"{out}/fuzz_daemon_connection", f"seed-{command:02x}", exchange)
    for kind in range(6):
        write(f"{out}/fuzz_daemon_connection", f"kinds-{kind}",
              record(kind, b"") + record(kind, request(3, size=64, flags=1)) + record(kind, b"xy"))
    parsers = f"{out}/fuzz_support_parsers"
    write(parsers, "hex", bytes([0, 16]) + b"00ff7Aa9")
    write(parsers, "hex-bad", bytes([0, 16]) + b"0g")
    der = bytes([0x30, 0x44, 0x02, 0x20]) + bytes(range(1, 33)) + bytes([0x02, 0x20]) + bytes(32)
    write(parsers, "der", bytes([1, 64]) + der)
    write(parsers, "der-33", bytes([1, 64]) + bytes([0x30, 0x46, 0x02, 0x21, 0x00]) +
          bytes(range(1, 33)) + bytes([0x02, 0x21, 0x00]) + bytes(32))
    write(parsers, "hd", bytes([2, 0]) + struct.pack(">5I", 0x8000002C, 0x8000003C, 0, 0, 5))
    write(parsers, "create", bytes([3, 4]) + b"deadbeef")
    write(parsers, "base64", bytes([4, 0]) + b"any bytes \x00\xff")
    # The DER readers: the project's keys, each of which one of them accepts.
    for name in ("kDeviceEcPrivateKey", "kCloudEcPublicKey", "kRsaPublicKey"):
        write(f"{out}/fuzz_der_reader", name, test_vector(name))


if __name__ == "__main__":
    main()
