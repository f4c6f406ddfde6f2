#!/usr/bin/env python3
"""Turns the colour tables of the colour map into src/image/palettes_data.inc and back.

  make_palettes.py palettes.csv > src/image/palettes_data.inc
  make_palettes.py --csv src/image/palettes_data.inc > palettes.csv

The csv has a line "palette,row,r,g,b" for each of 64 * 256 rows, with the digits that give each 32-bit float
back. The data file keeps every table once: a table that is another one from the last row to the first is a
reference. Channels follow each other; a negative number repeats the value before it so many times more.
"""
import csv
import re
import sys

PALETTES, ROWS = 64, 256


def read_csv(path):
    tables = [[None] * ROWS for _ in range(PALETTES)]
    with open(path, newline="") as f:
        for line in csv.DictReader(f):
            tables[int(line["palette"])][int(line["row"])] = (line["r"], line["g"], line["b"])
    assert all(row is not None for table in tables for row in table), "rows are missing"
    return tables


def pack(table):
    tokens = []
    for channel in zip(*table):
        i = 0
        while i < ROWS:
            run = 1
            while i + run < ROWS and channel[i + run] == channel[i]:
                run += 1
            tokens.append(channel[i].replace("0.", ".", 1) if channel[i].startswith("0.") else channel[i])
            if run > 1:
                tokens.append(str(1 - run))
            i += run
    return tokens


def write_inc(tables):
    kept, places = [], []
    for table in tables:
        if table in kept:
            places.append((kept.index(table), False))
        elif table[::-1] in kept:
            places.append((kept.index(table[::-1]), True))
        else:
            places.append((len(kept), False))
            kept.append(table)
    print("// Written by scripts/make_palettes.py. Origin and licences: palettes_LICENSES.md.")
    print("// For each palette the table it shows, + 1, negative when from the last row to the first.")
    print("constexpr int kPaletteTables = %d;" % len(kept))
    print("constexpr signed char kPaletteTable[%d] = {" % PALETTES)
    print(",".join(str(-(n + 1) if rev else n + 1) for n, rev in places) + "};")
    print("constexpr double kPaletteRuns[] = {")
    for table in kept:
        line = ""
        for token in pack(table):
            if len(line) + len(token) + 1 > 110:
                print(line)
                line = ""
            line += token + ","
        print(line)
    print("};")


def write_csv(path):
    text = open(path).read()
    places = [int(n) for n in re.search(r"kPaletteTable\[\d+\] = \{(.*?)\}", text, re.S).group(1).split(",")]
    tokens = re.search(r"kPaletteRuns\[\] = \{(.*?)\}", text, re.S).group(1).replace("\n", "").split(",")
    values = []
    for token in filter(None, tokens):
        if token.startswith("-"):
            values += [values[-1]] * -int(token)
        else:
            values.append("0" + token if token.startswith(".") else token)
    print("palette,row,r,g,b")
    for palette, place in enumerate(places):
        at = 3 * ROWS * (abs(place) - 1)
        for row in range(ROWS):
            i = at + (row if place > 0 else ROWS - 1 - row)
            print("%d,%d,%s,%s,%s" % (palette, row, values[i], values[i + ROWS], values[i + 2 * ROWS]))


if len(sys.argv) == 3 and sys.argv[1] == "--csv":
    write_csv(sys.argv[2])
elif len(sys.argv) == 2:
    write_inc(read_csv(sys.argv[1]))
else:
    sys.exit(__doc__)
