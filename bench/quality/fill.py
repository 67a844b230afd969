#!/usr/bin/python3
"""Judging hole fills on real photographs, repeatably.

    bench/quality/fill.py run  --label NAME [--args "CLI OPTIONS"] [--cli PATH] [--out DIR]
    bench/quality/fill.py sheets LABEL [LABEL ...] [--out DIR]
    bench/quality/fill.py seeds NAME__KIND --label NAME [--seeds A-B] [--args "CLI OPTIONS"]
                                [--copy-of X,Y,W,H] [--cli PATH] [--out DIR]

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

`seeds` fills one case (a corpus photo and mask kind, or a sample as
NAME__object) once per seed, in one band (--threads 1 --seed S, so every
result can be made again), into OUT/LABEL/NAME__KIND/seed-S.png, and lays
crops around the hole side by side in OUT/LABEL/NAME__KIND/sheet.png. A fill
is random, and one seed can pass where the next fails: judge a case by how
often it fails. --copy-of names a region of the original (a face, a figure);
a seed counts as a copy when that region turns up centred inside the hole:
where its mean squared difference in luminance, over the region's own
variance, falls below --copy-threshold (0 is the region itself; a flat patch
of its mean colour is 1). Name the smallest part that tells the object, as
fills copy parts: the two people seated at the wall in papes are
480,862,30,38, the astronaut's nose and mouth 205,125,40,35.

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
from PIL import Image, ImageDraw

ROOT = Path(__file__).resolve().parents[2]
SHARED = ROOT.parent / "shared"
CORPUS = SHARED / "corpus"
SAMPLES = SHARED / "samples"
KINDS = ("object", "blob", "stroke", "border")
SAMPLE_NAMES = ("astronaut", "building", "coffee")
BOX_MARGIN = 16
CAPTION = 14


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


def parse_seeds(text):
    first, _, last = text.partition("-")
    return range(int(first), int(last or first) + 1)


def mean_square_difference(picture, template):
    """Mean squared difference of `template` at every place in `picture`
    where it fits (top-left corners), by correlation in the Fourier domain."""
    h, w = template.shape
    shape = (picture.shape[0] + h - 1, picture.shape[1] + w - 1)
    spectrum = lambda a: np.fft.rfft2(a, shape)  # noqa: E731
    flipped = template[::-1, ::-1]
    valid = (slice(h - 1, picture.shape[0]), slice(w - 1, picture.shape[1]))
    cross = np.fft.irfft2(spectrum(picture) * spectrum(flipped), shape)[valid]
    energy = np.fft.irfft2(spectrum(picture * picture) * spectrum(np.ones_like(template)),
                           shape)[valid]
    return (energy - 2 * cross + (template * template).sum()) / template.size


def least_copy_difference(orig, hole, result, region):
    """The least mean squared difference of the original's `region` (x, y, w,
    h) placed with its centre on a hole pixel of `result`, over the region's
    variance, so that one threshold serves plain and busy regions."""
    x, y, w, h = region
    template = luminance(orig[y:y + h, x:x + w].astype(np.float64))
    msd = mean_square_difference(luminance(result.astype(np.float64)), template)
    centred = hole[h // 2:h // 2 + msd.shape[0], w // 2:w // 2 + msd.shape[1]]
    if not centred.any():
        return float("inf")
    return float(msd[centred].min()) / max(float(template.var()), 1.0)


def seed_sheet(tiles, path, columns=10):
    tw = max(t.width for t, _ in tiles)
    th = max(t.height for t, _ in tiles) + CAPTION
    rows = (len(tiles) + columns - 1) // columns
    sheet = Image.new("RGB", (tw * min(columns, len(tiles)), th * rows), (32, 32, 32))
    draw = ImageDraw.Draw(sheet)
    for i, (tile, caption) in enumerate(tiles):
        x, y = i % columns * tw, i // columns * th
        sheet.paste(tile, (x, y + CAPTION))
        draw.text((x + 3, y + 1), caption, fill=(230, 230, 230))
    sheet.save(path)


def seeds(args):
    out = Path(args.out)
    name, _, kind = args.case.partition("__")
    corpus = CORPUS if (CORPUS / "masks" / f"{args.case}.png").exists() else samples_as_corpus(out)
    image = corpus / "images" / f"{name}.png"
    mask = corpus / "masks" / f"{args.case}.png"
    if not mask.exists():
        print(f"no case {args.case}", file=sys.stderr)
        return 1
    folder = out / args.label / args.case
    folder.mkdir(parents=True, exist_ok=True)
    orig = np.asarray(Image.open(image).convert("RGB"))
    hole = np.asarray(Image.open(mask).convert("L")) > 127
    region = tuple(int(v) for v in args.copy_of.split(",")) if args.copy_of else None
    ys, xs = np.nonzero(hole)
    pad = max(16, (ys.max() - ys.min() + xs.max() - xs.min()) // 10)
    box = (max(0, xs.min() - pad), max(0, ys.min() - pad),
           min(hole.shape[1], xs.max() + 1 + pad), min(hole.shape[0], ys.max() + 1 + pad))
    tiles, copies, count = [], 0, 0
    for seed in parse_seeds(args.seeds):
        result = folder / f"seed-{seed}.png"
        command = [args.cli, "fill", str(image), str(mask), str(result), "--quiet",
                   "--threads", "1", "--seed", str(seed)] + shlex.split(args.args)
        done = subprocess.run(command, capture_output=True, text=True)
        if done.returncode != 0:
            print(f"seed {seed}: exit {done.returncode}: {done.stderr.strip()}", file=sys.stderr)
            continue
        count += 1
        filled = Image.open(result).convert("RGB")
        caption = f"seed {seed}"
        if region:
            msd = least_copy_difference(orig, hole, np.asarray(filled), region)
            copied = msd < args.copy_threshold
            copies += copied
            caption += " copy" if copied else ""
            print(f"seed {seed}: {'copy' if copied else 'none'} (least difference {msd:.2f})")
        tile = filled.crop(box)
        tile.thumbnail((args.tile, args.tile))
        tiles.append((tile, caption))
    if not tiles:
        return 1
    seed_sheet(tiles, folder / "sheet.png")
    if region:
        print(f"{args.case}: the region turns up in the hole in {copies} of {count} seeds")
    print(f"results and sheet in {folder}")
    return 0


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
    s = sub.add_parser("sheets", help="contact sheets and medians of labelled results")
    s.add_argument("labels", nargs="+")
    s.add_argument("--tile", type=int, default=240)
    d = sub.add_parser("seeds", help="one case over many seeds, with a copy count")
    d.add_argument("case", help="NAME__KIND, as the corpus names its masks")
    d.add_argument("--label", required=True, help="name of this set of results")
    d.add_argument("--seeds", default="1-30", help="A-B, both included")
    d.add_argument("--args", default="", help="further options for `weftmap fill`")
    d.add_argument("--copy-of", help="X,Y,W,H: a region of the original not to be copied")
    d.add_argument("--copy-threshold", type=float, default=0.4,
                   help="relative difference below which the region counts as copied")
    d.add_argument("--tile", type=int, default=160)
    for p in (r, d):
        p.add_argument("--cli", default=str(ROOT / "build" / "tools" / "weftmap"))
    for p in (r, s, d):
        p.add_argument("--out", default=str(ROOT / "out" / "quality"))
    args = ap.parse_args()
    return {"run": run, "sheets": sheets, "seeds": seeds}[args.command](args)


if __name__ == "__main__":
    sys.exit(main())
