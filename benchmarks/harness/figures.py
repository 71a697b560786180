"""Sums up samples."""

from __future__ import annotations

from dataclasses import asdict, dataclass
from typing import Any, Sequence


# Five samples or more lie beyond.
FEWEST_FOR_P95 = 100
FEWEST_FOR_P99 = 500


def quantile(ordered: Sequence[float], part: float) -> float:
    """By linear interpolation between the two nearest samples."""
    position = part * (len(ordered) - 1)
    below = int(position)
    above = min(below + 1, len(ordered) - 1)
    return ordered[below] + (ordered[above] - ordered[below]) * (position - below)


@dataclass
class Figure:
    """One row of the result: somebody's samples of one measure in one case."""

    measure: str
    case: dict[str, Any]
    contender: str
    unit: str
    samples: int
    median: float
    # Where there are samples enough for one to stand behind it.
    p95: float | None
    p99: float | None
    # Between the quartiles, as part of the median.
    spread: float
    # Every hundredth, for whoever draws.
    quantiles: list[float]
    # To the floor, by name of the statistic.
    ratio: dict[str, float] | None = None

    def as_json(self) -> dict[str, Any]:
        return asdict(self)


def sum_up(measure: str, case: dict[str, Any], contender: str, unit: str, samples: Sequence[float]) -> Figure:
    ordered = sorted(samples)
    median = quantile(ordered, 0.5)
    between = quantile(ordered, 0.75) - quantile(ordered, 0.25)
    return Figure(
        measure,
        case,
        contender,
        unit,
        len(ordered),
        round(median, 3),
        round(quantile(ordered, 0.95), 3) if len(ordered) >= FEWEST_FOR_P95 else None,
        round(quantile(ordered, 0.99), 3) if len(ordered) >= FEWEST_FOR_P99 else None,
        round(between / median, 3) if median else 0.0,
        [round(quantile(ordered, i / 100), 2) for i in range(101)] if len(ordered) > 1 else [],
    )


def compare(figures: Sequence[Figure], floor: str) -> None:
    """Sets the ratios of all that stand beside the floor in the same case."""
    floors = {(f.measure, str(f.case)): f for f in figures if f.contender == floor}
    for figure in figures:
        least = floors.get((figure.measure, str(figure.case)))
        if least is None:
            continue
        figure.ratio = {
            name: round(getattr(figure, name) / getattr(least, name), 3)
            for name in ("median", "p95", "p99")
            if getattr(least, name) and getattr(figure, name) is not None
        }
