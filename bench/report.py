"""Writes what run.py has measured into the tables of a document and draws its plots beside it.

Usage: report.py RESULTS DOCUMENT

A table stands between the lines "<!-- figures: NAME -->" and "<!-- end -->". Figures stand nowhere else: the text
around the tables must stay true when they are taken again. Every measure that is worse than a peer's needs a section
that says why.
"""

import json
import os
import re
import statistics
import sys

import plots

SERVICES = {"korvaneinfod": "korvaneinfod", "gdbus": "GDBus constant", "sdbus": "sd-bus constant"}
PEERS = ("gdbus", "sdbus")
MEASURES = {  # name: (title, section of the document that explains it)
    "get-p50": ("Get, p50", "Get"),
    "get-p99": ("Get, p99", "Get"),
    "getall-p50": ("GetAll, p50", "GetAll"),
    "set-p50": ("Set, p50", "Set"),
    "set-p99": ("Set, p99", "Set"),
    "inflight-p50": ("64 Gets in flight, time for all", "64 Gets in flight"),
    "start": ("Start to name owned", "Start"),
    "resident-idle": ("Resident memory after the start", "Memory"),
    "resident-served": ("Resident memory after serving", "Memory"),
    "private-idle": ("Private memory, written, after the start", "Memory"),
    "private-served": ("Private memory, written, after serving", "Memory"),
}
TARGETS = (  # measure, compared with (None: bytes), entries, limit
    ("get-p50", "gdbus", "20", 1.05),
    ("get-p50", "gdbus", "1000", 1.15),
    ("getall-p50", "gdbus", "20", 1.1),
    ("getall-p50", "gdbus", "1000", 2.6),
    ("inflight-p50", "gdbus", "20", 1 / 0.95),
    ("start", "gdbus", "20", 2.4),
    ("start", "bare", "1000", 1.5),
    ("private-idle", None, "20", 1.3e6),
    ("private-served", None, "20", 1.3e6),
)
SECTION_OF_SIZE = "Size on disk"


def fail(document, message):
    """Ends with what is wrong with the document."""
    sys.exit(f"{document}: {message}")


def ratios(figures, measure, peer, service="korvaneinfod"):
    """Returns (median, lower quartile, upper quartile) over the rounds of a service's figure divided by the peer's."""
    rounds = [own / other for own, other in zip(figures[measure][service], figures[measure][peer])]
    if len(rounds) == 1:
        return rounds * 3
    lower, median, upper = statistics.quantiles(rounds, n=4, method="inclusive")
    return median, lower, upper


def show_ratio(ratio):
    """Shows a ratio with its spread, if it has one."""
    median, lower, upper = ratio
    return f"{median:.2f}" if lower == upper else f"{median:.2f} ({lower:.2f}–{upper:.2f})"


def show_amount(measure, value):
    """Shows bytes or nanoseconds."""
    if measure.startswith(("resident", "private", "size")):
        return f"{value / 1e6:.2f} MB" if value >= 1e6 else f"{value / 1e3:.0f} kB"
    return f"{value / 1e6:.2f} ms" if value >= 1e6 else f"{value / 1e3:.1f} µs" if value >= 1e3 else f"{value:.0f} ns"


def table(head, rows):
    """Returns a Markdown table; all columns but the first are right-aligned."""
    lines = [head, ["---"] + ["--:"] * (len(head) - 1), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def machine_block(results):
    """Says when, on what and how the figures were taken."""
    machine, amounts = results["machine"], results["amounts"]
    return (f"Taken on {machine['date']} by `./scripts/bench`: {machine['processors']} × {machine['processor']}, Linux "
            f"{machine['kernel']}, load average {machine['load']:.1f} before the run; {', '.join(machine['packages'])}. "
            f"{amounts['starts']} starts; {amounts['rounds']} rounds of {amounts['calls']} Gets and Sets and a tenth as "
            f"many GetAlls; ratios are the median of the rounds, with the quartiles in brackets.")


def targets_block(results):
    """Shows each target and whether it is met."""
    rows = []
    for measure, peer, entries, limit in TARGETS:
        figures = results["figures"][entries]
        if peer is None:
            value = statistics.median(figures[measure]["korvaneinfod"])
            shown, allowed, against = show_amount(measure, value), show_amount(measure, limit), "–"
        else:
            ratio = ratios(figures, measure, peer)
            value, shown, allowed = ratio[0], show_ratio(ratio), f"{limit:.2f}"
            against = SERVICES.get(peer, "bare loop")
        rows.append([MEASURES[measure][0], entries, against, allowed, shown, "yes" if value <= limit else "**no**"])
    return table(["figure", "entries", "against", "at most", "measured", "met"], rows)


def ratio_block(results, peer):
    """Shows all ratios to one peer."""
    rows = [[title] + [show_ratio(ratios(figures, measure, peer)) for figures in results["figures"].values()]
            for measure, (title, _) in MEASURES.items()]
    return table(["entries", *results["figures"]], rows)


def start_block(results):
    """Shows the start beside what it cannot do without."""
    rows = [[entries, str(results["messages"][entries]),
             *(show_amount("start", statistics.median(figures["start"][service]))
               for service in ("korvaneinfod", "giomm", "bare")),
             *(show_ratio(ratios(figures, "start", peer)) for peer in ("giomm", "bare")),
             show_ratio(ratios(figures, "start", "gdbus", "giomm"))]
            for entries, figures in results["figures"].items()]
    return table(["entries", "journal messages", "korvaneinfod", "least on giomm", "bare loop", "to the least",
                  "to the bare loop", "least to the GDBus constant"], rows)


def launched_block(results):
    """Shows the start by the launcher, which salvages the configuration, beside the daemon's own."""
    rows = [[entries, *(show_amount("start", statistics.median(figures["start"][service]))
                        for service in ("launched", "korvaneinfod")),
             show_ratio(ratios(figures, "start", "korvaneinfod", "launched"))]
            for entries, figures in results["figures"].items()]
    return table(["entries", "by the launcher", "the daemon alone", "to the daemon's"], rows)


def absolute_block(results):
    """Shows the medians themselves."""
    rows = []
    for measure, (title, _) in MEASURES.items():
        for service, name in SERVICES.items():
            rows.append([title, name] + [show_amount(measure, statistics.median(figures[measure][service]))
                                         for figures in results["figures"].values()])
    return table(["figure", "service", *results["figures"]], rows)


def size_block(results):
    """Shows the sizes of the programs."""
    sizes = results["sizes"]
    rows = [[name, show_amount("size", sizes[service]), f"{sizes['korvaneinfod'] / sizes[service]:.2f}"]
            for service, name in SERVICES.items()]
    return table(["program, stripped", "size", "korvaneinfod's to this"], rows)


def instructions_block(results):
    """Shows which library executes how many instructions for the start and for one request."""
    rows = []
    for entries, services in results["profiles"].items():
        for request in ("start", "get", "getall", "set"):
            for service, name in SERVICES.items():
                counts = services[service][request]["instructions"]
                largest = sorted(counts.items(), key=lambda item: -item[1])[:4]
                total = sum(counts.values())
                parts = ", ".join(f"{library} {count / total:.0%}" for library, count in largest
                                  if count / total >= 0.005)
                rows.append([request, entries, name, f"{total / 1000:,.0f}", parts])
    return table(["request", "entries", "service", "thousand instructions", "most of them in"], rows)


def calls_block(results):
    """Shows the system calls for the start and for one request; waiting and waking up is left out."""
    waiting = ("futex", "poll", "ppoll")
    rows = []
    for entries, services in results["profiles"].items():
        for request in ("start", "get", "getall", "set"):
            for service, name in SERVICES.items():
                calls = services[service][request]["calls"]
                shown = sorted(((call, count) for call, count in calls.items() if count >= 0.5 and call not in waiting),
                               key=lambda item: (-item[1], item[0]))
                rows.append([request, entries, name, ", ".join(f"{call} {count:.0f}" for call, count in shown[:7])])
    return table(["request", "entries", "service", "system calls"], rows)


def micro_block(results):
    """Shows the micro-benchmarks."""
    return table(["step", "processor time"],
                 [[f"`{name}`", show_amount("time", time)] for name, time in results["micro"].items()])


BLOCKS = {
    "machine": machine_block,
    "targets": targets_block,
    "gdbus": lambda results: ratio_block(results, "gdbus"),
    "sdbus": lambda results: ratio_block(results, "sdbus"),
    "start": start_block,
    "launched": launched_block,
    "absolute": absolute_block,
    "size": size_block,
    "instructions": instructions_block,
    "calls": calls_block,
    "micro": micro_block,
}


def check_prose(document, text):
    """Ends when the text around the tables holds figures, which nothing would keep true."""
    prose = re.sub(r"<!-- figures: .*?<!-- end -->", "", text, flags=re.DOTALL)
    figure = re.search(r"\d[\d.,]*\s*(%|times|[nµm]s\b|kB|MB|×)|\b\d+\.\d+\b", prose)
    if figure:
        fail(document, f"a figure outside the tables: {figure[0]!r}")


def check_explanations(document, text, results):
    """Ends when a measure is worse than a peer's and no section with a text says why."""
    sections = set(re.findall(r"^#+ (.*)\n\n(?=\w)", text, re.MULTILINE))
    needed = {SECTION_OF_SIZE: "size"}
    for figures in results["figures"].values():
        for measure, (title, section) in MEASURES.items():
            if any(ratios(figures, measure, peer)[0] > 1 for peer in PEERS):
                needed[section] = title
    for section, title in needed.items():
        if section not in sections:
            fail(document, f"{title} is worse than a peer's, and no section {section!r} says why")


def fill(document, text, results):
    """Returns the text with all tables filled."""
    for name, block in BLOCKS.items():
        pattern = rf"(<!-- figures: {name} -->\n).*?(<!-- end -->)"
        content = block(results) + "\n"
        text, found = re.subn(pattern, lambda match, content=content: match[1] + content + match[2], text,
                              flags=re.DOTALL)
        if found != 1:
            fail(document, f"the table {name!r} stands in it {found} times, not once")
    return text


def draw(results, stem):
    """Draws the plots."""
    limits = {target[:3]: target[3] for target in TARGETS}
    groups = [(title, [(entries, [ratios(figures, measure, peer) for peer in PEERS],
                        limits.get((measure, "gdbus", entries)))
                       for entries, figures in results["figures"].items()])
              for measure, (title, _) in MEASURES.items()]
    labels = [f"to the {SERVICES[peer]}" for peer in PEERS]
    panels = [(MEASURES[measure][0], {name: [(int(entries), statistics.median(figures[measure][service]) / 1000)
                                             for entries, figures in results["figures"].items()]
                                      for service, name in SERVICES.items()})
              for measure in ("get-p50", "getall-p50", "set-p50", "start")]
    for kind, drawing in (("ratios", plots.ratios(groups, labels)), ("times", plots.times(panels))):
        with open(f"{stem}-{kind}.svg", "w", encoding="utf-8") as file:
            file.write(drawing)


def main():
    """Fills the document."""
    path, document = sys.argv[1:]
    with open(path, encoding="utf-8") as file:
        results = json.load(file)
    with open(document, encoding="utf-8") as file:
        text = file.read()
    check_prose(document, text)
    check_explanations(document, text, results)
    text = fill(document, text, results)
    with open(document, "w", encoding="utf-8") as file:
        file.write(text)
    draw(results, os.path.splitext(document)[0])


main()
