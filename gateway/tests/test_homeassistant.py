"""What Home Assistant finds by itself."""

import pytest

from gatewayharness import Plant
from homeassistant import ALL, ENABLED, SCHEMA, wait_for_paths


@pytest.fixture(scope="module")
def home(tmp_path_factory):
    """With a gateway that is left as it is."""
    plant = Plant(tmp_path_factory.mktemp("home"), schema=SCHEMA)
    plant.start(**ENABLED)
    yield plant
    plant.close()


def test_each_leaf_is_found_as_what_it_is(home):
    found = wait_for_paths(home, *ALL)
    components = {path: sorted(component for component, _ in those) for path, those in found.items()}
    assert components["oven/heat"] == ["number"] or components["oven/heat"] == ["sensor"]
    assert components["oven/open"] == ["binary_sensor"]
    assert "number" in components["oven/target"]
    assert "select" in components["oven/mode"]
    assert "switch" in components["oven/light"]


def test_what_is_found_says_what_it_is(home):
    found = wait_for_paths(home, *ALL)
    (content,) = [content for component, content in found["oven/target"] if component == "number"]
    assert content["name"] == "Target" and content["unit_of_measurement"] == "°C"
    assert content["device_class"] == "temperature"
    assert (content["min"], content["max"]) == (20, 250)
    assert content["state_topic"] == "vorbel/7/now/oven/target"
    assert content["command_topic"] == "vorbel/7/set/home/oven/target"
    (select,) = [content for component, content in found["oven/mode"] if component == "select"]
    assert select["options"] == ["off", "bake", "grill"]


def test_identities_differ_and_the_status_says_whether_they_are_there(home):
    contents = [content for those in wait_for_paths(home, *ALL).values() for _, content in those]
    assert len({content["unique_id"] for content in contents}) == len(contents)
    assert len({str(content["device"]) for content in contents}) == 1
    for content in contents:
        topics = [one.get("topic", one.get("t")) for one in content.get("availability", [])]
        assert "vorbel/7/status" in [*topics, content.get("availability_topic")]


def test_what_it_writes_is_obeyed(home):
    home.wait_online()
    assert home.write("home", "oven/mode", "grill")["ok"] is False  # a select sends bare text, see its template
    assert home.write("home", "oven/mode", b'"grill"')["raw"] == 2
