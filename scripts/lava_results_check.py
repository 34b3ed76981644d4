"""Checks what LAVA recorded for the zel-tc test definition, from lava-run's own log.

lava-run logs one YAML mapping per line; the lines at level "results" are what a LAVA server
stores as the job's results. Usage: lava_results_check.py LAVA_LOG EXPECTED_JSONL INJECTED_CASE
where EXPECTED_JSONL is zel-tc's own --results stream of the whole plan.
"""
import json
import sys
from collections import Counter

import yaml

Loader = getattr(yaml, "CSafeLoader", yaml.SafeLoader)


def lava_results(log_path):
    results = []
    with open(log_path, encoding="utf-8", errors="replace") as log:
        for line in log:
            try:
                entry = yaml.load(line, Loader=Loader)
            except yaml.YAMLError:
                continue
            if isinstance(entry, dict) and entry.get("lvl") == "results":
                results.append(entry["msg"])
    return results


def main():
    log_path, expected_path, injected = sys.argv[1:4]
    with open(expected_path, encoding="utf-8") as stream:
        records = [json.loads(line) for line in stream]
    plan = [r["case"] for r in records if r["record"] == "step"]
    repeated = [name for name in plan if name == "process" or name.startswith("bist.")]
    results = lava_results(log_path)
    problems = []

    def cases(definition, test_set=None):
        return [r for r in results
                if str(r.get("definition", "")).endswith("_" + definition)
                and (test_set is None or r.get("set") == test_set)]

    def check(label, got, names, failing=()):
        counts = Counter(r["case"] for r in got)
        for name in names:
            if counts[name] != 1:
                problems.append(f"{label}: {name} reported {counts[name]} times, not once")
        for name in set(counts) - set(names):
            problems.append(f"{label}: {name} reported but not a step of the plan")
        for r in got:
            want = "fail" if r["case"] in failing else "pass"
            if r.get("result") != want:
                problems.append(f"{label}: {r['case']} is {r.get('result')}, not {want}")
            if r.get("units") != "seconds" or not isinstance(r.get("measurement"), float) \
                    or r["measurement"] < 0:
                problems.append(f"{label}: {r['case']} has no time in seconds: {r}")
        print(f"lava-proof: {label}: {len(got)} cases, "
              f"{sum(r.get('result') == 'fail' for r in got)} failed")

    if len(plan) < 2:
        problems.append(f"{expected_path} lists no plan")
    check("whole plan", cases("plan"), plan)
    check("injected failure", cases("injected"), plan, failing={injected})
    for round_set in ("round-1", "round-2"):
        check(f"repeated, {round_set}", cases("repeated", round_set), repeated)
    if len(cases("repeated")) != 2 * len(repeated):
        problems.append("repeated: cases outside the two round sets")
    job = [r for r in results if r.get("definition") == "lava" and r.get("case") == "job"]
    if not job or job[-1].get("result") != "pass":
        problems.append(f"the LAVA job did not finish correctly: {job[-1] if job else 'no result'}")

    for problem in problems:
        print("lava-proof: FAIL: " + problem, file=sys.stderr)
    if not problems:
        print(f"lava-proof: LAVA reported all {len(plan)} plan steps with their times; "
              f"the injected failure as a fail of {injected} alone")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
