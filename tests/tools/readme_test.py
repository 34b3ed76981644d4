#!/usr/bin/env python3
"""The README's zel-tc sessions, run for real: every `$ ./build/bin/zel-tc ...` block's shown
output must be what zel-tc prints. Times and process ids are masked; a `...` line stands for any
number of lines. Usage: readme_test.py README.md path/to/zel-tc"""
import os
import re
import subprocess
import sys
import tempfile

PROMPT = "$ "
MASKS = [(re.compile(r"\d+\.\d{3} s\b"), "T s"), (re.compile(r"zel-vaultd \d+ "), "zel-vaultd PID ")]


def sessions(readme):
    """Each fenced block that runs zel-tc: a list of (command, expected lines)."""
    for block in re.findall(r"^```[^\n]*\n(.*?)^```", readme, re.M | re.S):
        if "$ ./build/bin/zel-tc" not in block:
            continue
        steps = []
        for line in block.splitlines():
            if line.startswith(PROMPT):
                steps.append((line[len(PROMPT):], []))
            else:
                steps[-1][1].append(line)
        yield steps


def mask(line):
    for pattern, replacement in MASKS:
        line = pattern.sub(replacement, line)
    return line


def matches(expected, actual):
    """Whether actual reads as expected, where a `...` line stands for any lines."""
    if not expected:
        return not actual
    if expected[0] == "...":
        return any(matches(expected[1:], actual[skip:]) for skip in range(len(actual) + 1))
    return bool(actual) and mask(expected[0]) == mask(actual[0]) and matches(expected[1:], actual[1:])


def main():
    readme_path, zel_tc = sys.argv[1], os.path.abspath(sys.argv[2])
    with open(readme_path, encoding="utf-8") as readme:
        text = readme.read()
    environment = {k: v for k, v in os.environ.items()
                   if k not in ("ZEL_TEE_SOCKET", "ZEL_VCONF_FILE", "ZEL_SYSTEM_INFO_FILE")}
    environment["NO_COLOR"] = "1"
    failures = 0
    ran = 0
    for steps in sessions(text):
        with tempfile.TemporaryDirectory(prefix="zel_readme_") as work:
            # The README's folder for a vault of its own becomes one of the test's.
            place = lambda s: s.replace("./build/bin/zel-tc", zel_tc).replace("/tmp/v", work + "/v")
            for command, expected in steps:
                done = subprocess.run(["bash", "-c", place(command)], cwd=work, env=environment,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                      timeout=600, text=True, errors="replace")
                actual = done.stdout.replace(work + "/v", "/tmp/v").splitlines()
                ran += 1
                if not matches(expected, actual):
                    failures += 1
                    print("README shows for `%s`:\n%s\nzel-tc printed:\n%s\n" %
                          (command, "\n".join(expected), "\n".join(actual)))
            subprocess.run(["bash", "-c", place("%s vault stop --socket /tmp/v/socket" % zel_tc)],
                           cwd=work, env=environment, capture_output=True)
    if ran == 0:
        print("no zel-tc session found in " + readme_path)
        return 1
    print("%d commands, %d differ" % (ran, failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
