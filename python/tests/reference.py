"""Aggregates by groups, slow and obvious: one loop over rows, exact arithmetic."""

import datetime as dt
import math
from collections import Counter
from fractions import Fraction

PAIRS = ("corr", "cov", "slope", "intercept")


def canonical(value):
    """Keys that are one group are equal: NaNs, and the two zeros."""
    if isinstance(value, float):
        return "NaN" if math.isnan(value) else value + 0.0
    return value


def groups_of(columns, by, rows):
    """The rows of each group, groups in the order of their first rows."""
    groups = {}
    for row in range(rows):
        key = tuple(canonical(columns[name][row]) for name in by)
        groups.setdefault(key, []).append(row)
    if not by:
        groups.setdefault((), [])
    return groups


def number(value):
    return Fraction(value) if isinstance(value, (int, float)) else value


def moment(values, power):
    mean = sum(values) / len(values)
    return sum((value - mean) ** power for value in values)


def at_fraction(ordered, q):
    place = Fraction(q) * (len(ordered) - 1)
    low = math.floor(place)
    high = min(low + 1, len(ordered) - 1)
    return ordered[low] + (ordered[high] - ordered[low]) * (place - low)


def answer(function, values, others=None, parameter=None):
    """The aggregate of a group's values; ``None`` among them are nulls, and there is no NaN."""
    if function == "size":
        return len(values)
    if function in PAIRS:
        both = [
            (number(x), number(y))
            for x, y in zip(values, others)
            if x is not None and y is not None
        ]
        return pair_answer(function, both)
    there = [value for value in values if value is not None]
    if function == "count":
        return len(there)
    if function == "nunique":
        return len({canonical(value) for value in there})
    if not there:
        return None
    if function in ("min", "max"):
        return (min if function == "min" else max)(there)
    if function in ("first", "last"):
        return there[0 if function == "first" else -1]
    if function == "any":
        return any(there)
    if function == "all":
        return all(there)
    if function == "mode":
        counts = Counter(there)
        most = max(counts.values())
        return None if most == 1 else min(v for v, n in counts.items() if n == most)
    if function == "largest":
        ordered = sorted(there, reverse=True)
        return ordered[parameter - 1] if len(ordered) >= parameter else None

    exact = [number(value) for value in there]
    n = len(exact)
    if function == "sum":
        total = sum(exact)
        return int(total) if all(isinstance(v, int) for v in there) else float(total)
    if function == "mean":
        return float(sum(exact) / n)
    if function == "median":
        return float(at_fraction(sorted(exact), 0.5))
    if function == "quantile":
        return float(at_fraction(sorted(exact), parameter))
    if function in ("std", "var"):
        if n < 2:
            return None
        variance = float(moment(exact, 2) / (n - 1))
        return math.sqrt(variance) if function == "std" else variance
    if function == "skew":
        spread = moment(exact, 2)
        if n < 3 or not spread:
            return None
        g1 = float(moment(exact, 3) / n) / float(spread / n) ** 1.5
        return g1 * math.sqrt(n * (n - 1)) / (n - 2)
    raise NotImplementedError(function)


def pair_answer(function, both):
    n = len(both)
    if n < 2:
        return None
    mean_x = sum(x for x, _ in both) / n
    mean_y = sum(y for _, y in both) / n
    xx = sum((x - mean_x) ** 2 for x, _ in both)
    yy = sum((y - mean_y) ** 2 for _, y in both)
    xy = sum((x - mean_x) * (y - mean_y) for x, y in both)
    if function == "cov":
        return float(xy / (n - 1))
    if function == "corr":
        return float(xy) / math.sqrt(xx) / math.sqrt(yy) if xx and yy else None
    # The line that gives the first column from the second.
    if not yy:
        return None
    slope = xy / yy
    return float(slope if function == "slope" else mean_x - slope * mean_y)


def same(ours, theirs):
    """Equal, floats but for what another order of additions can change."""
    if ours is None or theirs is None:
        return ours is theirs
    if isinstance(ours, float) or isinstance(theirs, float):
        ours, theirs = float(ours), float(theirs)
        if math.isnan(ours) or math.isnan(theirs):
            return math.isnan(ours) and math.isnan(theirs)
        return math.isclose(ours, theirs, rel_tol=1e-9, abs_tol=1e-9)
    if isinstance(ours, dt.date) and isinstance(theirs, dt.date):
        return ours == theirs
    return ours == theirs
