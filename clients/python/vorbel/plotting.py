"""Values over time as a picture."""

import io
import os
import pathlib
import warnings
from typing import Any, Optional

from . import paths
from .errors import VorbelError
from .meaning import Meant
from .table import is_number
from .wire import is_array, number


SUFFIXES = (".png", ".svg", ".pdf")


class Series:
    """The points of one path. The elements of an array are spread over the time since the message before it."""

    def __init__(self) -> None:
        self.times: list[float] = []
        self.values: list[float] = []
        self.is_flag = True  # whether all of them were true or false
        self._before: Optional[float] = None

    def add(self, meant: Meant, time: float) -> None:
        value = meant.value
        if is_array(meant.reading) and len(value):
            self._spread([number(element) for element in value], time)
        elif is_number(value) or isinstance(value, bool):
            self.is_flag = self.is_flag and isinstance(value, bool)
            self._point(time, float(value))
        self._before = time

    def _spread(self, elements: list[float], time: float) -> None:
        """When the first array was begun nobody knows: only its last element has a time."""
        self.is_flag = False
        if self._before is None:
            self._point(time, elements[-1])
            return
        for index, element in enumerate(elements, 1):
            self._point(self._before + (time - self._before) * index / len(elements), element)

    def _point(self, time: float, value: float) -> None:
        self.times.append(time)
        self.values.append(value)


def prepare(output: str) -> None:
    """Raises VorbelError, before anything is collected, when nothing can be drawn or written."""
    try:
        import matplotlib
    except ImportError:
        raise VorbelError("plot needs matplotlib: apt install python3-matplotlib") from None
    matplotlib.use("Agg")  # a file, whether or not there is a display
    path = pathlib.Path(output)
    if path.suffix.lower() not in SUFFIXES:
        raise VorbelError(f"{output} says by its suffix what to draw: it must be one of {', '.join(SUFFIXES)}")
    if path.is_dir() or not os.access(path if path.exists() else path.parent, os.W_OK):
        raise VorbelError(f"The plot cannot be written to {output}: there is no such folder, or it is not yours")


def figure_of(series: dict[str, Series], title: str, units: dict[str, str]) -> Any:
    """One panel for each path, with a common axis of seconds."""
    from matplotlib import pyplot

    warnings.filterwarnings("ignore", "Glyph")  # characters that the font lacks are drawn as boxes
    start = min(line.times[0] for line in series.values())
    figure, panels = pyplot.subplots(len(series), sharex=True, squeeze=False, layout="constrained",
                                     figsize=(9, 1 + 1.8 * len(series)))
    for panel, (path, line) in zip(panels[:, 0], series.items()):
        _draw_series(panel, [time - start for time in line.times], line)
        panel.set_title(paths.shown(path), loc="left", fontsize="medium", parse_math=False)
        panel.set_ylabel(paths.shown(units[path]), parse_math=False)
        panel.grid(alpha=0.3)
    panels[-1, 0].set_xlabel("seconds")
    figure.suptitle(title, parse_math=False)
    return figure


def _draw_series(panel: Any, times: list[float], line: Series) -> None:
    """A flag stays as it is until it changes, and has no values between."""
    if line.is_flag:
        panel.plot(times, line.values, ".-", markersize=3, linewidth=1, drawstyle="steps-post")
        panel.set_yticks([0, 1], ["false", "true"])
    else:
        panel.plot(times, line.values, ".-", markersize=3, linewidth=1)


def draw(series: dict[str, Series], output: str, title: str, units: dict[str, str]) -> None:
    """The figure as a file; the suffix of `output` says the format."""
    from matplotlib import pyplot

    figure = figure_of(series, title, units)
    picture = io.BytesIO()
    try:
        figure.savefig(picture, format=pathlib.Path(output).suffix[1:])
        _write(pathlib.Path(output).resolve(), picture.getvalue())
    except (OSError, ValueError) as error:
        reason = getattr(error, "strerror", None) or error
        raise VorbelError(f"The plot cannot be written to {output}: {reason}") from None
    finally:
        pyplot.close(figure)


def _write(path: pathlib.Path, picture: bytes) -> None:
    """The whole picture or none: what is there already stays until the new one is complete."""
    if path.exists() and not path.is_file():
        path.write_bytes(picture)
        return
    part = path.with_name(f"{path.name}.part")
    try:
        part.write_bytes(picture)
        part.replace(path)
    except OSError:
        part.unlink(missing_ok=True)
        raise
