// Records on demand, in the form that the graphics memory holds.
import type { Dequantiser } from "./dequantiser.ts";
import { files, packedSize, rawSize, recordSize } from "./format.ts";
import type { Meta } from "./meta.ts";
import type { Source } from "./sources.ts";

export const keptWords = 15; // of the 16 of a packed coefficient record, whose last one is unused

export interface Records {
    data: ArrayBuffer;
    coefficients: ArrayBuffer | undefined; // packed form
}

// A dataset, or what a worker knows about one.
interface Readable {
    source: Source;
    meta: Meta;
    dequantiser: Dequantiser;
}

// `count` records from record `first` of data.bin, with their coefficients.
export async function recordsOf({ source, meta, dequantiser }: Readable, first: number, count: number, signal: AbortSignal): Promise<Records> {
    const size = meta.coefficientSize;
    const [data, coefficients] = await Promise.all([
        source.range(files.data, first * recordSize, count * recordSize, signal),
        size > 0 ? source.range(files.coefficients, first * size, count * size, signal) : undefined,
    ]);
    const raw = size === rawSize && coefficients !== undefined;
    return { data, coefficients: raw ? dequantiser.pack(coefficients) : coefficients };
}

// One array for each texture. The first and the second half of every record, and the coefficient words that are kept.
export interface Split {
    first: ArrayBuffer;
    second: ArrayBuffer;
    harmonics: ArrayBuffer | undefined;
}

export function split({ data, coefficients }: Records): Split {
    const from = new Uint32Array(data);
    const count = data.byteLength / recordSize;
    const first = new Uint32Array(4 * count);
    const second = new Uint32Array(4 * count);
    for (let to = 0, at = 0; to < 4 * count; to += 4, at += 8) {
        for (let word = 0; word < 4; ++word) {
            first[to + word] = from[at + word];
            second[to + word] = from[at + 4 + word];
        }
    }
    return { first: first.buffer, second: second.buffer, harmonics: coefficients && keptOf(coefficients) };
}

function keptOf(coefficients: ArrayBuffer): ArrayBuffer {
    const from = new Uint32Array(coefficients);
    const count = coefficients.byteLength / packedSize;
    const kept = new Uint32Array(keptWords * count);
    for (let i = 0, to = 0; i < count; ++i) {
        for (let word = 0; word < keptWords; ++word) kept[to++] = from[16 * i + word];
    }
    return kept.buffer;
}
