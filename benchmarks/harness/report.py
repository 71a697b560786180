"""The table, and what it says of the targets."""

from __future__ import annotations

from typing import Any, Iterable

OWN = ("recipe", "candidate", "session")
# To be faster than a command with its pipes is no achievement.
COMMANDS = ("etcdctl",)


def _number(value: float) -> str:
    return f"{value:,.0f}" if value >= 100 else f"{value:,.1f}" if value >= 10 else f"{value:.2f}"


def _case(case: dict[str, Any]) -> str:
    texts = []
    for name, value in case.items():
        if name == "servers":
            texts.append(f"{value} server{'s' if value > 1 else ''}")
        elif name == "fsync":
            texts.append(f"fsync {'on' if value else 'off'}")
        elif name == "candidates":
            texts.append(f"{value} candidates")
        elif name == "position":
            texts.append(f"as number {value}")
        elif name == "in_one_process":
            texts.append(f"{value} in a process")
        elif name == "session_timeout_s":
            texts.append(f"session timeout {value:.0f} s")
        else:
            texts.append(f"{value} {name}")
    return ", ".join(texts)


def _table(head: list[str], rows: Iterable[list[str]]) -> list[str]:
    """Reads well as it is, and as Markdown."""
    rows = list(rows)
    widths = [max(len(row[i]) for row in [head, *rows]) for i in range(len(head))]

    def line(cells: list[str]) -> str:
        left = cells[0].ljust(widths[0])
        return "| " + " | ".join([left, *(cell.rjust(width) for cell, width in zip(cells[1:], widths[1:]))]) + " |"

    rule = "|" + "|".join(["-" * (widths[0] + 2), *("-" * (width + 1) + ":" for width in widths[1:])]) + "|"
    return [line(head), rule, *(line(row) for row in rows)]


def _ratio(figure: dict[str, Any]) -> list[str]:
    ratio = figure["ratio"] or {}
    return [f"{ratio[name]:.2f}" if name in ratio else "" for name in ("median", "p95", "p99")]


def _heading(result: dict[str, Any]) -> str:
    machine = result["machine"]
    versions = ", ".join(f"{name} {version}" for name, version in machine["packages"].items())
    return (
        f"{result['date']}, `{result['command']}`, revision {result['revision']}. {machine['processor']}, {machine['cores']} "
        f"cores, {machine['memory_gib']} GiB, Linux {machine['kernel']}; temporary files on {machine['disk']}; load when it "
        f"began {machine['load_before']:.2f}. {machine['java']}; {versions}."
    )


def as_text(result: dict[str, Any]) -> str:
    lines = [_heading(result), ""]
    groups: dict[tuple[str, str], list[dict[str, Any]]] = {}
    for figure in result["figures"]:
        groups.setdefault((figure["measure"], _case(figure["case"])), []).append(figure)
    rows = []
    for (measure, case), figures in groups.items():
        rows.append([f"**{measure}**, {case}, {figures[0]['unit']}", *[""] * 8])
        for figure in figures:
            rows.append([
                figure["contender"],
                *("" if figure[name] is None else _number(figure[name]) for name in ("median", "p95", "p99")),
                f"{figure['spread']:.0%}" if figure["samples"] > 1 else "",
                str(figure["samples"]),
                *_ratio(figure),
            ])
    lines += _table(
        ["", "median", "p95", "p99", "spread", "samples", "median / floor", "p95 / floor", "p99 / floor"], rows
    )
    lines += ["", *_micro(result["micro"])]
    lines += ["", *_targets(result)]
    for name, why in result["left_out"].items():
        lines.append(f"Left out: {name}: {why}")
    lines += [f"Failed: {failure}" for failure in result["failures"]]
    return "\n".join(lines)


def _micro(benchmarks: list[dict[str, Any]]) -> list[str]:
    rows = [
        [f"`{benchmark['name']}`", f"{_number(benchmark['cpu_time'])} {benchmark['time_unit']}",
         f"{_number(benchmark['real_time'])} {benchmark['time_unit']}"]
        for benchmark in benchmarks
        if "cpu_time" in benchmark
    ]
    return _table(["one operation", "processor time", "time"], rows)


class _Targets:
    def __init__(self, figures: list[dict[str, Any]]) -> None:
        self._figures = figures
        self.rows: list[list[str]] = []

    def find(self, measure: str, contender: str, **case: object) -> dict[str, Any] | None:
        for figure in self._figures:
            if (figure["measure"], figure["contender"]) == (measure, contender) and case.items() <= figure["case"].items():
                return figure
        return None

    def peers(self, measure: str, **case: object) -> list[dict[str, Any]]:
        return [
            figure
            for figure in self._figures
            if figure["measure"] == measure
            and figure["contender"] not in (*OWN, "floor", *COMMANDS)
            and case.items() <= figure["case"].items()
        ]

    def at_most(self, what: str, value: float | None, most: float) -> None:
        if value is not None:
            self.rows.append([what, _number(value), f"at most {_number(most)}", "met" if value <= most else "missed"])


def _targets(result: dict[str, Any]) -> list[str]:
    targets = _Targets(result["figures"])
    for candidates in (3, 50):
        case = {"servers": 1, "fsync": False, "candidates": candidates}
        figure = targets.find("handover", "recipe", **case)
        if figure is None or not figure["ratio"]:
            continue
        what = f"handover, {candidates} candidates: recipe's"
        for name, most in (("median", 1.10), ("p95", 1.2), ("p99", 1.2)):
            targets.at_most(f"{what} {name} over the floor's", figure["ratio"].get(name), most)
        for peer in targets.peers("handover", **case):
            for name in ("median", "p95"):
                if figure[name] is not None and peer[name] is not None:
                    targets.at_most(f"{what} {name} over that of {peer['contender']}", figure[name] / peer[name], 1.0)
    parts = [
        targets.find("join", "recipe", position=100),
        targets.find("join", "floor", position=100),
        targets.find("looks at all in the queue", "floor", position=100),
    ]
    if all(parts):
        join, least, looks = (part["median"] for part in parts if part)
        targets.at_most("joining as number 100: recipe's median over the floor's and 99 looks", join / (least + looks), 1.0)
    for figure in result["figures"]:
        if (figure["measure"], figure["contender"]) == ("requests per handover", "recipe"):
            targets.at_most(f"requests per handover, {_case(figure['case'])}", figure["median"], 4)
    for measure, most in (("memory per session", 200.0), ("threads per session", 3.0)):
        figure = targets.find(measure, "session", in_one_process=1000)
        targets.at_most(f"{measure}, 1,000 in one process", figure and figure["median"], most)
    idle = targets.find("idle time", "recipe", in_one_process=1000)
    targets.at_most("idle time of 1,000 candidates, % of a core", idle and idle["median"], 1.0)
    return _table(["target", "measured", "wanted", ""], targets.rows)
