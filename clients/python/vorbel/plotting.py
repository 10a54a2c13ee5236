"""Values over time as a picture."""

from .errors import VorbelError
from .table import is_number, number
from .wire import is_array


class Course:
    """The points of one path. The elements of an array are spread over the time since the message before it."""

    def __init__(self):
        self.times = []
        self.values = []
        self._before = None

    def add(self, value, time: float):
        if is_array(value) and len(value):
            self._spread([number(element) for element in value], time)
        elif is_number(value) or isinstance(value, bool):
            self._point(time, float(value))
        self._before = time

    def _spread(self, elements, time):
        """When the first array was begun nobody knows: only its last element has a time."""
        if self._before is None:
            return self._point(time, elements[-1])
        for index, element in enumerate(elements, 1):
            self._point(self._before + (time - self._before) * index / len(elements), element)

    def _point(self, time, value):
        self.times.append(time)
        self.values.append(value)


def require_matplotlib():
    """Raises VorbelError, before anything is collected, when nothing can be drawn."""
    try:
        import matplotlib
    except ImportError:
        raise VorbelError("plot needs matplotlib: apt install python3-matplotlib") from None
    matplotlib.use("Agg")  # a file, whether or not there is a display


def draw(courses: dict, output: str, title: str):
    """One panel for each path, with a common axis of seconds; the suffix of `output` says the format."""
    from matplotlib import pyplot

    start = min(course.times[0] for course in courses.values())
    figure, panels = pyplot.subplots(len(courses), sharex=True, squeeze=False, layout="constrained",
                                     figsize=(9, 1 + 1.8 * len(courses)))
    for panel, (path, course) in zip(panels[:, 0], courses.items()):
        panel.plot([time - start for time in course.times], course.values, ".-", markersize=3, linewidth=1)
        panel.set_title(path, loc="left", fontsize="medium")
        panel.grid(alpha=0.3)
    panels[-1, 0].set_xlabel("seconds")
    figure.suptitle(title)
    try:
        figure.savefig(output)
    except (OSError, ValueError) as error:
        raise VorbelError(f"The plot cannot be written to {output}: {error}") from None
    finally:
        pyplot.close(figure)
