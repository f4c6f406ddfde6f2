#!/usr/bin/env python3
"""Makes tables of a Google Benchmark run: the goals first, then a line for each kernel with a column for each form.

Rows named KERNEL/.../FORM with a counter "px" (seconds a pixel) become a line in nanoseconds a pixel; other rows of
a kernel are its peers and bounds. All others are listed with their own time and counters. The minimum over the
repetitions counts.
"""
import json
import sys

FORMS = ["plain", "SSE4", "AVX2", "AVX3", "NEON"]
SHOWN = {"AVX3": "AVX-512"}
SMALL, LARGE = "/320x240", "/640x480"
US_SMALL, MS_LARGE = 1e3 / (320 * 240), 1e6 / (640 * 480)  # of a frame, as nanoseconds a pixel

# What, row, nanoseconds a pixel of the AVX-512 form at most (and of others), times faster than the plain form at
# least, another row, times faster than that at least.
GOALS = [
    ("four planes to distance and amplitude", "epc/phase_4dcs", {"AVX3": 1.2, "AVX2": 2.3, "SSE4": 4.6}, 7,
     "/cv subtract, cartToPolar, convertTo", 2),
    ("the same, random I and Q", "epc/phase_4dcs_random", {}, 15, None, 0),
    ("the same, calibrated by the pixel; against the rule without tables", "epc/phase_4dcs_drnu", {"AVX3": 2.6}, 0,
     "/rule", 10),
    ("packed I and Q, one frequency, random", "imx/random_distance_single", {"AVX3": 1.2}, 8, None, 0),
    ("packed I and Q, two frequencies, random", "imx/random_distance_dual", {"AVX3": 2.7}, 8, None, 0),
    ("recursive bilateral", "bilateral" + SMALL, {"AVX3": 4.7}, 2.5, "/cv dtFilter", 3),
    ("recursive bilateral", "bilateral" + LARGE, {"AVX3": 5.8}, 2.5, "/cv dtFilter", 3),
    ("recursive bilateral, no holes", "bilateral_no_holes" + SMALL, {"AVX3": 3.6}, 0, None, 0),
    ("recursive bilateral, a full image against an empty one", "bilateral_mostly_empty" + SMALL, {}, 0,
     "=bilateral" + SMALL, 1 / 1.15),
    ("median 3 x 3", "median_k3" + SMALL, {"AVX3": 0.3}, 0, "/cv::medianBlur", 4),
    ("median 3 x 3", "median_k3" + LARGE, {"AVX3": 0.3}, 0, "/cv::medianBlur", 3),
    ("median 5 x 5", "median_k5" + SMALL, {"AVX3": 2.2}, 0, "/cv::medianBlur", 4.5),
    ("median 5 x 5", "median_k5" + LARGE, {"AVX3": 2.2}, 0, "/cv::medianBlur", 3.2),
    ("box 3 x 3", "box_k3" + SMALL, {"AVX3": 0.42}, 0, "/cv::blur", 2.8),
    ("Gauss 3 x 3", "gauss_k3" + SMALL, {"AVX3": 0.48}, 0, "/cv::GaussianBlur", 1.8),
    ("recursive Gauss", "gauss_iir_f32" + SMALL, {"AVX3": 1.6}, 11, "/cv::GaussianBlur sigma 3", 2),
    ("recursive Gauss", "gauss_iir_f32" + LARGE, {"AVX3": 1.8}, 11, "/cv::GaussianBlur sigma 3", 2),
    ("fly-pixel", "flypix_k3" + SMALL, {"AVX3": 0.75}, 4, "/cv::Sobel x 2", 6),
    ("fly-pixel", "flypix_k3" + LARGE, {"AVX3": 0.75}, 4, "/cv::Sobel x 2", 6),
    ("hole fill", "fhole_k3" + SMALL, {"AVX3": 0.2}, 0, "/cv::dilate", 1.5),
    ("hole fill", "fhole_k3" + LARGE, {"AVX3": 0.26}, 0, "/cv::dilate", 1.05),
    ("minimum amplitude", "epc/min_amp_hyst", {"AVX3": 0.35}, 5, None, 0),
    ("gray from amplitude", "epc/amp_to_gray", {"AVX3": 0.3}, 4, None, 0),
    ("undistortion", "undistort_u16" + LARGE, {"AVX3": 0.78}, 0, "/cv::remap nearest", 2),
    ("point cloud xyz", "pcl_xyz" + LARGE, {"AVX3": 1.0}, 0, "/cv depthTo3d", 1.6),
    ("point cloud xyzd", "pcl_xyzd" + LARGE, {"AVX3": 1.4}, 0, None, 0),
    ("colour", "colour_u16_rgb" + LARGE, {"AVX3": 0.95}, 10, "/cv convertTo + applyColorMap", 2.5),
    ("decode 320 x 240, 135 us", "epc/decode_default", {"AVX3": 135 * US_SMALL}, 7.5, None, 0),
    ("decode 160 x 60, 17 us", "epc/decode_default_160x60", {"AVX3": 17e3 / 9600}, 7.5, None, 0),
    ("decode 320 x 240, calibrated, 280 us", "epc/decode_drnu", {"AVX3": 280 * US_SMALL}, 8.5, None, 0),
    ("decode 320 x 240, calibrated, all filters, 880 us", "epc/decode_drnu_all_filters", {"AVX3": 880 * US_SMALL}, 4,
     None, 0),
    ("decode 640 x 480, two frequencies, 1.15 ms", "imx/raw_distance_dual", {"AVX3": 1.15 * MS_LARGE}, 7.5, None, 0),
    ("decode 640 x 480, two frequencies, all filters, 3.1 ms", "imx/decode_denoised_dual", {"AVX3": 3.1 * MS_LARGE},
     5, None, 0),
    ("all that and gray, undistortion, cloud, colour, 5.0 ms", "imx/decode_everything", {"AVX3": 5.0 * MS_LARGE}, 4.2,
     None, 0),
]

# The same of rows without pixels: what, row, time of a unit at most (ns a byte, or ms where the row counts in ms),
# units, and rows that take so many times as long at least.
OTHER_GOALS = [
    ("per-pixel calibration fit, 307,200 x 50, ms", "BM_drnu_fit/plain:0/rays:0", 23, 1,
     [("BM_drnu_fit/plain:1/rays:0", 4)]),
    ("Fletcher over megabytes", "BM_stream_hash16/6291456", 0.06, 6291456,
     [("BM_stream_hash16_plain/6291456", 40), ("BM_zlib_adler32/6291456", 6)]),
    ("stream copy with word sum, 614,400 bytes", "BM_stream_copy_sum32/614400", 0, 614400,
     [(None, 0), ("BM_memcpy/614400", 1 / 1.7)]),
    ("stream copy with word sum, 6 MiB", "BM_stream_copy_sum32/6291456", 0, 6291456,
     [(None, 0), ("BM_memcpy/6291456", 1 / 1.4)]),
]


def read(run):
    """The minima of rows with pixels, in seconds, by kernel and form or peer; and the other rows."""
    rows, others = {}, {}
    for b in run["benchmarks"]:
        if b.get("aggregate_name", "min") != "min":
            continue
        name = b["run_name"].split("/min_time:")[0]
        if "px" not in b:
            if name not in others or b["cpu_time"] < others[name]["cpu_time"]:
                others[name] = b
            continue
        kernel, _, form = name.rpartition("/")
        kernels = rows.setdefault(kernel, {})
        kernels[form] = min(b["px"], kernels.get(form, b["px"]))
    return rows, others


def verdict(met):
    return "met" if met else "**missed**"


def goals(rows, others, clock):
    """Times are told as a clock of 3.1 GHz would make them."""
    print(f"| goal (scalar clock {clock:.2f} GHz; ns as at 3.1 GHz) | ns, at most | x plain, at least | x peer, at least | |")
    print("|---|---|---|---|---|")
    for what, row, most, plain, peer, times in GOALS:
        forms = rows.get(row, {})
        best = next((forms[f] for f in ("AVX3", "NEON", "AVX2", "SSE4", "counts") if f in forms), None)
        if best is None:
            continue
        met, cells = True, []
        for form, limit in most.items():
            if form in forms:
                ns = forms[form] * 1e9 * clock / 3.1
                met = met and ns <= limit
                cells.append(f"{ns:.2f} ({limit:.2f})")
        ratios = []
        other = peer and (rows.get(peer[1:], {}).get("AVX3") if peer[0] == "=" else forms.get(peer[1:]))
        for against, limit in ((forms.get("plain") if plain else None, plain), (other, times)):
            if against:
                met = met and against / best >= limit
            ratios.append(f"{against / best:.2f} ({limit:.2g})" if against else "")
        size = row.rpartition("/")[2] if row.endswith((SMALL, LARGE)) else ""
        print(f"| {what} {size} | {'; '.join(cells)} | {ratios[0]} | {ratios[1]} | {verdict(met)} |")
    for what, row, limit, units, against in OTHER_GOALS:
        if row not in others:
            continue
        time = others[row]["cpu_time"]
        value = time / units * clock / 3.1
        met = not limit or value <= limit
        cells = [f"{value:.3g} ({limit:.2g})" if limit else ""]
        for other, times in against:
            known = other in others
            met = met and (not known or others[other]["cpu_time"] / time >= times)
            cells.append(f"{others[other]['cpu_time'] / time:.2f} ({times:.2g})" if known else "")
        print(f"| {what} | {' | '.join((cells + [''])[:3])} | {verdict(met)} |")


def main(path):
    with open(path) as file:
        run = json.load(file)
    rows, others = read(run)
    context = run["context"]
    clock = 1e-9 / rows.pop("clock", {}).get("cycle", 1e-9 / 3.1)
    print(f"Run on {context['date'][:10]}: {context['num_cpus']} x {context['mhz_per_cpu']} MHz; "
          + "; ".join(f"{key} {value}" for key, value in context.items()
                      if key in ("compiler", "flags", "simd", "cpu")) + "\n")
    goals(rows, others, clock)
    shown = [f for f in FORMS if any(f in forms for forms in rows.values())]
    print("\n| kernel, ns a pixel | " + " | ".join(SHOWN.get(f, f) for f in shown) + " | peers and bounds |")
    print("|---|" + "---|" * (len(shown) + 1))
    for kernel, forms in sorted(rows.items()):
        peers = "; ".join(f"{name} {value * 1e9:.3g}" for name, value in forms.items() if name not in FORMS)
        print(f"| {kernel} | " + " | ".join(f"{forms[f] * 1e9:.2f}" if f in forms else "" for f in shown)
              + f" | {peers} |")
    print("\n| whole | time | |\n|---|---|---|")
    for name, b in sorted(others.items()):
        known = ("name", "run_name", "run_type", "repetitions", "repetition_index", "threads", "iterations",
                 "real_time", "cpu_time", "time_unit", "family_index", "per_family_instance_index", "label")
        counters = ", ".join(f"{key} {value:.4g}" for key, value in b.items()
                             if key not in known and isinstance(value, (int, float)))
        print(f"| {name} | {b['cpu_time']:.1f} {b['time_unit']} | {counters} |")


main(sys.argv[1])
