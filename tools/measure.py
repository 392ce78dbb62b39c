#!/usr/bin/env python3
"""Measures what the library costs, and holds it to what was measured before.

Usage: tools/measure.py write     counts and times; writes Docs/measurements.json, measurements.md and measurements.svg
       tools/measure.py check     counts, and fails where a figure is worse than in Docs/measurements.json

What is counted (sizes, stack, memory, instructions) is the same on every machine with the same compilers. What the C
library spends depends on the processor's features: it is told and never held. Times are told and never held.
"""

import concurrent.futures
import datetime
import json
import os
import pathlib
import platform
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "measure"
COMMITTED = ROOT / "Docs" / "measurements.json"
PAGE = ROOT / "Docs" / "measurements.md"
DRAWING = ROOT / "Docs" / "measurements.svg"
TOOLS = {"amd64": "", "armhf": "arm-linux-gnueabihf-"}
OPTIMISATIONS = {
    "-Os": ["-DCMAKE_BUILD_TYPE=MinSizeRel"],
    "-O2": ["-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS_NONE=-O2 -DNDEBUG"],
}
SHIPPED = "-Os"
NOT_HELD = "with the C library"


def run(*command, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"measure.py: this failed: {' '.join(map(str, command))}\n{done.stdout}{done.stderr}".rstrip())
    return done.stdout


# ---- Building -------------------------------------------------------------------------------------------------------


def build_folder(machine, optimisation):
    return WORK / f"{machine}{optimisation}"


def build(machine, optimisation):
    folder = build_folder(machine, optimisation)
    options = ["-DSHOTMENTOR_TESTS=OFF", "-DSHOTMENTOR_DESK=OFF", "-DCMAKE_CXX_FLAGS=-fcallgraph-info=su"]
    if machine != "amd64":
        options.append(f"-DCMAKE_TOOLCHAIN_FILE={ROOT}/cmake/{machine}.cmake")
    if optimisation == SHIPPED:
        options.append("-DSHOTMENTOR_BENCH=ON")
    run("cmake", "-S", ROOT, "-B", folder, "-G", "Ninja", *options, *OPTIMISATIONS[optimisation])
    run("cmake", "--build", folder)


# ---- Sizes ----------------------------------------------------------------------------------------------------------


def sizes(machine, optimisation):
    """Bytes of the shared object, by what they are."""
    library = build_folder(machine, optimisation) / "Src" / "libshotmentor.so"
    prefix = TOOLS[machine]
    section_lines = run(prefix + "size", "-A", library).splitlines()
    sections = {words[0]: int(words[1]) for words in map(str.split, section_lines) if words[:1] and words[0][0] == "."}
    symbols = (line.split() for line in run(prefix + "nm", "-S", library).splitlines())
    tables = sum(int(words[1], 16) for words in symbols if len(words) == 4 and words[2] in "rR")
    segments = re.findall(r"^  LOAD +\S+ \S+ \S+ \S+ (\S+)", run(prefix + "readelf", "-lW", library), re.MULTILINE)
    relocations = re.findall(r"contains (\d+) entr", run(prefix + "readelf", "-rW", library))
    return {
        "code": sections[".text"] + sections[".plt"],
        "read-only tables": tables,
        "strings": sections[".rodata"] - tables,
        "writable data": sections.get(".data", 0),
        "bss": sections.get(".bss", 0),
        "relocations": sum(map(int, relocations)),
        "loadable": sum(int(size, 16) for size in segments),
    }


# ---- Stack ----------------------------------------------------------------------------------------------------------


def call_graph(machine):
    """Each function's own bytes of stack, and the functions that it calls."""
    frames, calls = {}, {}
    for path in (build_folder(machine, SHIPPED) / "Src").rglob("*.ci"):
        text = path.read_text()
        for title, size in re.findall(r'^node: { title: "([^"]*)" label: "[^"]*?(\d+) bytes', text, re.MULTILINE):
            frames[title] = int(size)
        for source, target in re.findall(r'^edge: { sourcename: "([^"]*)" targetname: "([^"]*)"', text, re.MULTILINE):
            calls.setdefault(source, set()).add(target)
    return frames, calls


def deepest(function, frames, calls, above=()):
    if function in above:
        sys.exit(f"measure.py: {function} calls itself, so that no number bounds its stack")
    below = [deepest(callee, frames, calls, (*above, function)) for callee in calls.get(function, ())]
    return frames.get(function, 0) + max(below, default=0)


def stack(machine):
    """The most bytes of stack that each exported function takes, without what the C library and services take."""
    frames, calls = call_graph(machine)
    exported = [line for line in (ROOT / "Src" / "libshotmentor.symbols").read_text().split() if line in frames]
    return {function: deepest(function, frames, calls) for function in exported}


# ---- Jobs -----------------------------------------------------------------------------------------------------------


def job_names():
    return run(build_folder("amd64", SHIPPED) / "Bench" / "run_job").splitlines()


def memory():
    output = run(build_folder("amd64", SHIPPED) / "Bench" / "job_memory")
    lines = (line.split(" ", 2) for line in output.splitlines())
    return {job: {"allocations": int(count), "most bytes": int(size)} for count, size, job in lines}


def instructions_on_amd64(number):
    folder = build_folder("amd64", SHIPPED)
    counts = folder / f"callgrind.{number}"
    tool = ["valgrind", "--tool=callgrind", "--collect-atstart=no", "--toggle-collect=measured"]
    run(*tool, f"--callgrind-out-file={counts}", folder / "Bench" / "run_job", number)
    report = run("callgrind_annotate", "--threshold=100", counts)
    costs = re.findall(r"^ *([\d,]+) \([^)]*\) +(.*)$", report, re.MULTILINE)
    numbers = [(int(cost.replace(",", "")), what) for cost, what in costs]
    return {
        "library": sum(cost for cost, what in numbers if "libshotmentor.so" in what),
        NOT_HELD: next(cost for cost, what in numbers if what.startswith("PROGRAM TOTALS")),
    }


def instructions_on_armhf(number):
    folder = build_folder("armhf", SHIPPED)
    program = folder / "Bench" / "run_job_static"
    headers = run("arm-linux-gnueabihf-readelf", "-SW", program)
    address, size = re.search(r" library_text +PROGBITS +(\S+) \S+ (\S+)", headers).groups()
    plugin = build_folder("amd64", SHIPPED) / "Bench" / "libcount_instructions.so"
    setting = f"{plugin},first={address},end={int(address, 16) + int(size, 16):x}"

    def count(*arguments):
        found = folder / f"qemu.{number}"
        run("qemu-arm", "-plugin", setting, "-d", "plugin", "-D", found, program, number, *arguments, env={})
        return int(found.read_text())

    return {"library": count() - count("prepare")}


def instructions(machine):
    counting = {"amd64": instructions_on_amd64, "armhf": instructions_on_armhf}[machine]
    names = job_names()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        return dict(zip(names, pool.map(counting, map(str, range(len(names))))))


# ---- All of it ------------------------------------------------------------------------------------------------------


def measure():
    for machine in TOOLS:
        for optimisation in OPTIMISATIONS:
            build(machine, optimisation)
    return {
        "sizes": {f"{m} {o}": sizes(m, o) for m in TOOLS for o in OPTIMISATIONS},
        "stack": {machine: stack(machine) for machine in TOOLS},
        "memory": memory(),
        "instructions": {machine: instructions(machine) for machine in TOOLS},
    }


def flat(figures, path=()):
    for name, value in figures.items():
        if isinstance(value, dict):
            yield from flat(value, (*path, name))
        elif name != NOT_HELD:
            yield " / ".join((*path, name)), value


def compare(found, committed):
    """Prints what differs; returns whether anything is worse, or is there on one side alone."""
    found, committed = dict(flat(found)), dict(flat(committed))
    is_worse = False
    for name in sorted(found.keys() | committed.keys()):
        now, before = found.get(name), committed.get(name)
        if now == before:
            continue
        if now is None or before is None:
            print(f"{'NEW' if before is None else 'GONE'}: {name}")
        else:
            print(f"{'WORSE' if now > before else 'better'}: {name}: {before} before, {now} now")
        is_worse = is_worse or now is None or before is None or now > before
    return is_worse


# ---- Times ----------------------------------------------------------------------------------------------------------


def times():
    """Median nanoseconds of each benchmark, all of them interleaved in one run."""
    found = WORK / "times.json"
    options = ["--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=9", "--benchmark_min_time=0.05"]
    program = build_folder("amd64", SHIPPED) / "Bench" / "speed"
    run(program, *options, "--benchmark_report_aggregates_only=true", "--benchmark_out_format=json",
        f"--benchmark_out={found}")  # fmt: skip
    results = json.loads(found.read_text())["benchmarks"]
    return {result["run_name"]: result["cpu_time"] for result in results if result["aggregate_name"] == "median"}


def growth(nanoseconds, name):
    """Pairs of a size and its microseconds, of `NAME/SIZE` or `NAME/SIZE/PACKET` by packet."""
    series = {}
    for key, value in nanoseconds.items():
        if key.startswith(name + "/"):
            size, *packet = map(int, key[len(name) + 1 :].split("/"))
            series.setdefault(packet[0] if packet else None, []).append((size, value / 1000))
    return {packet: sorted(points) for packet, points in series.items()}


def draw(nanoseconds):
    lists = growth(nanoseconds, "growth of a list")[None]
    uploads = growth(nanoseconds, "growth of an upload")
    script = [
        "set terminal svg size 960,400 font 'sans-serif,11'",
        f"set output '{DRAWING}'",
        "set multiplot layout 1,2",
        "set key top left; set grid; set xrange [0:*]; set yrange [0:*]",
        "set title 'a list'; set xlabel 'presets'; set ylabel 'microseconds'",
        "plot '-' with linespoints title 'request to reply'",
        *(f"{size} {time}" for size, time in lists),
        "e",
        "set title 'an upload'; set xlabel 'kilobytes'",
        "plot " + ", ".join(f"'-' with linespoints title 'packets of {packet}'" for packet in uploads),
    ]
    for points in uploads.values():
        script += [*(f"{size / 1000} {time}" for size, time in points), "e"]
    run("gnuplot", input="\n".join(script) + "\n")


def desk_costs():
    """What serving costs the desk's camera, a row for each size of its store."""
    folder = WORK / "desk"
    run("cmake", "-S", ROOT, "-B", folder, "-G", "Ninja", "-DSHOTMENTOR_TESTS=OFF", *OPTIMISATIONS[SHIPPED])
    run("cmake", "--build", folder, "--target", "shotmentor-camera", "shotmentor-phone")
    programs = {
        f"SHOTMENTOR_{name.upper()}": str(folder / "Desk" / f"shotmentor-{name}") for name in ("camera", "phone")
    }
    output = run("python3", ROOT / "Bench" / "desk_costs.py", env={**os.environ, **programs})
    return json.loads(output)


# ---- The page -------------------------------------------------------------------------------------------------------


def table(head, rows):
    lines = [f"| {' | '.join(head)} |", f"|{'---|' * len(head)}"]
    return "\n".join(lines + [f"| {' | '.join(map(str, row))} |" for row in rows])


def sizes_table(found):
    builds = found["sizes"]
    kinds = next(iter(builds.values()))
    return table(["", *builds], [[kind, *(figures[kind] for figures in builds.values())] for kind in kinds])


def stack_table(found):
    entries = [name for name in found["stack"]["amd64"] if name.startswith(("ADE_ShotMentor_", "ADE_SM_"))]
    entries += ["ADE_PRO_CreateProFilm", "ADE_PRO_CreateSysCustom"]
    rows = {name: [found["stack"][machine][name] for machine in TOOLS] for name in entries}
    return table(["entry", *TOOLS], [[f"`{name}`", *values] for name, values in rows.items()])


def instructions_table(found):
    amd64, armhf = found["instructions"]["amd64"], found["instructions"]["armhf"]
    rows = [[job, amd64[job]["library"], amd64[job][NOT_HELD], armhf[job]["library"]] for job in amd64]
    return table(["job", "amd64", "amd64 with the C library", "armhf"], rows)


def memory_table(found):
    rows = [[job, *figures.values()] for job, figures in found["memory"].items() if figures["allocations"] > 0]
    return table(["job", "allocations", "most bytes"], rows)


def ratios_table(nanoseconds):
    jobs = [name.rsplit("/", 1)[0] for name in nanoseconds if name.endswith("/library")]
    rows = []
    for job in sorted(jobs):
        floor = nanoseconds[job + "/floor"]
        others = [
            f"{name[len(job) + 1:]} {value / floor:.2f}"
            for name, value in nanoseconds.items()
            if name.startswith(job + "/") and not name.endswith(("/library", "/floor"))
        ]
        ours = nanoseconds[job + "/library"]
        rows.append([job, f"{ours / floor:.2f}", ", ".join(others), f"{ours / 1000:.2f} µs"])
    return table(["job", "library ÷ floor", "others ÷ floor", "library, on that machine"], rows)


def reassembly_table(nanoseconds):
    uploads = {packet: dict(points) for packet, points in growth(nanoseconds, "growth of an upload").items()}
    copies = {packet: dict(points) for packet, points in growth(nanoseconds, "reassembly by memcpy").items()}
    rows = [
        [packet, f"{times[600000]:.1f} µs", f"{times[600000] / copies[packet][600000]:.1f}"]
        for packet, times in sorted(uploads.items())
    ]
    return table(["bytes of a packet", "600,000 bytes", "÷ `memcpy` alone"], rows)


def desk_table(rows):
    return table(list(rows[0]), [[f"{value:,.0f}" for value in row.values()] for row in rows])


def page(found, nanoseconds, desk):
    text = (ROOT / "tools" / "measurements.template.md").read_text()
    processor = next(
        (line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "unknown"
    )
    compilers = [run(prefix + "g++", "--version").splitlines()[0] for prefix in TOOLS.values()]
    filled = {
        "date": datetime.date.today().isoformat(),
        "machine": f"{processor}, {os.cpu_count()} cores, Linux {platform.release()}",
        "compilers": "; ".join(compilers),
        "sizes": sizes_table(found),
        "stack": stack_table(found),
        "instructions": instructions_table(found),
        "memory": memory_table(found),
        "ratios": ratios_table(nanoseconds),
        "reassembly": reassembly_table(nanoseconds),
        "desk": desk_table(desk),
    }
    for name, value in filled.items():
        text = text.replace("{" + name + "}", value)
    return text


# ---- The command ----------------------------------------------------------------------------------------------------


def write():
    found = measure()
    nanoseconds = times()
    draw(nanoseconds)
    COMMITTED.write_text(json.dumps(found, indent=1) + "\n")
    PAGE.write_text(page(found, nanoseconds, desk_costs()))
    print(f"wrote {COMMITTED.name}, {PAGE.name} and {DRAWING.name} to Docs")


def check():
    found = measure()
    if compare(found, json.loads(COMMITTED.read_text())):
        sys.exit("FAILED: the library costs more than Docs/measurements.json says; ./measure.sh writes it anew")
    print(f"ok: {len(dict(flat(found)))} figures are no worse than those of Docs/measurements.json")


def main():
    commands = {"write": write, "check": check}
    if len(sys.argv) != 2 or sys.argv[1] not in commands:
        sys.exit(__doc__.strip())
    commands[sys.argv[1]]()


if __name__ == "__main__":
    main()
