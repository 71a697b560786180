"""Draws with gnuplot, as SVG."""

from __future__ import annotations

import shutil
import subprocess
from pathlib import Path
from typing import Any

STYLE = """set terminal svg size 820,460 font 'sans,12' background '#ffffff'
set grid back lc '#dddddd'
set key outside right top
"""


def _block(name: str, rows: list[tuple[object, ...]]) -> str:
    return "\n".join([f"${name} << EOD", *(" ".join(str(value) for value in row) for row in rows), "EOD", ""])


def _quoted(text: str) -> str:
    return "'" + text.replace("'", "''") + "'"


class _Plot:
    def __init__(self, path: Path, title: str, settings: str) -> None:
        self.path = path
        self._head = f"{STYLE}set output {_quoted(str(path))}\nset title {_quoted(title)}\n{settings}\n"
        self._blocks: list[str] = []
        self._curves: list[str] = []

    def add(self, title: str, rows: list[tuple[object, ...]], style: str) -> None:
        name = f"data{len(self._blocks)}"
        self._blocks.append(_block(name, rows))
        self._curves.append(f"${name} {style} title {_quoted(title)}")

    def draw(self) -> Path | None:
        if not self._curves:
            return None
        script = self._head + "".join(self._blocks) + "plot " + ", ".join(self._curves) + "\n"
        subprocess.run(["gnuplot"], input=script.encode(), check=True)
        return self.path


def _figures(result: dict[str, Any], measure: str, **case: object) -> list[dict[str, Any]]:
    return [f for f in result["figures"] if f["measure"] == measure and case.items() <= f["case"].items()]


def _handover(result: dict[str, Any], candidates: int, path: Path) -> _Plot:
    plot = _Plot(
        path,
        f"Handover with {candidates} candidates: one server, no fsync",
        "set logscale x\nset xlabel 'microseconds'\nset ylabel 'part of the handovers'\nset yrange [0:1]",
    )
    for figure in _figures(result, "handover", servers=1, fsync=False, candidates=candidates):
        rows = [(value, i / 100) for i, value in enumerate(figure["quantiles"])]
        if rows:
            plot.add(figure["contender"], rows, f"with lines lw {3 if figure['contender'] in ('floor', 'recipe') else 1.5}")
    return plot


def _over(result: dict[str, Any], measure: str, key: str, path: Path, title: str, settings: str) -> _Plot:
    """A curve for each contender over one number of the case."""
    plot = _Plot(path, title, settings)
    curves: dict[str, list[tuple[object, ...]]] = {}
    for figure in _figures(result, measure):
        if measure == "handover" and (figure["case"]["servers"] != 1 or figure["case"]["fsync"]):
            continue
        curves.setdefault(figure["contender"], []).append((figure["case"][key], figure["median"], figure["p95"]))
    for contender, rows in curves.items():
        # A point is no curve.
        if len(rows) > 1:
            plot.add(contender, rows, "using 1:2 with linespoints pt 7 ps 0.6 lw 2")
    return plot


def draw(result: dict[str, Any], stem: Path) -> list[Path]:
    """Next to the result's file. Draws nothing where there is no gnuplot."""
    if shutil.which("gnuplot") is None:
        return []
    count = "set logscale xy\nset xlabel 'candidates'\n"
    plots = [
        _handover(result, 3, stem.with_name(stem.name + "-handover-3.svg")),
        _handover(result, 50, stem.with_name(stem.name + "-handover-50.svg")),
        _over(result, "handover", "candidates", stem.with_name(stem.name + "-handover.svg"),
              "Handover as the queue grows (medians)", count + "set ylabel 'microseconds'"),
        _over(result, "join", "position", stem.with_name(stem.name + "-join.svg"),
              "Joining as the queue grows (medians)",
              "set logscale xy\nset xlabel 'place in the queue'\nset ylabel 'microseconds'"),
        _over(result, "requests per turn", "candidates", stem.with_name(stem.name + "-requests.svg"),
              "Requests for a handover and joining again", count + "set ylabel 'requests'"),
    ]
    return [path for path in (plot.draw() for plot in plots) if path is not None]
