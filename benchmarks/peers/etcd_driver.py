#!/usr/bin/python3
"""Times handovers between processes that run `etcdctl elect` (etcd, Go), on an etcd server of this driver's own.

A handover lasts from just before SIGINT is sent to the leader's process, upon which it resigns, to the arrival of the
first output of the next leader's process. That is more than the other drivers measure:

- a signal and its way through Go's runtime, instead of a call;
- a read of its own node which `etcdctl elect` does between winning and saying so;
- a pipe, and the switch to the process at its other end, instead of a callback.

With one session per process, whoever left joins again as a new process with a new session; that is outside of the time,
as for all drivers. The session's time to live is etcdctl's own (60 s), --session-timeout and --servers are not heeded.
What is waited for before an answer: all nodes are there, and all but one watch another.

Whatever ends this driver, the server and the candidates end with it. A shell that outlives it removes their directory.
"""

import base64
import ctypes
import http.client
import json
import os
import re
import selectors
import shutil
import signal
import socket
import subprocess
import sys
import time
from argparse import Namespace
from collections.abc import Callable
from pathlib import Path
from typing import Any, NoReturn

sys.dont_write_bytecode = True  # Nothing is left in the tree.
from peer_driver import PATIENCE_SECONDS, Ended, Missing, Trouble, answer, checked, parser, run, serve  # noqa: E402

MEMORY = "/dev/shm"
MOST_CANDIDATES = 100
PORT_ATTEMPTS = 5
POLL_SECONDS = 0.005
REQUEST_SECONDS = 5.0
END_SECONDS = 5.0

LIBC = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1

# Prints the name of a directory that it has made, and removes it as soon as nobody holds the other end of its stdin.
KEEP_DIRECTORY = """
trap '' HUP INT PIPE TERM
directory=$(mktemp -d -t velmor-etcd.XXXXXX) || exit
echo "$directory"
exec >/dev/null
cat
rm -rf -- "$directory"
"""


def end_by_signal(*_: object) -> NoReturn:
    raise Ended


def start(command: list[str], log: Path, **options: Any) -> "subprocess.Popen[bytes]":
    """Starts a process that does not outlive this one. This has to be the only thread: its end would count."""
    driver = os.getpid()

    def prepare() -> None:
        LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        if os.getppid() != driver:
            os._exit(1)

    # What is in the environment for another server or client would take the place of options.
    environment = {name: value for name, value in os.environ.items() if not name.startswith(("ETCD_", "ETCDCTL_"))}
    with log.open("ab") as errors:
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stderr=errors, env=environment,
                                preexec_fn=prepare, **options)


def last_line(log: Path) -> str:
    lines = log.read_text(errors="replace").split("\n") if log.exists() else []
    return next((line for line in reversed(lines) if line.strip()), "it has said nothing")


def end(processes: "list[subprocess.Popen[bytes]]") -> None:
    for process in processes:
        process.terminate()
    deadline = time.monotonic() + END_SECONDS
    for process in processes:
        try:
            process.wait(max(0.0, deadline - time.monotonic()))
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class Directory:
    """A temporary directory that is removed when this process, and all that `pipe` was passed on to, have ended."""

    def __init__(self, in_memory: bool) -> None:
        environment = dict(os.environ)
        if in_memory and os.access(MEMORY, os.W_OK):
            environment["TMPDIR"] = MEMORY
        self._keeper = subprocess.Popen(["/bin/sh", "-c", KEEP_DIRECTORY], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, start_new_session=True, env=environment)
        with self._keeper.stdout as output:
            self.path = Path(output.readline().decode().strip())
        if not self.path.is_absolute():
            raise Trouble("there is no temporary directory to be had")
        self.pipe = self._keeper.stdin.fileno()

    def remove(self) -> None:
        self._keeper.stdin.close()
        try:
            self._keeper.wait(END_SECONDS)
        except subprocess.TimeoutExpired:
            pass  # A process that a signal kept this one from knowing ends after this one, and then the keeper does.


class Server:
    def __init__(self, directory: Directory, fsync: bool) -> None:
        self._directory = directory
        self._fsync = fsync
        self._log = directory.path / "server.log"
        self._process: "subprocess.Popen[bytes] | None" = None

    def start(self) -> None:
        for _ in range(PORT_ATTEMPTS):
            if self._serves():
                return
        raise Trouble(f"etcd does not start: {last_line(self._log)}")

    def end(self) -> None:
        if self._process is not None:
            end([self._process])

    def nodes(self, election: str) -> int:
        prefix = f"{election}/".encode()
        after = f"{election}0".encode()  # The character that follows the slash.
        request = {"key": base64.b64encode(prefix).decode(), "range_end": base64.b64encode(after).decode(),
                   "count_only": True}
        return int(json.loads(self._ask("POST", "/v3/kv/range", json.dumps(request))).get("count", 0))

    def watches(self) -> int:
        found = re.search(r"^etcd_debugging_mvcc_watcher_total (\d+)$", self._ask("GET", "/metrics"), re.MULTILINE)
        if found is None:
            raise Trouble("this etcd does not tell how many watches it has")
        return int(found[1])

    def _serves(self) -> bool:
        """Returns false when the server has ended, as it does when somebody else was given the same port."""
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self._port = free.getsockname()[1]
        self.address = f"127.0.0.1:{self._port}"
        url = f"http://{self.address}"
        command = ["etcd", f"--data-dir={self._directory.path}/data", f"--listen-client-urls={url}",
                   f"--advertise-client-urls={url}", "--listen-peer-urls=http://127.0.0.1:0", "--logger=zap",
                   "--log-outputs=stderr", "--log-level=warn"]
        if not self._fsync:
            command.append("--unsafe-no-fsync")
        self._process = start(command, self._log, stdout=subprocess.DEVNULL, pass_fds=[self._directory.pipe])
        deadline = time.monotonic() + PATIENCE_SECONDS
        while self._process.poll() is None:
            try:
                if json.loads(self._ask("GET", "/health")).get("health") == "true":
                    return True
            except (OSError, ValueError, http.client.HTTPException):
                pass  # Not yet.
            if time.monotonic() > deadline:
                raise Trouble(f"etcd does not serve: {last_line(self._log)}")
            time.sleep(POLL_SECONDS)
        return False

    def _ask(self, method: str, path: str, body: str | None = None) -> str:
        connection = http.client.HTTPConnection("127.0.0.1", self._port, timeout=REQUEST_SECONDS)
        try:
            connection.request(method, path, body)
            return connection.getresponse().read().decode()
        finally:
            connection.close()


class Candidate:
    """A process that competes from its start until it has resigned."""

    def __init__(self, server: Server, election: str, log: Path) -> None:
        self._log = log
        self.process = start(["etcdctl", f"--endpoints={server.address}", "elect", election, "candidate"], log,
                             stdout=subprocess.PIPE)

    def fileno(self) -> int:
        return self.process.stdout.fileno()

    def check_output(self) -> None:
        """It speaks once, when it leads."""
        if not os.read(self.fileno(), 4096):
            raise Trouble(f"a candidate has ended: {last_line(self._log)}")

    def await_end(self) -> None:
        try:
            status = self.process.wait(PATIENCE_SECONDS)
        except subprocess.TimeoutExpired:
            raise Trouble(f"a leader has not left after {PATIENCE_SECONDS:.0f} s") from None
        self.process.stdout.close()
        if status != 0:
            raise Trouble(f"a leader has left with status {status}: {last_line(self._log)}")


class Driver:
    def __init__(self, options: Namespace, directory: Directory) -> None:
        self._options = options
        self._server = Server(directory, options.fsync == "on")
        self._log = directory.path / "candidates.log"
        self._candidates: list[Candidate] = []
        self._leader: Candidate | None = None
        self._waiting = selectors.DefaultSelector()
        self._input = b""

    def run(self) -> None:
        try:
            self._server.start()
            self._compete()
        finally:
            for number in (signal.SIGINT, signal.SIGTERM):
                signal.signal(number, signal.SIG_IGN)
            end([candidate.process for candidate in self._candidates])
            self._server.end()

    def _compete(self) -> None:
        self._join()
        self._leader, _ = self._await_leader()
        for _ in range(1, self._options.candidates):
            self._join()
        self._await_queue()
        answer("ready")
        self._waiting.register(sys.stdin, selectors.EVENT_READ)
        serve(self._next_line, self._hand_over)

    def _join(self) -> None:
        candidate = Candidate(self._server, self._options.election, self._log)
        self._candidates.append(candidate)
        self._waiting.register(candidate, selectors.EVENT_READ)

    def _hand_over(self) -> int:
        if len(self._candidates) < 2:
            raise Trouble("a handover takes two candidates")
        before = self._leader
        self._waiting.unregister(sys.stdin)
        left = time.monotonic_ns()
        before.process.send_signal(signal.SIGINT)
        self._leader, since = self._await_leader()
        self._waiting.register(sys.stdin, selectors.EVENT_READ)
        before.await_end()
        self._candidates.remove(before)
        self._join()
        self._await_queue()
        return since - left

    def _await_leader(self) -> tuple[Candidate, int]:
        ready = self._waiting.select(PATIENCE_SECONDS)
        since = time.monotonic_ns()
        if not ready:
            raise Trouble(f"no candidate leads after {PATIENCE_SECONDS:.0f} s")
        candidate = ready[0][0].fileobj
        candidate.check_output()
        self._waiting.unregister(candidate)
        return candidate, since

    def _await_queue(self) -> None:
        count = len(self._candidates)
        self._await(lambda: self._server.nodes(self._options.election) == count and self._server.watches() == count - 1)

    def _await(self, condition: Callable[[], bool]) -> None:
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not condition():
            if time.monotonic() > deadline:
                raise Trouble(f"not all candidates are queued after {PATIENCE_SECONDS:.0f} s: {last_line(self._log)}")
            time.sleep(POLL_SECONDS)

    def _next_line(self) -> str:
        while b"\n" not in self._input:
            for key, _ in self._waiting.select():
                if key.fileobj is not sys.stdin:
                    key.fileobj.check_output()
                    raise Trouble("a candidate leads although no leader has left")
            more = os.read(sys.stdin.fileno(), 4096)
            if not more:
                return "quit"
            self._input += more
        line, self._input = self._input.split(b"\n", 1)
        return line.decode(errors="replace").strip()


def main() -> None:
    for program, package in (("etcd", "etcd-server"), ("etcdctl", "etcd-client")):
        if shutil.which(program) is None:
            raise Missing(f"needs {package}")
    options = parser(__doc__)
    options.add_argument("--fsync", choices=("on", "off"), default="off",
                         help="whether the server forces its log to disk, or keeps it in memory")
    arguments = checked(options.parse_args())
    if arguments.standby:
        raise Trouble("--standby is not possible, since each of these drivers has a server of its own")
    if arguments.candidates > MOST_CANDIDATES:
        raise Trouble(f"at most {MOST_CANDIDATES} candidates, since each is a process")
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, end_by_signal)
    directory = Directory(in_memory=arguments.fsync == "off")
    try:
        Driver(arguments, directory).run()
    finally:
        directory.remove()


if __name__ == "__main__":
    sys.exit(run("etcd_driver", main))
