#!/usr/bin/env python3
"""Presents a header's plain // comments to doxygen as documentation comments.

The public headers are written in the house style, with // comments: the block at the top of a
file says what it is for, a block above a declaration documents it, and a comment after a member
on the same line documents that member. Doxygen reads only ///-style comments, so this filter,
run by doxygen on each header (FILTER_PATTERNS), rewrites them on the fly: the leading block
becomes the file's documentation, full-line comments become ///, and trailing ones become ///<.
Preprocessor lines keep their comments as they are. The header files themselves are not changed.
"""
import re
import sys

FULL_LINE = re.compile(r'^(\s*)//(?![/!])\s?(.*)$')
TRAILING = re.compile(r'^(\s*[^\s#/].*?\S)(\s+)//(?![/!])\s?(.*)$')


def outside_literals(code):
    """True when the code part of a line has balanced quotes, so its // is a comment."""
    stripped = re.sub(r"'(\\.|[^'\\])'", '', code)
    stripped = re.sub(r'"(\\.|[^"\\])*"', '', stripped)
    return '"' not in stripped and "'" not in stripped


def convert(lines):
    out = []
    in_header_block = True
    first = True
    for line in lines:
        text = line.rstrip('\n')
        full = FULL_LINE.match(text)
        if in_header_block and full:
            if first:
                out.append('/// \\file')
                first = False
            out.append('/// ' + full.group(2))
            continue
        in_header_block = False
        if full:
            out.append(full.group(1) + '/// ' + full.group(2))
            continue
        trailing = TRAILING.match(text)
        if trailing and outside_literals(trailing.group(1)):
            out.append(trailing.group(1) + trailing.group(2) + '///< ' + trailing.group(3))
            continue
        out.append(text)
    return out


def main():
    with open(sys.argv[1], encoding='utf-8', errors='replace') as source:
        lines = source.readlines()
    sys.stdout.write('\n'.join(convert(lines)) + '\n')


if __name__ == '__main__':
    main()
