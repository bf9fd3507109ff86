// Where a scene is seen from at first. A town is seen as a whole, from the south. Of a room, the walls and what floats before them
// would hide everything: there the eye goes inside, as far from the bulk as possible with next to nothing in the way.
import { type Pose, fieldOfView, framing, minus, viewOf } from "./camera.ts";
import type { Triple } from "./format.ts";
import type { Box } from "./messages.ts";
import type { Sample } from "./sample.ts";

const clear = 0.3; // opaque layers that are next to nothing
const nearest = 0.2; // units from the eye within which nothing is drawn
const widest = Math.tan(fieldOfView / 2);
const bearings = [0, 45, -45, 90, -90, 135, -135, 180].map((yaw) => (yaw * Math.PI) / 180); // the first that is clear is taken
const slopes = [35, 20, 55].map((pitch) => (pitch * Math.PI) / 180); // downwards: the eye is always above the bulk
const nearer = [3, 2, 1.5, 1]; // radii of the bulk that fill the picture, when the whole cannot be seen

export interface Ball {
    centre: Triple;
    radius: number;
}

// A small ball with half of the splats: the half that is nearest to its centre, which is the mean of that half.
export function bulkOf({ values }: Sample): Ball {
    const count = values.length / 4;
    const half = (list: Float32Array): number => list.sort()[count >> 1];
    let centre = [0, 1, 2].map((axis) => half(values.filter((_, i) => i % 4 === axis))) as Triple;
    let limit = 0;
    for (let step = 0; step < 12; ++step) {
        const squares = new Float32Array(count);
        for (let i = 0; i < count; ++i) squares[i] = squaresOf(values, 4 * i, centre);
        limit = half(squares.slice());
        const sum: Triple = [0, 0, 0];
        let inside = 0;
        for (let i = 0; i < count; ++i) {
            if (squares[i] > limit) continue;
            ++inside;
            for (let axis = 0; axis < 3; ++axis) sum[axis] += values[4 * i + axis];
        }
        centre = sum.map((s) => s / inside) as Triple;
    }
    return { centre, radius: Math.max(1e-3, Math.sqrt(limit)) };
}

function squaresOf(values: Float32Array, at: number, [x, y, z]: Triple): number {
    return (values[at] - x) ** 2 + (values[at + 1] - y) ** 2 + (values[at + 2] - z) ** 2;
}

// How many opaque layers are in the way of an eye that looks at a ball: before the ball, in the mean over it, and on the first half
// of the way, in the mean over the picture. Infinity for an eye within the ball.
export function layersBefore({ values, each, broad, least }: Sample, eye: Triple, { centre, radius }: Ball): number {
    const way = minus(centre, eye);
    const distance = Math.hypot(...way);
    if (distance <= radius + nearest) return Infinity;
    const [dx, dy, dz] = way.map((v) => v / distance);
    const wide = radius / distance; // tangent of the ball's radius
    const disc = Math.PI * wide ** 2;
    const picture = Math.PI * widest ** 2;
    const layersOf = (list: Float32Array, limit: number): number => {
        let layers = 0;
        for (let at = 0; at < list.length; at += 4) {
            const depth = (list[at] - eye[0]) * dx + (list[at + 1] - eye[1]) * dy + (list[at + 2] - eye[2]) * dz;
            if (!(depth > nearest && depth < distance - radius && list[at + 3] < limit)) continue;
            const area = list[at + 3] / (depth * depth);
            const beside = Math.sqrt(Math.max(0, squaresOf(list, at, eye) - depth * depth)) / depth - Math.sqrt(area / Math.PI);
            if (beside < wide) layers += Math.min(1, area / disc);
            if (beside < widest && depth < distance / 2) layers += Math.min(1, area / picture);
        }
        return layers;
    };
    return each * layersOf(values, least) + layersOf(broad, Infinity);
}

// The view that a sample asks for; `whole` is the box of all that is to be seen.
export function firstView(sample: Sample, whole: Box): Pose {
    const bulk = bulkOf(sample);
    const usual = framing(whole.min, whole.max);
    const inside = nearer.map((times) => framingBall({ centre: bulk.centre, radius: times * bulk.radius }));
    let best = usual;
    let least = Infinity;
    for (const { target, distance } of [usual, ...inside.filter((pose) => pose.distance < usual.distance)]) {
        for (const pitch of slopes) {
            for (const yaw of bearings) {
                const pose = { target, distance, yaw, pitch };
                const layers = layersBefore(sample, viewOf(pose, 1, 1).eye, bulk);
                if (layers <= clear) return pose;
                if (layers < least) [least, best] = [layers, pose];
            }
        }
    }
    return best;
}

function framingBall({ centre, radius }: Ball): Pose {
    const half = radius / Math.sqrt(3);
    return framing(centre.map((v) => v - half) as Triple, centre.map((v) => v + half) as Triple);
}
