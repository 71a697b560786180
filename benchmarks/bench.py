#!/usr/bin/env python3
"""What an election costs, beside the least that it could cost and beside what a user would pick instead.

script/bench builds what this runs. Everybody who can be asked in turns is, within one run, so that the ratios hold on any
machine, also on one that is not quiet.
"""

from __future__ import annotations

import argparse
import datetime
import json
import signal
import sys
from pathlib import Path

from harness import machine, plots, report
from harness.figures import compare
from harness.measures import FULL, QUICK, TRIAL, Bench, Effort
from harness.processes import Contender, ContenderFailed, Setting, start

ROOT = Path(__file__).resolve().parent.parent


def contenders(build: Path) -> list[Contender]:
    driver = str(build / "benchmarks/drivers/velmor_bench_driver")
    peers = ROOT / "benchmarks/peers"
    kazoo = (sys.executable, str(peers / "kazoo_driver.py"))
    curator = (str(peers / "curator_driver"),)
    return [
        Contender("floor", (driver, "--contender=floor"), peer=False, most_candidates=1000),
        Contender("recipe", (driver, "--contender=recipe"), peer=False, most_candidates=1000),
        Contender("candidate", (driver, "--contender=candidate"), peer=False, most_candidates=1000),
        Contender("kazoo-election", (*kazoo, "--recipe=election"), most_candidates=500),
        Contender("kazoo-lock", (*kazoo, "--recipe=lock"), most_candidates=500),
        Contender("curator-latch", (*curator, "--recipe=latch"), most_candidates=500),
        Contender("curator-selector", (*curator, "--recipe=selector"), most_candidates=500),
        Contender("etcdctl", (sys.executable, str(peers / "etcd_driver.py")), every=10, fails_over=False,
                  extra=("fsync", "own-servers")),
    ]


def measure(bench: Bench, effort: Effort) -> None:
    for candidates in effort.sizes:
        bench.handovers(Setting(), candidates, effort.rounds)
    for position in effort.joins:
        bench.joins(position, effort.few_rounds if position < 1000 else effort.few_rounds // 5)
    for candidates in effort.request_sizes:
        bench.requests(candidates)
    for candidates in effort.crowds:
        bench.crowds(candidates)
    bench.event_rates(effort.event_rounds)
    bench.failovers(effort.failovers)
    for setting in effort.settings:
        bench.handovers(setting, 3, effort.few_rounds)
    for candidates in effort.large_sizes:
        bench.handovers(Setting(), candidates, effort.few_rounds)


def micro_benchmarks(build: Path, effort: Effort) -> list[dict[str, object]]:
    program = build / "benchmarks/micro/velmor_micro_benchmarks"
    command = [str(program), "--benchmark_format=json", f"--benchmark_min_time={effort.micro_seconds}"]
    with start(command) as process:
        output, errors = process.communicate()
    if process.returncode != 0:
        raise ContenderFailed(f"{program.name}: {errors.decode(errors='replace').strip()}")
    return json.loads(output)["benchmarks"]


def wanted_arguments(arguments: list[str]) -> list[str]:
    """Without what script/bench adds."""
    return arguments[2:] if arguments[:1] == ["--build"] else arguments


def main() -> int:
    parser = argparse.ArgumentParser(prog="script/bench", description=__doc__.split("\n")[0])
    parser.add_argument("--build", type=Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true", help="less of everything, within five minutes")
    parser.add_argument("--trial", action="store_true", help="next to nothing, to see that it works")
    parser.add_argument("--seed", type=int, default=1, help="of the order in which contenders are asked")
    parser.add_argument("--only", metavar="NAME,...", help="these contenders, and the floor")
    parser.add_argument("--results", type=Path, default=ROOT / "benchmarks/results", metavar="DIRECTORY",
                        help="where to write, instead of benchmarks/results")
    parser.add_argument("--report", type=Path, metavar="FILE", help="measure nothing: show what such a file holds, and draw it")
    options = parser.parse_args()
    # Whoever ends this ends what it has started.
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda received, _: sys.exit(128 + received))

    if options.report:
        result = json.loads(options.report.read_text())
        print(report.as_text(result))
        plots.draw(result, options.report.with_suffix(""))
        return 0

    options.results.mkdir(parents=True, exist_ok=True)
    effort = TRIAL if options.trial else QUICK if options.quick else FULL
    wanted = contenders(options.build)
    if options.only:
        names = {"floor", *options.only.split(",")}
        if unknown := names - {contender.name for contender in wanted}:
            parser.error(f"nobody is called {', '.join(sorted(unknown))}")
        wanted = [contender for contender in wanted if contender.name in names]
    bench = Bench(options.build / "benchmarks/servers/velmor_bench_servers", wanted, effort, options.seed)
    today = datetime.date.today().isoformat()
    result = {
        "date": today,
        "command": " ".join(["script/bench", *wanted_arguments(sys.argv[1:])]),
        "machine": machine.describe(),
        "revision": machine.revision(ROOT),
        "seed": options.seed,
        "micro": [],
    }
    try:
        measure(bench, effort)
        bench.progress.begin("single operations")
        result["micro"] = micro_benchmarks(options.build, effort)
    except (ContenderFailed, OSError) as error:
        # What has been measured by now is worth as much.
        bench.failures.append(f"not all was measured: {error}")
    except KeyboardInterrupt:
        bench.failures.append("not all was measured: interrupted")
    compare(bench.figures, "floor")
    result["left_out"] = bench.left_out
    result["failures"] = bench.failures
    result["figures"] = [figure.as_json() for figure in bench.figures]
    kind = "-trial" if options.trial else "-quick" if options.quick else ""
    path = options.results / f"{today}{kind}.json"
    path.write_text(json.dumps(result, indent=1) + "\n")
    print(report.as_text(result))
    drawn = plots.draw(result, path.with_suffix(""))
    print(f"\nWritten: {path}" + "".join(f", {plot}" for plot in drawn))
    return 1 if bench.failures else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
