"""Doxygen's input filter: turns the plain comments of a header into comments that Doxygen reads, and gives the headings of
a guide the names that links use.

The comment on top describes the file. Indented lines are kept as they are (a table, a list of codes), unless they begin
with a dash: then they are a list. A comment behind a declaration belongs to that declaration.
"""
import pathlib
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


def name_headings(page, lines):
    """A heading's name is that of its page and its words, as is the target of a link to it."""

    def named(heading):
        slug = re.sub(r"[^\w\- ]", "", heading[2].lower()).replace(" ", "-")
        return f"{heading[1]} {heading[2]} {{#{page}-{slug}}}"

    text = re.sub(r"^(##+) (.+)$", named, "\n".join(lines), flags=re.M)
    return re.sub(r"\]\((?:(\w[\w-]*)\.md)?#", lambda link: f"](#{link[1] or page}-", text).splitlines()


def main():
    path = pathlib.Path(sys.argv[1])
    lines = path.read_text(encoding="utf-8").splitlines()
    if path.suffix == ".h":
        lines = mark(lines)
    elif path.suffix == ".md":
        lines = name_headings(path.stem, lines)
    print("\n".join(lines))


if __name__ == "__main__":
    main()
