"""Writes what was measured as REPORT.md, chart.svg and chart.png."""

import re

import matplotlib

matplotlib.use("Agg")
matplotlib.rcParams["svg.hashsalt"] = "Orvane"
from matplotlib import pyplot  # noqa: E402: only after the choice above

NAMES = {"floor": "a bare C host", "java": "`java`", "jpackage": "jpackage's launcher",
         "jsvc": "jsvc", "jsvc-data": "jsvc with our class data", "stock": "stock JDK"}
# (row, what, goal)
GOALS = [("floor", "wall", 1.01), ("floor", "cpu", 1.01), ("floor", "memory", 1.01),
         ("java", "wall", 0.98), ("jpackage", "wall", 0.98), ("jsvc", "wall", 0.80),
         ("jsvc-data", "wall", 0.80), ("stock", "wall", 0.70)]
WHAT = {"wall": "wall time", "cpu": "CPU", "memory": "peak memory"}
INSTRUCTIONS, NANOSECONDS, LINE_MEMORY, LINEAR = 350_000, 120, 90, 1.2
FEW, MANY = 10_000, 1_000_000
MISSED = "**missed**"


def table(head, rows):
    lines = ["| " + " | ".join(map(str, row)) + " |" for row in [head, ["---"] * len(head), *rows]]
    return "\n".join(lines) + "\n"


def met(value, goal):
    return "met" if value <= goal else MISSED


def goals(found):
    rows = []
    for row, what, goal in GOALS:
        middle, least = found["ratios"][row][what]
        text = (f"class-heavy service, start to readiness: ours / {NAMES[row]}" if row == "stock"
                else f"whole run: ours / {NAMES[row]}")
        rows.append([f"{text}, {WHAT[what]}", f"≤ {goal:.2f}", f"{middle:.3f}", f"{least:.3f}",
                     met(middle, goal)])
    count = found["instructions"]["ours"]
    rows.append(["instructions of the launcher's own, whole process", f"≤ {INSTRUCTIONS:,}",
                 f"{count:,}", "", met(count, INSTRUCTIONS)])
    for length, costs in found["ours_lines"].items():
        growth = costs[MANY]["wall"] / costs[FEW]["wall"]
        nanoseconds, memory = costs[MANY]["wall"] * 1e9, costs[MANY]["memory"]
        least = costs[MANY]["least"] * 1e9
        name = f"override file, lines of {length} bytes"
        rows += [
            [f"{name}: cost a line at 10⁶ / at 10⁴", f"≤ {LINEAR:.1f}", f"{growth:.2f}", "",
             met(growth, LINEAR)],
            [f"{name}: time a line at 10⁶", f"≤ {NANOSECONDS} ns", f"{nanoseconds:.0f} ns",
             f"{least:.0f} ns", met(nanoseconds, NANOSECONDS)],
            [f"{name}: peak memory a line at 10⁶", f"≤ {LINE_MEMORY} bytes",
             f"{memory:.0f} bytes", "", met(memory, LINE_MEMORY)],
        ]
    growth = found["arguments"][100_000]["wall"] / found["arguments"][FEW]["wall"]
    rows.append(["arguments of 8 bytes: cost of one at 10⁵ / at 10⁴", f"≤ {LINEAR:.1f}",
                 f"{growth:.2f}", "", met(growth, LINEAR)])
    return rows


def pair(spread):
    return f"{spread[0]:.3f} ({spread[1]:.3f})"


def cost_rows(costs, loop=None):
    return [[f"{count:,}", f"{cost['wall'] * 1e9:.0f} ({cost['least'] * 1e9:.0f})",
             f"{cost['cpu'] * 1e9:.0f}", f"{cost['memory']:.0f}",
             *([f"{cost['wall'] / loop[count]['wall']:.2f}"] if loop else [])]
            for count, cost in costs.items()]


def why_missed(found):
    """A sentence for the rows of goals that were missed."""
    itself = f"{found['noise']['wall'][0]:.3f}"
    reasons = {
        "bare C host, (wall|CPU)":
            f"in the same rounds that host beside itself comes to {itself} of wall time and "
            f"{found['noise']['cpu'][0]:.3f} of CPU, which is what such a figure is worth on this "
            "machine. What ours does besides: it binds a larger executable, prints its report, and "
            "detaches the thread, whose Java side the VM then has to end.",
        "bare C host, peak memory":
            f"{found['resident']:,} bytes of the launcher's "
            f"{found['variants']['as it is']['size']:,} become resident, for the system maps what "
            "lies around each page that is touched, and the C++ library in it is touched all over "
            "when its streams and locales are set up. They are pages of a file, and shared.",
        "`java`|jpackage":
            "most of the run is the VM's own start, which is the same; read it beside what the "
            f"bare C host comes to beside itself in this run, {itself}.",
        "jsvc with our class data":
            "its class path begins with ours here, so that the class data made for the launcher "
            "serve it too. What remains is its second process and its stop.",
        "time a line":
            "each is read, compared with three prefixes, kept, copied for the VM, and printed; the "
            "line and its end each pass through the stream into that of C, which takes a lock for "
            "each.",
        r"lines of (1[6-9]|[2-9]\d) bytes: peak memory":
            "a string of more than 15 bytes lies in memory of its own, and there are two of each, "
            "the launcher's and the copy that is made for the VM.",
    }
    missed = {}
    for row in goals(found):
        if row[-1] == MISSED:
            reason = next((text for pattern, text in reasons.items() if re.search(pattern, row[0])),
                          "no reason is known.")
            missed.setdefault(reason, []).append(row[0])
    return "\n".join(f"- {'; '.join(rows)}: {reason}" for reason, rows in missed.items())


def size_section(found):
    size = found["variants"]["as it is"]["size"]
    kinds = list(next(iter(found["size"].values())))
    parts = sorted(found["size"].items(), key=lambda part: -sum(part[1].values()))
    rows = [[whose, *(f"{sizes[kind]:,}" for kind in kinds), f"{sum(sizes.values()):,}"]
            for whose, sizes in parts]
    whole = sum(sum(sizes.values()) for _, sizes in parts)
    rows.append(["tables for the loader, headers, padding", *[""] * len(kinds), f"{size - whole:,}"])
    rows.append(["**the file**", *[""] * len(kinds), f"**{size:,}**"])
    text = "Native, stripped, bytes:\n\n" + table(["", *kinds, "sum"], rows) + "\n"
    if not found["slices"]:
        return text + "The macOS executable was not built in this run.\n"
    names = list(found["slices"])
    parts = {part: None for sizes in found["slices"].values() for part in sizes if part != "whole"}
    rows = [[f"`{part}`", *(f"{found['slices'][name].get(part, 0):,}" for name in names)]
            for part in parts]
    rows.append(["**the slice**", *(f"**{found['slices'][name]['whole']:,}**" for name in names)])
    return (text + "macOS, each slice, bytes in the file (`__LINKEDIT` holds the symbols and the "
            "signature; the C++ library is linked in):\n\n" + table(["", *names], rows))


def tried_rows(found):
    rows = []
    lengths = list(found["lines"])
    for name, variant in found["variants"].items():
        rows.append([name, f"{variant['instructions']:,}", f"{variant['size']:,}",
                     f"{variant['start']:.3f}", f"{variant['memory']:.3f}",
                     *(f"{variant['lines'][length]:.3f}" for length in lengths), variant["verdict"]])
    return rows


def markdown(found):
    lengths = ", ".join(f"{length} bytes (`{line}`)" for length, line in found["lines"].items())
    commands = {**found["commands"], "stock": found["heavy_commands"]["stock"]}
    ratio_rows = [["a bare C host / itself", *(pair(found["noise"][what]) for what in WHAT)]]
    ratio_rows += [[f"ours / {NAMES[row]}", *(pair(spread[what]) for what in WHAT)]
                  for row, spread in found["ratios"].items()]
    class_rows = [[NAMES.get(name, name), *counts] for name, counts in found["classes"].items()]
    class_rows += [[f"class-heavy service: {NAMES.get(name, name)}", *counts]
                   for name, counts in found["heavy_classes"].items()]
    instructions = found["instructions"]
    parts = [f"""# Benchmarks

```sh
script/bench
```

wrote this page and the chart, in {found['minutes']:.0f} minutes. Each round runs everything that is
compared once, in random order, after {found['warm_up']} rounds that do not count; a ratio is of the
two runs of one round. A figure is the median over the rounds, and beside it stands the least.

![Benchmarks](chart.svg)

## Goals

""", table(["row", "goal", "median", "least", ""], goals(found))]
    why = why_missed(found)
    if why:
        parts.append(f"\nWhy those are missed:\n\n{why}\n")
    parts += ["\n## The machine\n\n", table(["", ""], found["machine"]),
              f"""
Load average of the last minute when it began: {found['load'][0]:.1f}, and when it ended:
{found['load'][1]:.1f}.

## Beside its peers

Median (least) of ours / theirs; {found['floor_rounds']} rounds for the bare C host,
{found['heavy_rounds']} for the stock JDK, {found['rounds']} for each other. CPU is user and system
time, of child processes too. The first row is the same program twice: what the machine's noise
alone does to such figures.

""", table(["", *WHAT.values()], ratio_rows), """
All host the sample service in the bundle's runtime image with the same options, and write to
`/dev/null`, the class-heavy one to a pipe. jpackage's launcher gets an empty `PATH`: on Linux it
otherwise asks the package manager for itself at every start. The class-heavy service runs in the bundle made for it by `BUNDLE_JAR`, and
beside it in the JDK. It is timed until it says that it is ready; CPU and memory are of the whole
run. Working directory: `$BUNDLE/MacOS`; environment: `PATH` and `LC_ALL=C.UTF-8`.

""", table(["", "command"], [[NAMES.get(name, name), f"`{command}`"]
                             for name, command in commands.items()]), """
`$BUNDLE` is `/Applications/.../OrvaneService.app/Contents`, `$JDK` the JDK above, `$WORK` the
folder that the peers were built in, and `$OPTIONS` are

```
""", "\n".join(found["options"]), """
```

jpackage's application: `$JDK/bin/jpackage --type app-image --name peer --input DIR --main-jar
service.jar --main-class com.vaultory.service.QRService --runtime-image $BUNDLE/Resources/jre`,
and `--java-options` before each of `$OPTIONS`; its class data made as the bundle's are. jsvc's
class is `bench/java/jsvc`; put first, as is usual, its own archive keeps the VM from using the class
data, put last it does not. The bare C host is `bench/native/floor.c`.

Classes loaded in a run, and how many of those came from class data:

""", table(["", "loaded", "from class data"], class_rows), f"""
## Instructions

`valgrind --tool=callgrind`, environment empty, over a runtime library that does nothing
(`bench/native/idle_runtime.c`): the whole process, the dynamic loader included.

""", table(["", "instructions"], [["the launcher", f"{instructions['ours']:,}"],
                                  ["the bare C host", f"{instructions['floor']:,}"],
                                  ["an empty C program", f"{instructions['empty']:,}"]]), f"""
## Override file and arguments

The same idle runtime, output to `/dev/null`. A line's cost is the time of a run less that of a run
without a file in the same round, divided by the number of lines; {found['line_rounds']} rounds, and
in each the median of 7 runs up to 10,000. A thousand lines, or a few
arguments, cost about what starts differ by: read those rows as noise. The bare loop is `bench/native/getline.cpp`, a `std::getline` that counts. Lines of {lengths}.
"""]
    head = ["count", "ns (least)", "CPU ns", "bytes"]
    for length, costs in found["ours_lines"].items():
        parts.append(f"\nLines of {length} bytes:\n\n" + table(
            [*head, "ours / bare loop"], cost_rows(costs, found["loop_lines"][length])))
    parts += ["\nArguments of 8 bytes:\n\n", table(head, cost_rows(found["arguments"])),
              "\n## Size\n\n", size_section(found), f"""
## What was tried

Each with the product's own source and commands but for what it says. The first row is the product;
the last columns are medians of ratios to it, over the idle runtime: time and peak memory of a start
({3 * found['line_rounds']} rounds), time with 100,000 lines ({found['line_rounds']} rounds). A
variant is started by a longer name than the product above, which costs a few instructions.

""", table(["", "instructions", "bytes", "time", "memory", *(f"time, lines of {length} bytes"
                                           for length in found["lines"]), ""], tried_rows(found)), """
Not tried: output that is not synchronised with C's, which would change when a line reaches a
terminal.
"""]
    return "".join(parts)


def chart(found, folder):
    figure, (left, right) = pyplot.subplots(1, 2, figsize=(11, 3.6),
                                            gridspec_kw={"width_ratios": [3, 2]})
    rows = list(reversed(GOALS))
    places = range(len(rows))
    spreads = [found["ratios"][row][what] for row, what, _ in rows]
    left.barh(places, [middle for middle, _ in spreads], color="#4878a8", label="median")
    left.plot([least for _, least in spreads], places, "o", color="#1c3450", label="least")
    left.plot([goal for *_, goal in rows], places, "|", color="#c04030", markersize=16,
              markeredgewidth=2, label="goal")
    left.set_yticks(places, [f"{NAMES[row].strip('`')}, {WHAT[what]}" for row, what, _ in rows])
    for place, (middle, _) in zip(places, spreads):
        left.text(0.02, place, f"{middle:.3f}", color="white", va="center")
    left.set_title("Ours / theirs: less is better")
    left.legend(loc="upper center", bbox_to_anchor=(0.5, -0.08), ncols=3, frameon=False)

    for (length, costs), colour in zip(found["ours_lines"].items(), ("#4878a8", "#58a066")):
        right.plot(list(costs), [cost["wall"] * 1e9 for cost in costs.values()], "o-",
                   color=colour, label=f"lines of {length} bytes")
    right.axhline(NANOSECONDS, color="#c04030", label="goal")
    right.set_xscale("log")
    right.set_ylim(bottom=0)
    right.set_xlabel("lines of the override file")
    right.set_title("Nanoseconds a line")
    right.legend(frameon=False, loc="lower right")
    figure.tight_layout()
    figure.savefig(folder / "chart.svg", metadata={"Date": None})
    figure.savefig(folder / "chart.png", dpi=120, metadata={"Software": None})


def write(found, folder):
    (folder / "REPORT.md").write_text(markdown(found))
    chart(found, folder)
