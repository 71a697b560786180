#!/usr/bin/python3
"""Times handovers between candidates that use kazoo (ZooKeeper, Python).

Every candidate has a thread and a KazooClient of its own. A handover lasts from just before the leader's thread leaves
(--recipe=election: it returns from the function that Election.run called; --recipe=lock: it calls Lock.release) to the
beginning of that function in the next leader's thread, or the moment at which its Lock.acquire has returned.

The interpreter runs one thread at a time, and news goes from the thread that reads it to the one that runs callbacks
and on to the candidate's own: what is measured is kazoo with CPython, as its users have them. All candidates share one
interpreter, as they share one process in the other drivers.
"""

import os
import queue
import signal
import sys
import threading
import time
from argparse import Namespace
from collections import deque
from dataclasses import dataclass

sys.dont_write_bytecode = True  # Nothing is left in the tree.
from peer_driver import PATIENCE_SECONDS, Ended, Missing, Trouble, answer, checked, parser, run, serve  # noqa: E402

DEBIANS_PYTHON = "/usr/bin/python3"
CONNECT_SECONDS = 15.0
END_SECONDS = 10.0

try:
    from kazoo.client import KazooClient, KazooState
    from kazoo.exceptions import CancelledError, KazooException
except ImportError:
    # Another interpreter, such as one in a home directory, does not see Debian's packages.
    if sys.executable != DEBIANS_PYTHON and os.access(DEBIANS_PYTHON, os.X_OK):
        os.execv(DEBIANS_PYTHON, [DEBIANS_PYTHON, *sys.argv])
    KazooClient = object


@dataclass(frozen=True)
class Line:
    text: str


@dataclass(frozen=True)
class Leading:
    candidate: "Candidate"
    since: int


@dataclass(frozen=True)
class Queued:
    """The candidate's node is in the queue, and the one before it is watched."""
    candidate: "Candidate"


@dataclass(frozen=True)
class Failed:
    reason: str


@dataclass(frozen=True)
class Signalled:
    pass


Event = Line | Leading | Queued | Failed | Signalled


class WatchingClient(KazooClient):
    """Tells when the recipe has put its watch, which is the last thing that it does before it waits."""

    def __init__(self, candidate: "Candidate", **options: object) -> None:
        super().__init__(**options)
        self._candidate = candidate

    def get(self, path: str, watch=None):
        result = super().get(path, watch)
        if watch is not None:
            self._candidate.events.put(Queued(self._candidate))
        return result


class Candidate(threading.Thread):
    """Stands for election whenever it is told to, with a session that it keeps."""

    def __init__(self, index: int, options: Namespace, events: "queue.SimpleQueue[Event]") -> None:
        super().__init__(name=f"candidate {index}", daemon=True)
        self.events = events
        self.left = 0  # By the monotonic clock; belongs to the candidate's thread until the next one leads.
        self._client = WatchingClient(self, hosts=options.servers, timeout=options.session_timeout / 1000)
        self._client.add_listener(self._on_state)
        self._is_election = options.recipe == "election"
        self._recipe = (self._client.Election if self._is_election else self._client.Lock)(options.election, self.name)
        self._told_to_stand = threading.Event()
        self._told_to_leave = threading.Event()
        self._leads = False
        self._ends = False

    def stand(self) -> None:
        self._told_to_stand.set()

    def leave(self) -> None:
        self._told_to_leave.set()

    def end(self) -> None:
        self._ends = True
        self._recipe.cancel()
        self.stand()
        self.leave()

    def run(self) -> None:
        try:
            if self._connect():
                self._stand_again_and_again()
        except (KazooException, OSError) as error:
            self._fail(f"{type(error).__name__} {error}")
        finally:
            self._client.remove_listener(self._on_state)
            self._client.stop()
            self._client.close()

    def _connect(self) -> bool:
        connected = self._client.start_async()
        deadline = time.monotonic() + CONNECT_SECONDS
        while not connected.wait(0.1):
            if time.monotonic() > deadline:
                self._fail(f"no server answers within {CONNECT_SECONDS:.0f} s")
                return False
            if self._ends:
                return False
        return True

    def _stand_again_and_again(self) -> None:
        while True:
            self._told_to_stand.wait()
            self._told_to_stand.clear()
            if self._ends:
                return
            if self._is_election:
                self._recipe.run(self._lead)
            else:
                self._hold_lock()

    def _hold_lock(self) -> None:
        try:
            self._recipe.acquire()
        except CancelledError:
            return
        self._lead()
        self._recipe.release()

    def _lead(self) -> None:
        since = time.monotonic_ns()
        self._leads = True
        self.events.put(Leading(self, since))
        self._told_to_leave.wait()
        self._told_to_leave.clear()
        self._leads = False
        self.left = time.monotonic_ns()

    def _on_state(self, state: str) -> None:
        if state == KazooState.LOST and self._leads and not self._ends:
            self._fail("lost its session while it led")

    def _fail(self, reason: str) -> None:
        self.events.put(Failed(f"{self.name}: {reason}"))


class Driver:
    def __init__(self, options: Namespace) -> None:
        self._standby = options.standby
        self._events: "queue.SimpleQueue[Event]" = queue.SimpleQueue()
        self._lines: "deque[str]" = deque()
        self._candidates = [Candidate(index, options, self._events) for index in range(options.candidates)]
        self._leader: Candidate | None = None
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, lambda *_: self._events.put(Signalled()))

    def run(self) -> None:
        threading.Thread(target=self._read, name="stdin", daemon=True).start()
        try:
            self._start()
            answer("ready")
            serve(self._next_line, self._hand_over)
        finally:
            self._end()

    def _start(self) -> None:
        for candidate in self._candidates:
            candidate.start()
            candidate.stand()
            if self._standby:
                return
            if candidate is self._candidates[0]:
                self._leader = self._await_leading().candidate
            else:
                self._await_queued(candidate)

    def _hand_over(self) -> int:
        if len(self._candidates) < 2:
            raise Trouble("a handover takes two candidates")
        before = self._leader
        before.leave()
        now = self._await_leading()
        before.stand()
        self._await_queued(before)
        self._leader = now.candidate
        return now.since - before.left

    def _await_leading(self) -> Leading:
        return self._await(lambda event: isinstance(event, Leading), "no candidate leads")

    def _await_queued(self, candidate: Candidate) -> None:
        self._await(lambda event: event == Queued(candidate), f"{candidate.name} is not queued")

    def _await(self, is_it, otherwise: str):
        deadline = time.monotonic() + PATIENCE_SECONDS
        while True:
            try:
                event = self._next_event(max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                raise Trouble(f"{otherwise} after {PATIENCE_SECONDS:.0f} s") from None
            if isinstance(event, Line):
                self._lines.append(event.text)
            elif is_it(event):
                return event

    def _next_line(self) -> str:
        while not self._lines:
            event = self._next_event(None)
            if isinstance(event, Line):
                self._lines.append(event.text)
            elif isinstance(event, Leading) and self._standby:
                answer(f"leading {event.since}")
        return self._lines.popleft()

    def _next_event(self, timeout: float | None) -> Event:
        event = self._events.get(timeout=timeout)
        if isinstance(event, Signalled):
            raise Ended
        if isinstance(event, Failed):
            raise Trouble(event.reason)
        return event

    def _read(self) -> None:
        for line in sys.stdin:
            self._events.put(Line(line.strip()))
        self._events.put(Line("quit"))

    def _end(self) -> None:
        """Those that wait go before the one that leads, so that nobody becomes leader on the way out."""
        deadline = time.monotonic() + END_SECONDS
        for candidates in ([c for c in self._candidates if c is not self._leader], [self._leader]):
            started = [candidate for candidate in candidates if candidate is not None and candidate.is_alive()]
            for candidate in started:
                candidate.end()
            for candidate in started:
                candidate.join(max(0.0, deadline - time.monotonic()))
                if candidate.is_alive():
                    raise Trouble(f"{candidate.name} does not end within {END_SECONDS:.0f} s")


def main() -> None:
    if KazooClient is object:
        raise Missing("needs python3-kazoo")
    options = parser(__doc__)
    options.add_argument("--recipe", choices=("election", "lock"), required=True)
    arguments = checked(options.parse_args())
    if not arguments.servers:
        raise Trouble("--servers is needed")
    Driver(arguments).run()


if __name__ == "__main__":
    sys.exit(run("kazoo_driver", main))
