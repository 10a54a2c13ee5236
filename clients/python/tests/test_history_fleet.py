"""What the fleet's page says of the history, done as it stands there."""

import datetime
import http.client
import re
import shlex
import subprocess
import time

import pytest

import documents
from histories import PROGRAM, PROJECT, Board, Database, History, Mosquitto, milliseconds, wait_until

PAGE = PROJECT / "docs" / "fleet.md"
QUERIES = {row[0]: row[1].strip("`") for row in documents.tables(PAGE, "Queries")}
HOUR = 3600


@pytest.fixture(scope="module")
def blocks():
    return documents.Blocks(PAGE)


def arguments_of_the_page(blocks):
    (line,) = blocks["/etc/default/victoria-metrics"].splitlines()
    return shlex.split(line.removeprefix('ARGS="').removesuffix('"'))


class AsWritten(Database):
    """With the arguments of the page, but for the folder and the port."""

    def __init__(self, folder, arguments):
        super().__init__(folder)
        self._arguments = arguments

    def command(self):
        places = {"-storageDataPath=/var/lib/victoria-metrics": f"-storageDataPath={self.folder}/data",
                  "-httpListenAddr=127.0.0.1:8428": f"-httpListenAddr=127.0.0.1:{self.port}"}
        assert set(places) <= set(self._arguments)
        return ["victoria-metrics", *(places.get(each, each) for each in self._arguments)]

    def write(self, text):
        connection = http.client.HTTPConnection("127.0.0.1", self.port)
        connection.request("POST", "/write?precision=ms", text)
        assert connection.getresponse().status == 204
        connection.close()


@pytest.fixture(scope="module")
def database(tmp_path_factory, blocks):
    database = AsWritten(tmp_path_factory.mktemp("as_written"), arguments_of_the_page(blocks)).start()
    yield database
    database.end()


@pytest.fixture(scope="module")
def end(database):
    """An hour of a board has just ended: a speed that rises by one a second, parts of which the count began anew, a
    flag that is set in its second half, half an hour of batches, and two gaps."""
    end = milliseconds() // 1000 * 1000 - 10_000
    begin = end - HOUR * 1000
    lines = []
    for second in range(HOUR):
        time = begin + second * 1000 + 1000
        lines += [f"vorbel,board=press7,path=motor.speed value={second} {time}",
                  f"vorbel,board=press7,path=parts.made value={second % 1800} {time}",
                  f"vorbel,board=press7,path=motor.on value={int(second >= 1800)} {time}",
                  f"vorbel_history,service=vorbel-history values={second * 7} {time}"]
        if second < 1800:
            lines.append(f"vorbel,board=press7 batch={second} {time}")
    lines += [f"vorbel,board=press7 gap=3 {end - 5000}", f"vorbel,board=press7 gap=4 {end - 900_000}"]
    database.write("\n".join(lines) + "\n")
    database.get("/internal/force_flush")
    return end


# Whatever is counted from one second to the next may be one second more or less.
ANSWERS = {
    "the latest value, even if it came an hour ago": (3599, 0),
    "when that came, in seconds since 1970": (None, 0),
    "the mean of each hour (with a step of 1h)": (1799.5, 0.5),
    "the greatest value of each board": (3599, 0),
    "by how much a counter grew, though it may have begun at 0 again": (3598, 1),
    "for how many seconds a value was above a limit": (599, 2),
    "which part of the time a flag was set": (0.5, 0.001),
    "which part of the time a board was there": (0.5, 0.005),
    "since how many seconds a board has been silent": (1800, 1),
    "how many batches of each board are missing": (7, 0),
    "how many values are written in a second": (7, 0.01),
}


def test_every_query_has_an_answer_here():
    assert set(QUERIES) == set(ANSWERS)


@pytest.mark.parametrize("what", ANSWERS)
def test_the_queries_of_the_page(database, end, what):
    expected, tolerance = ANSWERS[what]
    (answer,) = database.query(QUERIES[what], time=f"{end / 1000 + 0.1:.3f}").values()
    assert answer == pytest.approx(end / 1000 if expected is None else expected, abs=tolerance)


def test_the_panels_query_and_its_variable(database, end):
    query = documents.commands(PAGE, "vorbel_value").strip()
    parameters = {"query": query, "start": str(end / 1000 - 60), "end": str(end / 1000), "step": "15s"}
    assert b'"3599"' in database.get("/api/v1/query_range", **parameters)
    variable = re.search(r"`label_values\((\w+), (\w+)\)`", PAGE.read_text())
    found = database.get(f"/api/v1/label/{variable[2]}/values", **{"match[]": variable[1]})
    assert b'["press7"]' in found


def test_what_is_written_twice_is_one_value_by_the_databases_settings(tmp_path, blocks):
    arguments = arguments_of_the_page(blocks)
    (merging,) = (each for each in arguments if each.startswith("-dedup"))
    for number, (given, count) in enumerate(((arguments, 1), ([each for each in arguments if each != merging], 2))):
        database = AsWritten(tmp_path / str(number), given).start()
        try:
            time = milliseconds() - 1000
            for _ in range(2):
                database.write(f"vorbel,board=a,path=b value=5 {time}\n")
            assert database.series() == {("a", "b"): [(time, 5)] * count}
        finally:
            database.end()


def test_the_configuration_of_the_broker_and_the_settings(tmp_path, blocks):
    broker = Mosquitto(tmp_path)
    lines = blocks["/etc/mosquitto/conf.d/history.conf"]
    file = broker.folder / "conf"
    own = [line for line in file.read_text().splitlines() if line.split()[0] not in lines]
    file.write_text("\n".join(own) + "\n" + lines)
    broker.start()
    try:
        assert "Error" not in broker.log()
    finally:
        broker.end()
    for name in ("ca", "password"):
        (tmp_path / name).write_text("word\n")
    (tmp_path / "ini").write_text(blocks["/etc/vorbel/history.ini"])
    checked = subprocess.run([PROGRAM, "--check", tmp_path / "ini"], capture_output=True, text=True,
                             env={"CREDENTIALS_DIRECTORY": str(tmp_path)})
    assert (checked.returncode, checked.stderr) == (0, "")
    drop_in = blocks["/etc/systemd/system/vorbel-history.service.d/credentials.conf"]
    assert set(re.findall(r"LoadCredential=(\w+):", drop_in)) == {"ca", "password"}


# Reading it back


@pytest.fixture
def shell(tool, database):
    """Runs the tool with the database's address."""
    return lambda *words, **more: tool("history", *words, "--database", database.url, TZ="UTC", **more)


def test_the_commands_of_the_page_are_the_tools(tool, tmp_path):
    for line in documents.commands(PAGE, "systemctl daemon-reload").splitlines():
        if line.startswith("vorbel-cli"):
            words = shlex.split(line.split(" > ")[0])[1:]
            status, _, errors = tool(*words, "--database", "http://127.0.0.1:1")
            assert (status, errors) == (
                1, "vorbel-cli: The database http://127.0.0.1:1 does not answer: Connection refused\n"), words


LOCAL = "%Y-%m-%d %H:%M:%S.000+00:00"


def moment(when, form="%Y-%m-%dT%H:%M:%SZ"):
    return datetime.datetime.fromtimestamp(when / 1000, datetime.timezone.utc).strftime(form)


def test_values_as_lines(shell, end):
    status, output, errors = shell("press7", "motor.speed", "--from", moment(end - 2000), "--to", moment(end))
    assert (status, errors) == (0, "")
    assert output.splitlines() == [f"{moment(end - 2000 + place * 1000, LOCAL)}  {3597 + place}" for place in range(3)]


def test_values_as_csv(shell, end):
    status, output, _ = shell("press7", "motor.on", "--csv", "--from", moment(end - 1000), "--to", "now")
    assert status == 0
    assert output.splitlines() == ["time,path,value",
                                   *(f"{moment(end - 1000 + place * 1000, '%Y-%m-%dT%H:%M:%S.000Z')},motor.on,1"
                                     for place in range(2))]


def test_a_time_before_now(shell, end):
    _, output, _ = shell("press7", "motor.speed", "--from", "-2h")
    assert len(output.splitlines()) == HOUR
    _, output, _ = shell("press7", "motor.speed", "--from", "-0.5h")
    assert 1600 < len(output.splitlines()) <= 1800


def test_values_as_a_picture(shell, end, tmp_path):
    status, output, errors = shell("press7", "motor.speed", "--from", "-2h", "--plot", tmp_path / "a.png")
    assert (status, output, errors) == (0, f"{tmp_path}/a.png: 3600 points\n", "")
    assert (tmp_path / "a.png").read_bytes().startswith(b"\x89PNG")


def test_what_is_not_there_is_told(shell, end):
    when = f"from {moment(end - 5000, LOCAL)} to {moment(end, LOCAL)}"
    words = ("--from", moment(end - 5000), "--to", moment(end))
    for board, path, text in (
            ("press7", "motor.sped",
             f'there are no values of motor.sped on press7 {when} (did you mean "motor.speed"?)'),
            ("press7", "x\n", f"there are no values of x\\n on press7 {when}"),
            ("press8", "motor.speed", f"there are no values of press8 {when}; there are: press7"),
            ('a"b\\', "x", f'there are no values of a"b\\ {when}; there are: press7')):
        assert shell(board, path, *words) == (1, "", f"vorbel-cli: {text}\n")


@pytest.mark.parametrize("words, error", [
    (["--from", "yesterday"], "argument --from: 'yesterday' is no time: 2026-11-23, 2026-11-23T05:00:00Z, -2h and now "
                              "are"),
    (["--csv", "--plot", "a.png"], "argument --plot: not allowed with argument --csv")])
def test_a_command_line_that_is_wrong(shell, words, error):
    status, _, errors = shell("press7", "motor.speed", *words)
    assert status == 2 and errors.endswith(f"error: {error}\n")


def test_an_address_that_is_no_databases(tool, tmp_path):
    broker = Mosquitto(tmp_path).start()
    try:
        status, _, errors = tool("history", "a", "b", "--database", f"http://127.0.0.1:{broker.port}")
        assert status == 1 and errors.startswith(f"vorbel-cli: The database http://127.0.0.1:{broker.port} ")
        assert len(errors.splitlines()) == 1
        status, _, errors = tool("history", "a", "b", "--database", "nonsense")
        assert (status, len(errors.splitlines())) == (1, 1)
    finally:
        broker.end()


def test_what_the_service_wrote_is_read_back(tool, tmp_path):
    broker, database = Mosquitto(tmp_path).start(), Database(tmp_path).start()
    board = Board(broker.port)
    board.settle()
    history = History(tmp_path, broker, database).start()
    try:
        begin = milliseconds() - 10_000
        board.say_speeds(50, begin)
        wait_until(lambda: len(database.series().get(("press7", "motor.speed"), ())) == 50, "the values")
        _, output, _ = tool("history", "press7", "motor.speed", "--csv", "--from", "-1m", "--database", database.url)
        assert [line.split(",")[1:] for line in output.splitlines()[1:]] == [
            ["motor.speed", str(number)] for number in range(50)]
    finally:
        board.close()
        for each in (history, database, broker):
            each.end()


def test_the_session_ends_by_the_command_of_the_page(tmp_path):
    broker, database = Mosquitto(tmp_path).start(), Database(tmp_path).start()
    history = History(tmp_path, broker, database).start()
    try:
        time.sleep(2)  # the subscription is remembered
        assert history.stop() == 0
        words = shlex.split(documents.commands(PAGE, "mosquitto_sub"))
        subprocess.run([*words, "-p", str(broker.port)], check=True, timeout=30)
        history.start()
        wait_until(lambda: "it has forgotten the session" in history.log(), "that line in the log")
    finally:
        for each in (history, database, broker):
            each.end()
