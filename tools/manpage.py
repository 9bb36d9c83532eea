#!/usr/bin/env python3
"""manpage: writes octunnel(1) in roff from the README's `## octunnel(1)`
section, so that the manual and the README never say different things.

    manpage.py README.md VERSION OUT

The section's `###` headings become the page's sections; it holds
paragraphs, bullet lists (`- ` with indented continuation lines) and code
blocks indented by four spaces.  `code` is set in bold, and a Markdown
table is not expected there.
"""

import os
import re
import sys

TITLE = "## octunnel(1)"


class ManError(Exception):
    pass


def section(readme):
    lines = readme.splitlines()
    try:
        start = lines.index(TITLE) + 1
    except ValueError:
        raise ManError(f"the README has no '{TITLE}' section") from None
    end = next((i for i in range(start, len(lines)) if lines[i].startswith("## ")), len(lines))
    return lines[start:end]


def escape(text):
    text = text.replace("\\", "\\e")
    # Characters beyond ASCII as their code points, which any troff takes.
    text = "".join(c if ord(c) < 128 else f"\\[u{ord(c):04X}]" for c in text)
    # A line that starts with a dot or a quote would be read as a request.
    return re.sub(r"^([.'])", r"\\&\1", text)


def inline(text):
    text = escape(text)
    text = re.sub(r"\*\*([^*]+)\*\*", r"\\fB\1\\fR", text)
    return re.sub(r"`([^`]+)`", r"\\fB\1\\fR", text)


def convert(lines, version):
    out = [f'.TH OCTUNNEL 1 "" "octunnel {version}" "User Commands"']
    paragraph = []
    code = []

    def flush():
        if paragraph:
            out.append(inline(" ".join(s.strip() for s in paragraph)))
            paragraph.clear()
        if code:
            while code and not code[-1].strip():
                code.pop()
            out.extend([".PP", ".nf", ".RS 4"] + [escape(c) for c in code] + [".RE", ".fi"])
            code.clear()

    for line in lines:
        if line.startswith("### "):
            flush()
            out.append(".SH " + line[4:].strip().upper())
        elif line.startswith("    ") and not paragraph:
            code.append(line[4:])
        elif code and not line.strip():
            code.append("")
        elif not line.strip():
            flush()
        elif line.startswith("- "):
            flush()
            out.append(".IP \\(bu 2")
            paragraph.append(line[2:])
        elif paragraph:
            paragraph.append(line)
        else:
            flush()
            out.append(".PP")
            paragraph.append(line)
    flush()
    return "\n".join(out) + "\n"


def main(argv):
    if len(argv) != 4:
        print("usage: manpage.py README.md VERSION OUT", file=sys.stderr)
        return 2
    try:
        with open(argv[1], encoding="utf-8") as f:
            page = convert(section(f.read()), argv[2])
    except (OSError, ManError) as e:
        print(f"manpage: {e}", file=sys.stderr)
        return 1
    with open(argv[3] + ".tmp", "w", encoding="utf-8") as f:
        f.write(page)
    os.replace(argv[3] + ".tmp", argv[3])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
