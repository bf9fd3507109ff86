// The worker's order: it knows every splat's position and says in which order they are drawn, and which one is under the pointer.
import type { Triple } from "./format.ts";
import type { Box, Hit, Ray } from "./messages.ts";
import { type Run, slotBits } from "./slots.ts";

interface Piece {
    runs: Run[];
    min: Triple;
    max: Triple;
    step: Triple;
    mark: number; // the number that it is drawn under, above the bits of a slot
}

// What is sorted by: the square of the depth along the first three, plus the last times the square of the distance.
type Weights = [number, number, number, number];

const buckets = 1 << 16;
const most: Triple = [(1 << 21) - 1, (1 << 21) - 1, (1 << 22) - 1]; // of the packed x, y and z
const single = new Float32Array(1);
const bits = new Uint32Array(single.buffer);

// The bits of a positive single, as an integer, grow with its value. So nearby splats are sorted more finely than distant ones.
function bitsOf(value: number): number {
    single[0] = value;
    return bits[0];
}

export class Sorter {
    // 64 bits a splat, against the box of its piece: 21 for x, 21 for y, 22 for z.
    private readonly low: Uint32Array; // x, and 11 bits of y
    private readonly high: Uint32Array; // 10 bits of y, and z
    private readonly normals: Uint32Array | undefined; // y and z of the normal, which the graphics memory gives up
    private readonly pieces = new Map<number, Piece>(); // in the order
    private readonly hidden = new Map<number, Piece>(); // that are not in the graphics memory yet
    private readonly histogram = new Uint32Array(buckets + 1);

    constructor(
        private readonly capacity: number,
        keepNormals: boolean,
    ) {
        this.low = new Uint32Array(capacity);
        this.high = new Uint32Array(capacity);
        this.normals = keepNormals ? new Uint32Array(capacity) : undefined;
    }

    get bytes(): number {
        return this.low.byteLength + this.high.byteLength + (this.normals?.byteLength ?? 0);
    }

    // Takes the positions of a dataset's records, which `shift` moves to those of the map. Gives their box on the map. The piece
    // counts from `show` on.
    add(id: number, shift: Triple, runs: Run[], records: ArrayBuffer): Box {
        const values = new Float32Array(records);
        const words = new Uint32Array(records);
        const { min, max } = boxOf(values);
        const step = most.map((m, i) => (max[i] - min[i]) / m || 1) as Triple;
        let at = 0;
        for (const run of runs) {
            for (let slot = run.start; slot < run.start + run.count; ++slot, at += 8) {
                const x = stepOf(values[at], min[0], step[0], most[0]);
                const y = stepOf(values[at + 1], min[1], step[1], most[1]);
                const z = stepOf(values[at + 2], min[2], step[2], most[2]);
                this.low[slot] = (x | (y << 21)) >>> 0;
                this.high[slot] = ((y >>> 11) | (z << 10)) >>> 0;
                if (this.normals !== undefined) this.normals[slot] = words[at + 7];
            }
        }
        const box = { min: min.map((v, i) => v + shift[i]) as Triple, max: max.map((v, i) => v + shift[i]) as Triple };
        this.hidden.set(id, { runs, ...box, step, mark: 0 });
        return box;
    }

    // Orders hold the piece from now on, under this number.
    show(id: number, under: number): void {
        const piece = this.hidden.get(id) ?? this.pieces.get(id);
        if (piece === undefined) return;
        piece.mark = under * 2 ** slotBits(this.capacity);
        this.hidden.delete(id);
        this.pieces.set(id, piece);
    }

    remove(id: number): void {
        this.hidden.delete(id);
        this.pieces.delete(id);
    }

    // Slots of all pieces, marked with their numbers, from the farthest to the nearest: a counting sort on the distance, or on the depth along a direction.
    sort(eye: Triple, along: Triple | undefined, buffer: ArrayBuffer | undefined): { order: Uint32Array; count: number } {
        const order = new Uint32Array(buffer ?? new ArrayBuffer(4 * this.capacity));
        const { least, scale } = this.keyScale(eye, along !== undefined);
        this.histogram.fill(0);
        const weights: Weights = along === undefined ? [0, 0, 0, 1] : [...along, 0];
        for (const piece of this.pieces.values()) this.place(piece, eye, weights, least, scale, undefined);
        let sum = 0;
        for (let key = buckets - 1; key >= 0; --key) {
            const size = this.histogram[key];
            this.histogram[key] = sum;
            sum += size;
        }
        for (const piece of this.pieces.values()) this.place(piece, eye, weights, least, scale, order);
        return { order, count: sum };
    }

    private keyScale(eye: Triple, byDepth: boolean): { least: number; scale: number } {
        let near = Infinity;
        let far = 0;
        for (const { min, max } of this.pieces.values()) {
            let nearest = 0;
            let farthest = 0;
            for (let i = 0; i < 3; ++i) {
                const outside = Math.max(min[i] - eye[i], 0, eye[i] - max[i]);
                const across = Math.max(max[i] - eye[i], eye[i] - min[i]);
                nearest += outside * outside;
                farthest += across * across;
            }
            near = Math.min(near, nearest);
            far = Math.max(far, farthest);
        }
        near = Math.max(byDepth ? 0 : near, far * 2 ** -44, 1e-30); // closer ones all count as equally near
        const least = bitsOf(near);
        return { least, scale: (buckets - 1) / Math.max(1, bitsOf(far * 1.0001) - least) };
    }

    // Counts the splats of a piece in the histogram or, where there is an order, puts each where the histogram says. The distance's
    // arithmetic is in the loop because a call for each splat would cost more than all the rest.
    private place(piece: Piece, eye: Triple, [wx, wy, wz, all]: Weights, least: number, scale: number, order: Uint32Array | undefined): void {
        const { low, high, histogram } = this;
        const { mark, runs } = piece;
        const [sx, sy, sz] = piece.step;
        const [ex, ey, ez] = [eye[0] - piece.min[0], eye[1] - piece.min[1], eye[2] - piece.min[2]];
        for (const run of runs) {
            for (let slot = run.start, end = run.start + run.count; slot < end; ++slot) {
                const a = low[slot];
                const b = high[slot];
                const x = (a & 0x1fffff) * sx - ex;
                const y = ((a >>> 21) | ((b & 0x3ff) << 11)) * sy - ey;
                const z = (b >>> 10) * sz - ez;
                const depth = x * wx + y * wy + z * wz;
                single[0] = all * (x * x + y * y + z * z) + (depth > 0 ? depth * depth : 0);
                const key = (bits[0] - least) * scale;
                const at = histogram[key > 0 ? (key < 65535 ? key | 0 : 65535) : 0]++;
                if (order !== undefined) order[at] = mark + slot;
            }
        }
    }

    private position(piece: Piece, slot: number): Triple {
        const a = this.low[slot];
        const b = this.high[slot];
        return [
            piece.min[0] + (a & 0x1fffff) * piece.step[0],
            piece.min[1] + ((a >>> 21) | ((b & 0x3ff) << 11)) * piece.step[1],
            piece.min[2] + (b >>> 10) * piece.step[2],
        ];
    }

    // The splat nearest to the eye among those near the ray; near counts from the pointer's own pixel outwards.
    pick(ray: Ray): Hit | undefined {
        let best = Infinity;
        let hit: Hit | undefined;
        for (const [id, piece] of this.pieces) {
            let number = 0;
            for (const run of piece.runs) {
                for (let slot = run.start; slot < run.start + run.count; ++slot, ++number) {
                    const score = hitScore(this.position(piece, slot), ray);
                    if (score >= best) continue;
                    best = score;
                    hit = { piece: id, number, slot, normals: this.normals?.[slot] };
                }
            }
        }
        return hit;
    }
}

function stepOf(value: number, min: number, step: number, limit: number): number {
    const q = Math.round((value - min) / step);
    return q > 0 ? Math.min(q, limit) : 0;
}

function boxOf(values: Float32Array): Box {
    const min: Triple = [Infinity, Infinity, Infinity];
    const max: Triple = [-Infinity, -Infinity, -Infinity];
    for (let at = 0; at < values.length; at += 8) {
        for (let i = 0; i < 3; ++i) {
            const value = values[at + i];
            if (!Number.isFinite(value)) continue;
            if (value < min[i]) min[i] = value;
            if (value > max[i]) max[i] = value;
        }
    }
    for (let i = 0; i < 3; ++i) {
        if (min[i] > max[i]) min[i] = max[i] = 0;
    }
    return { min, max };
}

function hitScore(position: Triple, ray: Ray): number {
    const d = [position[0] - ray.eye[0], position[1] - ray.eye[1], position[2] - ray.eye[2]];
    const depth = d[0] * ray.forward[0] + d[1] * ray.forward[1] + d[2] * ray.forward[2];
    if (!(depth > 0)) return Infinity;
    const right = (d[0] * ray.right[0] + d[1] * ray.right[1] + d[2] * ray.right[2]) / depth - ray.x;
    const up = (d[0] * ray.up[0] + d[1] * ray.up[1] + d[2] * ray.up[2]) / depth - ray.y;
    const beside = Math.hypot(right, up) / ray.radius;
    return beside <= 1 ? depth * (1 + beside) : Infinity;
}
