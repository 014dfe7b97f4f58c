"""Doxygen's input filter: turns the plain comments of a header into comments that Doxygen reads.

The comment on top describes the file. Indented lines are kept as they are (a table, a list of codes), unless they begin
with a dash: then they are a list. A comment behind a declaration belongs to that declaration.
"""
import re
import sys

WHOLE_LINE = re.compile(r"^\s*// ?(.*)$")
TRAILING = re.compile(r"^(\s*[^/\s#}].*?\S)\s+// (.*)$")


def mark_block(texts):
    """The lines of one comment, as the inside of a Doxygen comment."""
    marked = []
    form = "text"
    for text in texts:
        indented = text.startswith("  ")
        if not indented:
            new_form = "text"
        elif form == "list" or text.lstrip().startswith("- "):
            new_form = "list"
        else:
            new_form = "table"
        if new_form != form:
            if form == "table":
                marked.append("\\endverbatim")
            marked.append("\\verbatim" if new_form == "table" else "")
            form = new_form
        marked.append(text)
    if form == "table":
        marked.append("\\endverbatim")
    return marked


def mark(lines):
    marked = []
    block = []
    for number, line in enumerate(lines + [""]):
        comment = WHOLE_LINE.match(line)
        if comment:
            if number == 0:
                block.append("\\file\n")
            block.append(comment[1])
            continue
        if block:
            marked += ["/**", *mark_block(block), "*/"]
            block = []
        trailing = TRAILING.match(line)
        marked.append(f"{trailing[1]}  ///< {trailing[2]}" if trailing else line)
    return marked


def main():
    with open(sys.argv[1], encoding="utf-8") as source:
        lines = source.read().splitlines()
    print("\n".join(mark(lines) if sys.argv[1].endswith(".h") else lines))


if __name__ == "__main__":
    main()
