"""Checks that the documentation agrees with the code. Usage: check_docs.py [--update | --run BUILD_DIRECTORY]

Without an option, reads only:
  - every block of code shows a file, or a marked region of one, that the build compiles;
  - every block of commands is marked as run here, or by a file in which its commands stand;
  - docs/troubleshooting.md has every message and result code of the library, with its level, and no other; every message
    of the programs and every line of the host platform, and no text that their sources do not have;
  - links, and the paths that the text names, lead somewhere.
--update copies the regions into the blocks. --run runs the blocks that are marked as run here on that build.

Markers stand on the line before a block:
  <!-- PATH --> or <!-- PATH: REGION -->   the block shows the file, or what stands between "// region REGION" (or "#
                                           region REGION") and the next "endregion" line
  <!-- run -->                             the block is run as one shell script and must succeed
  <!-- run together until: TEXT -->        its commands are started one after the other, each as soon as the one before
                                           serves; they must write TEXT, and then end on SIGINT
  <!-- run by PATH -->                     each command stands in that file (its words in this order, on one line); that
                                           scripts/check stands there is enough for every step of it
"""
import argparse
import functools
import os
import pathlib
import re
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import textwrap
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
DOCUMENTS = ["README.md", "CONTRIBUTING.md", *sorted(str(p.relative_to(ROOT)) for p in ROOT.glob("docs/*.md"))]
TROUBLESHOOTING = "docs/troubleshooting.md"
CODE_LANGUAGES = {"cpp", "cmake", "ini"}
FREE_LANGUAGES = {"text", "mermaid", "json"}
FENCE = re.compile(r"^```(\w*)\s*$")
MARKER = re.compile(r"^<!-- (.+?) -->$")
COMMAND_SECONDS = 240

errors = []


def report(where, text):
    errors.append(f"{where}: {text}")


def read(path):
    return (ROOT / path).read_text(encoding="utf-8")


class Block:
    """One fenced block of a document; `first` and `end` are the line indices of its content."""

    def __init__(self, document, first, end, language, marker, lines):
        self.document, self.first, self.end = document, first, end
        self.language, self.marker = language, marker
        self.text = "\n".join(lines[first:end])
        self.where = f"{document}:{first}"


def blocks_of(document):
    lines = read(document).splitlines()
    opened = None
    for index, line in enumerate(lines):
        fence = FENCE.match(line)
        if opened is None and fence:
            marker = MARKER.match(lines[index - 1]) if index else None
            opened = (index + 1, fence[1], marker[1] if marker else None)
        elif opened is not None and line == "```":
            yield Block(document, opened[0], index, opened[1], opened[2], lines)
            opened = None
        elif opened is None and line.startswith("    ") and index and not lines[index - 1].strip():
            report(f"{document}:{index + 1}", "a block of code needs a fence that names its language")
    if opened is not None:
        report(f"{document}:{opened[0]}", "a block without an end")


# ---------------------------------------------------------------------------------------------------------------------
# Code


def shown_by(marker, where):
    """The text that a marker names: a file or a region of it."""
    path, _, region = marker.partition(": ")
    if not (ROOT / path).is_file():
        report(where, f"there is no file {path}")
        return None
    lines = read(path).splitlines()
    if not region:
        return "\n".join(lines)
    starts = [i for i, line in enumerate(lines) if re.fullmatch(rf"\s*(//|#) region {re.escape(region)}", line)]
    if len(starts) != 1:
        report(where, f"{path} has {len(starts)} regions {region}")
        return None
    ends = [i for i in range(starts[0], len(lines)) if re.fullmatch(r"\s*(//|#) endregion", lines[i])]
    if not ends:
        report(where, f"region {region} of {path} has no end")
        return None
    return textwrap.dedent("\n".join(lines[starts[0] + 1 : ends[0]])).strip("\n")


def check_code(block):
    if block.marker is None:
        report(block.where, f"a block of {block.language} without the file it shows")
        return
    expected = shown_by(block.marker, block.where)
    if expected is not None and expected != block.text:
        report(block.where, f"differs from {block.marker} (scripts/docs --update copies it)")


def update():
    for document in DOCUMENTS:
        lines = read(document).splitlines()
        for block in reversed(list(blocks_of(document))):
            if block.language in CODE_LANGUAGES and block.marker is not None:
                shown = shown_by(block.marker, block.where)
                if shown is not None:
                    lines[block.first : block.end] = shown.split("\n")
        (ROOT / document).write_text("\n".join(lines) + "\n", encoding="utf-8")


# ---------------------------------------------------------------------------------------------------------------------
# Commands


def commands_of(text):
    """The commands of a block, one for each line, without comments and continuations."""
    joined = re.sub(r"\\\n\s*", "", text)
    commands = [shlex.split(line, comments=True) for line in joined.splitlines()]
    return [command for command in commands if command]


def runs(path, words):
    """Whether the file runs the command. scripts/check alone runs every step of it."""
    if words[0] == "scripts/check":
        steps = re.search(r"^ALL_STEPS=\((.*)\)$", read("scripts/check"), flags=re.M)[1].split()
        if not set(words[1:]) <= set(steps):
            return False
        words = words[:1]
    for line in read(path).splitlines():
        rest = iter(line.replace('"', " ").split())
        if all(word in rest for word in words):
            return True
    return False


def check_commands(block):
    if block.marker is None or not block.marker.startswith("run"):
        report(block.where, "commands that nothing runs")
    elif block.marker.startswith("run by "):
        path = block.marker[len("run by ") :]
        if not (ROOT / path).is_file():
            report(block.where, f"there is no file {path}")
            return
        for command in commands_of(block.text):
            if not runs(path, command):
                report(block.where, f"{path} does not run '{shlex.join(command)}'")
    elif block.marker != "run" and not block.marker.startswith("run together until: "):
        report(block.where, f"unknown marker '{block.marker}'")


def serves(directory):
    """Whether a service in this runtime directory accepts connections."""
    for path in pathlib.Path(directory).glob("*"):
        if path.is_socket():
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as connection:
                try:
                    connection.connect(str(path))
                    return True
                except OSError:
                    pass
    return False


def wait_until(condition):
    deadline = time.monotonic() + COMMAND_SECONDS
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.01)
    return True


class Runner:
    """Runs the commands of one block with a home and a runtime directory of their own, the given build in the place of
    build/host, and a scratch directory in the place of every other build."""

    def __init__(self, build_directory, scratch):
        self.build_directory = build_directory
        self.scratch = scratch
        self.log = pathlib.Path(scratch) / "log"
        self.runtime = pathlib.Path(scratch) / "iam"
        self.runtime.mkdir(mode=0o700)
        self.environment = dict(os.environ, HOME=scratch, IAM_RUNTIME_DIR=str(self.runtime), TMPDIR=scratch)

    def start(self, script):
        script = script.replace("build/host", str(self.build_directory))
        script = re.sub(r"(?<![\w/])build/(?=\w)", f"{self.scratch}/build/", script)
        with open(self.log, "ab") as log:
            return subprocess.Popen(["bash", "-euo", "pipefail", "-c", script], cwd=ROOT, env=self.environment,
                                    stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)

    def output(self):
        return self.log.read_text(encoding="utf-8", errors="replace") if self.log.exists() else ""

    def run(self, block):
        process = self.start(block.text)
        try:
            status = process.wait(COMMAND_SECONDS)
            return None if status == 0 else f"ended with status {status}"
        except subprocess.TimeoutExpired:
            return f"did not end in {COMMAND_SECONDS} s"
        finally:
            end(process, signal.SIGKILL)

    def run_together(self, commands, text):
        processes = []
        try:
            for command in commands:
                processes.append(self.start("exec " + shlex.join(command)))
                first = processes[0]
                if not wait_until(lambda: serves(self.runtime) or first.poll() is not None):
                    return "the first command does not serve"
            if not wait_until(lambda: text in self.output()):
                return f"did not write '{text}'"
            for process in reversed(processes):
                end(process, signal.SIGINT)
                if process.wait(COMMAND_SECONDS) not in (0, 128 + signal.SIGINT, -signal.SIGINT):
                    return f"'{process.args[-1]}' ended with status {process.returncode}"
            return None
        except subprocess.TimeoutExpired:
            return "did not end on SIGINT"
        finally:
            for process in processes:
                end(process, signal.SIGKILL)
                process.wait()


def end(process, number):
    """Signals the process and what it has started and left behind."""
    try:
        os.killpg(process.pid, number)
    except ProcessLookupError:
        pass


def run_commands(build_directory):
    count = 0
    for block in (block for document in DOCUMENTS for block in blocks_of(document)):
        if block.language != "sh" or block.marker is None:
            continue
        with tempfile.TemporaryDirectory() as scratch:
            runner = Runner(build_directory, scratch)
            if block.marker == "run":
                failure = runner.run(block)
            elif block.marker.startswith("run together until: "):
                failure = runner.run_together(commands_of(block.text), block.marker.partition(": ")[2])
            else:
                continue
            count += 1
            if failure:
                report(block.where, f"{failure}\n{textwrap.indent(runner.output(), '    ')}")
    return count


# ---------------------------------------------------------------------------------------------------------------------
# Messages and result codes

LITERAL = r'"(?:[^"\\]|\\.)*"'
LITERALS = rf"{LITERAL}(?:\s*{LITERAL})*"


def joined(literals):
    return "".join(part[1:-1] for part in re.findall(LITERAL, literals))


def without_comments(source):
    return re.sub(rf"({LITERAL})|//[^\n]*", lambda match: match[1] or "", source)


def subscriber_messages():
    source = without_comments(read("subscriber/ReportEventServerImpl.cpp"))
    source = source[source.index("namespace ReportEvent") :]  # behind the macros
    levels = dict(re.findall(r"constexpr int (LEVEL_\w+) = (\d+);", source))
    calls = re.findall(rf"\bLOG(?:_TEXT)?\(\s*(LEVEL_\w+),\s*({LITERALS})", source)
    messages = [(joined(text), levels[level]) for level, text in calls]
    messages += [(joined(text), "event log") for text in re.findall(rf"\bLOG_EVENT\(\s*({LITERALS})", source)]
    if len(messages) != len(re.findall(r"\bLOG(?:_\w+)?\(", source)):
        report("subscriber", "a logging statement that this check does not understand")
    return messages


def publisher_messages():
    priorities = {"INFO": "6", "WARNING": "4", "ERROR": "3"}
    source = without_comments(read("publisher/ReportEventClientImpl.cpp"))
    calls = re.findall(rf"\bsyslog\(GetSyslogLevel\(GRP_OWNER_LOG_(\w+)\),\s*({LITERALS})", source)
    if len(calls) != len(re.findall(r"\bsyslog\(", source)):
        report("publisher", "a logging statement that this check does not understand")
    return [(joined(text), priorities[level]) for level, text in calls]


def rows_of(document, section):
    """The rows of the tables of a section, each as a list of cells."""
    text = read(document).partition(f"\n## {section}\n")[2].partition("\n## ")[0]
    rows = [line.strip("| ").split(" | ") for line in text.splitlines() if line.startswith("| ")]
    if not rows:
        report(document, f"no table in section '{section}'")
    return rows


def check_messages(section, messages):
    documented = {(row[0].strip("`"), row[1]) for row in rows_of(TROUBLESHOOTING, section) if row[0].startswith("`")}
    for text, level in sorted(set(messages) - documented):
        report(TROUBLESHOOTING, f"section '{section}' lacks `{text}` with {level}")
    for text, level in sorted(documented - set(messages)):
        report(TROUBLESHOOTING, f"section '{section}' has `{text}` with {level}, which no source writes")


def check_result_codes():
    codes = set(re.findall(r"constexpr int RESULT_\w+ = 0x(\w+);", read("include/report_event/ResultCodes.h")))
    rows = rows_of(TROUBLESHOOTING, "Result codes")
    documented = {code.upper() for row in rows for code in re.findall(r"^0[xX](F1\w+)$", row[0])}
    for code in sorted(codes ^ documented):
        report(TROUBLESHOOTING, f"result code 0x{code} is in only one of this page and ResultCodes.h")


def calls_of(source, names):
    """The calls of functions whose names match, each as the text of its arguments."""
    for call in re.finditer(rf"\b(?:{names})\(", source):
        depth, end = 1, call.end()
        while depth:
            skipped = re.compile(rf"{LITERAL}|'(?:\\.|[^'\\])'").match(source, end)
            if skipped:
                end = skipped.end()
                continue
            depth += {"(": 1, ")": -1}.get(source[end], 0)
            end += 1
        yield source[call.end() : end]


def check_texts(section, folder, names):
    """Every text of two words or more that these calls write stands in the section, however their parts are put together;
    and what its tables quote in their first column, the parts between "..." each, stands in the folder's sources."""
    page = read(TROUBLESHOOTING).partition(f"\n## {section}\n")[2].partition("\n## ")[0]
    known = ""
    for path in sorted(ROOT.glob(f"{folder}/**/*.[ch]*")):
        source = without_comments(path.read_text(encoding="utf-8"))
        known += "\0".join(joined(literals) for literals in re.findall(LITERALS, source)) + "\0"
        for arguments in calls_of(source, names):
            for literals in re.findall(LITERALS, arguments):
                text = joined(literals).strip(" :;'")
                if re.search(r"\w+ [\w%]+", text) and text not in page:
                    report(TROUBLESHOOTING, f"section '{section}' lacks `{text}` ({path.relative_to(ROOT)})")
    for row in rows_of(TROUBLESHOOTING, section):
        for quoted in re.findall(r"`([^`]+)`", row[0]):
            for part in quoted.split("..."):
                if part.strip() not in known:
                    report(TROUBLESHOOTING, f"section '{section}' has `{quoted}`, which no source in {folder} writes")


# ---------------------------------------------------------------------------------------------------------------------
# Links and paths


def anchors_of(path):
    headings = re.findall(r"^#+ (.+)$", re.sub(r"```.*?```", "", read(path), flags=re.S), flags=re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def check_links(document):
    text = re.sub(r"```.*?```", "", read(document), flags=re.S)
    for target in re.findall(r"\]\(([^)\s]+)\)", text):
        if "://" in target:
            continue
        path, _, anchor = target.partition("#")
        found = ((ROOT / document).parent / path).resolve() if path else ROOT / document
        if not found.exists():
            report(document, f"link to {target}, which does not exist")
        elif anchor and anchor not in anchors_of(found.relative_to(ROOT)):
            report(document, f"link to {target}: no such heading")
    folders = {p.name for p in ROOT.iterdir() if p.is_dir()} - {"build", ".git"}
    for code in re.findall(r"`([^`\n]+)`", text):
        path = code.split()[0].rstrip(",:")
        if path.split("/")[0] in folders and "/" in path and not list(ROOT.glob(path.rstrip("/"))):
            report(document, f"names {path}, which does not exist")
        test = re.fullmatch(r"([A-Z]\w+)\.([A-Z]\w+)", code)
        if test and not any(f"({test[1]}, {test[2]})" in source for source in test_sources()):
            report(document, f"names the test {code}, which does not exist")


@functools.lru_cache
def test_sources():
    return [path.read_text(encoding="utf-8") for path in ROOT.glob("tests/*/*_test.cpp")]


# ---------------------------------------------------------------------------------------------------------------------


def check():
    for document in DOCUMENTS:
        for block in blocks_of(document):
            if block.language in CODE_LANGUAGES:
                check_code(block)
            elif block.language == "sh":
                check_commands(block)
            elif block.language not in FREE_LANGUAGES:
                report(block.where, f"a block of '{block.language}': its language must be one of "
                                    f"{', '.join(sorted(CODE_LANGUAGES | FREE_LANGUAGES | {'sh'}))}")
        check_links(document)
    check_messages("The subscription half", subscriber_messages())
    check_messages("The publishing half", publisher_messages())
    check_result_codes()
    check_texts("The programs", "tools", r"Complain|Notify|throw [\w:]+")
    check_texts("The host platform", "platform/host", r"IAM_LOG|FTE_LOG|Complain|throw [\w:]+")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0].partition(" Usage")[0])
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--update", action="store_true", help="copy the regions of the sources into the pages")
    mode.add_argument("--run", metavar="BUILD_DIRECTORY", type=pathlib.Path, help="run the commands on this build")
    options = parser.parse_args()
    if options.update:
        update()
    elif options.run:
        print(f"{run_commands(options.run.resolve())} blocks of commands run")
    else:
        check()
    for error in errors:
        print(error, file=sys.stderr)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
