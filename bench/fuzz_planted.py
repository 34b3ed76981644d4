#!/usr/bin/env python3
"""Rates zel-tc fuzz on the planted-fault build: for each planted fault alone, a fresh campaign on
one core until the first finding or the time limit, and whether that finding is the fault (its
kind and command); then the execution rate against the clean vault, and on request a long
campaign against the clean vault that must find nothing.

    cmake --preset ci && cmake --build build -j2                 # the clean build
    cmake --preset planted && cmake --build --preset planted -j2 # the planted one
    python3 bench/fuzz_planted.py [--limit 120] [--campaign 600] [--only NAME ...]
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

# Each planted fault and what finding it must show as: kind, TA, command.
PLANTED = [
    ("exact-size-crash", "comms-error", "zel_put"),
    ("length-mismatch-crash", "comms-error", "zel_storeKey"),
    ("type-confusion-hang", "hang", "zel_getHash"),
    ("delete-then-gethash-crash", "comms-error", "zel_getHash"),
    ("minus-one-index", "comms-error", "zel_getSlotInfo"),
    ("three-command-sequence", "comms-error", "zel_deleteKey"),
    ("asan-oob-write", "comms-error", "zel_aesDecrypt"),
    ("wrong-reply-shape", "reply-shape", "zel_getAppInfo"),
    ("ta-panic", "ta-dead", None),  # shows at whichever secure-processor command follows
    ("non-gp-result", "non-gp-result", "zel_decryptByKey"),
]


def one_core(command):
    # zel-tc and the daemon it starts share core 0.
    return ["taskset", "-c", "0"] + command


def fuzz(zel_tc, arguments, env, seconds):
    with tempfile.TemporaryDirectory() as scratch:
        report = os.path.join(scratch, "summary.json")
        command = one_core([zel_tc, "fuzz", "--quiet", "--json", report,
                            "--out", os.path.join(scratch, "findings")] + arguments)
        run = subprocess.run(command, env=env, capture_output=True, text=True,
                             timeout=seconds + 300)
        if run.returncode not in (0, 1):
            sys.exit("zel-tc fuzz failed (%d):\n%s" % (run.returncode, run.stderr))
        with open(report) as f:
            summary = json.load(f)
        reproducers = {}
        for finding in summary["findings"]:
            if finding["file"]:
                with open(finding["file"]) as f:
                    reproducers[finding["file"]] = f.read()
        return summary, reproducers, run.stderr


def replays(zel_tc, text, env):
    with tempfile.NamedTemporaryFile("w", suffix=".repro") as f:
        f.write(text)
        f.flush()
        run = subprocess.run([zel_tc, "replay", "--timeout", "0.5", f.name], env=env,
                             capture_output=True, text=True, timeout=120)
        return run.returncode == 1


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser.add_argument("--planted", default=os.path.join(root, "build-planted", "bin"))
    parser.add_argument("--clean", default=os.path.join(root, "build", "bin"))
    parser.add_argument("--limit", type=float, default=120, help="seconds per planted fault")
    parser.add_argument("--rate-seconds", type=float, default=30)
    parser.add_argument("--campaign", type=float, default=0,
                        help="seconds of a campaign against the clean vault (0: none)")
    parser.add_argument("--only", nargs="*", help="planted faults to rate (default: all)")
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args()

    failed = False
    print("%-26s %-6s %9s %7s %-8s %s" % ("planted fault", "found", "time (s)", "calls",
                                          "replays", "finding"))
    for name, kind, command in PLANTED:
        if args.only and name not in args.only:
            continue
        env = dict(os.environ, ZEL_PLANTED_FAULTS=name,
                   ASAN_OPTIONS="detect_leaks=0:abort_on_error=1:symbolize=0")
        summary, reproducers, _ = fuzz(os.path.join(args.planted, "zel-tc"),
                                       ["--seconds", str(args.limit), "--max-findings", "1",
                                        "--timeout", "0.5", "--seed", str(args.seed)],
                                       env, args.limit)
        findings = summary["findings"]
        hit = findings[0] if findings else None
        found = bool(hit) and hit["kind"] == kind and (command is None or hit["name"] == command)
        replayed = found and replays(os.path.join(args.planted, "zel-tc"),
                                     reproducers.get(hit["file"], ""), env)
        failed |= not (found and replayed and hit["seconds_to_find"] <= args.limit)
        what = "%s at %s" % (hit["kind"], hit["name"] or hit["command"]) if hit else "-"
        print("%-26s %-6s %9s %7s %-8s %s" % (
            name, "yes" if found else "NO",
            "%.2f" % hit["seconds_to_find"] if found else "-",
            "%d/%d" % (hit["calls"], hit["calls_seen"]) if found else "-",
            "yes" if replayed else "NO", what))
        sys.stdout.flush()

    summary, _, _ = fuzz(os.path.join(args.clean, "zel-tc"),
                         ["--seconds", str(args.rate_seconds), "--seed", str(args.seed)],
                         dict(os.environ), args.rate_seconds)
    rate = summary["executions_per_second"]
    print("clean vault, one core: %.0f executions/s (%d calls in %.0f s), %d/%d commands, "
          "%d findings" % (rate, summary["calls"], summary["seconds"], summary["commands_covered"],
                           summary["commands"], len(summary["findings"])))
    failed |= rate < 2000 or bool(summary["findings"])

    if args.campaign > 0:
        started = time.time()
        summary, reproducers, _ = fuzz(os.path.join(args.clean, "zel-tc"),
                                       ["--seconds", str(args.campaign), "--seed",
                                        str(args.seed + 1)],
                                       dict(os.environ), args.campaign)
        print("clean vault campaign: %.0f s, %d executions, %d calls, %d findings" % (
            time.time() - started, summary["executions"], summary["calls"],
            len(summary["findings"])))
        for text in reproducers.values():
            print(text)
        failed |= bool(summary["findings"])
    print("targets met" if not failed else "TARGETS MISSED")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
