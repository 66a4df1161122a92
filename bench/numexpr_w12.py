#!/usr/bin/env python3
"""W12, the particle update, in numexpr: the peer an engine's tools programmer reaches for
when a particle step is written as array expressions instead of bytecode.

For each size, ox_bench --dump writes W12's inputs, constants and the standard path's
outputs after one frame; this script runs one frame from the same inputs, compares it
with the standard path's, then times the frame with numexpr on one thread and on every
core. Each numexpr.evaluate call fuses what writes one array:

    vel     = vel + (pos * neg_k + (vel - wind) * neg_drag) * dt + gdt
    pos     = pos + vel * dt
    age     = age + one
    expired = age > lifetime
    outside = ((pos < box_min) & (vel < zero)) | ((pos > box_max) & (vel > zero))
    colour  = where(age < young_age, colour_young, where(age < mid_age, colour_mid, colour_old))

in two layouts:
  - "soa" (the rows numexpr_1t and numexpr_all): one float32 array per component
    (pos_x, pos_y, ...) and float32 scalars, the vel, pos and outside lines once per
    component: twelve calls. This is numexpr's faster layout here; the arrays are
    split once, before anything is timed, as a program that keeps its particles this
    way would store them.
  - "aos" (numexpr_aos_1t, numexpr_aos_all): the VM's layout, (n, 3) float32 arrays
    with the float3 constants as (3,) arrays that numexpr broadcasts: six calls.
Floats are float32 and integers int32 throughout (constants are passed as numpy
float32 and int32 values, so that nothing is promoted to double); masks are numpy's
one-byte bools where the VM writes 32-bit words. numexpr does not
promise the VM's bit patterns (it may evaluate an expression in another order or with
other temporaries), so floats are compared within a tolerance and the report says how
many words were bit-identical; integers must match exactly, and so must every mask
whose particle's position and velocity came out bit-identical.

The frame updates pos, vel and age in place, as the VM's does: like the other
implementations, the timed frames carry on from one another.

A size whose check fails is not timed; it is listed under "errors" in the output, which
is one JSON file that bench/report.py reads (--numexpr).
"""

import argparse
import json
import os
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import numexpr
import numpy as np

FLOAT3 = ("gravity", "dt", "neg_k", "wind", "neg_drag", "box_min", "box_max", "zero")
INTS = ("one", "young_age", "mid_age", "colour_young", "colour_mid", "colour_old")
# Float tolerance: relative to the value, with a floor for values near 0. One frame of
# float32 arithmetic in another order stays within a few ulps of 20-unit values.
RTOL, ATOL = 1e-5, 1e-6


def read_args():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bench", required=True, help="the ox_bench executable")
    parser.add_argument("--sizes", default="4096,65536,1048576,16777216")
    parser.add_argument("--repetitions", type=int, default=9)
    parser.add_argument("--min-time", type=float, default=0.1, help="seconds per repetition, at least one frame")
    parser.add_argument("--out", required=True, help="JSON results")
    parser.add_argument("--workdir", default=None, help="where the dumps go (a temporary directory by default)")
    return parser.parse_args()


def load(directory):
    with open(os.path.join(directory, "constants.json")) as f:
        raw = json.load(f)
    n = raw["count"]
    k = {name: np.array(raw[name], dtype=np.float32) for name in FLOAT3}
    k.update({name: np.int32(raw[name]) for name in INTS})
    k["gdt"] = k["gravity"] * k["dt"]	# float32 products, as the program's first instruction

    def arr(name, dtype, shape):
        a = np.fromfile(os.path.join(directory, name), dtype=dtype)
        if a.size != int(np.prod(shape)):
            sys.exit(f"numexpr_w12.py: {name} holds {a.size} values, expected {np.prod(shape)}")
        return a.reshape(shape)

    state = {
        "pos": arr("pos.f32", np.float32, (n, 3)),
        "vel": arr("vel.f32", np.float32, (n, 3)),
        "age": arr("age.i32", np.int32, (n,)),
        "lifetime": arr("lifetime.i32", np.int32, (n,)),
        "expired": np.zeros(n, dtype=np.bool_),
        "outside": np.zeros((n, 3), dtype=np.bool_),
        "colour": np.zeros(n, dtype=np.int32),
    }
    reference = {
        "pos": arr("standard_pos.f32", np.float32, (n, 3)),
        "vel": arr("standard_vel.f32", np.float32, (n, 3)),
        "age": arr("standard_age.i32", np.int32, (n,)),
        "expired": arr("standard_expired.u32", np.uint32, (n,)),
        "outside": arr("standard_outside.u32", np.uint32, (n, 3)),
        "colour": arr("standard_colour.i32", np.int32, (n,)),
    }
    return n, k, state, reference


COLOUR = "where(age < young_age, colour_young, where(age < mid_age, colour_mid, colour_old))"


class Aos:
    """The VM's layout: (n, 3) arrays, float3 constants broadcast. Six evaluate calls."""

    def __init__(self, k, state):
        self.s = state
        self.env = dict(k)
        self.env.update(state)

    def frame(self):
        env, s = self.env, self.s
        numexpr.evaluate("vel + (pos * neg_k + (vel - wind) * neg_drag) * dt + gdt", local_dict=env, out=s["vel"])
        numexpr.evaluate("pos + vel * dt", local_dict=env, out=s["pos"])
        numexpr.evaluate("age + one", local_dict=env, out=s["age"])
        numexpr.evaluate("age > lifetime", local_dict=env, out=s["expired"])
        numexpr.evaluate("((pos < box_min) & (vel < zero)) | ((pos > box_max) & (vel > zero))", local_dict=env, out=s["outside"])
        numexpr.evaluate(COLOUR, local_dict=env, out=s["colour"])

    def result(self):
        return self.s


class Soa:
    """One array per component, scalar constants. Twelve evaluate calls."""

    AXES = "xyz"

    def __init__(self, k, state):
        env = {name: k[name] for name in INTS}
        for i, c in enumerate(self.AXES):
            for name in FLOAT3 + ("gdt",):
                env[f"{name}_{c}"] = k[name][i]
            for name in ("pos", "vel", "outside"):
                env[f"{name}_{c}"] = np.ascontiguousarray(state[name][:, i])
        for name in ("age", "lifetime", "expired", "colour"):
            env[name] = state[name]
        self.env = env
        # The expressions, formatted once.
        self.lines = []
        for c in self.AXES:
            self.lines += [
                (f"vel_{c} + (pos_{c} * neg_k_{c} + (vel_{c} - wind_{c}) * neg_drag_{c}) * dt_{c} + gdt_{c}", f"vel_{c}"),
                (f"pos_{c} + vel_{c} * dt_{c}", f"pos_{c}"),
                (f"((pos_{c} < box_min_{c}) & (vel_{c} < zero_{c})) | ((pos_{c} > box_max_{c}) & (vel_{c} > zero_{c}))", f"outside_{c}"),
            ]
        self.lines += [("age + one", "age"), ("age > lifetime", "expired"), (COLOUR, "colour")]

    def frame(self):
        env = self.env
        for expression, out in self.lines:
            numexpr.evaluate(expression, local_dict=env, out=env[out])

    def result(self):
        env = self.env
        out = {name: env[name] for name in ("age", "expired", "colour")}
        for name in ("pos", "vel", "outside"):
            out[name] = np.stack([env[f"{name}_{c}"] for c in self.AXES], axis=1)
        return out


LAYOUTS = (("soa", Soa, ""), ("aos", Aos, "_aos"))


def check(s, ref):
    """Compares one frame with the standard path's. Returns (ok, description, details)."""
    problems = []
    details = {}
    same_bits = np.ones(s["pos"].shape, dtype=bool)
    for name in ("pos", "vel"):
        got, want = s[name], ref[name]
        identical = got.view(np.uint32) == want.view(np.uint32)
        same_bits &= identical
        close = np.isclose(got, want, rtol=RTOL, atol=ATOL)
        diff = float(np.max(np.abs(got.astype(np.float64) - want.astype(np.float64)))) if got.size else 0.0
        details[name] = {"words": int(got.size), "bit_identical": int(identical.sum()), "max_abs_difference": diff}
        if not close.all():
            i = int(np.argmax(~close.reshape(-1)))
            problems.append(f"{name} word {i}: {got.reshape(-1)[i]!r}, the standard path wrote {want.reshape(-1)[i]!r}")
    for name in ("age", "colour"):
        bad = s[name] != ref[name]
        details[name] = {"words": int(s[name].size), "differ": int(bad.sum())}
        if bad.any():
            i = int(np.argmax(bad))
            problems.append(f"{name} element {i}: {s[name][i]}, the standard path wrote {ref[name][i]}")
    expired_bad = s["expired"] != (ref["expired"] != 0)
    details["expired"] = {"words": int(s["expired"].size), "differ": int(expired_bad.sum())}
    if expired_bad.any():
        problems.append(f"expired differs at {int(expired_bad.sum())} particles")
    # A box mask may legitimately differ only where this frame's own floats differ.
    outside_bad = s["outside"] != (ref["outside"] != 0)
    unexplained = outside_bad & same_bits
    details["outside"] = {"words": int(outside_bad.size), "differ": int(outside_bad.sum()), "differ_with_identical_floats": int(unexplained.sum())}
    if unexplained.any():
        problems.append(f"outside differs at {int(unexplained.sum())} components whose position and velocity are bit-identical")
    return (not problems), "; ".join(problems), details


def time_frames(runner, repetitions, min_time):
    """Median seconds per frame over the repetitions, and their coefficient of variation."""
    runner.frame()	# warm-up: compiles and caches the expressions
    per_frame = []
    for _ in range(repetitions):
        frames = 0
        start = time.perf_counter()
        while True:
            runner.frame()
            frames += 1
            elapsed = time.perf_counter() - start
            if elapsed >= min_time:
                break
        per_frame.append(elapsed / frames)
    median = statistics.median(per_frame)
    cv = statistics.pstdev(per_frame) / statistics.mean(per_frame) if len(per_frame) > 1 else 0.0
    return median, cv, per_frame


def main():
    args = read_args()
    sizes = [int(x) for x in args.sizes.split(",") if x]
    cores = numexpr.detect_number_of_cores()
    results = {
        "context": {
            "numexpr": numexpr.__version__,
            "numpy": np.__version__,
            "python": platform.python_version(),
            "cores": cores,
            "vml": bool(getattr(numexpr, "use_vml", False)),
            "repetitions": args.repetitions,
            "min_time": args.min_time,
        },
        "results": [],
        "checks": [],
        "errors": [],
    }
    work = args.workdir or tempfile.mkdtemp(prefix="numexpr_w12.")
    try:
        for n in sizes:
            directory = os.path.join(work, f"w12.{n}")
            os.makedirs(directory, exist_ok=True)
            subprocess.run([args.bench, "--dump", "W12", str(n), directory], check=True)
            count, k, state, reference = load(directory)
            shutil.rmtree(directory, ignore_errors=True)	# 16 Mi particles: about 1.3 GB of files

            for layout, make, suffix in LAYOUTS:
                # Checked: one frame from the dumped inputs against the standard path's.
                numexpr.set_num_threads(1)
                runner = make(k, {name: a.copy() for name, a in state.items()})
                runner.frame()
                ok, problem, details = check(runner.result(), reference)
                results["checks"].append({"layout": layout, "count": count, "ok": ok, "problem": problem, "details": details})
                words = details["pos"]["words"] + details["vel"]["words"]
                same = details["pos"]["bit_identical"] + details["vel"]["bit_identical"]
                print(f"numexpr_w12: {layout}, {count} particles: check {'passed' if ok else 'FAILED: ' + problem}; "
                      f"{same} of {words} position and velocity words bit-identical to the standard path's")
                del runner
                if not ok:
                    # As ox_bench does with a baseline that disagrees: not timed, listed.
                    results["errors"].append({"name": f"W12/numexpr{suffix}/{count}", "message": problem})
                    continue
                for label, threads in (("numexpr" + suffix + "_1t", 1), ("numexpr" + suffix + "_all", cores)):
                    numexpr.set_num_threads(threads)
                    runner = make(k, {name: a.copy() for name, a in state.items()})
                    seconds, cv, runs = time_frames(runner, args.repetitions, args.min_time)
                    del runner
                    results["results"].append({
                        "workload": "W12", "impl": label, "layout": layout, "count": count, "threads": threads,
                        "ns_per_frame": seconds * 1e9, "ns_per_element": seconds * 1e9 / count,
                        "items_per_second": count / seconds, "cv": cv,
                    })
                    print(f"numexpr_w12: {label}, {count} particles, {threads} thread(s): {seconds * 1e9 / count:.2f} ns per particle "
                          f"({count / seconds / 1e6:.1f} M/s, cv {cv * 100:.1f}%)")
            del state, reference
    finally:
        if args.workdir is None:
            shutil.rmtree(work, ignore_errors=True)
    with open(args.out, "w") as f:
        json.dump(results, f, indent=1)


if __name__ == "__main__":
    main()
