"""Servers and contenders: child processes that end with this one, whatever happens to it."""

from __future__ import annotations

import ctypes
import os
import selectors
import signal
import socket
import subprocess
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import IO, Mapping, Sequence

PATIENCE_SECONDS = 120.0
NOT_INSTALLED = 3

_PR_SET_PDEATHSIG = 1
_libc = ctypes.CDLL(None, use_errno=True)


class ContenderFailed(Exception):
    """Says in one line what a contender said last."""


class NotInstalled(Exception):
    """Says in one line what is missing."""


def _prepare_child(parent: int) -> None:
    # A terminal's Ctrl-C is for the parent, which ends contenders before the servers that they leave.
    os.setpgid(0, 0)
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)
    if os.getppid() != parent:
        os._exit(1)


def start(command: Sequence[str], environment: Mapping[str, str] | None = None) -> subprocess.Popen[bytes]:
    """With pipes for all its streams. It does not outlive this process."""
    parent = os.getpid()
    return subprocess.Popen(
        list(command),
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        env={**os.environ, **(environment or {})},
        preexec_fn=lambda: _prepare_child(parent),
    )


class Child:
    """A process asked in lines. Its standard error is kept until it is needed."""

    def __init__(self, command: Sequence[str], environment: Mapping[str, str] | None = None) -> None:
        self.command = list(command)
        self._process = start(self.command, environment)
        self._selector = selectors.DefaultSelector()
        self._selector.register(self._pipe(self._process.stdout), selectors.EVENT_READ, "output")
        self._selector.register(self._pipe(self._process.stderr), selectors.EVENT_READ, "errors")
        self._output = b""
        self._errors = b""

    @staticmethod
    def _pipe(pipe: IO[bytes] | None) -> IO[bytes]:
        assert pipe is not None
        return pipe

    @property
    def pid(self) -> int:
        return self._process.pid

    def tell(self, line: str) -> None:
        stdin = self._pipe(self._process.stdin)
        try:
            stdin.write(line.encode() + b"\n")
            stdin.flush()
        except BrokenPipeError:
            self._fail()

    def read_line(self, patience: float = PATIENCE_SECONDS) -> str:
        end = time.monotonic() + patience
        while b"\n" not in self._output:
            events = self._selector.select(max(0.0, end - time.monotonic()))
            if not events or time.monotonic() > end:
                self.kill()
                raise ContenderFailed(f"{self.command[0]}: no answer within {patience:.0f} s")
            for key, _ in events:
                part = os.read(key.fd, 65536)
                if key.data == "output" and not part:
                    self._fail()
                elif key.data == "output":
                    self._output += part
                elif part:
                    self._errors += part
                else:
                    self._selector.unregister(key.fileobj)
        line, _, self._output = self._output.partition(b"\n")
        return line.decode()

    def _fail(self) -> None:
        """It has ended, or closed its output, and nobody has asked it to."""
        try:
            _, errors = self._process.communicate(timeout=PATIENCE_SECONDS)
        except subprocess.TimeoutExpired:
            self.kill()
            errors = b""
        lines = (self._errors + errors).decode(errors="replace").strip().splitlines()
        said = lines[-1] if lines else f"status {self._process.returncode}"
        raise (NotInstalled if self._process.returncode == NOT_INSTALLED else ContenderFailed)(said)

    def ask(self, line: str, patience: float = PATIENCE_SECONDS) -> float:
        """The number in its answer, which begins like the question."""
        self.tell(line)
        answer = self.read_line(patience).split()
        if len(answer) != 2 or answer[0] != line.split()[0]:
            raise ContenderFailed(f"{self.command[0]}: asked for {line}, answered {' '.join(answer)}")
        return float(answer[1])

    def end(self, patience: float = PATIENCE_SECONDS) -> None:
        """In order: it takes back what it has. Throws `ContenderFailed` when it does not end well."""
        if self._process.returncode is not None:
            return
        try:
            _, errors = self._process.communicate(timeout=patience)
        except subprocess.TimeoutExpired:
            self.kill()
            raise ContenderFailed(f"{self.command[0]}: did not end within {patience:.0f} s") from None
        self._close()
        if self._process.returncode != 0:
            lines = (self._errors + errors).decode(errors="replace").strip().splitlines()
            said = lines[-1] if lines else "nothing"
            raise ContenderFailed(f"{self.command[0]}: ended with status {self._process.returncode}, said {said}")

    def kill(self) -> None:
        self._process.kill()
        self._process.wait()
        self._close()

    def _close(self) -> None:
        self._selector.close()
        for pipe in (self._process.stdin, self._process.stdout, self._process.stderr):
            if pipe is not None:
                try:
                    pipe.close()
                except BrokenPipeError:
                    pass


@dataclass(frozen=True)
class Setting:
    """What servers contenders meet."""

    servers: int = 1
    fsync: bool = False
    tick_milliseconds: int = 2000

    def __str__(self) -> str:
        return f"{self.servers} server{'s' if self.servers > 1 else ''}, fsync {'on' if self.fsync else 'off'}"


class Servers:
    """Throwaway ZooKeeper servers. Without fsync their data is in memory."""

    def __init__(self, program: Path, setting: Setting) -> None:
        command = [str(program), f"--count={setting.servers}", f"--tick={setting.tick_milliseconds}"]
        environment = {}
        if setting.fsync:
            command.append("--fsync")
        elif os.access("/dev/shm", os.W_OK):
            environment["TMPDIR"] = "/dev/shm"
        self._child = Child(command, environment)
        self.addresses = self._child.read_line()

    def __enter__(self) -> Servers:
        return self

    def __exit__(self, *_: object) -> None:
        self._child.end()

    @staticmethod
    def disk() -> str:
        """The file system that fsync is about."""
        directory = os.environ.get("TMPDIR", "/tmp")
        done = subprocess.run(["stat", "--file-system", "--format=%T", directory], stdout=subprocess.PIPE, check=False)
        return done.stdout.decode().strip()

    def packets(self) -> int:
        """Requests that all servers have got from clients."""
        return sum(int(self._monitor(address)["zk_packets_received"]) for address in self.addresses.split(","))

    @staticmethod
    def _monitor(address: str) -> dict[str, str]:
        host, port = address.rsplit(":", 1)
        with socket.create_connection((host, int(port)), timeout=10) as connection:
            connection.sendall(b"mntr")
            answer = b"".join(iter(lambda: connection.recv(65536), b""))
        return dict(line.split("\t", 1) for line in answer.decode().splitlines() if "\t" in line)


@dataclass(frozen=True)
class Contender:
    """Somebody who is measured: how to start a driver of theirs, and what it can be asked."""

    name: str
    command: tuple[str, ...]
    peer: bool = True
    most_candidates: int = 50
    # Asked in every so many rounds only, for those whose rounds take long.
    every: int = 1
    fails_over: bool = True
    extra: tuple[str, ...] = field(default=())

    def start(self, addresses: str, setting: Setting, election: str, *arguments: str) -> Child:
        """Returns at once: `ready` comes when it is."""
        fsync = (f"--fsync={'on' if setting.fsync else 'off'}",) if "fsync" in self.extra else ()
        return Child([*self.command, f"--servers={addresses}", f"--election={election}", *fsync, *arguments])


def await_ready(child: Child, patience: float = PATIENCE_SECONDS) -> None:
    line = child.read_line(patience)
    if line != "ready":
        raise ContenderFailed(f"{child.command[0]}: said {line}, not ready")
