#!/usr/bin/env python3
"""mosaics.py CITY.json CODE...

Opens the pictures of a catalogue with GDAL, those of one code as one mosaic, and holds size and corners against what the catalogue
says of the pictures, and the mosaic's content against the pictures themselves: each shows where no other one lies.
"""
import json
import subprocess
import sys


def info(name, *options):
    command = ["gdalinfo", "-json", *options, name]
    return json.loads(subprocess.run(command, check=True, capture_output=True, text=True).stdout)


def box_of(asset):
    rows, columns = asset["proj:shape"]
    dx, _, x, _, dy, y = asset["proj:transform"]
    return x, y + rows * dy, x + columns * dx, y


def pixels(name, points):
    """The four values of the pixel at each point, as texts."""
    lines = "".join("%r %r\n" % point for point in points)
    command = ["gdallocationinfo", "-valonly", "-geoloc", name]
    text = subprocess.run(command, check=True, capture_output=True, text=True, input=lines).stdout.split()
    assert len(text) == 4 * len(points), (name, len(text), len(points))
    return [text[4 * i : 4 * i + 4] for i in range(len(points))]


def check(catalogue, code, assets):
    mosaic = 'STACIT:"%s":asset=overview,crs=%s' % (catalogue, code)
    boxes = [box_of(asset) for asset in assets]
    united = [f(box[i] for box in boxes) for i, f in enumerate((min, min, max, max))]
    report = info(mosaic)
    corners = report["cornerCoordinates"]
    assert corners["lowerLeft"] == united[:2] and corners["upperRight"] == united[2:], (corners, united)
    step = assets[0]["proj:transform"][0]
    size = [(united[2] - united[0]) / step, (united[3] - united[1]) / step]
    assert report["size"] == size, (report["size"], size)
    assert [band["colorInterpretation"] for band in report["bands"]] == ["Red", "Green", "Blue", "Alpha"]
    points = []
    values = []
    for asset, box in zip(assets, boxes):
        others = [other for other in boxes if other != box]
        middle = 0.5 * (box[1] + box[3])
        row = [(box[0] + (i + 0.5) / 7 * (box[2] - box[0]), middle) for i in range(7)]
        row = [(x, y) for x, y in row if not any(a <= x <= c and b <= y <= d for a, b, c, d in others)]
        points += row
        values += pixels(asset["href"], row)
    assert pixels(mosaic, points) == values
    shown = sum(value[3] != "0" for value in values)
    print("%s: %d pictures as one of %d x %d pixels, %d samples the same and not empty" % (code, len(assets), *size, shown))
    assert shown >= len(assets), shown


def main():
    catalogue = sys.argv[1]
    with open(catalogue, encoding="utf8") as file:
        items = json.load(file)["features"]
    for code in sys.argv[2:]:
        epsg = int(code.split("_")[1])
        assets = [item["assets"]["overview"] for item in items if item["properties"]["proj:epsg"] == epsg]
        assert len(assets) == 12 and all(asset["proj:epsg"] == epsg for asset in assets), len(assets)
        check(catalogue, code, assets)


if __name__ == "__main__":
    main()
