"""A year in an hour: the whole chain under load while everything is done to it. See docs/reliability.md."""

import argparse
import collections
import json
import pathlib
import random
import shutil
import signal
import sys
import tempfile
import time

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / each) for each in ("tests/support", "sim", "gateway/tests")]

import chain  # noqa: E402
import faults  # noqa: E402
import load  # noqa: E402
import report  # noqa: E402
import watch  # noqa: E402

TICK = 0.1  # seconds
CALM_BEFORE, CALM_AFTER = 8.0, 8.0
SETTLING = 1.0  # within which clients tell what they did
TELLING = 60.0  # seconds between two lines about how it goes
QUIET = 2.0  # less than clients wait for values


class Soak:
    """One run. Faults are given it, for its `bus`, `programs` and `network`."""

    def __init__(self, folder, options):
        self.options = options
        self.injected = collections.Counter()
        self.at_once = 0
        self.watch = watch.Watch(options.clients)
        self.chain = chain.Chain(folder, options.link, options.rate, options.clients, self.watch.said.put)
        self.bus, self.programs, self.network = self.chain.bus, self.chain.programs, self.chain.network
        self._running = []  # (end, generator, fault)
        self._taken = self.bus.taken  # at the last look

    def run(self):
        seconds = 60 * self.options.minutes
        self.chain.begin()
        self.watch.begin(self.chain)
        self._go_on(CALM_BEFORE)
        self._count_wakes()
        self.watch.look_before()
        self._inject_all(seconds)
        last = self.bus.mark()
        self.watch.event("no more faults")
        self._go_on(CALM_AFTER)
        deadline = time.monotonic() + watch.BY_BROKER - CALM_AFTER
        while not self.watch.has_heard_by_broker(last) and time.monotonic() < deadline:
            self._step()
        self._count_wakes()
        listened_until = time.monotonic()
        time.sleep(SETTLING)
        self.watch.tell_the_rest()
        self.watch.judge(last, listened_until)

    def end(self):
        self.chain.end()

    # What faults ask for

    def kill(self, name):
        if name == "daemon":
            self._daemon_ends(self.bus.taken)
        self.programs[name].kill()
        if name == "broker":
            self.watch.broker_ends()

    def restore_schema(self):
        faults.tell(faults.TEXT, json.dumps(load.SCHEMA).encode())

    # Its course

    def _go_on(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self._step()

    def _count_wakes(self):
        """On a quiet bus, where timers that are left behind show."""
        self.watch.disturbed("link", breaks=False)
        self.bus.is_quiet = True
        self._go_on(QUIET / 2)
        begun = self.watch.count_wakes()
        self._go_on(QUIET)
        self.watch.take_wakes(begun)
        self.bus.is_quiet = False
        self.watch.healed("link")

    def _inject_all(self, seconds):
        started = time.monotonic()
        possible = faults.EVERYWHERE + faults.ON_LINE[self.options.link]
        planned = collections.deque(faults.plan(self.options.seed, seconds, possible))
        told = started
        while planned or self._running:
            now = time.monotonic()
            while planned and planned[0].start <= now - started:
                self._inject(planned.popleft())
            if now - told >= TELLING:
                told = now
                self._tell(now - started)
            self._step()

    def _tell(self, seconds):
        print(f"{seconds / 60:.0f} of {self.options.minutes:g} minutes, {sum(self.injected.values())} faults, "
              f"{report.compared(self.watch):,} values compared, {len(self.watch.breaches)} breaches until now",
              file=sys.stderr, flush=True)

    def _inject(self, planned):
        fault = planned.fault
        if any(self._is_busy(part) for part in fault.parts):
            return  # a machine that was busy has not ended the one before yet
        self.watch.event(f"begins: {fault.kind}, for {planned.seconds:.1f} s")
        self.injected[fault.kind] += 1
        for part in fault.parts:
            self.watch.disturbed(part, fault.breaks)
        running = fault.run(self, random.Random(planned.seed))
        next(running)
        self._running.append((time.monotonic() + planned.seconds, running, fault))
        self.at_once = max(self.at_once, len(self._running))

    def _is_busy(self, part):
        return any(part in fault.parts for _, _, fault in self._running)

    def _step(self):
        time.sleep(TICK)
        self._supervise()
        self._taken = self.bus.taken
        self._end_faults()
        self.watch.step()

    def _end_faults(self):
        for entry in [entry for entry in self._running if entry[0] <= time.monotonic()]:
            _, running, fault = entry
            if not all(self.programs[part].alive for part in fault.parts if part in self.programs):
                continue  # what was killed is not there again yet
            self._running.remove(entry)
            next(running, None)
            self.watch.event(f"ends: {fault.kind}")
            for part in fault.parts:
                self.watch.healed(part)

    def _supervise(self):
        for name, program in self.programs.items():
            code = program.fell()
            if code is not None:
                self._end_by_itself(name, code)
            if program.supervise():
                self.watch.event(f"started again: {name}")
                if name == "daemon":
                    self.bus.reopens()

    def _end_by_itself(self, name, code):
        if self.programs[name].may_end:
            self.watch.event(f"{name} ended, with {code}")
        else:
            self.watch.breach("ended", f"{name} ended by itself, with {code}")
        if name == "daemon":
            self._daemon_ends(self._taken)

    def _daemon_ends(self, taken):
        self.bus.went_down(taken)
        self.watch.daemon_ends(taken)


def parse(words):
    parser = argparse.ArgumentParser(prog="scripts/soak", add_help=False)
    parser.add_argument("minutes", type=float, nargs="?", default=3)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().getrandbits(32))
    parser.add_argument("--link", choices=chain.LINKS, default="serialport")
    parser.add_argument("--rate", type=int, default=load.LINE_RATE)
    parser.add_argument("--clients", type=int, default=5)
    parser.add_argument("--keep", type=pathlib.Path)
    return parser.parse_args(words)


def main():
    options = parse(sys.argv[1:])
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    folder = pathlib.Path(tempfile.mkdtemp(prefix="vorbel-soak-", dir=options.keep))
    print(f"The seed of this run: {options.seed}", flush=True)
    soak = Soak(folder, options)
    try:
        soak.run()
    except BaseException:
        print(report.last_minute(soak), flush=True)
        raise
    finally:
        soak.end()
        if not options.keep:
            shutil.rmtree(folder, ignore_errors=True)
    print(report.text(soak), flush=True)
    return 1 if soak.watch.breaches else 0


if __name__ == "__main__":
    sys.exit(main())
