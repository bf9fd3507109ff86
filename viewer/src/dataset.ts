// An opened dataset: its meta document, its cells, and records on demand.
import {
    type Axis,
    type Triple,
    ViewError,
    axisOf,
    byteValues,
    files,
    packChannel,
    packedSize,
    quantisers,
    rawSize,
    recordSize,
    rotationOf,
    valueOf,
    wordParts,
} from "./format.ts";
import { type Cell, type Meta, parseIndex, parseMeta } from "./meta.ts";
import type { Source } from "./sources.ts";

const longestMeta = 1 << 20;
const longestIndex = 1 << 28;

export interface Splat {
    position: Triple;
    colour: Triple;
    opacity: number;
    scale: Triple;
    rotation: [number, number, number, number]; // w, x, y, z
    normal: Triple;
    coefficients: number[]; // as f_rest_0 to 44: 15 red, 15 green, 15 blue; empty without
}

// The ranges of the meta document, ready for use.
export class Dequantiser {
    readonly scale: Axis[];
    readonly normal: Axis[];
    readonly coefficient: Axis[];
    readonly bytes: Float64Array[]; // red, green, blue, opacity

    constructor(meta: Meta) {
        const { ranges } = meta;
        const axes = [0, 1, 2];
        this.scale = axes.map((i) => axisOf(ranges.scale, i, quantisers.scale));
        this.normal = axes.map((i) => axisOf(ranges.normal, i, quantisers.normal));
        this.coefficient = [quantisers.red, quantisers.green, quantisers.blue].map((q, i) => axisOf(ranges.shcoef, i, q));
        this.bytes = [...axes.map((i) => byteValues(ranges.color, i, false)), byteValues(ranges.opacity, 0, true)];
    }

    // `record` and `coefficients` start at a record; `coefficients` in the packed or the raw form by its length.
    splat(record: DataView, coefficients?: DataView): Splat {
        const f32 = (at: number): number => record.getFloat32(at, true);
        const u16 = (at: number): number => record.getUint16(at, true);
        const triple = (read: (i: number) => number): Triple => [read(0), read(1), read(2)];
        return {
            position: triple((i) => f32(4 * i)),
            colour: triple((i) => this.bytes[i][record.getUint8(12 + i)]),
            opacity: this.bytes[3][record.getUint8(15)],
            scale: triple((i) => valueOf(this.scale[i], u16(16 + 2 * i))),
            rotation: rotationOf(record.getUint32(22, true)),
            normal: triple((i) => valueOf(this.normal[i], u16(26 + 2 * i))),
            coefficients: coefficients === undefined ? [] : this.coefficients(coefficients),
        };
    }

    private coefficients(view: DataView): number[] {
        const result = new Array<number>(45);
        for (let k = 0; k < 15; ++k) {
            for (let channel = 0; channel < 3; ++channel) {
                result[15 * channel + k] =
                    view.byteLength >= rawSize
                        ? view.getFloat32(4 * (3 * k + channel), true)
                        : valueOf(this.coefficient[channel], wordParts(view.getUint32(4 * k, true))[channel]);
            }
        }
        return result;
    }

    // Raw coefficient records in the packed form, which is what the graphics memory holds.
    pack(raw: ArrayBuffer): ArrayBuffer {
        const count = raw.byteLength / rawSize;
        const from = new Float32Array(raw);
        const to = new Uint32Array(count * (packedSize / 4));
        for (let i = 0; i < count; ++i) {
            for (let k = 0; k < 15; ++k) {
                const [red, green, blue] = [0, 1, 2].map((c) => packChannel(from[i * 48 + 3 * k + c], this.coefficient[c]));
                to[i * 16 + k] = red | (green << 11) | (blue << 21);
            }
        }
        return to.buffer;
    }
}

export interface Records {
    data: ArrayBuffer;
    coefficients: ArrayBuffer | undefined; // packed form
}

export class Dataset {
    private constructor(
        readonly source: Source,
        readonly meta: Meta,
        readonly cells: Cell[],
    ) {
        this.dequantiser = new Dequantiser(meta);
        this.count = cells.reduce((sum, cell) => sum + cell.count, 0);
    }
    readonly dequantiser: Dequantiser;
    readonly count: number; // splats that the index counts

    // Reads the meta document and the index. Throws ViewError.
    static async open(source: Source): Promise<Dataset> {
        const text = new TextDecoder().decode(await source.whole(files.meta, longestMeta));
        const meta = parseMeta(text);
        const [index, dataBytes, coefficientBytes] = await Promise.all([
            source.whole(files.index, longestIndex),
            source.size(files.data),
            meta.coefficientSize > 0 ? source.size(files.coefficients) : undefined,
        ]);
        const dataset = new Dataset(source, meta, parseIndex(index, meta, dataBytes));
        if (dataset.count === 0) throw new ViewError(`${source.name} holds no splats: there is nothing to show.`);
        if (dataBytes !== undefined && coefficientBytes !== undefined) {
            const needed = (dataBytes / recordSize) * meta.coefficientSize;
            if (coefficientBytes !== needed) {
                throw new ViewError(
                    `${files.coefficients} has ${coefficientBytes} bytes instead of ${needed}: it does not belong to ${files.data}. Copy the folder again.`,
                );
            }
        }
        return dataset;
    }

    // `count` records from record `first` of data.bin, with their coefficients.
    async records(first: number, count: number, signal: AbortSignal): Promise<Records> {
        const size = this.meta.coefficientSize;
        const [data, coefficients] = await Promise.all([
            this.source.range(files.data, first * recordSize, count * recordSize, signal),
            size > 0 ? this.source.range(files.coefficients, first * size, count * size, signal) : undefined,
        ]);
        const raw = size === rawSize && coefficients !== undefined;
        return { data, coefficients: raw ? this.dequantiser.pack(coefficients) : coefficients };
    }
}
