#!/usr/bin/env python3
"""Compares what the tests ran with what they may leave out.

    coverage.py <project folder> <figures of gcovr --json> <exclusions>

Passes when every line and every outcome of a branch in the figures was run, or is excluded by name:
what is neither is listed, and so is an exclusion that names nothing or something that was run after
all. The last line printed has the sums.

An exclusion is a line "<file> | <kind> | <text of the line>". The text identifies the line, not its
number, so that it survives edits elsewhere. Where it stands more than once in the file,
"| after <text>" with the nearest line before it that is not blank tells which, or "| in <text>" with
the nearest line before it that begins at the margin with a letter: the head of its function.
Kinds are

    line            the line is never run
    branch N        N outcomes on the line are never taken
    race line       threads' timing decides whether it is run
    race branch N   up to N outcomes are taken or not as threads' timing decides

and "<folder> | folder" leaves out the sources of a folder, of which there must be no figures. Every
other source file (*.cpp) below src/ and platform/ must have figures.

Above each group of exclusions stands its reason, on lines beginning with "#". A group without a
reason is an error, and so is a group without exclusions.
"""
import json
import pathlib
import sys


class Exclusion:
    def __init__(self, number, file, kind, text, after, function):
        words = kind.split()
        self.where = f"line {number}: {file} | {kind} | {text}"
        self.file, self.text, self.after, self.function = file, text, after, function
        self.race = words[0] == "race"
        if self.race:
            words.pop(0)
        self.is_folder = words == ["folder"]
        if words in (["line"], ["folder"]):
            self.outcomes = None
        elif len(words) == 2 and words[0] == "branch" and words[1].isdigit() and int(words[1]) > 0:
            self.outcomes = int(words[1])
        else:
            raise SystemExit(f"exclusions: line {number}: what kind is '{kind}'?")


def read_exclusions(path):
    exclusions = []
    reason = is_used = False
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            line = line.strip()
            if not line:
                if reason and not is_used:
                    raise SystemExit(f"exclusions: line {number}: a reason for nothing")
                reason = is_used = False
            elif line.startswith("#"):
                reason = True
            else:
                fields = [field.strip() for field in line.split(" | ")]
                after = function = None
                if len(fields) > 3 and fields[-1].startswith("after "):
                    after = fields.pop()[len("after "):]
                elif len(fields) > 3 and fields[-1].startswith("in "):
                    function = fields.pop()[len("in "):]
                if len(fields) < 2 or not reason:
                    raise SystemExit(f"exclusions: line {number}: no exclusion with a reason")
                is_used = True
                text = " | ".join(fields[2:])
                exclusions.append(Exclusion(number, fields[0], fields[1], text, after, function))
    return exclusions


def check_sources(root, files, folders, problems):
    """Every source file is measured or in a folder that is left out; only those are not."""
    for folder in folders:
        if not (pathlib.Path(root) / folder.file).is_dir():
            problems.append(f"exclusion names nothing: {folder.where}")
        if any(file.startswith(folder.file + "/") for file in files):
            problems.append(f"exclusion of a folder that is measured: {folder.where}")
    for top in ("src", "platform"):
        for path in sorted((pathlib.Path(root) / top).rglob("*.cpp")):
            name = path.relative_to(root).as_posix()
            is_left_out = any(name.startswith(folder.file + "/") for folder in folders)
            if name not in files and not is_left_out:
                problems.append(f"file not measured: {name}")


def lines_named(source, exclusion):
    """The numbers of the lines that the exclusion names."""
    found = []
    before = function = ""
    for number, line in enumerate(source, 1):
        if line[:1].isalpha():
            function = line.strip()
        line = line.strip()
        if (line == exclusion.text and exclusion.after in (None, before) and
                exclusion.function in (None, function)):
            found.append(number)
        if line:
            before = line
    return found


class File:
    """What was run of one source file."""

    def __init__(self, root, figures):
        self.name = figures["file"]
        with open(f"{root}/{self.name}", encoding="utf-8") as source:
            self.source = source.read().splitlines()
        self.lines = {}  # number: (times run, outcomes, outcomes not taken)
        for line in figures["lines"]:
            if line.get("gcovr/noncode"):
                continue
            taken = [branch["count"] for branch in line["branches"]]
            self.lines[line["line_number"]] = (line["count"], len(taken), taken.count(0))


class Sums:
    def __init__(self):
        self.lines = self.lines_run = self.branches = self.branches_taken = 0
        self.lines_excluded = self.branches_excluded = 0


def match(files, exclusions, problems):
    """{(file, number): exclusion}; what names no line, or several, is a problem."""
    matched = {}
    for exclusion in exclusions:
        file = files.get(exclusion.file)
        numbers = lines_named(file.source, exclusion) if file else []
        if len(numbers) != 1:
            problems.append(f"exclusion names {'nothing' if not numbers else 'several lines'}: "
                            f"{exclusion.where}")
        elif numbers[0] not in file.lines:
            problems.append(f"exclusion of a line without code: {exclusion.where}")
        elif (exclusion.file, numbers[0]) in matched:
            problems.append(f"exclusion stands twice: {exclusion.where}")
        else:
            matched[exclusion.file, numbers[0]] = exclusion
    return matched


def judge_line(times, exclusion, place, sums, problems):
    """A line that is not run, or that an exclusion of a line names."""
    if times == 0 and exclusion and exclusion.outcomes is None:
        sums.lines_excluded += 1
    elif times == 0:
        problems.append(f"line not run: {place}")
        if exclusion:
            problems.append(f"exclusion of a branch on a line that is not run: {exclusion.where}")
    elif not exclusion.race:
        problems.append(f"exclusion of a line that is run: {exclusion.where}")


def judge_branches(missed, exclusion, place, sums, problems):
    allowed = exclusion.outcomes if exclusion else 0
    sums.branches_excluded += min(missed, allowed)
    if missed > allowed:
        problems.append(f"branch: {missed - allowed} outcomes not taken and not excluded: {place}")
    elif missed < allowed and not exclusion.race:
        problems.append(f"exclusion of {allowed} outcomes, {allowed - missed} of them are taken: "
                        f"{exclusion.where}")


def compare(root, files, exclusions):
    problems = []
    sums = Sums()
    check_sources(root, files, [each for each in exclusions if each.is_folder], problems)
    matched = match(files, [each for each in exclusions if not each.is_folder], problems)
    for file in files.values():
        for number, (times, outcomes, missed) in sorted(file.lines.items()):
            exclusion = matched.get((file.name, number))
            place = f"{file.name}:{number}: {file.source[number - 1].strip()}"
            sums.lines += 1
            sums.lines_run += times != 0
            sums.branches += outcomes
            sums.branches_taken += outcomes - missed
            if times == 0 or (exclusion and exclusion.outcomes is None):
                judge_line(times, exclusion, place, sums, problems)
                # The outcomes of a line that is excluded go with it.
                if exclusion:
                    sums.branches_excluded += missed
            else:
                judge_branches(missed, exclusion, place, sums, problems)
    return sums, problems


def percent(part, whole):
    return f"{100 * part // whole if part == whole else int(1000 * part / whole) / 10} %"


def main(root, figures, exclusions):
    with open(figures, encoding="utf-8") as file:
        files = {entry["file"]: File(root, entry) for entry in json.load(file)["files"]}
    if not files:
        raise SystemExit("coverage.py: no figures")
    sums, problems = compare(root, files, read_exclusions(exclusions))
    for problem in problems:
        print(problem)
    rest = (sums.lines - sums.lines_run - sums.lines_excluded +
            sums.branches - sums.branches_taken - sums.branches_excluded)
    print(f"   coverage: lines {percent(sums.lines_run, sums.lines)} ({sums.lines_run} of {sums.lines}), "
          f"branches {percent(sums.branches_taken, sums.branches)} ({sums.branches_taken} of "
          f"{sums.branches}); excluded by name: {sums.lines_excluded} lines, "
          f"{sums.branches_excluded} branches; rest {rest}")
    return 1 if problems else 0


if __name__ == "__main__":
    if len(sys.argv) != 4:
        raise SystemExit(__doc__)
    sys.exit(main(*sys.argv[1:]))
