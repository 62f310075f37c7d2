#!/usr/bin/env python3
"""Makes a page of the manual, in scdoc's language, out of the documents: manual.py PAGE.scd [DOCUMENT.md ...]

The page is written to the standard output. Where it has a line `@include NAME [HEADING]`, the document of that name follows,
or its section under that heading, with its headings one level up. Of Markdown it knows what the documents use: headings,
paragraphs, lists, tables (each row becomes a term and its text), code, links and emphasis.
"""
import os
import re
import sys

SPAN = re.compile(r"\[((?:`[^`]*`|[^\[\]`])*)\]\(([^)]*)\)|`([^`]+)`|\*\*([^*]+)\*\*")


def escaped(text):
    return re.sub(r"([\\*_`~<>#+|\[\].])", r"\\\1", text)


def inline(text):
    """One paragraph without its line ends."""
    parts, end = [], 0
    for span in SPAN.finditer(text):
        link, target, code, strong = span.groups()
        parts.append(escaped(text[end:span.start()]))
        if link is not None:
            parts.append(inline(link) + (f" ({escaped(target)})" if target.startswith("http") else ""))
        else:
            parts.append("*" + escaped(code or strong) + "*")
        end = span.end()
    return "".join(parts) + escaped(text[end:])


def cells(row):
    return [cell.strip().replace("\\|", "|") for cell in re.split(r"(?<!\\)\|", row.strip()[1:-1])]


def table(rows):
    heads = cells(rows[0])
    for row in rows[2:]:
        term, *values = cells(row)
        lines = [inline(value) if len(values) == 1 else f"{inline(head)}: {inline(value)}"
                 for head, value in zip(heads[1:], values) if value]
        yield inline(term) + "\n" + "\n".join("\t" + line + ("" if line is lines[-1] else "++") for line in lines) + "\n"


def blocks(text, level):
    for block in re.split(r"\n\s*\n", text.strip("\n")):
        lines = block.split("\n")
        if heading := re.match(r"(#+) (.*)", lines[0]):
            title = heading[2]
            depth = min(max(len(heading[1]) - level, 1), 2)
            yield "#" * depth + " " + (title.upper() if depth == 1 and "[" not in title else title)
            lines = lines[1:]
        if not lines:
            continue
        if all(line.startswith("    ") for line in lines):
            yield "```\n" + "\n".join(line[4:] for line in lines) + "\n```"
        elif lines[0].startswith("|"):
            yield "\n".join(table(lines))
        elif lines[0].startswith("- "):
            items = re.split(r"\n- ", "\n" + "\n".join(lines))[1:]
            yield "\n".join("- " + inline(" ".join(item.split())) for item in items)
        elif lines[0].startswith("!["):
            continue
        else:
            yield inline(" ".join(line.strip() for line in lines))


def section(text, heading):
    found = re.search(rf"^(#+) {re.escape(heading)}\n(.*?)(?=^#{{1,2}} |\Z)", text, re.M | re.S)
    if not found:
        sys.exit(f"manual.py: there is no section {heading!r}")
    return found[2], len(found[1])


def main():
    page, *documents = sys.argv[1:]
    named = {os.path.basename(path): path for path in documents}
    with open(page, encoding="utf-8") as source:
        for line in source:
            include = re.match(r"@include (\S+)(?: (.+))?$", line)
            if not include:
                print(line, end="")
                continue
            with open(named[include[1]], encoding="utf-8") as document:
                text, level = document.read(), 1
            if include[2]:
                text, level = section(text, include[2])
            else:
                text = text.split("\n", 1)[1]
            print("\n\n".join(blocks(text, level)))


main()
