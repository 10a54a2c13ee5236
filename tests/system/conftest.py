import os
import pathlib
import shutil
import sys

import pytest

import documents
from adapters import FtdiAdapter, GadgetAdapter
from guest import Guest
from service import Service
from watch import bring_aboard

PROJECT = pathlib.Path(__file__).parents[2]
# The soak's invariants. Last: it has modules of the same name as some here.
sys.path.append(str(PROJECT / "tests" / "soak"))


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """A failure shows what the guest has to say."""
    report = (yield).get_result()
    machine = getattr(item, "funcargs", {}).get("guest")
    if report.failed and machine:
        try:
            bring_aboard(machine, "port-state")
            state = machine.attempt("python3 /host/port-state 2>&1; journalctl --no-pager -n 60 -o short-monotonic; "
                                    "ip -statistics -details link show type can; lsmod")[1]
        except (AssertionError, OSError) as error:
            state = f"the virtual machine does not answer: {error!r}"
        report.sections.append(("the guest", state))


@pytest.fixture(scope="session")
def packages():
    """The folder of the packages that were just built."""
    return pathlib.Path(os.environ["VORBEL_PACKAGES"])


@pytest.fixture(scope="session")
def guest(tmp_path_factory):
    """The running virtual machine, one for all tests. Its console is shown when it does not come up."""
    # Not pytest's own folder: the path of a Unix socket may have no more than 107 characters.
    folder = tmp_path_factory.mktemp("guest")
    machine = Guest(os.environ["VORBEL_GUEST"], folder)
    try:
        machine.start()
        yield machine
    except (OSError, ConnectionError) as error:
        console = (folder / "console.log").read_text(errors="replace")
        pytest.fail(f"the virtual machine does not answer ({error}); its console:\n{console}")
    finally:
        machine.stop()


@pytest.fixture(scope="session")
def deb(guest, packages):
    """The path of the arm64 package inside the guest."""
    (package,) = packages.glob("vorbel_*_arm64.deb")
    shutil.copy(package, guest.share / "vorbel.deb")
    return "/host/vorbel.deb"


@pytest.fixture(scope="module")
def service(guest, deb):
    """The service, installed by dpkg on a system that fulfils the package's dependencies and not much more."""
    guest.run(f"[ -e /usr/bin/vorbel ] || dpkg -i {deb}", limit=120)
    return Service(guest)


def awaited(adapter, service):
    """The adapter, unplugged, while the service waits for one."""
    service.configure(VORBEL_SOURCE="serialport")
    yield adapter
    adapter.close()


@pytest.fixture
def ftdi(guest, service):
    """Its driver was not loaded yet when the service started."""
    yield from awaited(FtdiAdapter(guest), service)


@pytest.fixture
def gadget(guest, service):
    yield from awaited(GadgetAdapter(guest), service)


@pytest.fixture(params=["ftdi", "gadget"])
def adapter(request):
    return request.getfixturevalue(request.param)


@pytest.fixture(scope="session")
def deployment():
    """The blocks of the deployment page, to be used as they are printed there."""
    return documents.Blocks(PROJECT / "docs" / "deployment.md")
