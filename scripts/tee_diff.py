#!/usr/bin/env python3
"""Compares what a TEE under test answers with what the reference TEE (the host's zel-vaultd)
answers to the same requests.

    tee_diff.py plan [--public-key HEX] REF1.json REF2.json DUT.json
    tee_diff.py fuzz REF1.txt REF2.txt DUT.txt

plan: three `zel-tc run --json` reports; fuzz: three `zel-tc fuzz --transcript` files of the same
seed and runs. REF1 and REF2 come from two runs on the reference from fresh state: a value that
differs between them is random, and the DUT's need only have its shape (the same field types and
sizes); any other value must be the same on the DUT. ECDSA signatures are checked for what they
are: a DER ECDSA-Sig-Value (or r||s) that, in a plan, verifies against the signer's public key.
The key is --public-key (DER SubjectPublicKeyInfo or an X9.62 point, in hex), else the EC key the
plan stored at the signing index, else the device key of src/support/test_vectors.h.

Exit status: 0 the DUT answered as the reference; 1 differences, each printed with both answers;
2 bad input (a file missing or unreadable, or requests that are not the same).
Needs python3-cryptography.
"""

import argparse
import json
import pathlib
import re
import sys

from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.asymmetric.utils import (Prehashed, decode_dss_signature,
                                                             encode_dss_signature)

TEST_VECTORS = pathlib.Path(__file__).resolve().parent.parent / "src/support/test_vectors.h"
P256_ORDER = 0xFFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551
# The vault TA's signing types: 1 signs the SHA-256 of the message, 2 the message as a digest.
SIGNED_AS = {1: ec.ECDSA(hashes.SHA256()), 2: ec.ECDSA(Prehashed(hashes.SHA256()))}
EC_PRIVATE_KEY_TYPE = "5"  # the library's key type of a DER ECPrivateKey
# The fuzz commands whose reply is a Uint length and a DER signature: (TA, id).
SIGNING_COMMANDS = {("zel_test", "0x09")}
SHOWN = 160  # characters of a long value shown in a difference
CLASSES = [("decimal", re.compile(r"-?[0-9]+")), ("hex", re.compile(r"[0-9A-Fa-f]+"))]


class BadInput(Exception):
    pass


def shorten(text):
    if len(text) <= SHOWN:
        return text
    return f"{text[:SHOWN]}... ({len(text)} characters)"


class Differences:
    def __init__(self):
        self.found = []

    def add(self, where, why, reference, dut):
        self.found.append(f"{where}: {why}\n  reference: {shorten(reference)}\n"
                          f"  DUT:       {shorten(dut)}")


def signature_values(signature):
    """(r, s) of a DER ECDSA-Sig-Value or a raw r||s, when both lie in 1..n-1; else None."""
    try:
        if len(signature) == 64:
            r, s = int.from_bytes(signature[:32], "big"), int.from_bytes(signature[32:], "big")
        else:
            r, s = decode_dss_signature(signature)
    except ValueError:
        return None
    return (r, s) if 0 < r < P256_ORDER and 0 < s < P256_ORDER else None


def verifies(key, signature, message, signing_type):
    values = signature_values(signature)
    if values is None or signing_type not in SIGNED_AS:
        return False
    try:
        key.verify(encode_dss_signature(*values), message, SIGNED_AS[signing_type])
    except (InvalidSignature, ValueError):
        return False
    return True


def from_hex(text, what):
    try:
        return bytes.fromhex(text)
    except ValueError:
        raise BadInput(f"{what}: not hexadecimal") from None


def public_key_of(data):
    """A P-256 public key from DER SubjectPublicKeyInfo, an X9.62 point or a DER ECPrivateKey."""
    for load in (serialization.load_der_public_key,
                 lambda d: ec.EllipticCurvePublicKey.from_encoded_point(ec.SECP256R1(), d),
                 lambda d: serialization.load_der_private_key(d, None).public_key()):
        try:
            key = load(data)
        except (ValueError, TypeError):
            continue
        if isinstance(key, ec.EllipticCurvePublicKey):
            return key
    return None


def test_vector_key():
    """The device key of the project's test vectors, where they are beside this script."""
    try:
        text = TEST_VECTORS.read_text(encoding="utf-8")
    except OSError:
        return None
    found = re.search(r"kDeviceEcPrivateKey\[\]\s*=\s*((?:\s*\"[0-9A-Fa-f]*\")+)\s*;", text)
    return found and public_key_of(bytes.fromhex("".join(re.findall(r"\"(\w*)\"", found[1]))))


# --- plan -----------------------------------------------------------------------------------


def load_plan(path):
    try:
        with open(path, encoding="utf-8") as report:
            steps = json.load(report).get("steps")
    except OSError as error:
        raise BadInput(f"{path}: {error.strerror}") from None
    except (ValueError, AttributeError) as error:
        raise BadInput(f"{path}: not a zel-tc run --json report: {error}") from None
    if not isinstance(steps, list) or not all(isinstance(s, dict) for s in steps):
        raise BadInput(f"{path}: no \"steps\" array: not a zel-tc run --json report")
    return steps


def named(lines):
    """{"index": "3", ...}: the 'name: value' lines of a step, the last of each name."""
    return dict(line.split(": ", 1) for line in lines if ": " in line)


def shape(line):
    name, colon, value = line.partition(": ")
    if not colon:
        name, value = "", line
    kind = next((k for k, pattern in CLASSES if pattern.fullmatch(value)), "text")
    return name + colon, len(value), kind


def check_signature(where, signer, ref_lines, dut_lines, differences):
    """The DUT's signature and its size line, against the key that signed the reference's."""
    ref, dut = named(ref_lines), named(dut_lines)
    message, signing_type = from_hex(ref.get("message", ""), where), int(ref.get("type", 0))
    signature = from_hex(dut.get("signature", ""), where)
    if not verifies(signer, from_hex(ref["signature"], where), message, signing_type):
        raise BadInput(f"{where}: the reference's own signature does not verify against the key "
                       "taken for index " + ref.get("index", "?") + "; give --public-key")
    shown = (f"signature: {ref['signature']}", f"signature: {dut.get('signature', '(none)')}")
    if not verifies(signer, signature, message, signing_type):
        differences.add(where, "the signature does not verify against the signer's key", *shown)
    elif dut.get("signatureSize") != str(len(signature)):
        differences.add(where, "signatureSize is not the signature's size",
                        f"signatureSize: {ref.get('signatureSize')}",
                        f"signatureSize: {dut.get('signatureSize')}")


def compare_plan(paths, public_key):
    ref1, ref2, dut = (load_plan(path) for path in paths)
    names = [[(s.get("number"), s.get("step")) for s in steps] for steps in (ref1, ref2, dut)]
    for n, ran in enumerate(zip(*names)):
        if len(set(ran)) > 1:
            raise BadInput(f"the plans differ at step {n + 1}: {ran[0]} in {paths[0]}, "
                           f"{ran[1]} in {paths[1]}, {ran[2]} in {paths[2]}")
    if len({len(n) for n in names}) > 1:
        raise BadInput(f"the plans differ: {len(ref1)}, {len(ref2)} and {len(dut)} steps")
    differences, lines, random = Differences(), 0, 0
    stored_keys = {}  # index: the EC key the plan stored there last
    default_key = public_key or test_vector_key()
    for n, (a, b, d) in enumerate(zip(ref1, ref2, dut)):
        where = f"step {n + 1} ({a['number']} {a['step']})"
        for field in ("verdict", "result"):
            if d.get(field) not in (a.get(field), b.get(field)):
                differences.add(where, field, f"{a.get(field)} {a.get('result_name', '')}",
                                f"{d.get(field)} {d.get('result_name', '')}")
        out_a, out_b, out_d = (s.get("output") or [] for s in (a, b, d))
        facts = named(out_a)
        if facts.get("keytype") == EC_PRIVATE_KEY_TYPE and "pDataBuffer" in facts:
            stored_keys[facts.get("index")] = public_key_of(from_hex(facts["pDataBuffer"], where))
        signed = "signature" in facts
        if signed:
            signer = public_key or stored_keys.get(facts.get("index")) or default_key
            if signer is None:
                raise BadInput(f"{where}: no key for the signature at index "
                               f"{facts.get('index')}: give --public-key")
            check_signature(where, signer, out_a, out_d, differences)
        lines += len(out_a)
        if len(out_d) != len(out_a):
            differences.add(where, f"{len(out_a)} output lines on the reference, {len(out_d)} "
                            "on the DUT", " | ".join(out_a), " | ".join(out_d))
        for i, (x, y, z) in enumerate(zip(out_a, out_b, out_d)):
            random += x != y
            if signed and shape(x)[0] in ("signature: ", "signatureSize: "):
                continue
            if x == y and z != x:
                differences.add(f"{where}, line {i + 1}", "not the same", x, z)
            elif x != y and shape(z) not in (shape(x), shape(y)):
                differences.add(f"{where}, line {i + 1}", "a random value of another shape", x, z)
    return differences, f"plan: {len(ref1)} steps, {lines} lines, {random} random"


# --- fuzz -----------------------------------------------------------------------------------


def load_transcript(path):
    try:
        with open(path, encoding="utf-8") as transcript:
            lines = transcript.read().splitlines()
    except OSError as error:
        raise BadInput(f"{path}: {error.strerror}") from None
    except UnicodeDecodeError:
        raise BadInput(f"{path}: not a zel-tc fuzz transcript") from None
    if not lines or not lines[0].startswith("zel-tc-transcript 1 "):
        raise BadInput(f"{path}: not a zel-tc fuzz transcript")
    calls = []
    for number, line in enumerate(lines[1:], 2):
        request, arrow, answer = line.partition(" => ")
        if not arrow:
            raise BadInput(f"{path}, line {number}: no ' => ' between request and answer")
        calls.append((request, answer.split(" ")))
    return lines[0], calls


def field_size(field):
    kind, _, value = field.partition(":")
    return kind, len(value) if kind in ("blob", "raw") else 0


def signature_reply(fields):
    """Why a signing command's reply is no Uint length and DER signature; empty when it is."""
    try:
        length, signature = int(fields[0][5:]), bytes.fromhex(fields[1][5:])
    except (IndexError, ValueError):
        length, signature = -1, b""
    if not fields[0].startswith("uint:") or not fields[1].startswith("blob:") or len(fields) != 2:
        return "no Uint length and signature"
    if length != len(signature):
        return "a length that is not the signature's"
    return "" if signature_values(signature) else "no DER ECDSA signature"


def compare_fuzz(paths):
    (head1, ref1), (head2, ref2), (head_dut, dut) = (load_transcript(path) for path in paths)
    if len({head1, head2, head_dut}) > 1:
        raise BadInput(f"the transcripts are of other campaigns: {head1!r}, {head2!r}, "
                       f"{head_dut!r}")
    if len(ref1) != len(ref2):
        raise BadInput(f"the references have {len(ref1)} and {len(ref2)} calls")
    differences, random = Differences(), 0
    if len(dut) != len(ref1):
        differences.add("the transcripts", "not as many calls", f"{len(ref1)} calls",
                        f"{len(dut)} calls")
    for n, ((request, a), (request2, b), (request_dut, d)) in enumerate(zip(ref1, ref2, dut), 2):
        if not request == request2 == request_dut:
            raise BadInput(f"the requests differ at line {n}: the sequences diverged\n"
                           f"  {paths[0]}: {shorten(request)}\n  {paths[1]}: {shorten(request2)}"
                           f"\n  {paths[2]}: {shorten(request_dut)}")
        random += a != b
        where, shown = f"line {n} ({shorten(request)})", (" ".join(a), " ".join(d))
        signing = tuple(request.split(" ")[1:3]) in SIGNING_COMMANDS
        # The references that answered with the DUT's result and origin: a field on which two
        # agree is known, any other need only have the shape of theirs.
        refs = [r for r in (a, b) if r[:2] == d[:2]]
        why = ""
        if not refs:
            why = "another result or origin"
        elif signing and d[0] == "0x00000000" and not any(signature_reply(r[2:]) for r in refs):
            why = signature_reply(d[2:])
        elif any(len(r) != len(d) for r in refs):
            why = "another reply"
        else:
            for i in range(2, len(d)):
                if len(refs) == 2 and a[i] == b[i]:
                    why = why or ("another reply" if d[i] != a[i] else "")
                elif field_size(d[i]) not in {field_size(r[i]) for r in refs}:
                    why = why or "a random reply of another shape"
        if why:
            differences.add(where, why, *shown)
    return differences, f"fuzz: {len(ref1)} calls, {random} random"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    modes = parser.add_subparsers(dest="mode", required=True)
    plan = modes.add_parser("plan", help="three zel-tc run --json reports")
    plan.add_argument("--public-key", help="the signer's public key, hex (see above)")
    fuzz = modes.add_parser("fuzz", help="three zel-tc fuzz --transcript files")
    for mode in (plan, fuzz):
        mode.add_argument("files", nargs=3, metavar="REF1 REF2 DUT")
    arguments = parser.parse_args()
    try:
        if arguments.mode == "plan":
            key = None
            if arguments.public_key:
                key = public_key_of(from_hex(arguments.public_key, "--public-key"))
                if key is None:
                    raise BadInput("--public-key: no P-256 public key")
            differences, summary = compare_plan(arguments.files, key)
        else:
            differences, summary = compare_fuzz(arguments.files)
    except BadInput as error:
        print(f"tee-diff: error: {error}", file=sys.stderr)
        return 2
    for difference in differences.found:
        print(f"tee-diff: {arguments.mode}: {difference}")
    print(f"tee-diff: {summary}, {len(differences.found)} differences")
    return 1 if differences.found else 0


if __name__ == "__main__":
    sys.exit(main())
