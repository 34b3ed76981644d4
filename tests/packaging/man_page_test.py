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


def helpSections(command):
    """The names under 'Subcommands:' and the long options under 'Options:' of one --help."""
    text = subprocess.run(command + ["--help"], capture_output=True, text=True, check=True).stdout
    subcommands, options, section = [], set(), None
    for line in text.splitlines():
        if line and not line.startswith(" "):
            section = line.rstrip(":")
        elif section == "Subcommands" and line.startswith("  ") and line[2] != " ":
            subcommands.append(line.split()[0])
        elif section == "Options" and line.lstrip().startswith("-"):
            # The first column only: a help text may mention other options.
            options.update(OPTION.findall(re.split(r"\s{2,}", line.strip())[0]))
    return subcommands, options


def walk(program):
    """Every subcommand path and every long option of the program, depth first."""
    paths, options, pending = [], set(), [[]]
    while pending:
        path = pending.pop()
        subcommands, found = helpSections([program] + path)
        options |= found
        for name in subcommands:
            paths.append(path + [name])
            pending.append(path + [name])
    return paths, options


def mentions(text, word):
    return re.search(r"(?<![\w-])" + re.escape(word) + r"(?![\w-])", text) is not None


def main():
    page, program = sys.argv[1], sys.argv[2]
    problems = []
    name = os.path.basename(program)
    # The page as words: minus signs as hyphens, font changes gone.
    text = re.sub(r"\\f[BIRP]", "", open(page, encoding="utf-8").read().replace("\\-", "-"))
    # Example lines that run another program name its options, not this one's.
    own = re.sub(r"(?ms)^\.EX$.*?^\.EE$",
                 lambda block: "\n".join(line for line in block.group(0).splitlines()
                                         if not re.match(r"[\w-]+ ", line) or
                                         line.startswith(name + " ")), text)

    paths, options = walk(program)
    if not paths and not options - {"--help"}:
        problems.append(f"{program} --help shows nothing to check")
    for path in paths:
        if not mentions(text, path[-1]):
            problems.append(f"the page does not name the subcommand '{' '.join(path)}'")
    for option in sorted(options):
        if not mentions(text, option):
            problems.append(f"the page does not name the option {option}")
    for option in sorted(set(OPTION.findall(own)) - options):
        problems.append(f"the page names {option}, which {name} does not take")

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
    if problems:
        return 1
    print(f"{page}: {len(paths)} subcommands and {len(options)} options of "
          f"{name}, all named; man formats it cleanly")
    return 0


if __name__ == "__main__":
    sys.exit(main())
