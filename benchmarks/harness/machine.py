"""On what was measured."""

from __future__ import annotations

import os
import platform
import subprocess
from pathlib import Path
from typing import Sequence

from .processes import Servers

# Whose versions matter.
PACKAGES = ("libzookeeper-mt2", "libzookeeper-java", "python3-kazoo", "libcurator-recipes-java", "etcd-server", "g++")


def _output(command: Sequence[str]) -> str:
    try:
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    except OSError:
        return ""
    return done.stdout.decode(errors="replace").strip() if done.returncode == 0 else ""


def _processor() -> str:
    for line in Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.partition(":")[2].strip()
    return platform.machine()


def describe() -> dict[str, object]:
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES")
    versions = {name: _output(["dpkg-query", "--show", "--showformat=${Version}", name]) for name in PACKAGES}
    java = _output(["java", "-version"]).splitlines()
    return {
        "processor": _processor(),
        "cores": len(os.sched_getaffinity(0)),
        "memory_gib": round(memory / 2**30, 1),
        "kernel": platform.release(),
        "load_before": os.getloadavg()[0],
        "disk": Servers.disk(),
        "java": java[0] if java else "",
        "packages": {name: version for name, version in versions.items() if version},
    }


def revision(root: Path) -> str:
    """Of the tree that was measured; marked where it differs from what was committed."""
    return _output(["git", "-C", str(root), "describe", "--always", "--dirty"])
