#!/usr/bin/python3
"""Retargeting as a person judges it: runs `weftmap retarget` over the photo
corpus and the samples at 70 % and 50 % of their width, records wall times,
and lays the results out on contact sheets for looking at.

    retarget.py --label before                     # run, then a sheet of it
    retarget.py --label after --remove MASKS       # MASKS/NAME.png: --remove
    retarget.py --sheet-only before after          # one sheet, both folders

Results go to OUT/LABEL/wNN/NAME.png, times to OUT/LABEL/times.csv, sheets
to OUT/sheet-wNN.png (rows: photos; columns: original, plain Lanczos
resize, then one column per labelled result folder). A folder is a label
under OUT or LABEL=PATH. Needs Pillow only (run with
/usr/bin/python3).
"""
import argparse
import csv
import glob
import os
import shlex
import subprocess
import sys
import time

from PIL import Image, ImageDraw

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
SHARED = os.path.join(os.path.dirname(REPO), "shared")  # beside the checkout


def default_photos():
    photos = sorted(glob.glob(os.path.join(SHARED, "corpus", "images", "*.png")))
    photos += [os.path.join(SHARED, "samples", n + ".png") for n in ("astronaut", "building", "coffee")]
    return [p for p in photos if os.path.exists(p)]


def name_of(path):
    return os.path.splitext(os.path.basename(path))[0]


def width_tag(fraction):
    return "w%02d" % round(fraction * 100)


def run_all(args, photos):
    folder = os.path.join(args.out, args.label)
    extra = shlex.split(args.args)
    rows = []
    for fraction in args.widths:
        os.makedirs(os.path.join(folder, width_tag(fraction)), exist_ok=True)
        for photo in photos:
            with Image.open(photo) as im:
                size = im.size
            width = max(7, int(size[0] * fraction))
            out = os.path.join(folder, width_tag(fraction), name_of(photo) + ".png")
            command = [args.cli, "retarget", photo, out, "--width", str(width), "--quiet"] + extra
            remove = os.path.join(args.remove, name_of(photo) + ".png") if args.remove else ""
            if remove and os.path.exists(remove):
                command += ["--remove", remove]
            start = time.monotonic()
            done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            seconds = time.monotonic() - start
            status = done.returncode
            if status != 0:
                print("%s at %s failed (%d): %s" % (name_of(photo), width_tag(fraction), status,
                                                    done.stderr.strip()), file=sys.stderr)
            rows.append([name_of(photo), fraction, size[0], size[1], width, "%.3f" % seconds, status])
            print("%-10s %s %6.2f s" % (name_of(photo), width_tag(fraction), seconds), flush=True)
    with open(os.path.join(folder, "times.csv"), "w", newline="") as f:
        writer = csv.writer(f)
        writer.writerow(["photo", "width_fraction", "width", "height", "new_width", "seconds",
                         "status"])
        writer.writerows(rows)
    total = sum(float(r[5]) for r in rows)
    print("%s: %d runs, %.1f s in all" % (args.label, len(rows), total))


def folders_of(args):
    labels = args.sheet_only or [args.label]
    result = []
    for item in labels:
        label, _, path = item.partition("=")
        result.append((label, path or os.path.join(args.out, label)))
    return result


def scaled(im, height):
    return im.resize((max(1, round(im.width * height / im.height)), height), Image.LANCZOS)


def write_sheets(args, photos):
    folders = folders_of(args)
    tile = args.tile
    gap = 6
    label_h = 18
    for fraction in args.widths:
        tag = width_tag(fraction)
        rows = []
        for photo in photos:
            with Image.open(photo) as im:
                original = im.convert("RGB")
            width = max(7, int(original.width * fraction))
            factor = tile / max(original.height, 1)
            cells = [("original", original),
                     ("lanczos", original.resize((width, original.height), Image.LANCZOS))]
            for label, path in folders:
                result = os.path.join(path, tag, name_of(photo) + ".png")
                cells.append((label, Image.open(result).convert("RGB") if os.path.exists(result)
                              else None))
            row = []
            for label, im in cells:
                if im is None:
                    im = Image.new("RGB", (max(1, round(width * factor)), tile), (255, 0, 255))
                else:
                    im = im.resize((max(1, round(im.width * factor)), tile), Image.LANCZOS)
                row.append((label, im))
            rows.append((name_of(photo), row))
        sheet_w = max(sum(im.width + gap for _, im in row) for _, row in rows) + gap
        sheet_h = len(rows) * (tile + label_h + gap) + gap
        sheet = Image.new("RGB", (sheet_w, sheet_h), (255, 255, 255))
        draw = ImageDraw.Draw(sheet)
        y = gap
        for name, row in rows:
            x = gap
            for label, im in row:
                draw.text((x, y), "%s: %s" % (name, label) if label == "original" else label,
                          fill=(0, 0, 0))
                sheet.paste(im, (x, y + label_h))
                x += im.width + gap
            y += tile + label_h + gap
        out = os.path.join(args.out, "sheet-%s.png" % tag)
        sheet.save(out)
        print("wrote", out)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--cli", default=os.path.join(REPO, "build", "tools", "weftmap"))
    parser.add_argument("--out", default=os.path.join(REPO, "build", "quality", "retarget"))
    parser.add_argument("--label", default="current")
    parser.add_argument("--args", default="", help="extra arguments for weftmap retarget")
    parser.add_argument("--remove", default="",
                        help="folder of masks NAME.png given to --remove for the photo NAME")
    parser.add_argument("--widths", default="0.7,0.5",
                        help="new widths as fractions of the old, comma separated")
    parser.add_argument("--names", default="", help="only these photos (comma separated)")
    parser.add_argument("--tile", type=int, default=200, help="row height of the sheets")
    parser.add_argument("--sheet-only", nargs="+", metavar="LABEL[=DIR]",
                        help="no runs: one sheet with these result folders side by side")
    args = parser.parse_args()
    args.widths = [float(w) for w in args.widths.split(",")]
    photos = default_photos()
    if args.names:
        wanted = set(args.names.split(","))
        photos = [p for p in photos if name_of(p) in wanted]
    if not args.sheet_only:
        run_all(args, photos)
    write_sheets(args, photos)


if __name__ == "__main__":
    main()
