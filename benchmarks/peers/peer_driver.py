"""What the drivers in Python share: their command line, their answers and their exit statuses."""

import argparse
import os
import sys
from collections.abc import Callable

# How long a leader, or a place in the queue, is waited for.
PATIENCE_SECONDS = 60.0


class Trouble(Exception):
    """Ends a driver with status 1 and one line on stderr."""


class Missing(Exception):
    """Ends a driver with status 3 and one line on stderr, which names the package to install."""


class Ended(Exception):
    """A signal asks the driver to leave. Ends it with status 0."""


class _Parser(argparse.ArgumentParser):
    def error(self, message: str) -> None:
        raise Trouble(message)


def parser(description: str) -> argparse.ArgumentParser:
    """The options that all drivers have."""
    options = _Parser(description=description, allow_abbrev=False)
    options.add_argument("--servers", default="", help="host:port[,host:port...]")
    options.add_argument("--election", required=True, help="the path to compete for")
    options.add_argument("--candidates", type=int, default=1)
    options.add_argument("--session-timeout", type=int, default=10_000, metavar="MILLISECONDS")
    options.add_argument("--standby", action="store_true",
                         help="one candidate that waits behind another process's, and reports when it leads")
    return options


def checked(options: argparse.Namespace) -> argparse.Namespace:
    if options.candidates < 1 or options.session_timeout < 1:
        raise Trouble("--candidates and --session-timeout have to be positive")
    if options.standby and options.candidates != 1:
        raise Trouble("--standby goes with --candidates=1")
    if not options.election.startswith("/") or options.election.endswith("/"):
        raise Trouble("--election has to look like /bench/x")
    return options


def answer(line: str) -> None:
    os.write(sys.stdout.fileno(), f"{line}\n".encode())


def serve(next_line: Callable[[], str], handover: Callable[[], int]) -> None:
    """Answers commands until there are no more; `next_line` returns "quit" at the end of stdin."""
    while (line := next_line()) != "quit":
        if line != "handover":
            raise Trouble(f"there is no command {line!r}")
        answer(f"handover {handover()}")


def run(name: str, body: Callable[[], None]) -> int:
    """Returns the exit status."""
    status = 1
    try:
        body()
        return 0
    except Ended:
        return 0
    except Missing as missing:
        error, status = str(missing), 3
    except Trouble as trouble:
        error = str(trouble)
    except OSError as failure:
        error = f"{type(failure).__name__}: {failure}"
    print(f"{name}: {error}", file=sys.stderr, flush=True)
    return status
