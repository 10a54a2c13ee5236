"""How many bits it takes to tell how numbers go on: few for those that follow from the ones before."""

import collections
import itertools
import math
import statistics
from collections.abc import Iterable, Iterator, Sequence
from typing import NamedTuple

A_LENGTH = 4.0  # bits that it costs to tell how common it is
MOST_STATES = 16  # of something that changes between some values, rather than over a range

Runs = Sequence[Sequence[int]]  # numbers that follow one another, with gaps between the runs


class Steps(NamedTuple):
    """From number to number: how many there are by the number of bits of how far they go, and how many go up."""

    lengths: dict[int, int]
    ups: int

    @property
    def total(self) -> int:
        return sum(self.lengths.values())

    @property
    def changes(self) -> int:
        return self.total - self.lengths.get(0, 0)

    @property
    def bits(self) -> float:
        """To tell of each the length, the direction, and the bits below the highest; and how common each length is."""
        if self.changes == 0:
            return 0.0
        lengths = sum(times * -math.log2(times / self.total) for times in self.lengths.values())
        return (A_LENGTH * len(self.lengths) + lengths
                + self.changes * entropy(self.ups / self.changes)
                + sum(times * (length - 1) for length, times in self.lengths.items() if length))


def entropy(share: float) -> float:
    """In bits, of something that happens with this probability."""
    if share <= 0 or share >= 1:
        return 0.0
    return -share * math.log2(share) - (1 - share) * math.log2(1 - share)


def differences(runs: Runs, width: int) -> Iterator[list[int]]:
    """Of numbers of so many bits, which go round: from the largest to 0 it is 1 up."""
    half, mask = 1 << width - 1, (1 << width) - 1
    for run in runs:
        yield [(after - before + half & mask) - half for before, after in itertools.pairwise(run)]


def steps_of(differing: Iterable[Sequence[int]]) -> Steps:
    lengths: collections.Counter[int] = collections.Counter()
    ups = 0
    for run in differing:
        lengths.update(map(int.bit_length, run))
        ups += sum(each > 0 for each in run)
    return Steps(lengths, ups)


def bits_of(runs: Runs, width: int) -> float:
    """For all of the numbers, by whichever way to tell them is the shortest: each by itself, by the step from the one
    before, by how this step differs from the usual one or from the one before, or as one of some states."""
    first = list(differences(runs, width))
    steps = steps_of(first)
    if steps.changes == 0:
        return 0.0
    ways = [float(steps.total * width), steps.bits]
    if width > 1 and steps.changes > steps.total / 4:
        usual = statistics.median_low(itertools.chain(*first))
        ways.append(steps_of([each - usual for each in run] for run in first).bits + width)
        ways.append(steps_of(differences(first, width)).bits + width)
    if width > 1:
        ways.append(_bits_of_states(runs, width, steps))
    return min(ways)


def _bits_of_states(runs: Runs, width: int, steps: Steps) -> float:
    states = len(set().union(*runs))
    if states > MOST_STATES:
        return math.inf
    return (steps.total * entropy(steps.changes / steps.total) + steps.changes * math.log2(max(1, states - 1))
            + states * width)


def usual_step(runs: Runs, width: int) -> tuple[int, float]:
    """The commonest step that changes anything, and its share of those that do."""
    counted = collections.Counter(each for run in differences(runs, width) for each in run if each)
    if not counted:
        return 0, 0.0
    step, times = counted.most_common(1)[0]
    return step, times / counted.total()
