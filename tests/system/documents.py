"""Configuration files as the documentation prints them."""

import re


class Blocks:
    """The fenced blocks of a Markdown page that follow a line with a file's path in backquotes and a colon."""

    def __init__(self, page):
        text = page.read_text()
        self.blocks = dict(re.findall(r"`(/[^`]+)`[^`\n]*:\n+```\w*\n(.*?)^```$", text, re.M | re.S))

    def __getitem__(self, path):
        assert path in self.blocks, f"no block for {path}, only for {sorted(self.blocks)}"
        return self.blocks[path]
