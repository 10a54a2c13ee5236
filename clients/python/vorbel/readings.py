"""The last readings of those fields that are written into them."""

from collections.abc import Sequence
from typing import Any, Optional

from .meaning import Meanings
from .schema import Leaf
from .writing import Written, overwritten


class LastReadings:
    """The last readings that counted of fields of some bits: what came, or what was written since."""

    def __init__(self, meanings: Meanings) -> None:
        self._meanings = meanings
        self._parts = {path: leaf for path, leaf in meanings.leaves.items() if leaf.is_part and not leaf.is_read_only}
        self._last: dict[str, int] = {}

    def heard(self, values: Any) -> None:
        """A message has come."""
        if not self._parts:
            return
        for path, meant in self._meanings.flat(values).items():
            if path in self._parts and isinstance(reading := meant.last.reading, int):
                self._last[path] = reading

    def wrote(self, written: Sequence[Written]) -> None:
        """A device takes what was written, so that its next reading would be this."""
        fields = {each.path: each.field for each in written}
        for path, leaf in self._parts.items():
            after = overwritten(leaf, self._known(path, leaf), written) if _is_selected(leaf, fields) else None
            if after is not None:
                self._last[path] = after

    def of(self, path: str) -> Optional[int]:
        return self._last.get(path)

    def forget(self) -> None:
        """Nobody knows any more what they are."""
        self._last.clear()

    def _known(self, path: str, leaf: Leaf) -> Optional[int]:
        return self._last.get(path, leaf.meaning.initial)


def _is_selected(leaf: Leaf, fields: dict[str, float]) -> bool:
    """Whether a message with these fields says anything of the leaf: its "when" asks for one of them."""
    selector = leaf.meaning.when
    return selector is None or fields.get(selector.path) == selector.value
