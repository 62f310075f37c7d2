#!/usr/bin/env python3
"""The manual has every option, every key of a wall file and every route of the API, and is well-formed.

manual_test.py TAVREL SOURCES PAGES
"""
import pathlib
import re
import subprocess
import sys

program, sources, pages = sys.argv[1], pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3])


def text_of(page):
    """As a reader sees it, without line ends and hyphens within words."""
    shown = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", pages / f"{page}.gz"], text=True, capture_output=True,
                           env={"PATH": "/usr/bin:/bin", "MANWIDTH": "4000", "LC_ALL": "C.UTF-8"})
    assert shown.returncode == 0 and not shown.stderr, f"{page}: {shown.stderr}"
    return shown.stdout


def help_of(*command):
    return subprocess.run([program, *command, "--help"], text=True, capture_output=True, check=True).stdout


def commands_in(text):
    listed = re.search(r"^Subcommands:\n(.*?)\n\n", text, re.M | re.S)
    return re.findall(r"^  ([a-z][a-z-]*)", listed[1], re.M) if listed else []


def options_in(text):
    return set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", "\n".join(re.findall(r"^  (-\S+)", text, re.M))))


def words_in(text, pattern):
    return set(re.findall(rf"(?<![\w-]){pattern}(?![\w-])", text))


def check(page, kind, wanted, found):
    assert wanted and wanted <= found, f"{page} lacks {kind}: {sorted(wanted - found)}"


manual = text_of("tavrel.1")
overview = help_of()
options, names = options_in(overview), set(commands_in(overview))
for command in commands_in(overview):
    text = help_of(command)
    options |= options_in(text)
    for action in commands_in(text):
        names.add(action)
        options |= options_in(help_of(command, action))
check("tavrel.1", "options", options, words_in(manual, "--?[a-z][a-z-]*"))
check("tavrel.1", "commands", names, words_in(manual, "[a-z][a-z-]*"))

keys = set()
for path in (sources / "host/config").glob("*.cpp"):
    if not re.search("editor|value_text|diagnostics|url|table_reader", path.name):
        text = path.read_text()
        keys |= set(re.findall(r'(?:\.|->)(?!contains|append|find)\w+\(\s*"([a-z]+(?:_[a-z]+)*)"\s*[,)]', text))
        keys |= set(re.findall(r'\w+\((?:\w*reader|table|root)\w*, "([a-z_]+)"', text))
        keys |= set(re.findall(r'const char\* k\w+ = "([a-z]+(?:_[a-z]+)*)"', text))
assert len(keys) > 80, keys
check("tavrel-wall.5", "keys", keys, words_in(text_of("tavrel-wall.5"), "[a-z]+(?:_[a-z]+)*"))

routes = set(re.findall(r'Route\{"[A-Z]+", "([^"]+)"', (sources / "host/control/http/routes.cpp").read_text()))
api = text_of("tavrel-api.7")
check("tavrel-api.7", "routes", routes, {route for route in routes if re.sub(r"\{\w+\}", "NAME", route) in api})
