"""The figures that the benchmark programs leave, made into rows, curves, a table and a plot.

A program leaves the JSON of Google Benchmark; Bench.h tells how its names are read.
"""

import collections
import csv
import json
import math
import re
import subprocess
from statistics import median

# What is asked of which rows: patterns of measure, case and what stands beside it, and a goal for
# the ratio, or for our figure where nothing stands beside it.
GOALS = [
    ("conversion", "connection", ".*", "<= 1.3"),
    ("conversion, allocations", ".*", ".*", "<= 1"),
    ("DoWrite", "1 writer", ".*", "<= 1.5"),
    ("DoWrite, all writers", "8 writers", "1 writer", ">= 0.9"),
    ("delivered", ".*", "libzmq loop, spinning for room", ">= 0.9"),
    ("shipped", ".*", ".*", ">= 0.5"),
    ("shipped, .*", ".*", ".*", "< 1"),
    ("published", ".*", "bare loop", ">= 0.9"),
    ("spool .*", ".*", ".*", "<= 1.15"),
    ("UserDetect query", ".*", "ss", "<= 0.2"),
    ("SystemStats reading", ".*", "df", "<= 0.2"),
    ("resident memory, growth.*", ".*", "", "<= 2048"),
]

# Rows of so many bytes that are points of a curve too.
CURVES_OF_SIZES = {"spool Store": "message size (B): Store", "spool Get": "message size (B): Get"}

# What is asked of every curve. Linear is an exponent of 1; the rest is what runs differ by.
LINEAR = "<= 1.1"

Row = collections.namedtuple("Row", ["measure", "case", "unit", "ours", "peer_name", "peer",
                                     "ratio", "goal", "lowest", "highest"])
Point = collections.namedtuple("Point", ["curve", "x", "ours", "peer"])


# -- Figures --------------------------------------------------------------------------------------


def figures_of(run):
    """The measure, the unit and the value of each figure of a benchmark's run."""
    measure, _, _, *options = run["run_name"].split("/")
    if "manual_time" not in options:
        clock = "real_time" if "real_time" in options else "cpu_time"
        yield measure, run["time_unit"], run[clock]
    for name, value in run.items():
        counter = re.fullmatch(r"(.*?) ?\[(.*)\]", name)
        if counter:
            what, unit = counter.groups()
            if ": " not in what:
                what = ", ".join(filter(None, (measure, what)))
            yield what, unit, value


def read(name):
    """The rows and the points of a program's file."""
    with open(name, encoding="utf-8") as file:
        runs = [run for run in json.load(file)["benchmarks"] if run["run_type"] == "iteration"]
    runs.sort(key=lambda run: run["family_index"])  # they ran in random order
    found = {}  # (measure, unit) -> (case, side) -> values
    for run in runs:
        _, case, side, *_ = run["run_name"].split("/")
        for measure, unit, value in figures_of(run):
            by_side = found.setdefault((measure, unit), {})
            by_side.setdefault((case, side), []).append(value)
    rows, points = [], []
    for (measure, unit), by_side in found.items():
        for case in [case for case, side in by_side if side == "ours"]:
            of_case = list(rows_of(measure, unit, case, by_side))
            curve = measure if ": " in measure else CURVES_OF_SIZES.get(measure)
            if ": " not in measure:
                rows += of_case
            if ": " in measure or curve and re.fullmatch(r"\d+ B", case):
                points.append(Point("%s, %s" % (curve, unit), float(case.split(" ")[0]),
                                    of_case[0].ours, of_case[0].peer))
    return rows, points


def rows_of(measure, unit, case, by_side):
    """A row of our figure beside each peer's, or one without a peer."""
    ours = by_side[case, "ours"]
    peers = [(side, values) for (of, side), values in by_side.items()
             if side != "ours" and (of in ("", case) or case.startswith(of + ","))]
    for name, values in peers or [("", None)]:
        beside = median(values) if values else None
        compared = [value / beside if values else value for value in ours]
        limits = (min(compared), max(compared)) if len(ours) > 1 else (None, None)
        goal = next((goal for *patterns, goal in GOALS
                     if all(map(re.fullmatch, patterns, (measure, case, name)))), "")
        yield Row(measure, case, unit, median(ours), name, beside,
                  median(compared) if values else None, goal, *limits)


def goal_met(goal, value):
    """True or False, or None where there is no goal."""
    if not goal:
        return None
    sign, bound = goal.split(" ")
    return {"<=": value <= float(bound), ">=": value >= float(bound),
            "<": value < float(bound)}[sign]


def row_met(row):
    return goal_met(row.goal, row.ours if row.ratio is None else row.ratio)


def exponent(points):
    """How a cost grows at the large end: the slope of the line through the upper half of
    (x, cost), at least two of them, on logarithmic scales. 1 is linear."""
    ordered = sorted(points)
    logs = [(math.log(x), math.log(y)) for x, y in ordered[min(len(ordered) // 2,
                                                               len(ordered) - 2):]]
    mean_x = sum(x for x, _ in logs) / len(logs)
    mean_y = sum(y for _, y in logs) / len(logs)
    return (sum((x - mean_x) * (y - mean_y) for x, y in logs) /
            sum((x - mean_x) ** 2 for x, _ in logs))


def write(name, kind, tuples):
    """A CSV file of rows or points."""
    with open(name, "w", newline="", encoding="utf-8") as file:
        writer = csv.writer(file, lineterminator="\n")
        writer.writerow(kind._fields)
        for each in tuples:
            writer.writerow(["%.6g" % value if isinstance(value, float) else value for value in each])


def curves(points):
    """Axis -> series -> points, in the order of the files. A curve is called "AXIS: SERIES"."""
    result = {}
    for point in points:
        axis, _, series = point.curve.partition(": ")
        result.setdefault(axis, {}).setdefault(series, []).append(point)
    return result


# -- Table ----------------------------------------------------------------------------------------


def figure(value):
    """Three digits that count; large numbers whole."""
    if value is None:
        return ""
    if value == 0 or abs(value) >= 1000:
        return "%.0f" % value
    digits = max(0, 2 - math.floor(math.log10(abs(value))))
    return "%.*f" % (digits, value)


def span(row):
    """What single runs gave of what the goal is asked of."""
    if row.lowest is None:
        return ""
    return "%s–%s" % (figure(row.lowest), figure(row.highest))


def verdict(met):
    return {True: "met", False: "**missed**", None: ""}[met]


def table_line(cells):
    return "| " + " | ".join(str(cell).replace("|", "\\|") for cell in cells) + " |\n"


def rows_table(rows):
    text = table_line(["measured", "case", "ours", "beside", "its figure", "ours / its", "from–to",
                       "goal", ""])
    text += "|---|---|--:|---|--:|--:|--:|---|---|\n"
    for row in rows:
        peer = "%s %s" % (figure(row.peer), row.unit) if row.peer is not None else ""
        text += table_line([row.measure, row.case, "%s %s" % (figure(row.ours), row.unit),
                            row.peer_name, peer, figure(row.ratio), span(row), row.goal,
                            verdict(row_met(row))])
    return text


def growth(points):
    """Axis, series, points, and the exponents of ours and of the peer, if there is one, for each
    curve of at least two points."""
    for axis, by_series in curves(points).items():
        for series, of_one in by_series.items():
            if len(of_one) < 2:
                continue
            beside = [(point.x, point.peer) for point in of_one if point.peer is not None]
            yield (axis, series, of_one, exponent([(point.x, point.ours) for point in of_one]),
                   exponent(beside) if len(beside) >= 2 else None)


def growth_table(points):
    text = table_line(["grows with", "cost", "from", "to", "exponent", "the floor's", "goal", ""])
    text += "|---|---|--:|--:|--:|--:|---|---|\n"
    for axis, series, of_one, ours, peer in growth(points):
        xs = [point.x for point in of_one]
        text += table_line([axis, series, "%g" % min(xs), "%g" % max(xs), "%.2f" % ours,
                            "" if peer is None else "%.2f" % peer, LINEAR,
                            verdict(goal_met(LINEAR, ours))])
    return text


def markdown(facts, warnings, rows, points):
    """The whole page. `facts` are pairs of words, `warnings` sentences."""
    text = "# What was measured\n\nMade by `bench/run`; bench/README.md says how to read it.\n\n"
    text += "".join("- %s: %s\n" % fact for fact in facts)
    text += "".join("\n**%s**\n" % warning for warning in warnings)
    text += "\n" + rows_table(rows)
    if points:
        text += "\n## Growth\n\n" + growth_table(points)
    return text


def count_goals(rows, points):
    """How many goals are met, and how many missed."""
    verdicts = [row_met(row) for row in rows]
    verdicts += [goal_met(LINEAR, ours) for *_, ours, _ in growth(points)]
    return verdicts.count(True), verdicts.count(False)


# -- Plot -----------------------------------------------------------------------------------------


def plot_script(points, output):
    """A gnuplot script: a small plot for each axis, a colour for each series, our line drawn
    through and the floor's dashed."""
    panels = curves(points)
    columns = 2 if len(panels) > 1 else 1
    lines = ["set terminal svg size %d,%d dynamic background 'white' font 'sans,11'" % (
        480 * columns, 360 * math.ceil(len(panels) / columns)),
             "set output %s" % quoted(output),
             "set multiplot layout %d,%d" % (math.ceil(len(panels) / columns), columns),
             "set logscale xy", "set format x '%.0s%c'", "set format y '%g'", "set grid",
             "set key below maxcols 2 reverse Left samplen 3 font ',9'"]
    block = 0
    for axis, by_series in panels.items():
        parts = []
        for colour, (series, of_one) in enumerate(by_series.items(), 1):
            for beside in (False, True):
                data = [(point.x, point.peer if beside else point.ours) for point in of_one
                        if not beside or point.peer is not None]
                if not data:
                    continue
                block += 1
                lines.append("$data%d << EOD" % block)
                lines += ["%g %g" % pair for pair in sorted(data)]
                lines.append("EOD")
                parts.append("$data%d using 1:2 with linespoints lc %d dt %d pt %d ps 0.6 "
                             "title %s" % (block, colour, 2 if beside else 1, 6 if beside else 7,
                                           quoted(series + (", floor" if beside else ""))))
        lines.append("set title %s" % quoted(axis))
        lines.append("plot " + ", \\\n     ".join(parts))
    lines.append("unset multiplot")
    return "\n".join(lines) + "\n"


def quoted(text):
    return "'%s'" % text.replace("'", "''")


def draw(points, output):
    """Runs gnuplot. Raises OSError or subprocess.CalledProcessError when that does not work."""
    subprocess.run(["gnuplot"], input=plot_script(points, output), text=True, check=True)
    with open(output, "r+", encoding="utf-8") as plot:
        text = re.sub(r"\s*\n\s*", " ", re.sub(r">\s+<", "><", plot.read()))
        plot.seek(0)
        plot.truncate()
        plot.write(text + "\n")
