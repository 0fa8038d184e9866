"""The machine: what it is, and whether it does anything else."""

import os
import platform
import statistics
import subprocess
import time
from pathlib import Path

from measure.tables import shown_time


def facts(java, directory):
    """What is known of this machine, one fact a line. `directory` is where the stores will be."""
    info = Path("/proc/cpuinfo").read_text()
    model = next((line.split(":")[1].strip() for line in info.splitlines() if line.startswith("model name")), "unknown")
    kind = "virtual machine" if " hypervisor" in info else "machine"
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    filesystem = subprocess.run(["df", "--output=fstype", str(directory)], capture_output=True, text=True, check=True)
    version = subprocess.run([java, "-version"], capture_output=True, text=True, check=True)
    system = next((line.split("=")[1].strip('"') for line in Path("/etc/os-release").read_text().splitlines()
                   if line.startswith("PRETTY_NAME=")), "unknown")
    return [f"{kind}: {os.cpu_count()} x {model}, {memory:.0f} GiB; load {os.getloadavg()[0]:.1f} at the start",
            f"system: {system}, Linux {platform.release()}; stores on {filesystem.stdout.split()[-1]}, where a write of "
            f"4 KiB with fdatasync takes {shown_time(sync_nanoseconds(directory))}",
            f"JVM: {version.stderr.splitlines()[0]}; -Xmx512m -XX:+UseSerialGC"]


def sync_nanoseconds(directory):
    """The time of a durable write of 4 KiB, the lower bound of every durable write."""
    path = directory / "sync-probe"
    times = []
    descriptor = os.open(path, os.O_CREAT | os.O_RDWR, 0o600)
    try:
        os.pwrite(descriptor, b"x" * 4096, 0)
        os.fsync(descriptor)
        for i in range(200):
            start = time.perf_counter_ns()
            os.pwrite(descriptor, bytes([i]) * 4096, 0)
            os.fdatasync(descriptor)
            times.append(time.perf_counter_ns() - start)
    finally:
        os.close(descriptor)
        path.unlink()
    return statistics.median(times)


def processor_ticks():
    """The time of all processors since the machine started: idle, stolen by other virtual machines, and all."""
    ticks = [int(word) for word in Path("/proc/stat").read_text().splitlines()[0].split()[1:9]]
    return ticks[3] + ticks[4], ticks[7], sum(ticks)


def warnings(seconds=1.0):
    """Warns if something else keeps the processors busy: times are then too long, also beside each other."""
    idle, stolen, total = processor_ticks()
    time.sleep(seconds)
    idle, stolen, total = (after - before for after, before in zip(processor_ticks(), (idle, stolen, total)))
    busy = 1 - idle / total if total else 0
    return [] if is_quiet(busy, os.getloadavg()[0], os.cpu_count()) else [
        f"WARNING: the machine is not quiet: before the start, others used {busy:.0%} of its processors "
        f"({stolen / total if total else 0:.0%} stolen by other machines), load {os.getloadavg()[0]:.1f}. "
        "Times are too long, also beside each other"]


def is_quiet(busy, load, processors):
    return busy <= 0.1 and load <= processors / 2
