#!/usr/bin/env python3
"""Makes the fixed test vectors and writes them to src/support/test_vectors.h.

Every run draws fresh keys and random data, so the whole header changes; anything that must agree
with it (a TA's stored keys, the hub identity) has to be set up again from the new values.
docs/test_vectors.md says how each vector is built. Needs the `cryptography` package (Debian:
python3-cryptography).
"""

import os
import pathlib
import sys

from cryptography.hazmat.primitives import hashes, padding, serialization
from cryptography.hazmat.primitives.asymmetric import ec, rsa
from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes
from cryptography.hazmat.primitives.ciphers.aead import AESGCM
from cryptography.hazmat.primitives.kdf.hkdf import HKDF

OUTPUT = pathlib.Path(__file__).resolve().parent.parent / "src" / "support" / "test_vectors.h"

HUB_TOKEN_INFO = b"zel hub token"
DECRYPT_BY_KEY_PLAINTEXT_LENGTH = 120
TEST_CASE_COUNT = 5
HEX_PER_LINE = 64
COLUMN_LIMIT = 100


def check(condition, what):
    if not condition:
        sys.exit(f"gen_test_vectors: {what}")


def cbc_encrypt(key, iv, plaintext):
    padder = padding.PKCS7(128).padder()
    padded = padder.update(plaintext) + padder.finalize()
    encryptor = Cipher(algorithms.AES(key), modes.CBC(iv)).encryptor()
    return encryptor.update(padded) + encryptor.finalize()


def hub_token_key(private_key, peer_public_key):
    shared = private_key.exchange(ec.ECDH(), peer_public_key)
    return HKDF(algorithm=hashes.SHA256(), length=32, salt=None, info=HUB_TOKEN_INFO).derive(shared)


def make_rsa_public_key():
    # A 2048-bit modulus has its top bit set, so its DER INTEGER always carries a leading zero;
    # the loop only guards against a library that ever hands out a shorter one.
    for _ in range(8):
        key = rsa.generate_private_key(public_exponent=65537, key_size=2048).public_key()
        der = key.public_bytes(serialization.Encoding.DER, serialization.PublicFormat.PKCS1)
        if der.hex().upper().startswith("3082010A0282010100"):
            return key, der
    sys.exit("gen_test_vectors: no RSA key with the expected DER header")


def make_vectors():
    v = {}
    v["put_data"] = os.urandom(241)

    device_key = ec.generate_private_key(ec.SECP256R1())
    v["device_ec_private_key"] = device_key.private_bytes(
        serialization.Encoding.DER,
        serialization.PrivateFormat.TraditionalOpenSSL,
        serialization.NoEncryption(),
    )

    aes_key = os.urandom(32)
    v["aes_key"] = aes_key
    v["aes_iv"] = os.urandom(16)
    v["aes_plaintext"] = os.urandom(32)
    v["aes_ciphertext"] = cbc_encrypt(aes_key, v["aes_iv"], v["aes_plaintext"])

    v["cmac_message"] = os.urandom(32)
    v["ecdsa_message"] = os.urandom(32)

    cloud_key = ec.generate_private_key(ec.SECP256R1())
    v["cloud_ec_public_key"] = cloud_key.public_key().public_bytes(
        serialization.Encoding.DER, serialization.PublicFormat.SubjectPublicKeyInfo
    )

    hub_id, token_key, claims = os.urandom(16), os.urandom(32), os.urandom(177)
    token_plaintext = hub_id + token_key + claims
    v["hub_token_iv"] = os.urandom(16)
    key = hub_token_key(cloud_key, device_key.public_key())
    check(key == hub_token_key(device_key, cloud_key.public_key()), "ECDH sides disagree")
    v["hub_token"] = AESGCM(key).encrypt(v["hub_token_iv"], token_plaintext, None)
    check(AESGCM(key).decrypt(v["hub_token_iv"], v["hub_token"], None) == token_plaintext,
          "hub token does not decrypt")

    by_key_iv = os.urandom(16)
    by_key_plaintext = os.urandom(DECRYPT_BY_KEY_PLAINTEXT_LENGTH)
    v["decrypt_by_key_input"] = (
        DECRYPT_BY_KEY_PLAINTEXT_LENGTH.to_bytes(2, "big")
        + by_key_iv
        + cbc_encrypt(aes_key, by_key_iv, by_key_plaintext)
    )

    rsa_key, v["rsa_public_key"] = make_rsa_public_key()
    check(rsa_key.public_numbers().e == 65537, "RSA exponent")
    check(rsa_key.key_size == 2048, "RSA modulus size")

    v["tc_plaintext"] = os.urandom(32)
    v["tc_iv"] = os.urandom(16)
    v["tc_keys"] = [os.urandom(32) for _ in range(TEST_CASE_COUNT)]
    v["tc_ciphertexts"] = [cbc_encrypt(k, v["tc_iv"], v["tc_plaintext"]) for k in v["tc_keys"]]
    return v


def check_vectors(v):
    lengths = {
        "put_data": 241,
        "device_ec_private_key": 121,
        "aes_key": 32,
        "aes_iv": 16,
        "aes_plaintext": 32,
        "aes_ciphertext": 48,
        "cmac_message": 32,
        "ecdsa_message": 32,
        "cloud_ec_public_key": 91,
        "hub_token": 241,
        "hub_token_iv": 16,
        "decrypt_by_key_input": 146,
        "rsa_public_key": 270,
        "tc_plaintext": 32,
        "tc_iv": 16,
    }
    for name, length in lengths.items():
        check(len(v[name]) == length, f"{name} is {len(v[name])} bytes, not {length}")
    check(len(v["tc_keys"]) == TEST_CASE_COUNT, "test case count")
    check(all(len(k) == 32 for k in v["tc_keys"]), "test case key length")
    check(all(len(c) == 48 for c in v["tc_ciphertexts"]), "test case ciphertext length")
    check(v["device_ec_private_key"].startswith(bytes.fromhex("30770201010420")),
          "EC private key header")
    check(v["cloud_ec_public_key"].startswith(bytes.fromhex("3059301306072a8648ce3d0201")),
          "EC public key header")
    check(v["rsa_public_key"].hex().upper().startswith("3082010A0282010100"), "RSA header")
    check(int.from_bytes(v["decrypt_by_key_input"][:2], "big") == DECRYPT_BY_KEY_PLAINTEXT_LENGTH,
          "decrypt-by-key length prefix")
    check(v["tc_iv"] != v["aes_iv"], "test case IV equals the AES IV")


def literal(data, lower=False):
    text = data.hex() if lower else data.hex().upper()
    lines = [text[i:i + HEX_PER_LINE] for i in range(0, len(text), HEX_PER_LINE)]
    return "\n".join(f'    "{line}"' for line in lines)


def constant(comment, name, data, lower=False):
    # Laid out the way clang-format would, so that formatting the tree leaves the file alone.
    declaration = f"inline constexpr char {name}[] ="
    one_line = f'{declaration} "{data.hex() if lower else data.hex().upper()}";'
    if len(one_line) <= COLUMN_LIMIT:
        return f"// {comment}\n{one_line}\n"
    return f"// {comment}\n{declaration}\n{literal(data, lower)};\n"


def table(comment, name, items):
    width = 2 * len(items[0]) + 1
    rows = ",\n".join(literal(item) for item in items)
    return f"// {comment}\ninline constexpr char {name}[{len(items)}][{width}] = {{\n{rows}}};\n"


# Header order: constant name, vector, comment. The EC public key alone is written in lower case.
CONSTANTS = [
    ("kPutData", "put_data", "Data to store in a slot, 241 bytes."),
    ("kDeviceEcPrivateKey", "device_ec_private_key",
     "The device's P-256 key: RFC 5915 ECPrivateKey with curve and public key, 121 bytes."),
    ("kAesKey", "aes_key", "AES-256 key (store-key type 2); also the comparison data."),
    ("kAesIv", "aes_iv", "IV of the AES encrypt and decrypt scenarios, 16 bytes."),
    ("kAesPlaintext", "aes_plaintext", "Plaintext of the AES encrypt scenario, 32 bytes."),
    ("kAesCiphertext", "aes_ciphertext",
     "AES-256-CBC with PKCS#7 of kAesPlaintext under kAesKey and kAesIv, 48 bytes."),
    ("kCmacMessage", "cmac_message", "Message to authenticate with the hub token, 32 bytes."),
    ("kEcdsaMessage", "ecdsa_message", "Digest to sign with ECDSA, 32 bytes."),
    ("kCloudEcPublicKey", "cloud_ec_public_key",
     "The cloud's P-256 public key: SubjectPublicKeyInfo, 91 bytes."),
    ("kHubToken", "hub_token",
     "Hub token: AES-256-GCM ciphertext (225) then tag (16), key from device/cloud ECDH."),
    ("kHubTokenIv", "hub_token_iv", "The hub token's IV, its GCM nonce, 16 bytes."),
    ("kDecryptByKeyInput", "decrypt_by_key_input",
     "Length (2, big endian), IV (16), AES-256-CBC body under kAesKey (128); 146 bytes."),
    ("kRsaPublicKey", "rsa_public_key",
     "RSA-2048 public key: PKCS #1 RSAPublicKey, 270 bytes, handed out as text."),
    ("kTestCasePlaintext", "tc_plaintext",
     "Plaintext shared by the five AES test cases, 32 bytes."),
    ("kTestCaseIv", "tc_iv", "IV shared by the five AES test cases, 16 bytes."),
]
TABLES = [
    ("kTestCaseKeys", "tc_keys", "Keys of AES test cases 1 to 5."),
    ("kTestCaseCiphertexts", "tc_ciphertexts",
     "Ciphertexts of AES test cases 1 to 5 under kTestCaseIv, 48 bytes each."),
]


def render(v):
    parts = [
        "// Generated by scripts/gen_test_vectors.py; do not edit by hand. What each vector is",
        "// and how it was made: docs/test_vectors.md. Hex digits are upper case except the EC",
        "// public key.",
        "#pragma once",
        "",
        "namespace zel::vectors {",
        "",
    ]
    parts += [constant(comment, name, v[key], lower=(key == "cloud_ec_public_key"))
              for name, key, comment in CONSTANTS]
    parts += [table(comment, name, v[key]) for name, key, comment in TABLES]
    parts += ["}  // namespace zel::vectors", ""]
    return "\n".join(parts)


def main():
    vectors = make_vectors()
    check_vectors(vectors)
    OUTPUT.write_text(render(vectors))
    print(f"wrote {OUTPUT}")


if __name__ == "__main__":
    main()
