"""The links between the documents: each leads to a file, and to a heading of it."""

import pathlib
import re
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).parents[2]
PAGES = subprocess.run(["git", "ls-files", "*.md"], cwd=PROJECT, capture_output=True, text=True,
                       check=True).stdout.split()


def without_code(page):
    return re.sub(r"^```.*?^```", "", page.read_text(), flags=re.M | re.S)


def headings(page):
    """The anchors that the headings of a page have where Markdown is shown."""
    titles = re.findall(r"^#+ (.+)", without_code(page), re.M)
    return {re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-") for title in titles}


@pytest.mark.parametrize("name", PAGES)
def test_every_link_leads_somewhere(name):
    page = PROJECT / name
    dead = []
    for target in re.findall(r"\]\(([^)\s]+)\)", without_code(page)):
        if "://" in target:
            continue
        path, _, heading = target.partition("#")
        found = page.parent / path if path else page
        if not found.exists() or (heading and heading not in headings(found)):
            dead.append(target)
    assert dead == []


def test_there_are_pages():
    assert "README.md" in PAGES
