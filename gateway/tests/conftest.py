import pytest

from gatewayharness import Plant
from harness import pytest_collection_modifyitems  # noqa: F401


@pytest.fixture
def plant(tmp_path):
    """Everything but the gateway, which the test starts."""
    plant = Plant(tmp_path)
    yield plant
    plant.close()


@pytest.fixture
def make_plant(tmp_path):
    """make_plant(...) is Plant of the test's folder."""
    made = []

    def make(**options):
        made.append(Plant(tmp_path, **options))
        return made[-1]

    yield make
    for plant in made:
        plant.close()
