// Parts of the page that need no browser: slots of graphics memory, the sorter, the plan of cells, links.
import assert from "node:assert/strict";
import { File } from "node:buffer";
import { test } from "node:test";
import { modules } from "./support.mjs";

const {
    City, Fades, Sampler, SlotPool, Sorter, ViewError, blocksOf, firstView, framing, isOutside, layersBefore, middleOf, mostDatasets, mostFading, piecesOf, poseFrom, poseText,
    scoresOf, shapeFor, slotBits, sourceFrom, together, viewOf, wantedPieces,
} = await modules("camera", "choices", "city", "fading", "firstview", "folder", "format", "plan", "sample", "slots", "sorting");

// Pseudo-random numbers, the same in every run.
function numbers(seed) {
    let state = seed;
    return () => ((state = (state * 1103515245 + 12345) % 2147483648) / 2147483648);
}

test("slots are never given twice and all come back", () => {
    const next = numbers(1);
    const pool = new SlotPool(1000);
    const held = [];
    const taken = new Uint8Array(1000);
    for (let step = 0; step < 3000; ++step) {
        if (next() < 0.5) {
            const count = 1 + Math.floor(next() * 200);
            const before = pool.available;
            const runs = pool.take(count);
            assert.equal(runs !== undefined, count <= before, "all that is free can be had, however scattered");
            if (runs === undefined) continue;
            assert.equal(runs.reduce((sum, run) => sum + run.count, 0), count);
            for (const { start, count: length } of runs) {
                for (let slot = start; slot < start + length; ++slot) assert.equal(taken[slot]++, 0);
            }
            held.push(runs);
        } else if (held.length > 0) {
            const [runs] = held.splice(Math.floor(next() * held.length), 1);
            for (const { start, count } of runs) taken.fill(0, start, start + count);
            pool.give(runs);
        }
        assert.equal(pool.available, 1000 - taken.reduce((sum, value) => sum + value, 0));
    }
    held.forEach((runs) => pool.give(runs));
    assert.deepEqual(pool.take(1000), [{ start: 0, count: 1000 }], "free runs grow together again");
});

test("a shape holds all slots, wastes next to none, and a run's blocks cover it", () => {
    for (const capacity of [1, 7, 999, 20000, 61849, 58649, 250000, 1000000, 1234567, 8000000]) {
        for (const [rows, columns] of [[2048, 136], [4096, 273]]) {
            const shape = shapeFor(capacity, columns, rows);
            const slots = shape.rows * shape.columns * shape.layers;
            assert.ok(slots >= capacity && slots - capacity <= capacity / 1000 + shape.layers, `${capacity} in ${JSON.stringify(shape)}`);
            assert.ok(shape.rows <= rows && shape.columns <= columns && shape.layers <= 256);
            const run = { start: Math.floor(capacity / 3), count: Math.ceil(capacity / 2) };
            let slot = run.start;
            for (const block of blocksOf(run, shape)) {
                assert.equal((block.layer * shape.rows + block.row) * shape.columns + block.column, slot);
                assert.equal(block.first, slot - run.start);
                assert.ok(block.row + block.rows <= shape.rows && block.column + block.columns <= shape.columns && block.layer < shape.layers);
                assert.ok(block.rows === 1 || block.columns === shape.columns, "rows that lie behind each other are whole");
                slot += block.rows * block.columns;
            }
            assert.equal(slot, run.start + run.count);
        }
    }
});

// Adds a piece of the first dataset, and shows it.
function put(sorter, id, runs, part) {
    sorter.add(id, [0, 0, 0], runs, part);
    sorter.show(id, 0);
}

function records(count, next, place = () => [next() * 100, next() * 80, next() * 5]) {
    const buffer = new ArrayBuffer(32 * count);
    const values = new Float32Array(buffer);
    for (let i = 0; i < count; ++i) values.set(place(i), 8 * i);
    return buffer;
}

test("the order is back to front, holds every splat once, and leaves out what was removed", () => {
    const next = numbers(7);
    const sorter = new Sorter(5000, false);
    const parts = [records(2000, next), records(1000, next), records(1500, next)];
    const runs = [[{ start: 0, count: 1500 }, { start: 4000, count: 500 }], [{ start: 1500, count: 1000 }], [{ start: 2500, count: 1500 }]];
    parts.forEach((part, i) => put(sorter, i, runs[i], part));
    const position = new Map();
    runs.forEach((list, i) => {
        let at = 0;
        const values = new Float32Array(parts[i]);
        for (const run of list) for (let k = 0; k < run.count; ++k, ++at) position.set(run.start + k, values.subarray(8 * at, 8 * at + 3));
    });
    const check = (order, count, expected) => {
        assert.equal(count, expected.length);
        const slots = [...order.subarray(0, count)];
        assert.deepEqual([...slots].sort((a, b) => a - b), expected);
        const distances = slots.map((slot) => Math.hypot(...position.get(slot).map((value, i) => value - eye[i])));
        // The keys distinguish distances to one part in a few thousand.
        for (let i = 1; i < count; ++i) assert.ok(distances[i] <= distances[i - 1] * 1.001, `${i}: ${distances[i - 1]}, ${distances[i]}`);
    };
    const eye = [50, 40, 2];
    let { order, count } = sorter.sort(eye, undefined, undefined);
    check(order, count, [...position.keys()].sort((a, b) => a - b));
    const along = [0.6, 0.8, 0];
    const start = [-200, -200, 0];
    const byDepth = [...sorter.sort(start, along, undefined).order.subarray(0, 4500)].map((slot) =>
        position.get(slot).reduce((sum, value, i) => sum + (value - start[i]) * along[i], 0));
    for (let i = 1; i < 4500; ++i) assert.ok(byDepth[i] <= byDepth[i - 1] * 1.001, `by depth, ${i}: ${byDepth[i - 1]}, ${byDepth[i]}`);
    sorter.remove(1);
    ({ order, count } = sorter.sort(eye, undefined, order.buffer));
    check(order, count, [...position.keys()].filter((slot) => slot < 1500 || slot >= 2500).sort((a, b) => a - b));
    assert.ok(sorter.bytes + 4 * 5000 <= 16 * 5000);
    assert.ok(new Sorter(5000, true).bytes + 4 * 5000 <= 16 * 5000);
});

test("a million splats are sorted, each once", (t) => {
    const count = 1000000;
    const sorter = new Sorter(count, false);
    const part = records(count, numbers(11));
    const values = new Float32Array(part);
    put(sorter, 0, [{ start: 0, count }], part);
    const eye = [-20, -30, 20];
    let { order } = sorter.sort(eye, undefined, undefined);
    const begin = performance.now();
    ({ order } = sorter.sort(eye, undefined, order.buffer));
    t.diagnostic(`${(performance.now() - begin).toFixed(0)} ms`);
    const seen = new Uint8Array(count);
    let last = Infinity;
    for (const slot of order) {
        assert.equal(seen[slot]++, 0);
        const distance = Math.hypot(values[8 * slot] - eye[0], values[8 * slot + 1] - eye[1], values[8 * slot + 2] - eye[2]);
        assert.ok(distance <= last * 1.001);
        last = distance;
    }
});

test("a splat far outside does not spoil the order of the others", () => {
    const next = numbers(3);
    const sorter = new Sorter(1001, false);
    const part = records(1001, next, (i) => (i === 0 ? [1e5, 1e5, 1e5] : [next(), 10 * next(), next()]));
    const values = new Float32Array(part);
    put(sorter, 0, [{ start: 0, count: 1001 }], part);
    const { order } = sorter.sort([0, -1, 0], undefined, undefined);
    const distances = [...order].map((slot) => Math.hypot(values[8 * slot], values[8 * slot + 1] + 1, values[8 * slot + 2]));
    for (let i = 1; i < 1001; ++i) assert.ok(distances[i] <= distances[i - 1] + 0.2, `${i}: ${distances[i - 1]}, ${distances[i]}`);
});

test("positions that are no numbers stop nothing", () => {
    const sorter = new Sorter(3, false);
    put(sorter, 0, [{ start: 0, count: 3 }], records(3, Math.random, (i) => [[NaN, 0, 0], [Infinity, 1, 1], [1, 2, 3]][i]));
    assert.deepEqual([...sorter.sort([0, 0, 0], undefined, undefined).order].sort(), [0, 1, 2]);
});

test("a click takes the nearest of the splats near the ray", () => {
    const sorter = new Sorter(4, true);
    const part = records(4, Math.random, (i) => [[0, 10, 0], [0.001, 5, 0], [3, 4, 0], [0, -5, 0]][i]);
    new Uint32Array(part)[8 + 7] = 0x12345678;
    put(sorter, 9, [{ start: 0, count: 4 }], part);
    const ray = { eye: [0, 0, 0], right: [1, 0, 0], up: [0, 0, 1], forward: [0, 1, 0], x: 0, y: 0, radius: 0.01 };
    assert.deepEqual(sorter.pick(ray), { piece: 9, number: 1, slot: 1, normals: 0x12345678 });
    assert.equal(sorter.pick({ ...ray, x: -0.5 }), undefined);
});

test("cells are wanted nearest first, within the budget, and what is here stays", () => {
    const cells = Array.from({ length: 100 }, (_, i) => ({ key: i, count: 1000, first: 1000 * i, owner: 0, min: [i * 10, 0], max: [i * 10 + 10, 10] }));
    cells[3].count = 100000; // three fetches and a bit
    const pieces = piecesOf(cells);
    assert.equal(pieces.reduce((sum, piece) => sum + piece.count, 0), 199000);
    assert.deepEqual(pieces.filter(({ cell }) => cell === 3).map(({ first, count }) => [first, count]), [[0, 32768], [32768, 32768], [65536, 32768], [98304, 1696]]);
    const view = (x) => viewOf({ target: [x, 5, 0], distance: 1, yaw: Math.PI / 2, pitch: 0 }, 100, 100);
    const wantedOf = (eye, capacity) => wantedPieces(pieces, scoresOf(cells, pieces, eye, [[0, 1]]), capacity);
    const wanted = wantedOf(view(505), 10000).map(({ cell }) => cell);
    assert.equal(wanted.length, 10);
    assert.equal(wanted[0], 50);
    const forwards = wanted.filter((cell) => cell > 50).length;
    assert.ok(forwards > wanted.filter((cell) => cell < 50).length, "what is in the picture comes first");
    const many = wantedOf(view(505), 30000).map(({ cell }) => cell);
    const furthest = pieces.find(({ cell }) => cell === Math.max(...many) + 1);
    assert.ok(!wantedOf(view(505), 30000).includes(furthest));
    for (const state of ["here", "coming", "leaving"]) {
        furthest.state = state;
        assert.ok(wantedOf(view(505), 30000).includes(furthest), `what is ${state} is not given up for its like`);
    }
    assert.deepEqual([40, 49, 50, 60].map((cell) => isOutside(cells[cell], [0, 1], view(505))), [true, true, false, false]);
});

test("a view survives its link; what is no view is none", () => {
    const pose = framing([500000, 5400000, 90], [500200, 5400100, 130]);
    const again = poseFrom(poseText(pose));
    assert.ok(again.target.every((value, i) => Math.abs(value - pose.target[i]) < 1e-3));
    assert.ok(Math.abs(again.distance - pose.distance) < 1e-6 && Math.abs(again.pitch - pose.pitch) < 1e-9);
    for (const text of ["", "1,2,3", "1,2,3,4,5,x", "1,2,3,4,5,6,7", "1,2,,4,5,6", "1,2,Infinity,4,5,6"]) assert.equal(poseFrom(text), undefined);
});

test("the dataset is found among chosen files; without one it is said", () => {
    const file = (path) => ({ path: path.split("/").slice(0, -1).join("/"), file: new File(["x"], path.split("/").pop()) });
    const source = sourceFrom([file("a/deep/down/converted_from_ply.ytr"), file("a/town/converted_from_ply.ytr"), file("a/town/index.bin"), file("a/index.bin")]);
    assert.equal(source.name, "town");
    assert.throws(() => sourceFrom([file("a/index.bin")]), ViewError);
});

test("pieces of several datasets are ordered together, each splat marked with its dataset, once they are shown", () => {
    const next = numbers(23);
    const sorter = new Sorter(3000, false);
    const shifts = [[0, 0, 0], [400000.5, -3, 2], [-100, 250000, 0]];
    const part = records(1000, next);
    const values = new Float32Array(part);
    const boxes = shifts.map((shift, owner) => sorter.add(owner, shift, [{ start: 1000 * owner, count: 1000 }], part));
    boxes.forEach(({ min, max }, owner) => {
        for (let i = 0; i < 1000; ++i) {
            for (let axis = 0; axis < 3; ++axis) {
                const place = values[8 * i + axis] + shifts[owner][axis];
                assert.ok(place >= min[axis] && place <= max[axis]);
            }
        }
    });
    const eye = [400050, 100, 3];
    assert.equal(sorter.sort(eye, undefined, undefined).count, 0, "nothing is drawn before it is in the graphics memory");
    [0, 2, 1].forEach((piece) => sorter.show(piece, piece));
    const { order, count } = sorter.sort(eye, undefined, undefined);
    assert.equal(count, 3000);
    const bits = slotBits(3000);
    assert.ok(mostDatasets(3000) >= 3 && mostDatasets(8000000) >= 500);
    const seen = new Set();
    let last = Infinity;
    for (const word of order) {
        const [owner, slot] = [Math.floor(word / 2 ** bits), word % 2 ** bits];
        assert.equal(owner, Math.floor(slot / 1000));
        seen.add(slot);
        const distance = Math.hypot(...eye.map((value, axis) => values[8 * (slot % 1000) + axis] + shifts[owner][axis] - value));
        assert.ok(distance <= last * 1.001);
        last = distance;
    }
    assert.equal(seen.size, 3000);
    sorter.show(1, 9);
    const again = sorter.sort(eye, undefined, undefined);
    assert.equal(again.count, 3000);
    for (const word of again.order) assert.equal(Math.floor(word / 2 ** bits), [0, 9, 2][Math.floor((word % 2 ** bits) / 1000)], "drawn under another number");
    sorter.add(7, [0, 0, 0], [{ start: 0, count: 1000 }], part);
    sorter.remove(7);
    sorter.show(7, 0);
    assert.equal(sorter.sort(eye, undefined, undefined).count, 3000, "what is removed before it is shown stays away");
});

const datasetAt = (offset, cells, extra = {}) => ({
    source: { name: `at ${offset[0]}` },
    meta: { offset, totalSplats: 2000000, box: { min: [0, 0, 0], max: [100, 100, 10] }, ...extra },
    cells,
    count: cells.reduce((sum, { count }) => sum + count, 0),
});
const cell = (key, x, y, count = 10) => ({ key, count, first: 0, min: [x, y], max: [x + 10, y + 10] });

test("a piece fades in from the moment when it is first drawn, and then goes by its dataset's number again", () => {
    const fades = new Fades(3, 4096);
    const share = (under) => fades.values[2 * (under - 3) + 1];
    const one = fades.begin(10, 2, 5);
    assert.ok(one >= 3 && fades.values[2 * (one - 3)] === 2, "a row of its own that names its dataset");
    fades.drawn(4, 1000);
    assert.equal(fades.at(5000), false, "the order of that moment does not hold it yet");
    assert.equal(share(one), 0);
    fades.drawn(5, 6000);
    const other = fades.begin(11, 0, 6);
    assert.notEqual(other, one);
    assert.equal(fades.at(6000), true);
    assert.equal(share(one), 0);
    assert.equal(fades.at(6200), true);
    assert.equal(share(one), 0.5 ** 4);
    fades.drawn(6, 6300);
    assert.deepEqual(fades.finish(7, 6399), []);
    assert.equal(fades.hasLeft(9000), false);
    assert.equal(fades.at(6500), true, "the other one still does");
    assert.deepEqual([share(one), share(other)], [1, 0.5 ** 4]);
    fades.at(Infinity);
    assert.deepEqual([share(one), share(other)], [1, 1], "a picture that is saved has both");
    fades.at(6390);
    assert.ok(share(one) < 1);
    assert.deepEqual(fades.finish(7, 6500), [{ piece: 10, leaves: false }]);
    assert.equal(share(one), 1, "as long as an order names its row");
    assert.deepEqual(fades.finish(8, 6500), [], "once");
    assert.equal(fades.at(6700), false);
});

test("a piece that makes room fades out from the moment when it is first drawn so; one that is wanted again comes back", () => {
    const fades = new Fades(3, 4096);
    const share = (under) => fades.values[2 * (under - 3) + 1];
    const one = fades.leave(10, 2, 5, 1000);
    const other = fades.leave(11, 1, 5, 1000);
    assert.notEqual(one, other);
    assert.deepEqual([one, other].map((under) => fades.values[2 * (under - 3)]), [2, 1]);
    assert.equal(fades.drawn(4, 1000), false);
    assert.equal(fades.at(5000), false, "the orders so far name them by their datasets");
    assert.deepEqual([share(one), share(other)], [1, 1]);
    assert.equal(fades.drawn(5, 6000), true);
    assert.equal(fades.at(6100), true);
    assert.deepEqual([share(one), share(other)], [0.75 ** 4, 0.75 ** 4]);
    fades.stay(11, 6100);
    fades.at(6100);
    assert.equal(share(other), 0.75 ** 4, "without a jump");
    fades.at(6150);
    assert.deepEqual([share(one), share(other)], [0.625 ** 4, 0.875 ** 4]);
    fades.at(Infinity);
    assert.deepEqual([share(one), share(other)], [0, 1], "a picture that is saved has what stays");
    assert.deepEqual(fades.finish(6, 6200), [{ piece: 11, leaves: false }]);
    assert.equal(fades.hasLeft(6399), false);
    assert.equal(fades.at(6400), false);
    assert.equal(share(one), 0);
    assert.equal(fades.hasLeft(6400), true);
    assert.deepEqual(fades.finish(6, 6400), [{ piece: 10, leaves: true }]);
    assert.equal(fades.hasLeft(7000), false);
    // One that has not come as a whole goes back from there; one that nobody has seen goes at once.
    const coming = fades.begin(12, 0, 7);
    assert.equal(fades.leave(13, 0, 7, 7000) !== undefined, true);
    fades.stay(13, 7000);
    assert.deepEqual(fades.finish(7, 7000), [{ piece: 13, leaves: false }], "it has never been away");
    assert.equal(fades.leave(12, 0, 7, 7000), undefined);
    fades.drawn(7, 8000);
    assert.equal(fades.leave(12, 0, 8, 8100), coming);
    fades.at(8150);
    assert.equal(share(coming), 0.125 ** 4);
    assert.deepEqual(fades.finish(8, 8200), [{ piece: 12, leaves: true }]);
    const full = new Fades(4096, 4096);
    assert.equal(full.leave(0, 17, 1, 0), undefined, "no numbers are left");
});

test("as many pieces fade at a time as there are rows; a row is free once an order without it is drawn", () => {
    const fades = new Fades(1, 4096);
    const taken = new Set();
    for (let piece = 0; piece < mostFading; ++piece) taken.add(fades.begin(piece, 0, 1));
    assert.equal(taken.size, mostFading);
    assert.equal(fades.begin(500, 0, 1), 0, "the next one appears at once");
    fades.drop(7, 2);
    fades.drop(500, 2);
    assert.equal(fades.begin(501, 0, 2), 0, "order 1 may still name the row");
    fades.drawn(1, 0);
    assert.equal(fades.begin(501, 0, 2), 0);
    fades.drawn(2, 0);
    assert.ok(taken.has(fades.begin(501, 0, 3)));
    assert.equal(fades.begin(502, 0, 3), 0);
    const full = new Fades(4096, 4096);
    assert.equal(full.begin(0, 17, 1), 17, "no numbers are left");
    const nearly = new Fades(4094, 4096);
    assert.deepEqual([0, 1, 2].map((piece) => nearly.begin(piece, 17, 1)), [4094, 4095, 17]);
});

test("datasets of one map lie beside each other by their offsets, in double", () => {
    const far = 5400000.123456789;
    const city = new City(
        [datasetAt([500000, far, 100], [cell(0, 0, 0), cell(1, 10, 0)]), datasetAt([500100.5, far - 50, 120], [cell(0, 0, 0)])],
        [undefined, undefined],
    );
    assert.deepEqual(city.origin, [500000, far, 100]);
    assert.deepEqual(city.shifts, [[0, 0, 0], [100.5, far - 50 - far, 20]]);
    assert.deepEqual(city.cells.map(({ owner, min }) => [owner, min[0]]), [[0, 0], [0, 10], [1, 100.5]]);
    assert.deepEqual(city.heights, [[0, 10], [20, 30]]);
    assert.equal(city.count, 30);
    assert.equal(city.ownerAt(5, 5), 0);
    assert.equal(city.ownerAt(103, -45), 1);
    assert.equal(city.ownerAt(90, -45), 1, "the nearest, where no cell is");
    assert.deepEqual(new City([datasetAt([NaN, 0, 0], [cell(0, 0, 0)])], [undefined]).shifts, [[0, 0, 0]], "one alone needs no offset");
    assert.throws(() => new City([datasetAt([0, 0, 0], []), datasetAt([Infinity, 0, 0], [])], []), ViewError);
});

test("a dataset of one cell lies where its splats are known to be", () => {
    const city = new City([datasetAt([1000, 2000, 3], [cell(0, 0, 0)], { totalSplats: 10 })], [{ min: [1040, 2030, 1], max: [1050, 2045, 9] }]);
    assert.deepEqual([city.cells[0].min, city.cells[0].max, city.heights[0]], [[40, 30], [50, 45], [-2, 6]]);
});

test("the list's datasets of one map are offered together, the most of them first", () => {
    const one = (name, map) => ({ name, base: `${name}/`, map, box: undefined });
    const labels = (list) => together(list).map(({ label, entries }) => `${label} (${entries.length})`);
    assert.deepEqual(labels([one("a"), one("b")]), ["a (1)", "b (1)"]);
    assert.deepEqual(labels([one("a", "EPSG 1"), one("b", "EPSG 2"), one("c", "EPSG 2"), one("d")]), ["EPSG 2: all 2 (2)", "a (1)", "b (1)", "c (1)", "d (1)"]);
    assert.deepEqual(labels([..."abcde"].map((name, i) => one(name, i < 2 ? "EPSG 1" : "EPSG 2"))).slice(0, 2), ["EPSG 2: all 3 (3)", "EPSG 1: all 2 (2)"]);
});

// A sample of splats at places, all of one size and opacity.
function sampleOf(places, size, alpha = 1) {
    const values = places.flatMap((place) => [...place, 2 * Math.PI * alpha * size * size]);
    return { values: Float32Array.from(values), each: 1, broad: new Float32Array(), least: Infinity };
}
const both = (one, other) => ({ ...one, values: Float32Array.from([...one.values, ...other.values]) });
const ballAround = (next, radius, count) => Array.from({ length: count }, () => {
    for (;;) {
        const place = [0, 1, 2].map(() => (2 * next() - 1) * radius);
        if (Math.hypot(...place) <= radius) return place;
    }
});
// Evenly over a sphere, along a spiral.
const sphere = (radius, count) => Array.from({ length: count }, (_, i) => {
    const [z, turn] = [1 - (2 * i + 1) / count, i * Math.PI * (3 - Math.sqrt(5))];
    return [Math.cos(turn) * Math.sqrt(1 - z * z), Math.sin(turn) * Math.sqrt(1 - z * z), z].map((v) => radius * v);
});

test("a town is seen as a whole from the south; what flies far outside of it changes nothing", () => {
    const next = numbers(31);
    const places = Array.from({ length: 5000 }, () => [250 * next() - 125, 200 * next() - 100, next() < 0.7 ? 0 : 30 * next()]);
    places.push(...ballAround(next, 5000, 50));
    const sample = sampleOf(places, 0.3);
    const box = middleOf(sample);
    assert.ok(box.max.every((value, axis) => value < [126, 101, 31][axis]) && box.min[0] > -126);
    assert.deepEqual(firstView(sample, box), framing(box.min, box.max));
});

test("a thing in a room is seen from within the room, from above, past what floats before it", () => {
    const next = numbers(37);
    const thing = sampleOf(ballAround(next, 1, 3000), 0.02);
    const walls = sampleOf(sphere(8, 2000), 1);
    const room = both(thing, walls);
    const eyeOf = (sample) => {
        const pose = firstView(sample, middleOf(sample));
        const { eye } = viewOf(pose, 100, 100);
        assert.ok(Math.hypot(...pose.target) < 0.3, "the thing is in the middle");
        assert.ok(pose.distance > 1.2 && Math.hypot(...eye) < 8, `inside, and outside of the thing: ${pose.distance}`);
        assert.ok(eye[2] > pose.target[2]);
        assert.ok(layersBefore(sample, eye, { centre: [0, 0, 0], radius: 1 }) <= 0.3);
        return eye;
    };
    const eye = eyeOf(room);
    assert.ok(eye[1] < 0 && Math.abs(eye[0]) < 0.1, "from the south, when that is free");
    const floating = sampleOf(ballAround(next, 0.4, 30).map(([x, y, z]) => [x + 0.6 * eye[0], y + 0.6 * eye[1], z + 0.6 * eye[2]]), 0.3);
    const other = eyeOf(both(room, floating));
    assert.ok(Math.hypot(...other.map((value, axis) => value - eye[axis])) > 0.5, "from elsewhere");
});

test("layers before a ball count what is between, by its area on the ball's disc", () => {
    const ball = { centre: [0, 10, 0], radius: 2 };
    const layers = (place, size) => layersBefore(sampleOf([place], size), [0, 0, 0], ball);
    const disc = Math.PI * 0.2 ** 2;
    assert.ok(Math.abs(layers([0, 5, 0], 0.1) - (2 * Math.PI * 0.01) / 25 / disc) < 1e-6);
    assert.equal(layers([0, 5, 0], 10), 1, "one splat is one layer at most");
    assert.ok(Math.abs(layers([2, 4, 0], 0.1) - (2 * Math.PI * 0.01) / 16 / (Math.PI / 3)) < 1e-6, "near the eye it counts in the whole picture");
    for (const place of [[0, 9, 0], [0, 12, 0], [0, -5, 0], [0, 0.1, 0], [2, 5, 0], [3, 4, 0]]) assert.equal(layers(place, 0.1), 0, `${place}`);
    assert.ok(layers([2, 5, 0], 1) > 0, "a large one reaches in from beside");
    assert.equal(layersBefore(sampleOf([[0, 5, 0]], 1), [0, 9, 0], ball), Infinity);
    const cover = 2 * Math.PI * 0.01;
    const counted = { ...sampleOf([[0, 5, 0], [0, 6, 0]], 0.1), each: 3 };
    const broad = Float32Array.from([0, 5, 0, cover]);
    const once = layersBefore({ ...counted, values: new Float32Array(), broad, least: cover / 2 }, [0, 0, 0], ball);
    assert.ok(Math.abs(once - layers([0, 5, 0], 0.1)) < 1e-6);
    assert.equal(layersBefore({ ...counted, broad, least: cover / 2 }, [0, 0, 0], ball), once, "broad splats count once");
    assert.equal(layersBefore(counted, [0, 0, 0], ball), 3 * (layers([0, 5, 0], 0.1) + layers([0, 6, 0], 0.1)), "others for those between");
});

test("the sample stays small, and knows places on the map and what splats hide", () => {
    const axis = (min, span) => ({ min, span, factor: 65535.5, most: 65535 });
    const dequantiser = { scale: [axis(1, 0), axis(3, 0), axis(2, 0)], bytes: [[], [], [], Float64Array.from({ length: 256 }, (_, i) => i / 255)] };
    const sampler = new Sampler();
    const part = records(20000, Math.random, (i) => [i, i === 7 ? NaN : 2, 3]);
    new Uint8Array(part).forEach((_, i, bytes) => i % 32 === 15 && (bytes[i] = 51));
    sampler.add(0, dequantiser, [100, 200, 300], part);
    const { values, each } = sampler.all();
    assert.equal(each, 2);
    assert.equal(values.length, 4 * 10000);
    [102, 202, 303].forEach((value, i) => assert.equal(values[4 + i], value));
    assert.ok(Math.abs(values[7] - 2 * Math.PI * 0.2 * 6) < 1e-5, "opacity and the two longest axes");
    for (let piece = 1; piece <= 40; ++piece) sampler.add(piece, dequantiser, [0, 0, 0], part);
    assert.ok(sampler.all().values.length <= 4 * 16384 && sampler.all().values.length > 4 * 8000);
    const kept = sampler.all().each;
    assert.ok(Math.abs((sampler.all().values.length / 4) * kept - 41 * 20000) < 41 * kept + 100, "every piece by its splats");
    for (let piece = 0; piece <= 40; ++piece) sampler.remove(piece);
    assert.equal(middleOf(sampler.all()), undefined);
    // One large splat in forty thousand is known, the other ones by their number.
    dequantiser.scale = [0, 1, 2].map(() => ({ min: 0, span: 1, factor: 65535.5, most: 65535 }));
    const words = new Uint16Array(part);
    words.fill(650);
    words.fill(65000, 16 * 12347 + 8, 16 * 12347 + 11);
    new Float32Array(part).set([5, 6, 7], 8 * 12347);
    const fresh = new Sampler();
    fresh.add(1, dequantiser, [0, 0, 0], part);
    fresh.add(2, dequantiser, [10, 0, 0], part);
    const { broad, least } = fresh.all();
    assert.ok(broad.length <= 4 * 16384);
    const large = [...broad.keys()].filter((i) => i % 4 === 3 && broad[i] > 100 * least).map((i) => [...broad.subarray(i - 3, i)]);
    assert.deepEqual(large, [[5, 6, 7], [15, 6, 7]]);
});
