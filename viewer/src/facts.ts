// The texts about a dataset, the ground under the pointer, and a splat.
import type { City } from "./city.ts";
import type { Dataset } from "./dataset.ts";
import { list, short, whole } from "./dom.ts";
import type { Range } from "./format.ts";
import type { Pointed } from "./map.ts";
import type { Cell } from "./meta.ts";
import type { Picked } from "./scene.ts";

type Facts = [string, string][];

const range = (r: Range): string => r.min.map((min, i) => `${short(min)} to ${short(r.max[i])}`).join("\n");

export function datasetFacts(dataset: Dataset): Facts {
    const { meta, cells } = dataset;
    const counts = cells.map((cell) => cell.count).sort((a, b) => a - b);
    const leftOut = meta.totalSplats - dataset.count;
    return [
        ["name", dataset.source.name],
        ["splats", leftOut > 0 ? `${whole(dataset.count)} (${whole(leftOut)} were left out)` : whole(dataset.count)],
        ["cells", `${whole(cells.length)} of ${short(meta.cellLengthX)} by ${short(meta.cellLengthY)} units`],
        ["splats in a cell", `${whole(counts[0])} to ${whole(counts[counts.length - 1])}, median ${whole(counts[counts.length >> 1])}`],
        ["guid", meta.guid],
        ["made of", `${meta.dataType}, kind ${meta.source}`],
        ["EPSG", String(meta.epsg)],
        ["offset", list(meta.offset, String)],
        ["shift", list(meta.shift, String)],
        ["scale", list(meta.scale, String)],
        ["box", `${list(meta.box.min)}\nto ${list(meta.box.max)}`],
        ["coefficients", meta.coefficientSize === 0 ? "none" : meta.coefficientSize === 64 ? "packed" : "unpacked"],
        ["colours", range(meta.ranges.color)],
        ["opacities", range(meta.ranges.opacity)],
        ["scales", range(meta.ranges.scale)],
        ["normals", range(meta.ranges.normal)],
        ...(meta.coefficientSize > 0 ? ([["coefficients of red, green, blue", range(meta.ranges.shcoef)]] as Facts) : []),
    ];
}

export function cityFacts(city: City): Facts {
    const codes = [...new Set(city.datasets.map(({ meta }) => meta.epsg))];
    return [
        ["datasets", whole(city.datasets.length)],
        ["splats", whole(city.count)],
        ["cells", whole(city.cells.length)],
        ["EPSG", codes.join(", ")],
        ["origin of the map", list(city.origin, String)],
    ];
}

export function cellName(cell: Cell): string {
    return `key ${cell.key} (column ${cell.key & 0xffff}, row ${cell.key >>> 16})`;
}

export function pointedText({ x, y, cell }: Pointed, city: City): string {
    const fine = (value: number): string => value.toFixed(3);
    const [dataset] = city.datasets;
    const place = `x ${fine(x + city.origin[0])}, y ${fine(y + city.origin[1])}${dataset.meta.epsg === 0 ? "" : ` (EPSG ${dataset.meta.epsg})`}`;
    if (cell === undefined) return `${place}\nno cell`;
    const name = city.isOne ? "" : `${city.datasets[cell.owner].source.name}, `;
    return `${place}\n${name}cell ${cellName(cell)}: ${whole(cell.count)} splats`;
}

export function splatFacts(picked: Picked, city: City): Facts {
    const { splat } = picked;
    const { meta, source } = city.datasets[picked.owner];
    const facts: Facts = [
        ...(city.isOne ? [] : ([["dataset", source.name]] as Facts)),
        ["cell", `key ${picked.cellKey} (column ${picked.cellKey & 0xffff}, row ${picked.cellKey >>> 16})`],
        ["number in the cell", whole(picked.number)],
        ["record", whole(picked.record)],
        ["position", list(splat.position, String)],
        ["with the offset", list(splat.position.map((value, i) => value + meta.offset[i]), String)],
        ["colour", list(splat.colour)],
        ["opacity", short(splat.opacity)],
        ["scale", list(splat.scale)],
        ["rotation w, x, y, z", list(splat.rotation)],
        ["normal", list(splat.normal)],
    ];
    ["red", "green", "blue"].forEach((channel, i) => {
        const values = splat.coefficients.slice(15 * i, 15 * i + 15);
        if (values.length > 0) facts.push([`coefficients, ${channel}`, list(values)]);
    });
    return facts;
}
