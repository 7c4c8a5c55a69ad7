#!/usr/bin/env python3
"""Compares pages of Docs/ with the sources they describe, so that neither can change alone.

    check_pages.py error-codes | network | environment-variables | links
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SOURCE_DIRECTORIES = ("Native", "Runtimes", "Companions")

# Entries of Messages.h that are no message.
NOT_MESSAGES = {"kUnknownRuntime"}


def main(page):
    problems = CHECKS[page]()
    for problem in problems:
        print(problem)
    return 1 if problems else 0


def check_error_codes():
    return check_messages("error-codes.md", "Native/QuorvalenNativeException/Messages.h", 30)


def check_network():
    return check_messages("network.md", "Companions/NetworkClient/Messages.h", 16)


def check_messages(page, header, fewest):
    """Every message of the header stands in the page's table, literally, and nothing else does."""
    messages = messages_of((ROOT / header).read_text())
    rows = table_rows((ROOT / "Docs" / page).read_text())
    problems = []
    documented = [text_of(cells[1]) for cells in rows]
    if len(messages) < fewest:
        problems.append("{}: only {} messages were understood".format(header, len(messages)))
    for name, text in messages.items():
        if text not in documented:
            problems.append("{} lacks {}: {!r}".format(page, name, text))
    for cells, text in zip(rows, documented):
        if text not in messages.values():
            problems.append("{} has a text that is not in {}: {!r}".format(page, header, text))
        code = re.search(r"Exception code (\d{3})", text)
        if cells[0] != (code.group(1) if code else "none"):
            problems.append("{} gives code {} to {!r}".format(page, cells[0], text))
        if len(cells) != 4 or not all(cells):
            problems.append("{}: expected code, text, cause and remedy for {!r}".format(page, text))
    return problems


def messages_of(source):
    """The entries of the header, name -> text. A value put in at run time reads as <its name>."""
    source = re.sub(r"^\s*//.*$", "", source, flags=re.MULTILINE)
    entries = re.findall(r"inline constexpr const char\* (\w+) =(.*?);\n", source, re.DOTALL)
    entries += re.findall(r"inline std::string (\w+)\(.*?\) \{\s*return (.*?);\s*\}", source, re.DOTALL)
    return {name: text_from(parts) for name, parts in entries if name not in NOT_MESSAGES}


def text_from(expression):
    text = ""
    for literal, converted, variable in re.findall(r'"((?:[^"\\]|\\.)*)"|std::to_string\((\w+)\)|(\b[a-z]\w*\b)(?!::)',
                                                   re.sub(r"\bstd::string\b", "", expression)):
        text += literal.replace("\\n", "\n").replace('\\"', '"') if not (converted or variable) else (
            "<{}>".format(converted or variable))
    return text


def table_rows(page):
    """The cells of every table row that begins with a code or with "none"."""
    rows = [line for line in page.splitlines() if re.match(r"\| (\d{3}|none) \|", line)]
    return [[cell.strip() for cell in row.strip().strip("|").split(" | ")] for row in rows]


def text_of(cell):
    """What stands between the backquotes, whose `\\n` is a line break."""
    return re.sub(r"^`+ ?|`+$", "", cell).replace("\\n", "\n")


def check_environment_variables():
    """Every variable that a source reads stands in the page's tables, and nothing else does."""
    page = (ROOT / "Docs/environment-variables.md").read_text()
    documented = set(re.findall(r"^\| `(\w+)` \|", page, re.MULTILINE))
    used = set()
    for directory in SOURCE_DIRECTORIES:
        for path in (ROOT / directory).rglob("*"):
            if path.suffix in (".cpp", ".h", ".py") and "tests" not in path.parts:
                used |= set(re.findall(r'"(QUORVALEN_\w+)"', path.read_text()))
    problems = ["environment-variables.md lacks " + name for name in sorted(used - documented)]
    return problems + ["environment-variables.md has " + name + ", which no source reads"
                       for name in sorted(documented - used)]


def check_links():
    """Every link between our own pages leads to a file that is there."""
    problems = []
    for page in [*ROOT.glob("*.md"), *(ROOT / "Docs").glob("*.md")]:
        for target in re.findall(r"\]\(([^)#]+)[^)]*\)", page.read_text()):
            if "://" not in target and not (page.parent / target).exists():
                problems.append("{}: {} is not there".format(page.name, target))
    return problems


CHECKS = {
    "error-codes": check_error_codes,
    "network": check_network,
    "environment-variables": check_environment_variables,
    "links": check_links,
}

if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
