// The meta document, typed, and the ground grid that follows from it.
import { type Range, type Triple, ViewError, files, packedSize, rawSize, recordSize } from "./format.ts";
import { type Value, parseMetaText } from "./metatext.ts";

export interface Meta {
    guid: string;
    source: string;
    dataType: string;
    totalSplats: number;
    totalLevel: number;
    cellLengthX: number;
    cellLengthY: number;
    indexDataSize: number;
    offset: Triple;
    epsg: number;
    shift: Triple;
    scale: Triple;
    box: { min: Triple; max: Triple };
    coefficientSize: number; // bytes of a record of shcoef.bin, 0 without
    ranges: { normal: Range; color: Range; shcoef: Range; opacity: Range; scale: Range };
}

type Fields = { [key: string]: Value };

function wrong(key: string, needed: string): never {
    throw new ViewError(`${files.meta}: "${key}" is missing or is not ${needed}. Convert the scene again.`);
}

function numbers(value: Value | undefined, count: number, key: string): number[] {
    if (!Array.isArray(value) || value.length !== count || !value.every((v) => typeof v === "number")) {
        wrong(key, count === 1 ? "a list of one number" : `a list of ${count} numbers`);
    }
    return value as number[];
}

function integer(fields: Fields, key: string, least: number): number {
    const value = fields[key];
    if (typeof value !== "number" || !Number.isSafeInteger(value) || value < least) wrong(key, "a whole number");
    return value;
}

function oneOf(fields: Fields, key: string, allowed: readonly string[]): string {
    const value = fields[key];
    if (typeof value !== "string" || !allowed.includes(value)) wrong(key, allowed.map((a) => `"${a}"`).join(" or "));
    return value;
}

function object(value: Value | undefined, key: string): Fields {
    if (typeof value !== "object" || value === null || Array.isArray(value)) wrong(key, "an object");
    return value;
}

function positive(fields: Fields, key: string): number {
    const value = fields[key];
    if (typeof value !== "number" || Number.isNaN(value)) wrong(key, "a number");
    return value;
}

function rangeOf(list: Value[], name: string): Range {
    const entry = list.find((e) => typeof e === "object" && e !== null && !Array.isArray(e) && e["name"] === name);
    const fields = object(entry, `attributes: ${name}`);
    const count = name === "opacity" ? 1 : 3;
    const end = (key: "min" | "max"): number[] => numbers(fields[key], count, `attributes: ${name}: ${key}`);
    return { min: end("min"), max: end("max") };
}

function text(value: Value | undefined): string {
    return typeof value === "string" ? value : "";
}

// Throws ViewError with the key that cannot be used. Keys that no other file depends on may be missing.
export function parseMeta(source: string): Meta {
    const fields = object(parseMetaText(source), "the document");
    const box = object(fields["boundingBox"], "boundingBox");
    const attributes = fields["attributes"];
    if (!Array.isArray(attributes)) wrong("attributes", "a list");
    const quality = oneOf(fields, "fileType", ["Quality", "Portable"]) === "Quality";
    const packed = oneOf(fields, "encoding", ["COMPRESS", "DEFAULT"]) === "COMPRESS";
    const triple = (key: string, otherwise: number): Triple =>
        (fields[key] === undefined ? [otherwise, otherwise, otherwise] : numbers(fields[key], 3, key)) as Triple;
    const meta: Meta = {
        guid: text(fields["guid"]),
        source: text(fields["source"]),
        dataType: text(fields["dataType"]),
        totalSplats: integer(fields, "totalSplats", 0),
        totalLevel: integer(fields, "totalLevel", 1),
        cellLengthX: positive(fields, "cellLengthX"),
        cellLengthY: positive(fields, "cellLengthY"),
        indexDataSize: integer(fields, "indexDataSize", 1),
        offset: triple("offset", 0),
        epsg: typeof fields["epsg"] === "number" ? fields["epsg"] : 0,
        shift: triple("shift", 0),
        scale: triple("scale", 1),
        box: {
            min: numbers(box["min"], 3, "boundingBox: min") as Triple,
            max: numbers(box["max"], 3, "boundingBox: max") as Triple,
        },
        coefficientSize: !quality ? 0 : packed ? packedSize : rawSize,
        ranges: {
            normal: rangeOf(attributes, "normal"),
            color: rangeOf(attributes, "color"),
            shcoef: rangeOf(attributes, "shcoef"),
            opacity: rangeOf(attributes, "opacity"),
            scale: rangeOf(attributes, "scale"),
        },
    };
    if (meta.indexDataSize !== 4 + 16 * meta.totalLevel) wrong("indexDataSize", `4 + 16 x ${meta.totalLevel}`);
    return meta;
}

export interface Cell {
    key: number;
    count: number; // splats of level 0
    first: number; // number of the first record in data.bin
    min: [number, number]; // the ground it covers
    max: [number, number];
}

// The cells of index.bin that hold splats. `dataBytes` is the size of data.bin, when it is known. Throws ViewError for an
// index that cannot belong to this dataset.
export function parseIndex(buffer: ArrayBuffer, meta: Meta, dataBytes: number | undefined): Cell[] {
    const entry = meta.indexDataSize;
    if (buffer.byteLength % entry !== 0) {
        throw new ViewError(`${files.index} has ${buffer.byteLength} bytes, no multiple of ${entry}: it is cut. Copy the folder again.`);
    }
    const view = new DataView(buffer);
    const cells: Cell[] = [];
    for (let at = 0; at < buffer.byteLength; at += entry) {
        const key = view.getUint32(at, true);
        const count = view.getUint32(at + 4, true);
        const offset = view.getUint32(at + 8, true) + view.getUint32(at + 12, true) * 2 ** 32;
        if (count === 0) continue;
        const end = offset + count * recordSize;
        if (offset % recordSize !== 0 || !Number.isSafeInteger(end) || (dataBytes !== undefined && end > dataBytes)) {
            throw new ViewError(
                `${files.index} points beyond its file: entry ${at / entry} (cell ${key}) wants the bytes ${offset} to ${end} of ` +
                    `${files.data}, which has ${dataBytes ?? "fewer"}. Copy the folder again, or convert the scene again.`,
            );
        }
        cells.push({ key, count, first: offset / recordSize, ...groundOf(meta, key) });
    }
    return cells;
}

// With at most a million splats the one cell covers the box.
export function isOneCell(meta: Meta): boolean {
    return meta.totalSplats <= 1_000_000;
}

function groundOf(meta: Meta, key: number): { min: [number, number]; max: [number, number] } {
    const { min, max } = meta.box;
    if (isOneCell(meta)) return { min: [min[0], min[1]], max: [max[0], max[1]] };
    const x = Math.fround(min[0]) + (key & 0xffff) * meta.cellLengthX;
    const y = Math.fround(min[1]) + (key >>> 16) * meta.cellLengthY;
    return { min: [x, y], max: [x + meta.cellLengthX, y + meta.cellLengthY] };
}
