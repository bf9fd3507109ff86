#!/usr/bin/env python3
"""places.py CITY.json PLACES.txt

Reads a catalogue with ogrinfo, brings the outlines back to the coordinates of their tiles with gdaltransform, and holds them
against the boxes where the tiles should lie. A line of PLACES.txt: name, EPSG code, x and y of the offset, and the box
without it, minx miny minz maxx maxy maxz. Points on the lines of an outline count as well as its corners.
"""
import re
import subprocess
import sys

LIMIT = 0.001  # units of the tile
PARTS = 4  # of each line of an outline


def outlines(catalogue):
    """The features of the catalogue: name -> (EPSG code or None, points of the outline)."""
    text = subprocess.run(["ogrinfo", "-al", catalogue], check=True, capture_output=True, text=True).stdout
    found = {}
    for feature in re.split(r"^OGRFeature\(.*$", text, flags=re.M)[1:]:
        name = re.search(r"^  id \(String\) = (.*)$", feature, flags=re.M).group(1)
        code = re.search(r"^  proj:epsg \(Integer\) = (\d+)$", feature, flags=re.M)
        outline = re.search(r"^  POLYGON \(\((.*)\)\)$", feature, flags=re.M)
        points = [tuple(map(float, pair.split())) for pair in outline.group(1).split(",")] if outline else []
        found[name] = (int(code.group(1)) if code else None, points)
    return found


def transformed(points, code):
    lines = "".join("%.15g %.15g\n" % point for point in points)
    command = ["gdaltransform", "-s_srs", "EPSG:4326", "-t_srs", "EPSG:%d" % code, "-output_xy"]
    text = subprocess.run(command, check=True, capture_output=True, text=True, input=lines).stdout
    return [tuple(map(float, line.split()[:2])) for line in text.splitlines()]


def along(points):
    """Points on the lines of an outline."""
    result = []
    for (x0, y0), (x1, y1) in zip(points, points[1:]):
        result += [(x0 + (x1 - x0) * i / PARTS, y0 + (y1 - y0) * i / PARTS) for i in range(PARTS)]
    return result


def distance(point, box):
    """From a point to the edge of a box."""
    (x, y), (min_x, min_y, max_x, max_y) = point, box
    outside = max(min_x - x, x - max_x, 0.0), max(min_y - y, y - max_y, 0.0)
    if max(outside) > 0.0:
        return (outside[0] ** 2 + outside[1] ** 2) ** 0.5
    return min(x - min_x, max_x - x, y - min_y, max_y - y)


def main():
    found = outlines(sys.argv[1])
    farthest = 0.0
    placed = 0
    names = set()
    for line in open(sys.argv[2], encoding="utf8"):
        name, code, x, y, *box = line.split()
        names.add(name)
        min_x, min_y, _, max_x, max_y, _ = map(float, box)
        box = min_x + float(x), min_y + float(y), max_x + float(x), max_y + float(y)
        stated, points = found[name]
        if code == "0":
            assert stated is None and not points, name
            continue
        assert stated == int(code), name
        placed += 1
        back = transformed(along(points), stated)
        corners = [(box[i], box[j]) for i, j in ((0, 1), (2, 1), (2, 3), (0, 3))]
        to_corners = [min(((a - c) ** 2 + (b - d) ** 2) ** 0.5 for a, b in back) for c, d in corners]
        error = max([distance(point, box) for point in back] + to_corners)
        if error > LIMIT:
            print("%s lies %.6f off" % (name, error))
        farthest = max(farthest, error)
    assert names == set(found), names ^ set(found)
    print("%d outlines, the farthest point %.6f units off" % (placed, farthest))
    return 0 if placed == 24 and farthest <= LIMIT else 1


if __name__ == "__main__":
    sys.exit(main())
