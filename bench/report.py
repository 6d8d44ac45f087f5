"""What the benchmark programs leave, read and made into a table and a plot.

A program's --csv file has the columns measure,case,unit,ours,peer_name,peer,ratio,goal,lowest,
highest, its --growth file curve,x,ours,peer; BenchReport.h says what they mean.
"""

import collections
import csv
import math
import subprocess

ROW_COLUMNS = ["measure", "case", "unit", "ours", "peer_name", "peer", "ratio", "goal", "lowest",
               "highest"]
POINT_COLUMNS = ["curve", "x", "ours", "peer"]

# Linear is an exponent of 1; the rest is what runs differ by.
LINEAR = "<= 1.1"

Row = collections.namedtuple("Row", ROW_COLUMNS, defaults=(None, None))
Point = collections.namedtuple("Point", POINT_COLUMNS)


class Malformed(Exception):
    """A file that is not as it should be; says which, where and why."""


# -- Figures --------------------------------------------------------------------------------------


def median(values):
    """Of at least one value."""
    ordered = sorted(values)
    middle = len(ordered) // 2
    if len(ordered) % 2:
        return ordered[middle]
    return (ordered[middle - 1] + ordered[middle]) / 2


def parse_goal(goal):
    """The comparison and the bound of "<= 1.15", or None for an empty goal."""
    if not goal:
        return None
    comparisons = {"<=": lambda a, b: a <= b, ">=": lambda a, b: a >= b,
                   "<": lambda a, b: a < b, ">": lambda a, b: a > b}
    sign, _, bound = goal.partition(" ")
    if sign not in comparisons:
        raise ValueError("no goal: '%s'" % goal)
    return comparisons[sign], float(bound)


def goal_met(goal, value):
    """True or False, or None where there is no goal."""
    parsed = parse_goal(goal)
    return None if parsed is None else parsed[0](value, parsed[1])


def row_met(row):
    """A goal is asked of the ratio, or of our figure where there is no peer."""
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


# -- Files ----------------------------------------------------------------------------------------


def read_csv(name, columns):
    with open(name, newline="", encoding="utf-8") as file:
        lines = list(csv.reader(file))
    if not lines or lines[0] != columns:
        raise Malformed("%s: the first line is not %s" % (name, ",".join(columns)))
    for number, line in enumerate(lines[1:], 2):
        if len(line) != len(columns):
            raise Malformed("%s:%d: %d columns instead of %d" % (name, number, len(line),
                                                                 len(columns)))
        yield number, line


def number_or_none(text):
    if not text:
        return None
    value = float(text)
    if not math.isfinite(value):
        raise ValueError("'%s' is no figure" % text)
    return value


def read_rows(name):
    rows = []
    for number, line in read_csv(name, ROW_COLUMNS):
        try:
            row = Row(line[0], line[1], line[2], float(line[3]), line[4],
                      number_or_none(line[5]), number_or_none(line[6]), line[7],
                      number_or_none(line[8]), number_or_none(line[9]))
            number_or_none(line[3])
            parse_goal(row.goal)
        except ValueError as error:
            raise Malformed("%s:%d: %s" % (name, number, error))
        rows.append(row)
    return rows


def read_points(name):
    points = []
    for number, line in read_csv(name, POINT_COLUMNS):
        try:
            point = Point(line[0], float(line[1]), float(line[2]), number_or_none(line[3]))
            if point.x <= 0 or point.ours <= 0 or (point.peer is not None and point.peer <= 0):
                raise ValueError("a point that no logarithmic scale has")
        except ValueError as error:
            raise Malformed("%s:%d: %s" % (name, number, error))
        points.append(point)
    return points


def write_rows(name, rows):
    with open(name, "w", newline="", encoding="utf-8") as file:
        writer = csv.writer(file, lineterminator="\n")
        writer.writerow(ROW_COLUMNS)
        for row in rows:
            writer.writerow(["" if value is None else "%.6g" % value if isinstance(value, float)
                             else value for value in row])


def curves(points):
    """Axis -> series -> points, in the order of the files. A curve is called "AXIS: SERIES"."""
    result = collections.OrderedDict()
    for point in points:
        axis, _, series = point.curve.partition(": ")
        result.setdefault(axis, collections.OrderedDict()).setdefault(series or axis,
                                                                      []).append(point)
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


GrowthRow = collections.namedtuple("GrowthRow", ["axis", "series", "least", "most", "ours", "peer",
                                                 "goal", "met"])


def growth_rows(points):
    """One for each curve of at least two points, with the exponents of ours and of the peer, if
    there is one."""
    result = []
    for axis, by_series in curves(points).items():
        for series, of_one in by_series.items():
            if len(of_one) < 2:
                continue
            ours = exponent([(point.x, point.ours) for point in of_one])
            beside = [(point.x, point.peer) for point in of_one if point.peer is not None]
            peer = exponent(beside) if len(beside) >= 2 else None
            xs = [point.x for point in of_one]
            result.append(GrowthRow(axis, series, min(xs), max(xs), ours, peer, LINEAR,
                                    goal_met(LINEAR, ours)))
    return result


def growth_table(points):
    text = table_line(["grows with", "cost", "from", "to", "exponent", "the floor's", "goal", ""])
    text += "|---|---|--:|--:|--:|--:|---|---|\n"
    for row in growth_rows(points):
        text += table_line([row.axis, row.series, "%g" % row.least, "%g" % row.most,
                            "%.2f" % row.ours, "" if row.peer is None else "%.2f" % row.peer,
                            row.goal, verdict(row.met)])
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
    verdicts = [row_met(row) for row in rows] + [row.met for row in growth_rows(points)]
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
