#!/usr/bin/env python3
"""Runs every benchmark once and writes docs/performance.md from that one run:
each node's cost per second of audio (its CPU time per 20 ms frame as a share
of one core) and its ratio to the bare library call or plain loop it wraps,
measured in the same process. Which baseline a node has is declared beside the
node's benchmark (SONRA_BASELINE, bench/benchratio.h) and read here from each
program's JSON output.

usage: scripts/performance.py [BUILD_DIR]
"""

import glob
import json
import os
import platform
import subprocess
import sys

FRAME_MS = 20.0  # every benchmark times one 20 ms graph frame (or packet)
MIN_TIME_S = 0.2  # each benchmark's minimum running time
CALL_PARTIES = 2  # bench_call's call: each iteration is one frame of both parties


def build_and_run(build, out):
    if not os.path.exists(os.path.join(build, "build.ninja")):
        subprocess.run(["cmake", "-S", ".", "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo"],
                       check=True, stdout=subprocess.DEVNULL)
    targets = sorted(os.path.splitext(os.path.basename(p))[0] for p in glob.glob("bench/bench_*.cpp"))
    subprocess.run(["cmake", "--build", build, "--target"] + targets, check=True, stdout=subprocess.DEVNULL)
    os.makedirs(out, exist_ok=True)
    for old in glob.glob(os.path.join(out, "*.json")):
        os.remove(old)
    for name in targets:
        subprocess.run([os.path.join(build, "bench", name), "--benchmark_min_time=%g" % MIN_TIME_S,
                        "--benchmark_out=" + os.path.join(out, name + ".json"), "--benchmark_out_format=json"],
                       check=True, stdout=subprocess.DEVNULL)


def read_runs(out):
    """CPU microseconds per iteration by benchmark name, the declared pairs, and a run's context."""
    runs, pairs, context = {}, [], {}
    for path in sorted(glob.glob(os.path.join(out, "*.json"))):
        with open(path) as f:
            data = json.load(f)
        context = data["context"]
        for key, value in sorted(context.items()):
            if key.startswith("baseline "):
                base, label, base_label = value.split("\t")
                pairs.append((key[len("baseline "):], label, base, base_label))
        for b in data["benchmarks"]:
            if b.get("run_type", "iteration") == "iteration":
                scale = {"ns": 1e-3, "us": 1.0, "ms": 1e3}[b["time_unit"]]
                runs[b["name"]] = b["cpu_time"] * scale
    return runs, pairs, context


def share(us):
    return 100.0 * us / (FRAME_MS * 1000.0)


def paired_rows(runs, pairs):
    rows, paired = [], set()
    for node, label, base, base_label in pairs:
        for name, us in sorted(runs.items()):
            prefix, _, args = name.partition("/")
            if prefix != node:
                continue
            base_name = base + ("/" + args if args and base + "/" + args in runs else "")
            baseline = runs.get(base_name)
            paired.update([name, base_name])
            ratio = "%.2f" % (us / baseline) if baseline else "-"
            rows.append((label, args.replace("/", ", ") or "-", us, share(us), base_label, ratio))
    return rows, paired


def print_call(runs):
    call, bare = runs.get("BM_CallTwoParties"), runs.get("BM_CallBareOpus")
    if not (call and bare):
        return
    leg, bare_leg = call / CALL_PARTIES, bare / CALL_PARTIES
    print("## A whole call leg\n")
    print("sonra-call's own two-party call at 16 kHz (per party: device container with its rings, noise")
    print("suppression, volume, Opus encoder, sender, the network link, receiver with its jitter buffer,")
    print("Opus decoder, mixer with the notification, volume) against bare libopus encoding and decoding")
    print("the same frames; per party:\n")
    print("| | CPU per frame | share of one core | call legs per core in real time |")
    print("|---|---|---|---|")
    print("| whole path | %.1f us | %.2f%% | %d |" % (leg, share(leg), int(FRAME_MS * 1000 / leg)))
    print("| bare Opus encode + decode | %.1f us | %.2f%% | %d |"
          % (bare_leg, share(bare_leg), int(FRAME_MS * 1000 / bare_leg)))
    print("\nRatio: **%.2f** (aim: at most 1.15).\n" % (call / bare))


def print_report(runs, pairs, context):
    rows, paired = paired_rows(runs, pairs)
    print("# Performance\n")
    print("Produced by `scripts/performance.py` from one run of every benchmark in `bench/`")
    print("(%s, %d CPUs at %s MHz, %s build of the benchmark library). CPU time per 20 ms graph frame;"
          % (platform.machine(), context.get("num_cpus", 0), context.get("mhz_per_cpu", "?"),
             context.get("library_build_type", "?")))
    print("**share of one core** is that time over the frame's 20 ms, the cost of one second of audio")
    print("as published codec and DSP tables give it; **ratio** is the node's time over the bare")
    print("library call or plain loop it wraps, measured in the same process on the same data.\n")
    print_call(runs)
    print("## The mixer\n")
    print("| inputs | Hz | CPU per frame | share of one core | ratio to a saturating sum loop |")
    print("|---|---|---|---|---|")
    for label, args, us, pct, base_label, ratio in rows:
        if label.startswith("mixer") and args.split(", ")[0] in ("16", "64"):
            inputs, rate = args.split(", ")
            print("| %s | %s | %.2f us | %.3f%% | %s |" % (inputs, rate, us, pct, ratio))
    print("\n## Every node\n")
    print("| node | arguments | CPU per frame | share of one core | baseline | ratio |")
    print("|---|---|---|---|---|---|")
    for label, args, us, pct, base_label, ratio in rows:
        print("| %s | %s | %.2f us | %.3f%% | %s | %s |" % (label, args, us, pct, base_label, ratio))
    others = [name for name in sorted(runs) if name not in paired]
    if others:
        print("\n## Other measurements\n")
        print("Benchmarks without a declared baseline (baselines themselves, or variants):\n")
        print("| benchmark | CPU per frame | share of one core |")
        print("|---|---|---|")
        for name in others:
            print("| %s | %.2f us | %.3f%% |" % (name, runs[name], share(runs[name])))


def main():
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    build = sys.argv[1] if len(sys.argv) > 1 else "build"
    out = os.path.join(build, "performance")
    build_and_run(build, out)
    runs, pairs, context = read_runs(out)
    with open("docs/performance.md", "w") as report:
        sys.stdout = report
        print_report(runs, pairs, context)
        sys.stdout = sys.__stdout__
    print("wrote docs/performance.md")


if __name__ == "__main__":
    main()
