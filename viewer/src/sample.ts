// Some of the splats that are here, to choose a view by: a few thousand of them, however many there are.
import type { Dequantiser } from "./dequantiser.ts";
import { type Triple, recordSize, valueOf } from "./format.ts";
import type { Box } from "./messages.ts";

// Both lists have four numbers of a splat: its place on the map, and its cover.
export interface Sample {
    values: Float32Array; // every n-th splat
    each: number; // n
    broad: Float32Array; // all splats with a cover of at least `least`: one of them can hide a scene
    least: number;
}

const most = 16384; // of each list

interface Part {
    values: Float32Array;
    broad: Float32Array;
}

export class Sampler {
    private each = 1;
    private least = 2 ** -60; // below that a splat hides nothing
    private readonly parts = new Map<number, Part>(); // by piece

    // Takes a piece's records. `shift` moves their positions to those of the map.
    add(piece: number, dequantiser: Dequantiser, shift: Triple, records: ArrayBuffer): void {
        const covers = coversOf(records, dequantiser);
        const floats = new Float32Array(records);
        const listOf = (keep: (i: number) => boolean): Float32Array => {
            const list: number[] = [];
            covers.forEach((cover, i) => {
                if (!keep(i)) return;
                const place = shift.map((by, axis) => floats[(recordSize / 4) * i + axis] + by);
                if (place.every(Number.isFinite)) list.push(...place, cover);
            });
            return Float32Array.from(list);
        };
        this.remove(piece);
        while (this.count("values") + covers.length / this.each > most) {
            this.each *= 2;
            for (const part of this.parts.values()) part.values = part.values.filter((_, i) => i % 8 < 4);
        }
        while (this.count("broad") + covers.reduce((sum, cover) => sum + (cover >= this.least ? 1 : 0), 0) > most) {
            this.least *= 2;
            for (const part of this.parts.values()) part.broad = part.broad.filter((_, i, list) => list[i | 3] >= this.least);
        }
        this.parts.set(piece, { values: listOf((i) => i % this.each === 0), broad: listOf((i) => covers[i] >= this.least) });
    }

    remove(piece: number): void {
        this.parts.delete(piece);
    }

    private count(list: keyof Part): number {
        return [...this.parts.values()].reduce((sum, part) => sum + part[list].length / 4, 0);
    }

    all(): Sample {
        const joined = (list: keyof Part): Float32Array => {
            const to = new Float32Array(4 * this.count(list));
            let at = 0;
            for (const part of this.parts.values()) {
                to.set(part[list], at);
                at += part[list].length;
            }
            return to;
        };
        return { values: joined("values"), each: this.each, broad: joined("broad"), least: this.least };
    }
}

// The area that each splat hides when it is seen from its broadest side, in square units: as if its opacity were 1.
function coversOf(records: ArrayBuffer, { bytes: [, , , opacity], scale: [x, y, z] }: Dequantiser): Float32Array {
    const [bytes, words] = [new Uint8Array(records), new Uint16Array(records)];
    const covers = new Float32Array(records.byteLength / recordSize);
    for (let i = 0, word = 8; i < covers.length; ++i, word += recordSize / 2) {
        const [a, b, c] = [valueOf(x, words[word]), valueOf(y, words[word + 1]), valueOf(z, words[word + 2])];
        const cover = 2 * Math.PI * opacity[bytes[recordSize * i + 15]] * Math.max(a * b, b * c, a * c);
        covers[i] = cover > 0 && Number.isFinite(cover) ? cover : 0;
    }
    return covers;
}

// The box of the middle 96 of 100 splats on each axis: a few that fly far outside do not count. Nothing of nothing.
export function middleOf({ values }: Sample): Box | undefined {
    if (values.length === 0) return undefined;
    const ends = [0, 1, 2].map((axis) => {
        const sorted = values.filter((_, i) => i % 4 === axis).sort();
        const at = (share: number): number => sorted[Math.floor(share * (sorted.length - 1))];
        return [at(0.02), at(0.98)];
    });
    return { min: ends.map((e) => e[0]) as Triple, max: ends.map((e) => e[1]) as Triple };
}
