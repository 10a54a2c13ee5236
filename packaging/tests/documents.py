"""Configuration files as the documentation prints them."""

import re


class Blocks:
    """The fenced blocks of a Markdown page, by the file's path at the beginning of the line before them."""

    def __init__(self, page):
        text = page.read_text()
        self.blocks = dict(re.findall(r"^`(/[^`]+)`[^\n]*:\n+```\w*\n(.*?)^```$", text, re.M | re.S))

    def __getitem__(self, path):
        assert path in self.blocks, f"no block for {path}, only for {sorted(self.blocks)}"
        return self.blocks[path]


def commands(page, beginning):
    """The block of commands whose first line begins so."""
    (block,) = (block for block in re.findall(r"^```\w*\n(.*?)^```$", page.read_text(), re.M | re.S)
                if block.startswith(beginning))
    return block


def tables(page, title):
    """The cells of all tables below a heading, without the tables' heads."""
    marks, section = re.search(rf"^(#+) {re.escape(title)}\n(.*)", page.read_text(), re.M | re.S).groups()
    section = re.split(rf"^#{{1,{len(marks)}}} ", section, maxsplit=1, flags=re.M)[0]
    heads = re.sub(r"^\|.*\n(?=\| --- )", "", section, flags=re.M)
    rows = [line for line in heads.splitlines() if line.startswith("|") and not line.startswith("| ---")]
    return [[cell.strip() for cell in row.strip("|").split(" | ")] for row in rows]


def set_or_unexplained(ini):
    """The lines of a settings file that set something, and those of keys that nothing above explains."""
    lines = ini.read_text().splitlines()
    keys = [number for number, line in enumerate(lines) if re.match(r";\w+ =", line)]
    return ([line for line in lines if line and not line.startswith((";", "["))] +
            [lines[number] for number in keys if not lines[number - 1].startswith("; ") and number - 1 not in keys])
