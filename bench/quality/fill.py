#!/usr/bin/python3
"""Judging hole fills on real photographs, repeatably.

    bench/quality/fill.py run  --label NAME [--args "CLI OPTIONS"] [--cli PATH] [--out DIR]
    bench/quality/fill.py sheets LABEL [LABEL ...] [--out DIR]

`run` fills every photo of the corpus (shared/corpus: twelve photos, each with
object, blob, stroke and border masks) and the three samples (shared/samples,
their object masks) with the `weftmap fill` command and keeps the results in
OUT/LABEL/NAME__KIND.png, with OUT/LABEL/measures.csv:

  seconds      wall time of the whole command (decode, fill, encode)
  box_psnr     PSNR and SSIM (luminance, 7x7 windows) against the original in
  box_ssim     the hole's bounding box grown by 16 pixels; the original is a
               ground truth for blob, stroke and border masks only
  seam         mean step across the hole's edge, and the same step in the
  seam_orig    original: a seam well above seam_orig shows as an edge

`sheets` writes contact sheets of the labels side by side, one per mask kind
(OUT/sheets/sheet_KIND.png) and one of the samples (OUT/sheets/samples/...),
with the corpus's own sheet script, and prints medians per label and kind.

Needs numpy and Pillow (Debian's python3-numpy and python3-pil).
"""
import argparse
import csv
import shlex
import shutil
import statistics
import subprocess
import sys
import time
from pathlib import Path

import numpy as np
from PIL import Image

ROOT = Path(__file__).resolve().parents[2]
SHARED = ROOT.parent / "shared"
CORPUS = SHARED / "corpus"
SAMPLES = SHARED / "samples"
KINDS = ("object", "blob", "stroke", "border")
SAMPLE_NAMES = ("astronaut", "building", "coffee")
BOX_MARGIN = 16


def luminance(rgb):
    return rgb.astype(np.float64) @ np.array([0.299, 0.587, 0.114])


def box_mean(a, k=7):
    """Mean over k x k windows (valid part only), by summed-area tables."""
    s = np.pad(a, ((1, 0), (1, 0))).cumsum(0).cumsum(1)
    return (s[k:, k:] - s[:-k, k:] - s[k:, :-k] + s[:-k, :-k]) / (k * k)


def ssim(x, y):
    c1, c2 = (0.01 * 255) ** 2, (0.03 * 255) ** 2
    mx, my = box_mean(x), box_mean(y)
    vx = box_mean(x * x) - mx * mx
    vy = box_mean(y * y) - my * my
    cxy = box_mean(x * y) - mx * my
    s = ((2 * mx * my + c1) * (2 * cxy + c2)) / ((mx * mx + my * my + c1) * (vx + vy + c2))
    return float(s.mean())


def seam_step(img, hole):
    """Mean |img(p) - img(q)| over hole pixels p and their known 4-neighbours q."""
    a = img.astype(np.int16)
    known = ~hole
    steps = []
    for p, q in (((slice(1, None), slice(None)), (slice(None, -1), slice(None))),
                 ((slice(None, -1), slice(None)), (slice(1, None), slice(None))),
                 ((slice(None), slice(1, None)), (slice(None), slice(None, -1))),
                 ((slice(None), slice(None, -1)), (slice(None), slice(1, None)))):
        steps.append(np.abs(a[p] - a[q]).mean(axis=2)[hole[p] & known[q]])
    s = np.concatenate(steps)
    return float(s.mean()) if s.size else 0.0


def measures(orig, hole, result):
    ys, xs = np.nonzero(hole)
    h, w = hole.shape
    y0, y1 = max(0, ys.min() - BOX_MARGIN), min(h, ys.max() + 1 + BOX_MARGIN)
    x0, x1 = max(0, xs.min() - BOX_MARGIN), min(w, xs.max() + 1 + BOX_MARGIN)
    a = orig[y0:y1, x0:x1].astype(np.float64)
    b = result[y0:y1, x0:x1].astype(np.float64)
    mse = float(((a - b) ** 2).mean())
    return {
        "box_psnr": 99.0 if mse == 0 else 10 * np.log10(255 * 255 / mse),
        "box_ssim": ssim(luminance(a), luminance(b)),
        "seam": seam_step(result, hole),
        "seam_orig": seam_step(orig, hole),
        "known_changed": int(np.count_nonzero(np.any(result[~hole] != orig[~hole], axis=1))),
    }


def samples_as_corpus(out):
    """The samples laid out like the corpus (images/, masks/NAME__object.png)."""
    folder = out / "samples-corpus"
    (folder / "images").mkdir(parents=True, exist_ok=True)
    (folder / "masks").mkdir(parents=True, exist_ok=True)
    for name in SAMPLE_NAMES:
        shutil.copyfile(SAMPLES / f"{name}.png", folder / "images" / f"{name}.png")
        mask = Image.open(SAMPLES / f"{name}-mask.png").convert("L")
        mask.point(lambda v: 255 if v > 127 else 0).save(folder / "masks" / f"{name}__object.png")
    return folder


def cases(out):
    """(corpus folder, photo, kind) for every job."""
    jobs = []
    for image in sorted((CORPUS / "images").glob("*.png")):
        for kind in KINDS:
            if (CORPUS / "masks" / f"{image.stem}__{kind}.png").exists():
                jobs.append((CORPUS, image.stem, kind))
    samples = samples_as_corpus(out)
    jobs += [(samples, name, "object") for name in SAMPLE_NAMES]
    return jobs


def run(args):
    out = Path(args.out)
    folder = out / args.label
    folder.mkdir(parents=True, exist_ok=True)
    rows = []
    for corpus, name, kind in cases(out):
        image = corpus / "images" / f"{name}.png"
        mask = corpus / "masks" / f"{name}__{kind}.png"
        result = folder / f"{name}__{kind}.png"
        command = [args.cli, "fill", str(image), str(mask), str(result), "--quiet"]
        command += shlex.split(args.args)
        start = time.monotonic()
        done = subprocess.run(command, capture_output=True, text=True)
        seconds = time.monotonic() - start
        if done.returncode != 0:
            print(f"{name} {kind}: exit {done.returncode}: {done.stderr.strip()}", file=sys.stderr)
            continue
        orig = np.asarray(Image.open(image).convert("RGB"))
        hole = np.asarray(Image.open(mask).convert("L")) > 127
        m = measures(orig, hole, np.asarray(Image.open(result).convert("RGB")))
        rows.append({"name": name, "kind": kind, "seconds": seconds, **m})
        print(f"{name:10} {kind:7} {seconds:6.2f} s  psnr {m['box_psnr']:5.1f}  "
              f"ssim {m['box_ssim']:.3f}  seam {m['seam']:5.1f}/{m['seam_orig']:.1f}")
    with open(folder / "measures.csv", "w", newline="") as f:
        w = csv.DictWriter(f, fieldnames=list(rows[0]))
        w.writeheader()
        for r in rows:
            w.writerow({k: (f"{v:.4f}" if isinstance(v, float) else v) for k, v in r.items()})
    print(f"median {statistics.median(r['seconds'] for r in rows):.2f} s per fill; "
          f"results in {folder}")
    return 0


def summary(out, labels):
    print(f"{'label':12} {'kind':7} {'median s':>8} {'psnr':>6} {'ssim':>6} {'seam/orig':>9}")
    for label in labels:
        with open(out / label / "measures.csv") as f:
            rows = list(csv.DictReader(f))
        for kind in KINDS:
            rs = [r for r in rows if r["kind"] == kind]
            if not rs:
                continue
            med = lambda key: statistics.median(float(r[key]) for r in rs)  # noqa: E731
            ratio = statistics.median(float(r["seam"]) / max(float(r["seam_orig"]), 0.1)
                                      for r in rs)
            print(f"{label:12} {kind:7} {med('seconds'):8.2f} {med('box_psnr'):6.1f} "
                  f"{med('box_ssim'):6.3f} {ratio:9.2f}")


def sheets(args):
    out = Path(args.out)
    sheet = [sys.executable, str(CORPUS / "sheet.py"), "--tile", str(args.tile)]
    methods = [f"{label}={out / label}" for label in args.labels]
    subprocess.run(sheet + ["--out", str(out / "sheets"), "--wrap", "2"] + methods, check=True)
    subprocess.run(sheet + ["--corpus", str(samples_as_corpus(out)),
                            "--out", str(out / "sheets" / "samples")] + methods, check=True)
    summary(out, args.labels)
    return 0


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = ap.add_subparsers(dest="command", required=True)
    r = sub.add_parser("run", help="fill the corpus and the samples")
    r.add_argument("--label", required=True, help="name of this set of results")
    r.add_argument("--args", default="", help="options for `weftmap fill`")
    r.add_argument("--cli", default=str(ROOT / "build" / "tools" / "weftmap"))
    s = sub.add_parser("sheets", help="contact sheets and medians of labelled results")
    s.add_argument("labels", nargs="+")
    s.add_argument("--tile", type=int, default=240)
    for p in (r, s):
        p.add_argument("--out", default=str(ROOT / "out" / "quality"))
    args = ap.parse_args()
    return run(args) if args.command == "run" else sheets(args)


if __name__ == "__main__":
    sys.exit(main())
