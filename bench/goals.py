"""What is to be reached, and whether the results reach it."""

from statistics import median

ONE_KEY = "create/keys:1/live:0/threads:{}"
MANY_KEYS = "create/keys:10000/live:0/threads:{}"
MANY_LIVE = "create/keys:1/live:100000/threads:{}"
QUERY = "query/live:{}/threads:{}"


class Missing(Exception):
    """The results lack a row or a contestant, as after a run of some rows only."""


class Results:
    def __init__(self, results):
        self.results = results

    def samples(self, contestant, row, figure="ns"):
        try:
            return self.results["rows"][row][contestant][figure]
        except KeyError:
            raise Missing(f"{contestant}: {row}") from None

    def value(self, contestant, row, figure="ns"):
        return median(self.samples(contestant, row, figure))

    def ratio(self, upper, lower):
        """Of two (contestant, row): the median of the rounds' ratios."""
        pairs = zip(self.samples(*upper), self.samples(*lower))
        return median(a / b for a, b in pairs)

    def registration_growth(self):
        """What a plug-in adds to reading and parsing: at 100,000 over at 1,000."""

        def each(plugins):
            row = f"start/one_file/plugins:{plugins}"
            pairs = zip(self.samples("ours", row), self.samples("floor", row))
            return median(ours - floor for ours, floor in pairs) / plugins

        return each(100000) / each(1000)

    def throughput(self, keys, threads):
        row = "readers/{}/keys:" + f"{keys}/live:0/threads:{threads}"
        if min(self.samples("ours", row.format("beside_writer"), "writer_rounds")) < 1:
            return 0.0
        return self.ratio(("ours", row.format("alone")), ("ours", row.format("beside_writer")))


def goals(results):
    """(name, how the figure reads, "<=" or ">=", limit, function that gives the figure)"""
    r = Results(results)
    over_poco = "{:.2f} x tracked POCO"
    over_one = "{:.2f} x 1 thread"
    yield ("create and destroy, 1 key", over_poco, "<=", 1.0,
           lambda: r.ratio(("ours", ONE_KEY.format(1)), ("poco_tracked", ONE_KEY.format(1))))
    yield ("create and destroy, 10,000 keys", over_poco, "<=", 0.30,
           lambda: r.ratio(("ours", MANY_KEYS.format(1)), ("poco_tracked", MANY_KEYS.format(1))))
    yield ("create and destroy, 100,000 live", over_poco, "<=", 0.45,
           lambda: r.ratio(("ours", MANY_LIVE.format(1)), ("poco_tracked", MANY_LIVE.format(1))))
    for name, row in (("1 key", ONE_KEY), ("10,000 keys", MANY_KEYS),
                      ("100,000 live", MANY_LIVE)):
        yield (f"2 threads, {name}: wall per operation", over_one, "<=", 0.60,
               lambda row=row: r.ratio(("ours", row.format(2)), ("ours", row.format(1))))
    for keys in (1, 10000):
        yield (f"readers' throughput beside a writer that gets through, {keys:,} "
               + ("key" if keys == 1 else "keys"), "{:.2f} x without", ">=", 0.5,
               lambda keys=keys: r.throughput(keys, 1))
    for live in (8, 100000):
        yield (f"query, {live:,} live", "{:.2f} x the bare table", "<=", 5.0,
               lambda live=live: r.ratio(("ours", QUERY.format(live, 1)),
                                         ("floor", QUERY.format(live, 1))))
        yield (f"query, {live:,} live, 2 threads: wall per operation", over_one, "<=", 0.60,
               lambda live=live: r.ratio(("ours", QUERY.format(live, 2)),
                                         ("ours", QUERY.format(live, 1))))
    for call in ("query", "destroy"):
        yield (f"bad handle refused by {call}", "{:.2f} x the bare table's query", "<=", 5.0,
               lambda call=call: r.ratio(("ours", f"bad_handle/{call}/live:8"),
                                         ("floor", QUERY.format(8, 1))))
    yield ("first load of a module", "{:.2f} µs over bare dlopen", "<=", 3.0,
           lambda: r.value("ours", "load", "over_bare_ns") / 1000)
    for shape in ("one_file", "each", "deep"):
        row = f"start/{shape}/plugins:10000"
        yield (f"start with 10,000 plug-ins, {report_shape(shape)}",
               "{:.2f} x reading and parsing alone", "<=", 1.3,
               lambda row=row: r.ratio(("ours", row), ("floor", row)))
    yield ("registration, each at 100,000", "{:.2f} x each at 1,000", "<=", 3.0,
           r.registration_growth)
    for shape in ("each", "deep"):
        row = f"rescan/{shape}/plugins:10000"
        yield (f"rescan without change, {report_shape(shape)}",
               "{:.2f} x a bare walk with stat", "<=", 1.3,
               lambda row=row: r.ratio(("ours", row), ("floor", row)))
    yield ("one changed list among 10,000", "{:.2f} x the rescan itself", "<=", 1.2,
           lambda: r.ratio(("ours", "rescan_one_changed/plugins:10000"),
                           ("ours", "rescan/each/plugins:10000")))
    yield ("memory for each registered plug-in", "{:.0f} bytes", "<=", 1024,
           lambda: r.value("ours", "memory/plugins:100000", "bytes"))
    yield ("libvessa.so, stripped", "{:,.0f} bytes", "<=", 350000,
           lambda: results["library bytes"])


def report_shape(shape):
    return {"one_file": "one file", "each": "one file each", "deep": "deep tree"}[shape]


def judged(results):
    """(name, figure as text or None, goal as text, reached or None, figure over goal or None)"""
    for name, reads, relation, limit, figure in goals(results):
        goal = ("at most " if relation == "<=" else "at least ") + reads.format(limit)
        try:
            value = figure()
        except Missing:
            yield name, None, goal, None, None
            continue
        reached = value <= limit if relation == "<=" else value >= limit
        part = value / limit if relation == "<=" else limit / value if value > 0 else float("inf")
        yield name, reads.format(value), goal, reached, part
