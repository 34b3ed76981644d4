#!/usr/bin/env python3
"""scripts/tee_diff.py on two real runs of the plan and of a fuzz campaign against fresh private
zel-vaultds: a copy of the second run passes, and each planted difference fails, named.

    tee_diff_test.py TEE_DIFF ZEL_TC
"""
import json
import re
import subprocess
import sys
import tempfile


def flip(text, at):
    return text[:at] + ("1" if text[at] == "0" else "0") + text[at + 1:]


def plan_line(steps, prefix, change):
    for step in steps:
        for i, line in enumerate(step["output"]):
            if line.startswith(prefix):
                step["output"][i] = change(line)
                return


def fuzz_line(lines, marker, change):
    i = next(i for i, line in enumerate(lines) if marker.search(line))
    lines[i] = change(lines[i])


DIGEST = re.compile(r" 0x0c .*=> 0x00000000 origin:4 uint:32 blob:")  # a getHash
SIGNATURE = re.compile(r" 0x09 .*=> 0x00000000 origin:4 uint:\d+ blob:30")
# What is changed in the DUT's copy, and the words its difference must be named with.
PLAN = [
    ("a hash byte", lambda s: plan_line(s, "hash: ", lambda l: flip(l, 6)), "zel_getHash), line 9: not the same"),
    ("a result", lambda s: s[20].update(result="0xFFFF0006", result_name="TEEC_ERROR_BAD_PARAMETERS"),
     "zel_put): result"),
    ("a signature of the right size, in its r", lambda s: plan_line(
        s, "signature: ", lambda l: flip(l, 40)), "does not verify against the signer's key"),
]
FUZZ = [
    ("a digest byte", lambda l: fuzz_line(l, DIGEST, lambda t: flip(t, len(t) - 1)),
     "another reply"),
    ("a result", lambda l: fuzz_line(l, DIGEST, lambda t: t.replace("=> 0x00000000", "=> 0xFFFF0000")),
     "another result or origin"),
    ("a signature that is no DER", lambda l: fuzz_line(l, SIGNATURE, lambda t: t.replace(
        " blob:30", " blob:31")), "no DER ECDSA signature"),
    ("a request", lambda l: fuzz_line(l, DIGEST, lambda t: t.replace(" int:", " int:1", 1)),
     "the requests differ at line"),
]


def main():
    tee_diff, zel_tc = sys.argv[1], sys.argv[2]
    failures = []
    with tempfile.TemporaryDirectory() as work:
        def diff(mode, dut):
            return subprocess.run(["python3", tee_diff, mode, f"{work}/r1.{mode}",
                                   f"{work}/r2.{mode}", dut], capture_output=True, text=True)

        for ref in ("r1", "r2"):
            subprocess.run([zel_tc, "run", "--all", "-q", "--json", f"{work}/{ref}.plan"],
                           check=True, capture_output=True)
            subprocess.run([zel_tc, "fuzz", "--runs", "300", "--seed", "5", "--quiet", "--out",
                            f"{work}/{ref}", "--transcript", f"{work}/{ref}.fuzz"],
                           check=True, capture_output=True)
        for mode, mutations, load, save in [
                ("plan", PLAN, lambda f: json.load(f), lambda d, f: json.dump(d, f)),
                ("fuzz", FUZZ, lambda f: f.read().split("\n"), lambda d, f: f.write("\n".join(d)))]:
            same = diff(mode, f"{work}/r2.{mode}")
            if same.returncode != 0 or " 0 differences" not in same.stdout:
                failures.append(f"{mode}: a copy of REF2 exits {same.returncode}: {same.stdout}"
                                f"{same.stderr}")
            for what, mutate, named in mutations:
                with open(f"{work}/r2.{mode}", encoding="utf-8") as ref:
                    data = load(ref)
                mutate(data["steps"] if mode == "plan" else data)
                with open(f"{work}/dut", "w", encoding="utf-8") as dut:
                    save(data, dut)
                seen = diff(mode, f"{work}/dut")
                expected = 2 if what == "a request" else 1
                if seen.returncode != expected or named not in seen.stdout + seen.stderr:
                    failures.append(f"{mode}, {what}: exit {seen.returncode}, not {expected} "
                                    f"naming '{named}':\n{seen.stdout}{seen.stderr}")
    for failure in failures:
        print(failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
