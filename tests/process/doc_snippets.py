"""Checks that every C++ block of a document marked
<!-- snippet: PATH#NAME --> is the region of PATH between the lines
`// [NAME]` (taken without its common indentation), so that the documents
show only code that the project compiles and runs."""

import pathlib
import re
import sys
import textwrap

MARK = re.compile(r"<!-- snippet: (?P<path>[^#]+)#(?P<name>\w+) -->\n```cpp\n(?P<code>.*?)```", re.S)


def region(source, name):
    found = re.search(r"^[ \t]*// \[" + name + r"\]\n(.*?)^[ \t]*// \[" + name + r"\]\n", source, re.S | re.M)
    return textwrap.dedent(found.group(1)) if found else None


def main(root, *documents):
    root = pathlib.Path(root)
    failures = 0
    checked = 0
    for document in documents:
        text = (root / document).read_text()
        for mark in MARK.finditer(text):
            checked += 1
            code = region((root / mark["path"]).read_text(), mark["name"])
            where = f"{document}: {mark['path']}#{mark['name']}"
            if code is None:
                print(f"{where}: no such region")
                failures += 1
            elif code != mark["code"]:
                print(f"{where}: the document's block differs from the source:\n{mark['code']}---\n{code}")
                failures += 1
            elif len(code.splitlines()) > 15:
                print(f"{where}: {len(code.splitlines())} lines, more than 15")
                failures += 1
    if checked == 0:
        print("no snippet marks found")
        failures += 1
    print(f"{checked} snippets checked, {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
