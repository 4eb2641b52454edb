#!/usr/bin/env python3
"""Writes the Python docstrings of the bindings from the public header's /// comments.

One source for both references: each function's, type's and enumerator's comment in
image_processing.h becomes a `constexpr const char[]` of the same name in the generated header,
which the bindings hand to pybind11, so that help(vip.readImage) says what the C++ reference says,
failure value and log line included.

    python3 make_docstrings.py HEADER OUTPUT
"""

import pathlib
import re
import sys
import textwrap

DECLARATION = re.compile(r"\b(?:struct|enum class)\s+(\w+)|\b(\w+)\s*\(")
DOXYGEN_ONLY = re.compile(r"^@(file|defgroup|\{|\})")


def docstrings(header: str) -> dict[str, str]:
    """The comment block right above each declaration, by the declared name (the first wins)."""
    found: dict[str, str] = {}
    block: list[str] = []
    for line in header.splitlines():
        stripped = line.strip()
        if stripped.startswith("///"):
            text = stripped[3:].removeprefix(" ")
            if not DOXYGEN_ONLY.match(text):
                block.append(text)
            continue
        match = DECLARATION.search(stripped) if block and stripped else None
        if match:
            name = match.group(1) or match.group(2)
            if name == "VOREL_USD_IMAGE_PROCESSING_API":
                name = DECLARATION.search(stripped, match.end()).group(2)
            paragraphs = " ".join(block).split("  ")  # a blank /// line between paragraphs
            text = "\n\n".join(textwrap.fill(p.strip(), 88) for p in paragraphs if p.strip())
            found.setdefault(name, text)
        block = []
    return found


def main() -> int:
    header, output = map(pathlib.Path, sys.argv[1:3])
    lines = ["// Generated from image_processing.h by python/make_docstrings.py: do not edit.",
             "#pragma once", "", "namespace vorel::python::docs {"]
    for name, text in sorted(docstrings(header.read_text()).items()):
        lines.append(f'inline constexpr const char {name}[] = R"doc({text})doc";')
    lines.append("}  // namespace vorel::python::docs")
    content = "\n".join(lines) + "\n"
    if not output.exists() or output.read_text() != content:
        output.parent.mkdir(parents=True, exist_ok=True)
        output.write_text(content)
    return 0


if __name__ == "__main__":
    sys.exit(main())
