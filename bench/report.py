#!/usr/bin/env python3
"""Writes docs/BENCHMARKS.md and docs/benchmarks.png from one run of bench/report.

Inputs: the JSON of ox_bench (medians over the repetitions), the callgrind instruction
counts and cache simulations gathered by bench/report, the inclusive callgrind costs of
one W11 run, and the JSON of bench/numexpr_w12.py. Every number in the report comes from
those files. The report holds tables, verdicts, short captions and the plot; what the
figures mean is written by hand in docs/benchmarks_method.md and docs/benchmarks_notes.md,
included as they are. A row the run did not produce is left out.
"""

import argparse
import json
import os
import platform
import re
import subprocess
import sys

DOCS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "docs")
METHOD, NOTES = os.path.join(DOCS, "benchmarks_method.md"), os.path.join(DOCS, "benchmarks_notes.md")

SIZES = [16, 256, 4096, 65536, 1048576]
REFERENCE, LARGEST = 4096, 1048576
# The particle programs, which have fused baselines, run from a stream that fits the
# level-1 cache to one far past the last-level cache.
FUSED = ("W12", "W13")
W12_SIZES, W12_LARGEST = [4096, 65536, 1048576, 16777216], 16777216
BATCH_SIZES = (384, 768)	# ox_bench: <workload>/batched_b<B>/<count>, one thread
BATCH_SIZE_COUNTS = (REFERENCE, LARGEST)
CALL_COST = ("W1", 65536)	# the one-instruction program and its stream, at batch sizes 48 to 3,072
PROGRAM_COST = {"W12": 28, "W13": 29}	# whole programs and their instruction counts
PROGRAM_BATCHES = (48, 96, 192, 384, 768, 1536)
NEIGHBOUR_SIZES = (16, 256, 2048, 4096, 8192, 65536)
CPU_FLAGS = ("sse2", "avx", "avx2", "fma", "avx512f", "avx512dq", "avx512bw", "avx512vl")

IMPLS = [	# table order
    ("standard", "standard path (SSE2 kernels)"), ("low", "Low path"), ("scalar", "scalar loop, -fno-tree-vectorize"),
    ("autovec", "same loop, -O3 auto-vectorised"), ("sse2", "hand-written SSE2"), ("eigen", "Eigen 3.4 arrays"),
    ("libdivide", "libdivide 3.0 SSE2, divider"), ("libdivide_bf", "libdivide 3.0 SSE2, branchfree_divider"), ("fmodf", "fmodf loop"),
    ("numexpr_1t", "numexpr, 1 thread (component arrays)"), ("numexpr_all", "numexpr, every core (component arrays)"),
    ("numexpr_aos_1t", "numexpr, 1 thread ((n, 3) arrays)"), ("numexpr_aos_all", "numexpr, every core ((n, 3) arrays)"),
    ("batched", "batched runner, 1 thread"), ("batched_all_threads", "batched runner, every core"),
    ("standard_avx2", "standard path, AVX2 kernels"), ("standard_avx512", "standard path, AVX-512 kernels"),
    ("autovec_native", "same loop, -O3 -march=native"), ("eigen_native", "Eigen 3.4 arrays, -march=native"),
]
LABEL = dict(IMPLS)
W11_IMPLS = [("standard", "standard path, entry points (as every benchmark runs it)"), ("standard_interpreter", "standard path, through CInterpreter::Run"),
             ("low", "Low path, entry points"), ("standard_profiler", "standard path, entry points, scope profiler enabled")]
SSE2_BASELINES, LIBDIVIDE, NATIVE_BASELINES = ("sse2", "autovec", "eigen"), ("libdivide", "libdivide_bf"), ("autovec_native", "eigen_native")
KERNEL_SETS = ("standard_avx2", "standard_avx512")	# narrowest first
HEADLINE = (("W1", "float add"), ("W2", "float3 × constant"), ("W3", "float4 ÷ float4"), ("W4", "float compare"),
            ("W5", "float modulo by a constant"), ("W6", "int add"), ("W7", "int mul"), ("W8by7", "int ÷ constant 7"),
            ("W8by8", "int ÷ constant 8"), ("W9", "int ÷ int, per lane"))
PLOT_PANELS = [("W1", "W1: float add, 1 component"), ("W8by7", "W8: int division by the constant 7"),
               ("W8by8", "W8: int division by the constant 8"), ("W10", "W10: particle step, float3, four instructions"),
               ("W12", "W12: particle update, 28 instructions"), ("W13", "W13: sprite update, 29 instructions")]
TICKS = {16: "16", 256: "256", 4096: "4K", 65536: "64K", 1048576: "1M", 16777216: "16M"}


def sizes_of(wid):
    return W12_SIZES if wid in FUSED else SIZES


def read_args():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for name in ("json", "icount", "w11-inclusive", "cachesim", "repetitions", "min-time", "markdown", "plot", "workdir"):
        parser.add_argument(f"--{name}", required=True)
    parser.add_argument("--numexpr", default=None, help="JSON of bench/numexpr_w12.py (absent or missing: no numexpr rows)")
    return parser.parse_args()


def run(command):
    try:
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout
    except (OSError, subprocess.CalledProcessError):
        return ""


def lines_of(path):
    try:
        with open(path) as f:
            return f.read().splitlines()
    except (OSError, TypeError):
        return []


#------------------------------------------------------------------------------------
# Inputs

class Results:
    def __init__(self, path):
        with open(path) as f:
            data = json.load(f)
        self.context = data.get("context", {})
        self.median, self.cv, self.errors, self.numexpr = {}, {}, [], {}	# median, cv: (workload, impl, count) ->
        for b in data.get("benchmarks", []):
            if b.get("error_occurred"):
                self.errors.append((b.get("run_name", b.get("name")), b.get("error_message", "")))
                continue
            parts = b.get("run_name", b["name"]).split("/")
            if len(parts) < 3:
                continue
            key = (parts[0], parts[1], int(parts[2]))
            if b.get("aggregate_name") == "median":
                self.median[key] = b
            elif b.get("aggregate_name") == "cv":
                self.cv[key] = b.get("real_time", 0.0)
            elif b.get("run_type") == "iteration" and key not in self.median:
                self.median[key] = b	# a run without repetitions

    def add_numexpr(self, path):
        """W12 in numexpr: medians of its own repetitions, merged as benchmark entries."""
        if not path or not os.path.exists(path):
            return
        with open(path) as f:
            self.numexpr = json.load(f)
        for r in self.numexpr.get("results", []):
            key = (r["workload"], r["impl"], int(r["count"]))
            self.median[key] = {"items_per_second": r["items_per_second"], "real_time": r["ns_per_frame"], "time_unit": "ns"}
            self.cv[key] = r.get("cv", 0.0)
        self.errors += [(e["name"], e["message"]) for e in self.numexpr.get("errors", [])]

    def get(self, field, workload, impl, count):
        return (self.median.get((workload, impl, count)) or {}).get(field)

    def rate(self, workload, impl, count):
        return self.get("items_per_second", workload, impl, count)

    def ns(self, workload, impl, count):
        b = self.median.get((workload, impl, count))
        return b["real_time"] * {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")] if b else None

    def ratio(self, workload, a, b, count):
        ra, rb = self.rate(workload, a, count), self.rate(workload, b, count)
        return ra / rb if ra and rb else None

    def best(self, workload, impls, count):
        rates = [(self.rate(workload, i, count), i) for i in impls]
        return max([r for r in rates if r[0]], default=(None, None))

    def vs_best(self, workload, impl, impls, count):
        """(impl's rate ÷ the fastest of impls, the fastest), or (None, None)."""
        rate, best = self.best(workload, impls, count)
        own = self.rate(workload, impl, count)
        return (own / rate, best) if rate and own else (None, None)

    def has(self, workload, impl, sizes):
        return any(self.rate(workload, impl, n) for n in sizes)

    def widest_set(self):
        """The widest kernel set with rows in this run (None on a machine with SSE2 only)."""
        return next((i for i in reversed(KERNEL_SETS) if any(k[1] == i for k in self.median)), None)


def read_icount(path):
    fields = [line.split() for line in lines_of(path)]
    return {(f[0], f[1], int(f[2])): int(f[3]) for f in fields if len(f) == 4 and f[3] != "failed"}


def read_inclusive(path):
    """Inclusive Ir of the functions of one W11 run, by a short name."""
    wanted = {"run": r"OxBench::CWorkload::Run\(", "entry": r"CMetaOp_MathOp::_ExecBytecode_Add\(", "kernel": r"TSingleFloat<1>::Op2<"}
    found = {}
    for line in lines_of(path):
        m = re.match(r"\s*([\d,]+)\s+\(", line)
        for key, pattern in wanted.items():
            if m and key not in found and re.search(pattern, line):
                found[key] = int(m.group(1).replace(",", ""))
    return found


def read_cachesim(path):
    """(workload, impl, count) -> (level-1 size in KiB, level-1 data misses, ways)."""
    sims = {}
    for line in lines_of(path):
        head, _, rest = line.partition("events:")
        fields = head.split()
        if len(fields) != 5 or "|" not in rest:
            continue
        names, totals = rest.split("|")
        counts = dict(zip(names.split(), [int(v) for v in totals.replace("totals:", "").split()]))
        sims[(fields[0], fields[1], int(fields[2]))] = (int(fields[3]), counts.get("D1mr", 0) + counts.get("D1mw", 0), int(fields[4]))
    return sims


def loop_misses(workdir, workload, impl, count):
    """Simulated level-1 data misses of the costliest function of a cache-simulation run
    (the kernel's or the baseline's loop), from callgrind_annotate's table."""
    lines = lines_of(os.path.join(workdir, f"cachesim.{workload}.{impl}.{count}.out.functions.txt"))
    header = next((l for l in lines if l.strip().startswith("Ir") and "file:function" in l), None)
    if header is None:
        return None
    names = header.split()
    for line in lines[lines.index(header) + 2:]:
        values = re.findall(r"([\d,]+|\.)(?: \([ \d.]+%\))?\s", line)
        if len(values) >= names.index("file:function"):
            value = lambda name: 0 if values[names.index(name)] == "." else int(values[names.index(name)].replace(",", ""))
            return value("D1mr") + value("D1mw")
    return None


def list_workloads(bench):
    fields = [line.split("\t") for line in run([bench, "--list"]).splitlines()]
    return [{"id": f[0], "bytes": int(f[1]), "unit": f[2], "title": f[3]} for f in fields if len(f) == 4]


def include(path):
    """A hand-written file, as it is (nothing when it is missing)."""
    lines = lines_of(path)
    return "\n".join(lines).rstrip().split("\n") + [""] if lines else []


#------------------------------------------------------------------------------------
# Formatting

def fmt_rate(rate):
    """Items per second as millions, three significant digits."""
    if rate is None:
        return "–"
    m = rate / 1e6
    return f"{m:,.0f}" if m >= 100 else f"{m:.1f}" if m >= 10 else f"{m:.2f}"


def fmt_ratio(r, digits=2):
    return "–" if r is None else f"{r:.{digits}f}×"


def fmt_target(r, floor):
    """A ratio against a target: three decimals when two would round a miss up to the target."""
    return fmt_ratio(r, 3 if r is not None and r < floor <= round(r, 2) else 2)


def fmt_size(n):
    return f"{n:,}"


def fmt_vs(pair):
    return "–" if pair[0] is None else f"{fmt_ratio(pair[0])} ({pair[1]})"


def table(head, align, rows):
    """A markdown table; nothing when it has no rows."""
    line = lambda cells: "|" + "|".join(f" {c} " if c else " " for c in cells) + "|"
    return [line(head), "|" + "|".join(align) + "|"] + [line(r) for r in rows] if rows else []


def captioned(caption, lines):
    return [caption, ""] + lines + [""] if lines else []


def numeric_table(head, rows):
    """A table whose first column is a label and whose other columns are numbers."""
    return table(head, ["---"] + ["---:"] * (len(head) - 1), rows)


#------------------------------------------------------------------------------------
# Tables and verdicts

def machine_table(res, args):
    ctx, cpu, cpu_flags, lscpu_caches = res.context, "", set(), []
    for line in run(["lscpu"]).splitlines():
        key, _, value = line.partition(":")
        if key == "Model name":
            cpu = value.strip()
        elif key == "Flags":
            cpu_flags = set(value.split())
        elif key.strip() in ("L1d cache", "L2 cache", "L3 cache"):
            lscpu_caches.append(f"{key.strip()} {value.strip()}")
    caches = (", ".join(f"L{c['level']} {c['type'].lower()} {c['size'] // 1024} KiB" for c in ctx.get("caches", []))
              or ", ".join(lscpu_caches) or ctx.get("data_caches", "") + " (CPUID)")
    load, numexpr = ctx.get("load_avg", []), res.numexpr.get("context", {})
    libraries = (f"Google Benchmark {run(['dpkg-query', '-W', '-f=${Version}', 'libbenchmark-dev']).strip()}"
                 + (" (reports itself as a debug build)" if ctx.get("library_build_type") == "debug" else "")
                 + f", Eigen {ctx.get('eigen', '?')}, libdivide {ctx.get('libdivide', '?')}, {run(['valgrind', '--version']).strip()}"
                 + (f", numexpr {numexpr.get('numexpr')} (numpy {numexpr.get('numpy')})" if numexpr else ""))
    return table(("", ""), ("---", "---"), [
        ("date of the run", ctx.get("date", "")),
        ("CPU", f"{cpu} ({ctx.get('num_cpus', '?')} logical CPUs, {ctx.get('mhz_per_cpu', '?')} MHz as reported)"),
        ("caches", caches or "not reported"),
        ("system", f"{platform.system()} {platform.release()} ({platform.machine()}), Debian {run(['cat', '/etc/debian_version']).strip()}"),
        ("load average at start", ", ".join(f"{x:.2f}" for x in load) if load else "not reported"),
        ("compiler", ctx.get("compiler", "")),
        ("flags", "Release (-O3 -DNDEBUG), default x86-64 target (SSE2), no -march; the scalar baseline adds -fno-tree-vectorize; "
                  "the wide kernel sets are chosen at run time; the -march=native baselines alone are built for this machine"),
        ("libraries", libraries),
        ("repetitions", f"{args.repetitions} per benchmark, at least {args.min_time} s each; the tables show the median"),
        ("kernel sets", ctx.get("kernel_sets", "not reported")),
        ("CPU flags", " ".join(f if f in cpu_flags else f"no-{f}" for f in CPU_FLAGS)),
        ("scope profiler", ctx.get("profiler", "")),
        ("assertions", "compiled in, as always in this library (every site keeps its flag)"),
    ])


def headline_table(res):
    wide = res.widest_set()
    name = LABEL[wide].split(", ")[1] if wide else None
    head = ["workload (4,096 elements)", "SSE2 kernels ÷ best SSE2 baseline"] + ([f"{name} ÷ best -march=native baseline", f"{name} ÷ SSE2 kernels"] if wide else [])
    rows = []
    for wid, title in HEADLINE:
        if res.rate(wid, "standard", REFERENCE):
            rows.append([f"{wid} {title}", fmt_vs(res.vs_best(wid, "standard", SSE2_BASELINES + (LIBDIVIDE if wid.startswith("W8") else ()), REFERENCE))]
                        + ([fmt_vs(res.vs_best(wid, wide, NATIVE_BASELINES, REFERENCE)), fmt_ratio(res.ratio(wid, wide, "standard", REFERENCE))] if wide else []))
    return table(head, ["---"] * len(head), rows)


def judged(desc, r, floor, extra=""):
    """A target's row: (description, measured, met; None when the run has no figure)."""
    return (desc, "no data" if r is None else fmt_target(r, floor) + extra, None if r is None else r >= floor)


def targets(res, counts):
    """Whole streams, kernel sets, the batched runner and W11."""
    rows = []

    def pair(wid, a, b, n, floor, what):
        rows.append(judged(f"{wid} at {fmt_size(n)} elements: {LABEL[a]} ≥ {floor}× {what}", res.ratio(wid, a, b, n), floor))

    def vs(wid, other, floor, what):
        rows.append(judged(f"{wid} at {fmt_size(REFERENCE)} elements: ≥ {floor}× {what}", res.ratio(wid, "standard", other, REFERENCE), floor))

    def vs_best(wid, impl, impls, n, floor, desc, word):
        r, best = res.vs_best(wid, impl, impls, n)
        rows.append(judged(f"{wid} at {fmt_size(n)} elements: {desc}", r, floor, f" ({word}{LABEL[best]})" if best else ""))

    for wid in ("W1", "W4", "W6"):
        for n in (REFERENCE, LARGEST):
            vs_best(wid, "standard", SSE2_BASELINES, n, 0.95, "≥ 0.95× the best SSE2 baseline (hand, auto-vectorised, Eigen)", "best: ")
    for wid in ("W2", "W3", "W7"):
        vs(wid, "sse2", 0.95, "the hand SSE2 loop")
    vs("W5", "fmodf", 10.0, "the fmodf loop")
    vs("W5", "sse2", 0.9, "the hand SSE2 loop")
    for wid, floor in (("W8by7", 1.0), ("W8by8", 1.2)):
        vs_best(wid, "standard", LIBDIVIDE, REFERENCE, floor, f"≥ {floor}× libdivide SSE2 (the faster of its two dividers)", "vs ")
    for wid in ("W1", "W2"):
        vs(wid, "low", 3.0, "the Low path")
    for wid, sizes in (("W10", (LARGEST,)), ("W12", (LARGEST, W12_LARGEST))):
        for n in sizes:
            pair(wid, "batched", "standard", n, 1.8, "the whole-stream run")
            pair(wid, "batched", "sse2", n, 0.8, "the hand-fused SSE2 loop")
        pair(wid, "batched_all_threads", "batched", LARGEST, 1.6, "batched on one thread")
        pair(wid, "batched", "standard", REFERENCE, 0.95, "the whole-stream run")
    for wid in ("W1", "W2", "W4", "W6", "W7"):
        if res.rate(wid, "standard_avx2", REFERENCE):
            pair(wid, "standard_avx2", "standard", REFERENCE, 1.6, "the SSE2 kernels")
        if res.rate(wid, "standard_avx512", REFERENCE):
            pair(wid, "standard_avx512", "standard_avx2", REFERENCE, 1.3, "the AVX2 kernels")
    wide = res.widest_set()
    for wid in ("W1", "W2", "W3", "W4", "W5", "W6", "W7", "W8by7", "W8by8") if wide else ():
        vs_best(wid, wide, NATIVE_BASELINES, REFERENCE, 0.9, f"{LABEL[wide]} (the widest set here) ≥ 0.9× the best -march=native baseline", "vs ")
    # W9 ran at 0.39× the hand SSE2 divider before per-lane division went through double
    # precision: 2.5× that rate is 0.975× the hand divider, measured in the same run.
    for impl in ("standard",) + KERNEL_SETS:
        if res.rate("W9", impl, REFERENCE):
            pair("W9", impl, "sse2", REFERENCE, 0.975, "the hand SSE2 divider (2.5× the earlier 0.39×)")
    # No size of any workload slower than SSE2. A cell is judged where both medians are
    # steady (their repetitions vary by at most 5%); the others are counted apart.
    for impl in KERNEL_SETS:
        cells = [(res.ratio(w, impl, "standard", n), w, n) for w in sorted({k[0] for k in res.median}) for n in sizes_of(w)]
        cells = [c for c in cells if c[0]]
        steady = [c for c in cells if max(res.cv.get((c[1], impl, c[2]), 1.0), res.cv.get((c[1], "standard", c[2]), 1.0)) <= 0.05]
        noisy = [c for c in cells if c not in steady]
        if steady:
            worst = min(steady)
            apart = (f"; {len(noisy)} cells whose repetitions vary by more than 5% left out, lowest {min(noisy)[0]:.2f}× "
                     f"({min(noisy)[1]} at {fmt_size(min(noisy)[2])})" if noisy else "")
            rows.append((f"Every workload and size: {LABEL[impl]} ≥ 0.95× the SSE2 kernels (no slower, within 5% of timing noise; "
                         "cells whose repetitions vary by at most 5%)",
                         f"lowest {fmt_target(worst[0], 0.95)} ({worst[1]} at {fmt_size(worst[2])}, of {len(steady)} cells){apart}", worst[0] >= 0.95))
    for impl, what in (("standard", "entry points called by opcode"), ("standard_interpreter", "through CInterpreter::Run")):
        c = counts.get(("W11", impl, 64))
        rows.append((f"W11: ≤ 150 instructions per one-element instruction, decode and dispatch included ({what})",
                     "no data" if c is None else f"{c / 64:.0f} instructions", None if c is None else c / 64 <= 150))
    return rows


def prepared_targets(res):
    """The prepared programs: the fixed cost of a call, the whole programs batched."""
    intercept = call_cost_fit(res)[0]
    rows = [("Fixed cost of a prepared call ≤ 3 ns (intercept of the fit)", "no data" if intercept is None else f"{intercept:.2f} ns",
             None if intercept is None else intercept <= 3.0)]
    for wid in FUSED:
        for n, native in ((LARGEST, 0.85), (W12_LARGEST, 0.85), (REFERENCE, 0.5)):
            rows.append(judged(f"{wid} at {fmt_size(n)}: batched ≥ 1.0× hand-fused SSE2", res.ratio(wid, "batched", "sse2", n), 1.0))
            rows.append(judged(f"{wid} at {fmt_size(n)}: batched ≥ {native}× fused loop -march=native", res.ratio(wid, "batched", "autovec_native", n), native))
        for n in BATCH_SIZE_COUNTS:
            ratios = [res.ratio(wid, f"batched_b{b}", "batched", n) for b in BATCH_SIZES]
            rows.append(judged(f"{wid} at {fmt_size(n)}: batches of {BATCH_SIZES[0]} to {BATCH_SIZES[-1]} no slower than the default "
                               "(≥ 0.95×, timing noise; the slower of them)", min(ratios) if all(ratios) else None, 0.95))
        for n in (LARGEST, W12_LARGEST):
            rows.append(judged(f"{wid} at {fmt_size(n)}: batched every core ≥ 1.8× one thread", res.ratio(wid, "batched_all_threads", "batched", n), 1.8))
    rows.append(judged(f"W12 at {fmt_size(LARGEST)}: batched ≥ 10× numexpr, one thread", res.ratio("W12", "batched", "numexpr_1t", LARGEST), 10.0))
    rows.append(judged(f"W12 at {fmt_size(LARGEST)}: batched every core ≥ 10× numexpr every core", res.ratio("W12", "batched_all_threads", "numexpr_all", LARGEST), 10.0))
    return rows


VERDICT = {True: "PASS", False: "MISS", None: "not run"}


def verdict_table(rows):
    return table(("target", "measured", ""), ("---", "---", "---"), [(d, m, VERDICT[ok]) for d, m, ok in rows])


def tally(rows):
    judged_rows = [ok for *_, ok in rows if ok is not None]
    return f"{sum(judged_rows)} of {len(judged_rows)} met" + (f"; {len(rows) - len(judged_rows)} not run." if len(judged_rows) < len(rows) else ".")


def least_squares(points):
    """(intercept, slope) of y = a + b x over (x, y) points, weights 1 / y^2 (each point's
    relative error counts alike); None when the points do not fix a line."""
    if len(points) < 2:
        return None
    w = [1 / (y * y) for _, y in points]
    mx, my = (sum(wi * p[k] for wi, p in zip(w, points)) / sum(w) for k in (0, 1))
    sxx = sum(wi * (x - mx) ** 2 for wi, (x, _) in zip(w, points))
    sxy = sum(wi * (x - mx) * (y - my) for wi, (x, y) in zip(w, points))
    return (my - sxy / sxx * mx, sxy / sxx) if sxx > 0 else None


def call_cost_fit(res):
    """ns per call against elements per call over the one-instruction program's batch
    sizes: (intercept, slope, [(batch, elements per call, ns per call)])."""
    wid, n = CALL_COST
    batches = sorted(int(k[1][len("batched_b"):]) for k in res.median if k[0] == wid and k[2] == n and k[1].startswith("batched_b"))
    points = [(b, n / -(-n // b), res.ns(wid, f"batched_b{b}", n) / -(-n // b)) for b in batches]
    fit = least_squares([(x, t) for _, x, t in points])
    return (fit or (None, None)) + (points,)


def batch_tables(res):
    rows = []
    for wid in FUSED:
        for n in BATCH_SIZE_COUNTS:
            rates = [res.rate(wid, "batched", n)] + [res.rate(wid, f"batched_b{b}", n) for b in BATCH_SIZES]
            if any(rates):
                rows.append([f"{wid}, {fmt_size(n)}"] + [fmt_rate(r) for r in rates] + [fmt_ratio(res.ratio(wid, f"batched_b{b}", "batched", n)) for b in BATCH_SIZES])
    out = numeric_table(["workload, elements", "default batch"] + [f"{b}" for b in BATCH_SIZES] + [f"{b} ÷ default" for b in BATCH_SIZES], rows)
    intercept, slope, points = call_cost_fit(res)
    if points:
        out += ["", f"{CALL_COST[0]} (one instruction) over {fmt_size(CALL_COST[1])} elements, batched on one thread:", ""]
        out += table(("batch", "elements per call", "ns per call"), ("---:",) * 3, [(str(b), f"{x:.1f}", f"{t:.1f}") for b, x, t in points])
    if intercept is not None:
        out += ["", f"Fit (weighted least squares): ns per call = {intercept:.2f} + {slope:.4f} × elements; fixed cost of a call **{intercept:.2f} ns**."]
    return out


def program_tables(res):
    """Whole programs at every batch size, and at 4,096 elements the fit of ns per call (a
    batch's time over the program's instructions) against elements per call."""
    rows, fits = [], []
    for wid, instructions in PROGRAM_COST.items():
        for n in BATCH_SIZE_COUNTS:
            rates = [res.rate(wid, "batched", n)] + [res.rate(wid, f"batched_b{b}", n) for b in PROGRAM_BATCHES]
            if any(rates):
                rows.append([f"{wid}, {fmt_size(n)}"] + [fmt_rate(r) for r in rates])
        times = [(b, res.ns(wid, f"batched_b{b}", REFERENCE)) for b in PROGRAM_BATCHES]
        fit = least_squares([(REFERENCE / -(-REFERENCE // b), t / -(-REFERENCE // b) / instructions) for b, t in times if t])
        if fit:
            fits.append(f"- {wid} ({instructions} instructions) at {fmt_size(REFERENCE)}: ns per call = {fit[0]:.2f} + {fit[1]:.4f} × elements")
    return numeric_table(["workload, elements", "default"] + [str(b) for b in PROGRAM_BATCHES], rows) + ([""] + fits if fits else [])


def prefetch_table(res):
    impls = ("batched", "batched_noprefetch", "batched_prefetch")
    rows = [[f"{wid}, {fmt_size(n)}"] + [fmt_rate(res.rate(wid, i, n)) for i in impls] + [fmt_ratio(res.ratio(wid, i, "batched", n)) for i in impls[1:]]
            for wid in FUSED for n in W12_SIZES if any(res.rate(wid, i, n) for i in impls)]
    return numeric_table(("workload, elements", "as chosen", "off", "on", "off ÷ chosen", "on ÷ chosen"), rows)


def w11_tables(res, counts, inclusive):
    rows = []
    for impl, label in W11_IMPLS:
        ns, c = res.ns("W11", impl, 64), counts.get(("W11", impl, 64))
        rows.append((label, "–" if ns is None else f"{ns / 64:.1f}", fmt_rate(res.rate("W11", impl, 64)), "–" if c is None else f"{c / 64:.0f}"))
    out = numeric_table(("W11 (64 one-element float adds, Constant destination)", "ns per instruction", "M instructions/s",
                         "instructions per instruction (callgrind)"), rows)
    if all(k in inclusive for k in ("run", "entry", "kernel")):
        total = counts.get(("W11", "standard", 64), inclusive["run"])
        parts = [("host loop: CInterpreter::Entry and the indirect call", total - inclusive["entry"]),
                 ("entry point `_ExecBytecode_Add`, worker inlined", inclusive["entry"] - inclusive["kernel"]),
                 ("one-element kernel `TSingleFloat<1>::Op2<Add>`", inclusive["kernel"])]
        out += ["", f"Where the {total / 64:.0f} instructions of one instruction go (standard path, entry points; callgrind, "
                "inclusive costs per function divided by 64):", ""] + numeric_table(("part", "instructions"), [(l, f"{v / 64:.0f}") for l, v in parts])
    return out


def neighbour_table(res, sims, workdir, workloads):
    """W1, W4 and W6 around the level-1 cache."""
    bytes_of, rows = {w["id"]: w["bytes"] for w in workloads}, []
    for wid in ("W1", "W4", "W6"):
        ratios, gaps, sim_cells, loop_cells = [], [], [], []
        for n in NEIGHBOUR_SIZES:
            rate, std, t_std = res.best(wid, SSE2_BASELINES, n)[0], res.rate(wid, "standard", n), res.ns(wid, "standard", n)
            ratios.append(fmt_ratio(std / rate) if rate and std else "–")
            gaps.append(f"{t_std - n / rate * 1e9:+.0f} ns" if t_std is not None and rate else "–")
            a, b = sims.get((wid, "standard", n)), sims.get((wid, "sse2", n))
            la, lb = loop_misses(workdir, wid, "standard", n), loop_misses(workdir, wid, "sse2", n)
            sim_cells.append(f"{a[1]} / {b[1]}" if a and b else "–")
            loop_cells.append(f"{la} / {lb}" if la is not None and lb is not None and a and b else "–")
        if wid in bytes_of:
            rows.append([f"{wid}: streams per call, KiB"] + [f"{bytes_of[wid] * n / 1024:.3g}" for n in NEIGHBOUR_SIZES])
        rows.append([f"{wid}: standard ÷ best of hand SSE2, auto-vectorised, Eigen"] + ratios)
        rows.append([f"{wid}: time of the standard path minus the best baseline's, per call"] + gaps)
        for a, b, what in (("standard_avx2", "standard", "AVX2 kernels ÷ SSE2 kernels"), ("standard_avx512", "standard_avx2", "AVX-512 kernels ÷ AVX2 kernels")):
            if res.has(wid, a, NEIGHBOUR_SIZES):
                rows.append([f"{wid}: {what}"] + [fmt_ratio(res.ratio(wid, a, b, n)) for n in NEIGHBOUR_SIZES])
        if any(c != "–" for c in sim_cells):
            rows.append([f"{wid}: simulated level-1 data misses per call, standard path / hand SSE2"] + sim_cells)
            rows.append([f"{wid}: of which in the loop (stream lines), standard path / hand SSE2"] + loop_cells)
    return numeric_table([""] + [fmt_size(n) for n in NEIGHBOUR_SIZES], rows)


def icount_table(counts, workloads):
    f = lambda x: "–" if x is None else f"{x:.2f}"
    rows = []
    for w in (w for w in workloads if w["unit"] == "elements"):
        per = {i: counts[(w["id"], i, REFERENCE)] / REFERENCE if counts.get((w["id"], i, REFERENCE)) else None for i in ("standard", "low", "sse2")}
        r1 = per["standard"] / per["sse2"] if per["standard"] and per["sse2"] else None
        r2 = per["low"] / per["standard"] if per["low"] and per["standard"] else None
        rows.append((w["id"], f(per["standard"]), f(per["low"]), f(per["sse2"]), fmt_ratio(r1), fmt_ratio(r2, 1)))
    return numeric_table(("workload", "standard path", "Low path", "hand SSE2", "standard ÷ hand SSE2", "Low ÷ standard"), rows)


def workload_table(res, w):
    wid, sizes = w["id"], sizes_of(w["id"])
    rows = []
    for impl, label in ((i, l) for i, l in IMPLS if res.has(wid, i, sizes)):
        cvs = [res.cv.get((wid, impl, n)) for n in sizes]
        rows.append([label] + [fmt_rate(res.rate(wid, impl, n)) + (f" (±{cv * 100:.0f}%)" if cv is not None and cv > 0.05 else "") for n, cv in zip(sizes, cvs)])

    def ratios(label, a, b, digits=2):
        rows.append([f"*{label}*"] + [fmt_ratio(res.ratio(wid, a, b, n), digits) for n in sizes])

    def per_element(label, impl):
        rows.append([f"*{label}, {LABEL[impl]}*"] + ["–" if res.ns(wid, impl, n) is None else f"{res.ns(wid, impl, n) / n:.2f}" for n in sizes])

    if w["bytes"]:
        gbs = [res.get("bytes_per_second", wid, "standard", n) for n in sizes]
        rows.append(["*standard path, GB/s*"] + ["–" if b is None else f"{b / 1e9:.1f}" for b in gbs])
    ratios("standard ÷ hand SSE2", "standard", "sse2")
    ratios("standard ÷ Low", "standard", "low")
    rows.append(["*standard ÷ best of hand SSE2, auto-vectorised, Eigen*"] + [fmt_vs(res.vs_best(wid, "standard", SSE2_BASELINES, n)) for n in sizes])
    wide = res.widest_set()
    if wide and any(res.best(wid, NATIVE_BASELINES, n)[0] for n in sizes):
        rows.append([f"*{LABEL[wide].split(', ')[1]} ÷ best -march=native baseline*"] + [fmt_vs(res.vs_best(wid, wide, NATIVE_BASELINES, n)) for n in sizes])
    if wid.startswith("W8"):
        rows.append(["*standard ÷ faster libdivide*"] + [fmt_ratio(res.vs_best(wid, "standard", LIBDIVIDE, n)[0]) for n in sizes])
    if wid == "W5":
        ratios("standard ÷ fmodf", "standard", "fmodf", 1)
    if wid in FUSED:
        ratios("batched ÷ hand-fused SSE2", "batched", "sse2")
        ratios("batched ÷ fused loop, -march=native", "batched", "autovec_native")
        ratios("batched every core ÷ one thread", "batched_all_threads", "batched")
    for impl in ("standard", "batched", "sse2", "autovec_native") if wid == "W13" else ():
        if res.has(wid, impl, sizes):
            per_element("ns per element", impl)
    if wid == "W12":
        for impl, what in (("numexpr_1t", "numexpr 1 thread"), ("numexpr_all", "numexpr every core")):
            if res.has(wid, impl, sizes):
                ratios(f"standard ÷ {what} (component arrays)", "standard", impl)
        for impl in ("standard", "sse2", "numexpr_1t", "numexpr_all"):
            if res.has(wid, impl, sizes):
                per_element("ns per particle", impl)
    return numeric_table(["implementation"] + [fmt_size(n) for n in sizes], rows)


def numexpr_checks_table(res):
    """numexpr's frame against the standard path's, per layout and size."""
    rows = []
    for c in res.numexpr.get("checks", []):
        d = c.get("details", {})
        words, same = (sum(d.get(k, {}).get(field, 0) for k in ("pos", "vel")) for field in ("words", "bit_identical"))
        rows.append(({"soa": "component arrays", "aos": "(n, 3) arrays"}.get(c.get("layout"), c.get("layout", "")), fmt_size(c["count"]), "agrees" if c["ok"] else "DISAGREES: " + c.get("problem", ""),
                     f"{same:,} of {words:,}" if words else "–"))
    return table(("numexpr layout", "particles", "frame against the standard path's", "float words bit-identical"),
                 ("---", "---:", "---", "---:"), rows) if rows else []


#------------------------------------------------------------------------------------
# Plot

PLOT_HEAD = """\
set terminal pngcairo size 1500,1500 font "sans,10" noenhanced
set output "{output}"
set datafile missing "?"
set logscale x 2
set logscale y 10
set format x "%.0s%c"
set xlabel "elements per stream"
set ylabel "million elements per second (median)"
set grid
set key outside right top vertical Left reverse font ",9"
set multiplot layout 3,2 title "Throughput against stream size, {date}" font ",12\""""


def plot(res, args):
    script = [PLOT_HEAD.format(output=args.plot, date=res.context.get("date", "")[:10])]
    for wid, title in PLOT_PANELS:
        sizes = sizes_of(wid)
        present = [i for i, _ in IMPLS if res.has(wid, i, sizes)]
        if not present:
            continue
        data = os.path.join(args.workdir, f"plot.{wid}.dat")
        with open(data, "w") as f:
            f.write("# size " + " ".join(present) + "\n")
            for n in sizes:
                f.write(f"{n} " + " ".join("?" if res.rate(wid, i, n) is None else f"{res.rate(wid, i, n) / 1e6:.3f}" for i in present) + "\n")
        script += ["set xtics (" + ", ".join(f'"{TICKS[n]}" {n}' for n in sizes) + ")",
                   f"set xrange [{sizes[0] / 1.5}:{sizes[-1] * 1.5}]",	# room for the end ticks' labels
                   f'set title "{title}"',
                   "plot " + ", \\\n     ".join(f'"{data}" using 1:{col} with linespoints lw {3 if impl == "standard" else 1.5} pt {col} title "{LABEL[impl]}"'
                                                for col, impl in enumerate(present, start=2))]
    path = os.path.join(args.workdir, "plot.gp")
    with open(path, "w") as f:
        f.write("\n".join(script + ["unset multiplot"]) + "\n")
    subprocess.run(["gnuplot", path], check=True)


#------------------------------------------------------------------------------------

def main():
    args = read_args()
    res = Results(args.json)
    res.add_numexpr(args.numexpr)
    counts, sims = read_icount(args.icount), read_cachesim(args.cachesim)
    workloads = list_workloads(os.path.join(args.workdir, "bench", "ox_bench"))
    if not workloads:
        sys.exit("report.py: ox_bench --list gave nothing")
    target_rows, prepared = targets(res, counts), prepared_targets(res)
    l1 = next(iter(sims.values()), None)

    md = ["# Benchmarks", "",
          "Written by `bench/report` from one run, with the hand-written sections included as they are. Throughput is in **million "
          "elements per second** (W11: instructions per second), the median of the repetitions; (±n%) marks a cell whose "
          "repetitions have a coefficient of variation above 5%.", "", "![Throughput against stream size](benchmarks.png)", ""]
    if res.errors:
        md += ["**Benchmarks stopped by a failed check:**", ""] + [f"- `{n}`: {e}" for n, e in res.errors] + [""]
    md += ["## Machine and build", ""] + machine_table(res, args) + [""] + include(METHOD)
    md += ["## Against the strongest baseline of each instruction set", "",
           "Rows: workloads at 4,096 elements. Columns: the SSE2 kernels ÷ the fastest of the hand SSE2 loop, the auto-vectorised "
           "loop and Eigen (and libdivide for W8), all built for the default x86-64 target; the widest kernel set run ÷ the fastest "
           "of the loop and Eigen built with `-march=native`; the widest set ÷ the SSE2 kernels. In parentheses: the fastest baseline.", ""]
    md += headline_table(res) + [""]
    md += ["## Targets", "", "Whole streams, kernel sets, the batched runner and W11: " + tally(target_rows), ""] + verdict_table(target_rows) + [""]
    md += ["## Prepared programs", "", tally(prepared), ""] + verdict_table(prepared) + [""]
    md += captioned("Batched on one thread (million elements per second):", batch_tables(res))
    md += captioned("Whole programs at every batch size, one thread (million elements per second), and the fixed cost of a call "
                    "inside a program:", program_tables(res))
    md += captioned("Prefetching the next batch (default plan, one thread, million elements per second; chosen: on past "
                    "16 MiB of streams):", prefetch_table(res))
    md += ["## W11: the cost of one instruction", ""] + w11_tables(res, counts, read_inclusive(args.w11_inclusive)) + [""]
    md += ["## Around 4,096 elements", "", "W1, W4 and W6 from 16 to 65,536 elements. Misses: callgrind's cache simulation"
           + (f" of a {l1[0]} KiB, {l1[2]}-way level-1 data cache" if l1 else " (not run)")
           + ", one run after a warm-up run; in the loop: in the costliest function.", ""] + neighbour_table(res, sims, args.workdir, workloads) + [""]
    md += ["## Instructions per element at 4,096 elements (callgrind)", "",
           "One run of each workload (`ox_bench --icount`), decoding and dispatch included, divided over 4,096 elements.", ""]
    md += icount_table(counts, workloads) + ["", "## Throughput by workload", ""]
    for w in workloads:
        if w["unit"] != "elements" or not any(res.has(w["id"], i, sizes_of(w["id"])) for i, _ in IMPLS):
            continue
        md += [f"### {w['id']}: {w['title']}", "", f"{w['bytes']} bytes read and written per element (constant operands not counted)."
               + (" Elements are particles." if w["id"] in ("W10",) + FUSED else ""), ""] + workload_table(res, w) + [""]
        if w["id"] == "W12" and numexpr_checks_table(res):
            md += ["numexpr's frame against the standard path's (floats within a relative 1e-5, integers and masks exactly):", ""]
            md += numexpr_checks_table(res) + [""]
    md += include(NOTES)
    with open(args.markdown, "w") as f:
        f.write("\n".join(md))
    for d, m, ok in target_rows + prepared:
        print(f"{VERDICT[ok]}  {d}: {m}")
    plot(res, args)


if __name__ == "__main__":
    main()
