// The numbers of docs/format.md, and the formulas from stored integers to values.

export const files = {
    meta: "converted_from_ply.ytr",
    index: "index.bin",
    data: "data.bin",
    coefficients: "shcoef.bin",
} as const;

export const recordSize = 32;
export const packedSize = 64; // bytes of a coefficient record, "COMPRESS"
export const rawSize = 192; // and "DEFAULT"

// A failure to show to the user: one line that says what, where and what to do.
export class ViewError extends Error {}

export type Triple = [number, number, number];

// The stated range of an attribute, with one number for each axis. They may be infinite or NaN.
export interface Range {
    min: number[];
    max: number[];
}

// value = min + t * span, t from the stored integer q: (q + 0.5) / factor, and `last` for q = most.
export interface Axis {
    min: number;
    span: number;
    factor: number;
    most: number;
}

export const quantisers = {
    scale: [65535.5, 65535],
    normal: [65535.5, 65535],
    red: [2047.5, 2047],
    green: [1023.5, 1023],
    blue: [2047.5, 2047],
} as const;

// In a range without two finite ends every integer means its finite end, or 0.
export function axisOf(range: Range, axis: number, [factor, most]: readonly [number, number]): Axis {
    const min = range.min[axis];
    const max = range.max[axis];
    if (!Number.isFinite(min) || !Number.isFinite(max)) {
        return { min: Number.isFinite(min) ? min : Number.isFinite(max) ? max : 0, span: 0, factor, most };
    }
    return { min, span: max - min, factor, most };
}

// The part of the range, 0 to 1, that an integer stands for: the middle of its interval.
export function middle(q: number, factor: number, most: number): number {
    return q < most ? (q + 0.5) / factor : (most / factor + 1) / 2;
}

export function valueOf(axis: Axis, q: number): number {
    return axis.span === 0 ? axis.min : axis.min + middle(q, axis.factor, axis.most) * axis.span;
}

// The 256 values of a colour channel, or of opacity, whose byte 0 stays 0 when the range starts there.
export function byteValues(range: Range, axis: number, keepZero: boolean): Float64Array {
    const table = new Float64Array(256);
    const min = range.min[axis];
    const max = range.max[axis];
    for (let b = 0; b < 256; ++b) {
        if (min === max) {
            table[b] = min;
        } else if (b === 255) {
            table[b] = 1;
        } else if (b === 0 && keepZero && min === 0) {
            table[b] = 0;
        } else {
            let low = b / 255;
            let high = (b + 1) / 255;
            if (min > low && min <= high) low = min;
            if (max < high && max >= low) high = max;
            table[b] = (low + high) / 2;
        }
    }
    return table;
}

const gain = 1.4142135 * 0.5;

// (w, x, y, z) of a packed rotation. A word that no rotation packs to is "no rotation".
export function rotationOf(word: number): [number, number, number, number] {
    const parts = [0, 10, 20].map((shift) => (middle((word >>> shift) & 1023, 1023.5, 1023) - 0.5) / gain);
    const rest = 1 - parts[0] * parts[0] - parts[1] * parts[1] - parts[2] * parts[2];
    if (word === 0 || rest < 0) {
        return [1, 0, 0, 0];
    }
    const xyzw = [...parts];
    xyzw.splice(word >>> 30, 0, Math.sqrt(rest));
    return [xyzw[3], xyzw[0], xyzw[1], xyzw[2]];
}

// A coefficient word's three stored integers: red, green, blue.
export function wordParts(word: number): Triple {
    return [word & 2047, (word >>> 11) & 1023, word >>> 21];
}

// A raw coefficient as the packed form stores it.
export function packChannel(value: number, axis: Axis): number {
    if (axis.span === 0) return 0;
    const t = Math.fround((value - axis.min) / axis.span);
    return t > 0 ? Math.min(axis.most, Math.trunc(t * axis.factor)) : 0;
}
