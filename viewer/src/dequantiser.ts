// Turns stored integers back into values, with the ranges of a meta document.
import {
    type Axis,
    type Triple,
    axisOf,
    byteValues,
    packChannel,
    packedSize,
    quantisers,
    rawSize,
    rotationOf,
    valueOf,
    wordParts,
} from "./format.ts";
import type { Meta } from "./meta.ts";

export interface Splat {
    position: Triple;
    colour: Triple;
    opacity: number;
    scale: Triple;
    rotation: [number, number, number, number]; // w, x, y, z
    normal: Triple;
    coefficients: number[]; // as f_rest_0 to 44: 15 red, 15 green, 15 blue; may be empty
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

    // Turns raw coefficient records into the packed form, which the graphics memory holds.
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
