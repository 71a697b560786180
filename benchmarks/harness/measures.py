"""What is measured. Whatever can be asked in turns is: one sample of each contender per round, in an order drawn anew."""

from __future__ import annotations

import os
import random
import sys
import time
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterable, Sequence

from .figures import Figure, sum_up
from .processes import Child, Contender, ContenderFailed, NotInstalled, Servers, Setting, await_ready

# Between two samples, so that what follows the one is over before the other: who moved up has set up its watches.
PAUSE_SECONDS = 0.002
# A round takes this long at least, so that everybody has slept for as long however many take part: who is asked again at once
# is several times faster.
ROUND_SECONDS = 0.04


class Progress:
    """A line for each measure, and how far it is where somebody looks."""

    def __init__(self) -> None:
        self._terminal = sys.stderr.isatty()
        self._began = time.monotonic()
        self._shown = 0.0

    def begin(self, what: str) -> None:
        print(f"[{time.monotonic() - self._began:4.0f} s] {what}", file=sys.stderr, flush=True)

    def note(self, text: str) -> None:
        print(f"         {text}", file=sys.stderr, flush=True)

    def at(self, done: int, total: int) -> None:
        if not self._terminal or (time.monotonic() - self._shown < 0.2 and done < total):
            return
        self._shown = time.monotonic()
        print(f"\r         {done}/{total}", end="\n" if done == total else "", file=sys.stderr, flush=True)


@dataclass(frozen=True)
class Effort:
    """How much is measured."""

    warm_up: int
    rounds: int
    # Of what takes long.
    few_rounds: int
    # Candidates in the queue, of handovers and of counted requests.
    sizes: tuple[int, ...]
    # With fewer rounds.
    large_sizes: tuple[int, ...]
    request_sizes: tuple[int, ...]
    # Besides one server without fsync, with three candidates.
    settings: tuple[Setting, ...]
    # Places in the queue.
    joins: tuple[int, ...]
    # Candidates in one process.
    crowds: tuple[int, ...]
    idle_seconds: float
    events: int
    event_rounds: int
    failovers: int
    # At least, for each single operation.
    micro_seconds: float


FULL = Effort(
    warm_up=400,
    rounds=500,
    few_rounds=100,
    sizes=(3, 50),
    large_sizes=(500,),
    request_sizes=(3, 50, 200),
    settings=(Setting(fsync=True), Setting(servers=3), Setting(servers=3, fsync=True)),
    joins=(1, 10, 100, 1000),
    crowds=(1, 100, 1000),
    idle_seconds=5.0,
    events=10_000,
    event_rounds=5,
    failovers=3,
    micro_seconds=0.2,
)
QUICK = Effort(
    warm_up=400,
    rounds=200,
    few_rounds=60,
    sizes=(3, 50),
    large_sizes=(),
    request_sizes=(3, 50),
    settings=(Setting(servers=3),),
    joins=(1, 10, 100),
    crowds=(1, 100),
    idle_seconds=3.0,
    events=3_000,
    event_rounds=3,
    failovers=1,
    micro_seconds=0.02,
)
# Not to measure, but to see that all of it works.
TRIAL = Effort(
    warm_up=1,
    rounds=3,
    few_rounds=2,
    sizes=(3,),
    large_sizes=(),
    request_sizes=(3,),
    settings=(),
    joins=(2,),
    crowds=(2,),
    idle_seconds=0.1,
    events=100,
    event_rounds=1,
    failovers=1,
    micro_seconds=0.001,
)


class Bench:
    """Runs measures, and keeps what came out. Who is not installed is left out, with a line that says so."""

    def __init__(self, servers_program: Path, contenders: Sequence[Contender], effort: Effort, seed: int) -> None:
        self._servers_program = servers_program
        self._contenders = list(contenders)
        self._effort = effort
        self._random = random.Random(seed)
        self._elections = 0
        self.progress = Progress()
        self.figures: list[Figure] = []
        self.left_out: dict[str, str] = {}
        self.failures: list[str] = []

    # Who takes part

    def _leave_out(self, contender: Contender, why: str) -> None:
        self._contenders.remove(contender)
        self.left_out[contender.name] = why
        self.progress.note(f"{contender.name} is left out: {why}")

    def _fail(self, contender: Contender, what: str, error: Exception) -> None:
        self.failures.append(f"{what}: {contender.name}: {error}")
        self.progress.note(f"{contender.name} has failed: {error}")

    def _start_all(
        self,
        stack: ExitStack,
        servers: Servers,
        setting: Setting,
        contenders: Iterable[Contender],
        *arguments: str,
    ) -> dict[Contender, Child]:
        self._elections += 1
        ready = {}
        for contender in list(contenders):
            election = f"/bench/{self._elections}-{contender.name}"
            child = contender.start(servers.addresses, setting, election, *arguments)
            try:
                await_ready(child)
            except NotInstalled as missing:
                self._leave_out(contender, str(missing))
            except ContenderFailed as error:
                child.kill()
                self._fail(contender, "start", error)
            else:
                stack.callback(self._end, contender, child)
                ready[contender] = child
        return ready

    def _end(self, contender: Contender, child: Child) -> None:
        try:
            child.end()
        except ContenderFailed as error:
            self._fail(contender, "end", error)

    def _in_turns(
        self, children: dict[Contender, Child], ask: Callable[[Child], float], warm_up: int, rounds: int
    ) -> dict[Contender, list[float]]:
        samples: dict[Contender, list[float]] = {contender: [] for contender in children}
        for turn in range(-warm_up, rounds):
            next_round = time.monotonic() + ROUND_SECONDS
            order = [contender for contender in children if turn % contender.every == 0]
            self._random.shuffle(order)
            for contender in order:
                try:
                    sample = ask(children[contender])
                except (ContenderFailed, NotInstalled) as error:
                    self._fail(contender, "turn", error)
                    del children[contender], samples[contender]
                    continue
                if turn >= 0:
                    samples[contender].append(sample)
                time.sleep(PAUSE_SECONDS)
            time.sleep(max(0.0, next_round - time.monotonic()))
            self.progress.at(turn + 1 + warm_up, warm_up + rounds)
        return samples

    def _keep(self, measure: str, case: dict[str, object], contender: Contender, unit: str, samples: list[float]) -> None:
        if samples:
            self.figures.append(sum_up(measure, case, contender.name, unit, samples))

    @property
    def _own(self) -> list[Contender]:
        return [contender for contender in self._contenders if not contender.peer]

    def _able(self, candidates: int) -> list[Contender]:
        return [contender for contender in self._contenders if contender.most_candidates >= candidates]

    # Measures

    def handovers(self, setting: Setting, candidates: int, rounds: int) -> None:
        """From just before the leader's call that leaves to the next one's callback, in microseconds."""
        self.progress.begin(f"handover, {candidates} candidates, {setting}")
        with Servers(self._servers_program, setting) as servers, ExitStack() as stack:
            able = [
                contender
                for contender in self._able(candidates)
                if setting.servers == 1 or "own-servers" not in contender.extra
            ]
            children = self._start_all(stack, servers, setting, able, f"--candidates={candidates}", "--session-timeout=30000")
            samples = self._in_turns(children, lambda child: child.ask("handover") / 1e3, self._effort.warm_up, rounds)
        case = {"servers": setting.servers, "fsync": setting.fsync, "candidates": candidates}
        for contender, values in samples.items():
            self._keep("handover", case, contender, "us", values)

    def failovers(self, rounds: int, session_timeout: float = 4.0) -> None:
        """From SIGKILL for the leader's process to the next one's callback, in session timeouts."""
        self.progress.begin(f"failover after SIGKILL, session timeout {session_timeout:.0f} s")
        setting = Setting(tick_milliseconds=500)
        samples: dict[Contender, list[float]] = {}
        with Servers(self._servers_program, setting) as servers:
            for turn in range(rounds):
                for contender, seconds in self._failover(servers, setting, session_timeout).items():
                    samples.setdefault(contender, []).append(seconds / session_timeout)
                self.progress.at(turn + 1, rounds)
        for contender, values in samples.items():
            self._keep("failover", {"session_timeout_s": session_timeout}, contender, "timeouts", values)

    def _failover(self, servers: Servers, setting: Setting, session_timeout: float) -> dict[Contender, float]:
        """One of each, all at once, since most of it is waiting."""
        timeout = f"--session-timeout={session_timeout * 1000:.0f}"
        able = [contender for contender in self._contenders if contender.fails_over]
        took = {}
        with ExitStack() as stack:
            leading = self._start_all(stack, servers, setting, able, "--candidates=1", timeout)
            # The same elections once more.
            self._elections -= 1
            waiting = self._start_all(stack, servers, setting, leading, "--candidates=1", timeout, "--standby")
            # A standby that was started may not be in the queue yet; not all can tell.
            time.sleep(1.0)
            killed = {}
            for contender in waiting:
                killed[contender] = time.monotonic_ns()
                leading[contender].kill()
            for contender, child in waiting.items():
                try:
                    line = child.read_line()
                    if not line.startswith("leading "):
                        raise ContenderFailed(f"said {line} instead of leading")
                except (ContenderFailed, NotInstalled) as error:
                    self._fail(contender, "failover", error)
                    continue
                took[contender] = (int(line.split()[1]) - killed[contender]) / 1e9
        return took

    def joins(self, position: int, rounds: int) -> None:
        """From just before the call to the place in the queue, watches included, in microseconds."""
        self.progress.begin(f"joining as number {position}")
        setting = Setting()
        with Servers(self._servers_program, setting) as servers, ExitStack() as stack:
            children = self._start_all(
                stack, servers, setting, self._own, "--candidates=1", "--outside", f"--fillers={position - 1}"
            )
            warm_up = min(self._effort.warm_up, rounds)
            samples = self._in_turns(children, lambda child: child.ask("join") / 1e3, warm_up, rounds)
            floor = {contender: child for contender, child in children.items() if contender.name == "floor"}
            looks = self._in_turns(floor, lambda child: child.ask("look") / 1e3, 0, rounds if position > 1 else 0)
        for contender, values in samples.items():
            self._keep("join", {"position": position}, contender, "us", values)
        for contender, values in looks.items():
            self._keep("looks at all in the queue", {"position": position}, contender, "us", values)

    def requests(self, candidates: int) -> None:
        """What the servers get from all clients together, per handover and per turn: a handover and joining again."""
        self.progress.begin(f"requests, {candidates} candidates")
        setting = Setting()
        able = [contender for contender in self._able(candidates) if "own-servers" not in contender.extra]
        with Servers(self._servers_program, setting) as servers:
            for contender in able:
                with ExitStack() as stack:
                    children = self._start_all(stack, servers, setting, [contender], f"--candidates={candidates}",
                                               "--session-timeout=60000")
                    for child in children.values():
                        try:
                            self._count_requests(servers, contender, child, candidates)
                        except (ContenderFailed, NotInstalled) as error:
                            self._fail(contender, "requests", error)

    def _count_requests(self, servers: Servers, contender: Contender, child: Child, candidates: int) -> None:
        case = {"candidates": candidates}
        handovers, turns = [], []
        for _ in range(5):
            if contender.peer:
                turns.append(self._requests_of(servers, lambda: child.ask("handover")))
                continue
            left = self._requests_of(servers, lambda: child.ask("leave"))
            joined = self._requests_of(servers, lambda: (child.tell("rejoin"), child.read_line()))
            handovers.append(left)
            turns.append(left + joined)
        self._keep("requests per handover", case, contender, "requests", handovers)
        self._keep("requests per turn", case, contender, "requests", turns)

    @staticmethod
    def _requests_of(servers: Servers, act: Callable[[], object]) -> float:
        def settled() -> int:
            time.sleep(0.1)
            return servers.packets()

        # Asking is counted, too, and so is what comes in of itself meanwhile.
        before_asking = settled()
        before = settled()
        act()
        return settled() - before - (before - before_asking)

    def crowds(self, candidates: int) -> None:
        """Memory, threads and idle processor time of many candidates in one process."""
        self.progress.begin(f"memory, threads and idle time, {candidates} in one process")
        setting = Setting()
        with Servers(self._servers_program, setting) as servers:
            for contender in self._own:
                empty = self._footprint(servers, setting, contender, 0, "--outside")
                if contender.name == "recipe":
                    # A session of both of ours is the same.
                    self._note_crowd("session", candidates, empty,
                                     self._footprint(servers, setting, contender, candidates, "--outside"))
                self._note_crowd("candidate", candidates, empty,
                                 self._footprint(servers, setting, contender, candidates), contender)

    def _note_crowd(self, what: str, candidates: int, empty: Footprint, full: Footprint,
                    contender: Contender | None = None) -> None:
        case = {"in_one_process": candidates}
        name = contender.name if contender else "session"
        figures = {
            ("memory", "KiB"): (full.kibibytes - empty.kibibytes) / candidates,
            ("threads", "threads"): (full.threads - empty.threads) / candidates,
            ("idle time", "% of a core, all together"): full.idle_percent,
        }
        for (measure, unit), value in figures.items():
            self.figures.append(sum_up(f"{measure} per {what}" if measure != "idle time" else measure, case, name, unit, [value]))

    def _footprint(self, servers: Servers, setting: Setting, contender: Contender, candidates: int,
                   *arguments: str) -> Footprint:
        with ExitStack() as stack:
            children = self._start_all(stack, servers, setting, [contender], f"--candidates={candidates}",
                                       "--session-timeout=30000", *arguments)
            if contender not in children:
                raise ContenderFailed(f"{contender.name} cannot be looked at")
            child = children[contender]
            # What joining has set going comes to an end.
            time.sleep(1.0)
            before = processor_seconds(child.pid)
            time.sleep(self._effort.idle_seconds if candidates else 0.0)
            spent = processor_seconds(child.pid) - before
            status = process_status(child.pid)
            return Footprint(
                int(status["VmRSS"].split()[0]),
                int(status["Threads"]),
                100 * spent / self._effort.idle_seconds,
            )

    def event_rates(self, rounds: int) -> None:
        """Events that one session delivers per second, when that many nodes it watches are deleted at once."""
        self.progress.begin(f"events per second, of {self._effort.events}")
        setting = Setting()
        with Servers(self._servers_program, setting) as servers, ExitStack() as stack:
            able = [contender for contender in self._own if contender.name != "candidate"]
            children = self._start_all(stack, servers, setting, able, "--candidates=0", "--outside")
            question = f"events {self._effort.events}"
            samples = self._in_turns(children, lambda child: child.ask(question), 1, rounds)
        for contender, values in samples.items():
            self._keep("events per second", {"events": self._effort.events}, contender, "1/s", values)


@dataclass(frozen=True)
class Footprint:
    kibibytes: int
    threads: int
    idle_percent: float


def process_status(pid: int) -> dict[str, str]:
    lines = Path(f"/proc/{pid}/status").read_text().splitlines()
    return {name: value.strip() for name, _, value in (line.partition(":") for line in lines)}


def processor_seconds(pid: int) -> float:
    # What stands behind the name, which may hold anything but a closing bracket at the end.
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
