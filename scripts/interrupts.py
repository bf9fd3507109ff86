#!/usr/bin/env python3
"""Interrupts conversions in each of their stages and says how long the program takes to end.

    scripts/interrupts.py PROGRAM SCENE [FOLDER...] [--samples N] [--stage STAGE...] [--option WORD...]

PROGRAM is build/release/program/plyconvert, SCENE a file that it converts. FOLDERs are where datasets go: the
system's temporary folder and /dev/shm unless given. An earlier dataset of the scene stands there, as it does where
people convert again. Each stage gets at least --samples signals (20), at random moments of it. For each stage the
table gives the time from SIGINT to the end of the process in milliseconds. Not one of the tests: it takes minutes.
"""
import argparse
import json
import os
import random
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

STAGES = ["opening", "measuring", "writing", "verifying", "flushing", "publishing"]


class Runs:
    def __init__(self, program, scene, folder, options):
        self.folder = tempfile.mkdtemp(prefix="plyconvert-interrupts.", dir=folder)
        # In memory, so that the flush of the report is not measured.
        self.reports = tempfile.mkdtemp(prefix="plyconvert-interrupts.", dir="/dev/shm")
        self.report = os.path.join(self.reports, "report.json")
        self.command = [program, scene, os.path.join(self.folder, "out"), "--quiet", "--report", self.report, *options]

    def stages(self):
        """The stages that the run has begun, in order, with their seconds."""
        with open(self.report, encoding="utf-8") as file:
            report = json.load(file)
        return {stage: report["seconds"][stage] for stage in STAGES if stage in report["seconds"]}

    def whole(self):
        subprocess.run(self.command, check=True)
        return self.stages()

    def begun(self, process, stage, earlier):
        """Whether the stage has begun, as far as the files tell."""
        partial = f"{self.folder}/out.partial-{process}"
        if stage == "writing":
            return os.path.exists(partial)
        if stage in ("verifying", "flushing"):
            return os.path.exists(f"{partial}/converted_from_ply.ytr")
        if stage == "publishing":
            return os.stat(f"{self.folder}/out").st_ino != earlier
        return True

    def interrupted(self, stage, after):
        """Sends the signal so many seconds after the stage began. Returns the seconds from then to the end, the stage
        that was interrupted, and the exit status."""
        earlier = os.stat(f"{self.folder}/out").st_ino
        # A shell that runs this script in the background has it ignore the signal; the program would, too.
        run = subprocess.Popen(
            self.command,
            stderr=subprocess.DEVNULL,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),
        )
        while run.poll() is None and not self.begun(run.pid, stage, earlier):
            time.sleep(0.001)
        time.sleep(after)
        begin = time.perf_counter()
        run.send_signal(signal.SIGINT)
        status = run.wait()
        took = time.perf_counter() - begin
        stages = list(self.stages()) if status in (0, 130) else []
        self.require_clean(f"{after:.3f} s of {stage}")
        return took, stages[-1] if stages else None, status

    def require_clean(self, moment):
        """Nothing is left beside the dataset, once another process has ended that a publication may leave behind."""
        for _ in range(1000):
            left = [name for name in os.listdir(self.folder) if name != "out"]
            if not left:
                return
            time.sleep(0.01)
        sys.exit(f"left behind after {moment}: {left}")

    def remove(self):
        shutil.rmtree(self.folder)
        shutil.rmtree(self.reports)


def measure(runs, samples, wanted_stages):
    """Milliseconds by stage."""
    times = [runs.whole() for _ in range(4)][1:]  # the first has no earlier dataset
    lengths = {stage: statistics.median(seconds[stage] for seconds in times) for stage in STAGES}
    found = {stage: [] for stage in STAGES}
    # The files do not tell how long after the look a stage begins.
    lead = {"opening": 0.004, "measuring": 0.004 + lengths["opening"], "flushing": lengths["verifying"]}
    for wanted in wanted_stages:
        for _ in range(2 * samples):
            if len(found[wanted]) >= samples:
                break
            after = lead.get(wanted, 0) + lengths[wanted] * random.random()
            took, stage, status = runs.interrupted(wanted, after)
            if stage and (status == 130 or stage == "publishing"):
                found[stage].append(took * 1000)
    return lengths, found


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program")
    parser.add_argument("scene")
    parser.add_argument("folders", nargs="*", default=[tempfile.gettempdir(), "/dev/shm"])
    parser.add_argument("--samples", type=int, default=20)
    parser.add_argument("--stage", action="append", choices=STAGES, help="this one, not all")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--option", action="append", default=[], help="of the program, like --option=--threads=1")
    options = parser.parse_args()
    random.seed(options.seed)
    print("| output | stage | length s | signals | median ms | longest ms | over 200 ms |")
    print("|---|---|---:|---:|---:|---:|---:|")
    for folder in options.folders:
        runs = Runs(options.program, options.scene, folder, options.option)
        try:
            lengths, found = measure(runs, options.samples, options.stage or STAGES)
        finally:
            runs.remove()
        for stage in (stage for stage in STAGES if found[stage]):
            times = found[stage]
            row = [folder, stage, f"{lengths[stage]:.3f}", str(len(times))]
            row += [f"{statistics.median(times):.0f}", f"{max(times):.0f}"]
            print("| " + " | ".join([*row, str(sum(time > 200 for time in times))]) + " |", flush=True)


if __name__ == "__main__":
    main()
