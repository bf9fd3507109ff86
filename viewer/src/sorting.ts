// What the page and its worker say to each other, and the worker's work: it knows every splat's position and says in which
// order they are drawn, which one is under the pointer, and what a picture of the scene should show.
import type { Triple } from "./format.ts";
import type { Run } from "./slots.ts";

export interface Ray {
    eye: Triple;
    right: Triple;
    up: Triple;
    forward: Triple;
    x: number; // tangents to the right and up
    y: number;
    radius: number; // tangent within which a splat counts as hit
}

export type Request =
    | { type: "reset"; capacity: number; keepNormals: boolean }
    | { type: "add"; piece: number; runs: Run[]; records: ArrayBuffer }
    | { type: "remove"; piece: number }
    | { type: "sort"; sequence: number; eye: Triple; along: Triple | undefined; order: ArrayBuffer | undefined }
    | { type: "pick"; token: number; ray: Ray }
    | { type: "frame"; token: number };

export type Reply =
    | { type: "added"; piece: number; min: Triple; max: Triple }
    | { type: "sorted"; sequence: number; order: ArrayBuffer; count: number; milliseconds: number }
    | { type: "picked"; token: number; hit: { piece: number; number: number; slot: number; normals: number | undefined } | undefined }
    | { type: "framed"; token: number; box: { min: Triple; max: Triple } | undefined };

interface Piece {
    runs: Run[];
    min: Triple;
    max: Triple;
    step: Triple;
}

// What is sorted by: the square of the depth along the first three, plus the last times the square of the distance.
type Weights = [number, number, number, number];

const buckets = 1 << 16;
const most: Triple = [(1 << 21) - 1, (1 << 21) - 1, (1 << 22) - 1]; // of the packed x, y and z
const single = new Float32Array(1);
const bits = new Uint32Array(single.buffer);

// A positive single as an integer grows with it, so that nearby splats are told apart more finely than distant ones.
function bitsOf(value: number): number {
    single[0] = value;
    return bits[0];
}

export class Sorter {
    // 64 bits a splat, against the box of its piece: 21 for x, 21 for y, 22 for z.
    private readonly low: Uint32Array; // x, and 11 bits of y
    private readonly high: Uint32Array; // 10 bits of y, and z
    private readonly normals: Uint32Array | undefined; // y and z of the normal, which the graphics memory gives up
    private readonly pieces = new Map<number, Piece>();
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

    add(id: number, runs: Run[], records: ArrayBuffer): { min: Triple; max: Triple } {
        const values = new Float32Array(records);
        const words = new Uint32Array(records);
        const { min, max } = boxOf(values);
        const step = most.map((m, i) => (max[i] - min[i]) / m || 1) as Triple;
        let at = 0;
        for (const run of runs) {
            for (let slot = run.start; slot < run.start + run.count; ++slot, at += 8) {
                const x = place(values[at], min[0], step[0], most[0]);
                const y = place(values[at + 1], min[1], step[1], most[1]);
                const z = place(values[at + 2], min[2], step[2], most[2]);
                this.low[slot] = (x | (y << 21)) >>> 0;
                this.high[slot] = ((y >>> 11) | (z << 10)) >>> 0;
                if (this.normals !== undefined) this.normals[slot] = words[at + 7];
            }
        }
        this.pieces.set(id, { runs, min, max, step });
        return { min, max };
    }

    remove(id: number): void {
        this.pieces.delete(id);
    }

    // Slots of all pieces, from the farthest to the nearest: a counting sort on the distance, or on the depth along a direction.
    sort(eye: Triple, along: Triple | undefined, buffer: ArrayBuffer | undefined): { order: Uint32Array; count: number } {
        const order = new Uint32Array(buffer ?? new ArrayBuffer(4 * this.capacity));
        const { least, scale } = this.keyScale(eye, along !== undefined);
        this.histogram.fill(0);
        const weights: Weights = along === undefined ? [0, 0, 0, 1] : [...along, 0];
        for (const piece of this.pieces.values()) this.count(piece, eye, weights, least, scale);
        let sum = 0;
        for (let key = buckets - 1; key >= 0; --key) {
            const size = this.histogram[key];
            this.histogram[key] = sum;
            sum += size;
        }
        for (const piece of this.pieces.values()) this.scatter(piece, eye, weights, least, scale, order);
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
        near = Math.max(byDepth ? 0 : near, far * 2 ** -44, 1e-30); // within that all count as equally near
        const least = bitsOf(near);
        return { least, scale: (buckets - 1) / Math.max(1, bitsOf(far * 1.0001) - least) };
    }

    // The two passes keep the distance's arithmetic in their loops: a call a splat would cost more than all the rest.
    private count(piece: Piece, eye: Triple, [wx, wy, wz, all]: Weights, least: number, scale: number): void {
        const { low, high, histogram } = this;
        const [sx, sy, sz] = piece.step;
        const [ex, ey, ez] = [eye[0] - piece.min[0], eye[1] - piece.min[1], eye[2] - piece.min[2]];
        for (const run of piece.runs) {
            for (let slot = run.start, end = run.start + run.count; slot < end; ++slot) {
                const a = low[slot];
                const b = high[slot];
                const x = (a & 0x1fffff) * sx - ex;
                const y = ((a >>> 21) | ((b & 0x3ff) << 11)) * sy - ey;
                const z = (b >>> 10) * sz - ez;
                const depth = x * wx + y * wy + z * wz;
                single[0] = all * (x * x + y * y + z * z) + (depth > 0 ? depth * depth : 0);
                const key = (bits[0] - least) * scale;
                ++histogram[key > 0 ? (key < 65535 ? key | 0 : 65535) : 0];
            }
        }
    }

    private scatter(piece: Piece, eye: Triple, [wx, wy, wz, all]: Weights, least: number, scale: number, order: Uint32Array): void {
        const { low, high, histogram } = this;
        const [sx, sy, sz] = piece.step;
        const [ex, ey, ez] = [eye[0] - piece.min[0], eye[1] - piece.min[1], eye[2] - piece.min[2]];
        for (const run of piece.runs) {
            for (let slot = run.start, end = run.start + run.count; slot < end; ++slot) {
                const a = low[slot];
                const b = high[slot];
                const x = (a & 0x1fffff) * sx - ex;
                const y = ((a >>> 21) | ((b & 0x3ff) << 11)) * sy - ey;
                const z = (b >>> 10) * sz - ez;
                const depth = x * wx + y * wy + z * wz;
                single[0] = all * (x * x + y * y + z * z) + (depth > 0 ? depth * depth : 0);
                const key = (bits[0] - least) * scale;
                order[histogram[key > 0 ? (key < 65535 ? key | 0 : 65535) : 0]++] = slot;
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
    pick(ray: Ray): { piece: number; number: number; slot: number; normals: number | undefined } | undefined {
        let best = Infinity;
        let hit: { piece: number; number: number; slot: number; normals: number | undefined } | undefined;
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

    // The box of the middle 96 of 100 splats on each axis: a few that fly far outside do not count.
    frame(): { min: Triple; max: Triple } | undefined {
        const total = [...this.pieces.values()].reduce((sum, piece) => sum + piece.runs.reduce((s, run) => s + run.count, 0), 0);
        if (total === 0) return undefined;
        const stride = Math.max(1, Math.floor(total / 20000));
        const samples: Triple[] = [];
        for (const piece of this.pieces.values()) {
            for (const run of piece.runs) {
                for (let i = 0; i < run.count; i += stride) samples.push(this.position(piece, run.start + i));
            }
        }
        const ends = [0, 1, 2].map((axis) => {
            const sorted = Float64Array.from(samples, (sample) => sample[axis]).sort();
            const at = (share: number): number => sorted[Math.floor(share * (sorted.length - 1))];
            return [at(0.02), at(0.98)];
        });
        return { min: ends.map((e) => e[0]) as Triple, max: ends.map((e) => e[1]) as Triple };
    }
}

function place(value: number, min: number, step: number, limit: number): number {
    const q = Math.round((value - min) / step);
    return q > 0 ? Math.min(q, limit) : 0;
}

function boxOf(values: Float32Array): { min: Triple; max: Triple } {
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
