"""Makes tables and a plot of the figures that `exchanges` prints."""

import argparse
import json
import pathlib
import statistics
import sys

PAGE = pathlib.Path("docs/performance.md")
PLOT = pathlib.Path("docs/images/cost-over-size.svg")
BEGIN, END = "<!-- figures -->\n", "<!-- end of figures -->\n"


def read(path):
    """Of each (what, who): the median of all passes, and the half of the passes that lies around it."""
    samples = {}
    for line in path.read_text().splitlines():
        entry = json.loads(line)
        samples.setdefault((entry["what"], entry["who"]), []).append(entry["figure"])
    figures = {}
    for key, values in samples.items():
        quarters = statistics.quantiles(values, n=4)
        figures[key] = {"median": quarters[1], "from": quarters[0], "to": quarters[2], "passes": len(values)}
    return figures


def size_text(size):
    for unit, factor in (("MiB", 1 << 20), ("KiB", 1 << 10)):
        if size >= factor:
            return f"{size // factor} {unit}"
    return f"{size} B"


def sizes(figures, direction):
    return sorted(int(what.split()[1]) for what, who in figures if what.startswith(direction) and who == "bare")


def spread(figure):
    return f"±{50 * (figure['to'] - figure['from']) / figure['median']:.0f} %"


def table(figures):
    lines = [
        "| | program / owed | program / bare | bare µs | owed µs | program µs | spread of these |",
        "|---|---|---|---|---|---|---|",
    ]
    for direction in ("receive", "send"):
        for size in sizes(figures, direction):
            bare, owed, program = (figures[f"{direction} {size}", who] for who in ("bare", "owed", "program"))
            lines.append(
                f"| {direction} {size_text(size)} | {program['median'] / owed['median']:.2f}"
                f" | {program['median'] / bare['median']:.2f} | {bare['median']:.1f} | {owed['median']:.1f}"
                f" | {program['median']:.1f} | {spread(bare)}, {spread(owed)}, {spread(program)} |"
            )
    owed, logged = figures["receive 512", "owed"], figures["receive 512", "logged"]
    lines.append(
        f"| receive 512 B, logged at INFO | {logged['median'] / owed['median']:.1f} | | | | {logged['median']:.1f}"
        f" | {spread(logged)} |"
    )
    nothing, program = figures["start", "nothing"], figures["start", "program"]
    resident = figures["resident KiB", "program"]
    lines += [
        "",
        f"From the start to the port line {program['median'] / 1000:.2f} ms ({spread(program)}), of a program that"
        f" does nothing {nothing['median'] / 1000:.2f} ms ({spread(nothing)});"
        f" {resident['median'] / 1024:.1f} MiB resident.",
    ]
    return "\n".join(lines) + "\n"


def plot(figures, path):
    try:
        import matplotlib
    except ImportError:
        sys.exit("bench: the plot needs matplotlib: install python3-matplotlib, then run scripts/bench --pages again")

    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "cost", "svg.fonttype": "none", "font.family": "sans-serif"})
    from matplotlib import pyplot

    figure, panes = pyplot.subplots(1, 2, figsize=(9, 3.6), sharey=True, layout="constrained")
    for pane, direction in zip(panes, ("receive", "send")):
        for who, style in (("bare", ":"), ("owed", "--"), ("program", "-")):
            across = sizes(figures, direction)
            pane.plot(across, [figures[f"{direction} {size}", who]["median"] for size in across], style, label=who)
        pane.set(xscale="log", yscale="log", title=direction, xlabel="payload, bytes")
        pane.set_xscale("log", base=2)
        pane.grid(alpha=0.3)
    panes[0].set_ylabel("µs for one request")
    panes[0].legend()
    figure.savefig(path, metadata={"Date": None})


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("figures", type=pathlib.Path)
    options.add_argument("--json", type=pathlib.Path, metavar="FILE")
    options.add_argument("--pages", action="store_true")
    chosen = options.parse_args()
    figures = read(chosen.figures)
    text = table(figures)
    sys.stdout.write(text)
    if chosen.json:
        chosen.json.write_text(json.dumps([{"what": what, "who": who, **each} for (what, who), each in figures.items()], indent=1) + "\n")
    if chosen.pages:
        before, rest = PAGE.read_text().split(BEGIN)
        after = rest.split(END)[1]
        PAGE.write_text(before + BEGIN + text + END + after)
        plot(figures, PLOT)


main()
