"""Draws the figures that have a goal, each as a share of its limit."""

import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402

import goals  # noqa: E402


def draw(table, path):
    """Writes the chart, or nothing if no figure has a goal that is a number to compare with."""
    bars = [(f"{case}: {figure}", goals.share(case, figure, value))
            for case, figures in table.items() for figure, value in figures.items()
            if goals.share(case, figure, value) is not None]
    if not bars:
        return
    figure, axes = pyplot.subplots(figsize=(9, 1 + 0.22 * len(bars)), layout="constrained")
    names, shares = zip(*reversed(bars))
    axes.barh(names, shares, color=["tab:red" if share > 1 else "tab:green" for share in shares])
    axes.axvline(1, color="black", linewidth=1)
    axes.set_xlabel("share of the limit: left of the line is met")
    axes.tick_params(axis="y", labelsize=7)
    figure.savefig(path)
