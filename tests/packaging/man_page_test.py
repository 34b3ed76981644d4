#!/usr/bin/env python3
"""A program's man page against the program: every subcommand and option its --help shows is in
the page, every option the page names still exists, and man formats the page without a warning
(what lintian checks on the package).

    man_page_test.py PAGE PROGRAM
"""
import os
import re
import shutil
import subprocess
import sys

OPTION = re.compile(r"--[a-z][a-z0-9-]*")


def walk(program):
    """Every subcommand path and every long option of the program, from each level's --help."""
    paths, options, pending = [], set(), [[]]
    while pending:
        path = pending.pop()
        text = subprocess.run([program] + path + ["--help"], capture_output=True, text=True,
                              check=True).stdout
        section = None
        for line in text.splitlines():
            if line and not line.startswith(" "):
                section = line.rstrip(":")
            elif section == "Subcommands" and line.startswith("  ") and line[2] != " ":
                paths.append(path + [line.split()[0]])
                pending.append(paths[-1])
            elif section == "Options" and line.lstrip().startswith("-"):
                # The first column only: a help text may mention other options.
                options.update(OPTION.findall(re.split(r"\s{2,}", line.strip())[0]))
    return paths, options


def main():
    page, program = sys.argv[1], sys.argv[2]
    name = os.path.basename(program)
    # The page as words: minus signs as hyphens, font changes gone.
    text = re.sub(r"\\f[BIRP]", "", open(page, encoding="utf-8").read().replace("\\-", "-"))
    # Example lines that run another program name its options, not this one's.
    own = re.sub(r"(?ms)^\.EX$.*?^\.EE$",
                 lambda block: "\n".join(line for line in block.group(0).splitlines()
                                         if not re.match(r"[\w-]+ ", line) or
                                         line.startswith(name + " ")), text)
    named = lambda word: re.search(r"(?<![\w-])" + re.escape(word) + r"(?![\w-])", text)

    paths, options = walk(program)
    problems = [] if paths or options - {"--help"} else [f"{program} --help shows nothing"]
    problems += [f"the page does not name the subcommand '{' '.join(path)}'"
                 for path in paths if not named(path[-1])]
    problems += [f"the page does not name the option {option}"
                 for option in sorted(options) if not named(option)]
    problems += [f"the page names {option}, which {name} does not take"
                 for option in sorted(set(OPTION.findall(own)) - options)]

    if shutil.which("man") is None:
        problems.append("man is not installed (man-db): the page's formatting was not checked")
    else:
        environment = dict(os.environ, LC_ALL="C.UTF-8", MANROFFSEQ="", MANWIDTH="80")
        formatted = subprocess.run(
            ["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page],
            capture_output=True, text=True, env=environment)
        if formatted.returncode != 0 or formatted.stderr.strip():
            problems.append("man reports: " + (formatted.stderr.strip() or
                                               f"exit {formatted.returncode}"))

    for problem in problems:
        print(f"{page}: {problem}", file=sys.stderr)
    if not problems:
        print(f"{page}: {len(paths)} subcommands and {len(options)} options of "
              f"{name}, all named; man formats it cleanly")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
