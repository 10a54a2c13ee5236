"""The chain that is put to the test: a bus, the programs, the network between two of them, honest clients."""

import json

import harness
import honest
import lines
import load
import network
import programs
from board import BoardEar
from gatewayharness import free_port
from vorbelsim import VirtualClock

LINKS = {"serialport": lines.AdapterLine, "socketcan": lines.CanLine}
CHAIN = ("daemon", "broker", "gateway", "history", "database")


class Chain:
    """`said` is called with what honest clients say."""

    def __init__(self, folder, link, rate, clients, said):
        self._said = said
        self.bus = load.Bus(LINKS[link](folder / "bus"), rate)
        (folder / "schema.json").write_text(json.dumps(load.SCHEMA))
        self._broker_port, self.database_port = free_port(), free_port()
        self.network = network.Network()
        self._broker = self.network.server("office")
        self.clocks = {where: VirtualClock(folder / f"{where}-clock") for where in ("board", "server")}
        clocks = {where: clock.env() for where, clock in self.clocks.items()}
        self.programs = {
            "daemon": programs.daemon(folder, self.bus.line.env(), clocks["board"]),
            "broker": programs.broker(folder, self._broker_port, self.network.inside),
            "database": programs.database(folder, self.database_port),
            "history": programs.history(folder, f"{self._broker}:{self._broker_port}", self.database_port,
                                        clocks["server"]),
            "gateway": programs.gateway(folder, f"{self.network.server('board')}:{self._broker_port}",
                                        folder / "schema.json", clocks["board"]),
        }
        for name, command in honest.commands(harness.BUILD, harness.URI, clients).items():
            self.programs[name] = programs.Program(name, folder, command, programs.python_path(), output=self._listen)
        self.board = None

    def _listen(self, stream):
        honest.Ear(stream, self._said)

    def begin(self):
        self.bus.plug()
        for name, place in (("daemon", ("127.0.0.1", harness.PORT)), ("broker", (self._broker, self._broker_port)),
                            ("database", ("127.0.0.1", self.database_port))):
            self.programs[name].start()
            programs.wait_answering(place)
        self.board = BoardEar(self._broker, self._broker_port)
        self.programs["history"].start()
        programs.wait_subscribed(self.programs["broker"], "vorbel-history")
        for name in ("gateway", *honest.LIBRARIES):
            self.programs[name].start()
        self.bus.start()

    def end(self):
        """Ends everything that was started, and reports nothing."""
        for program in self.programs.values():
            program.end()
        self.bus.stop()
        self.network.close()
        if self.board:
            self.board.close()
