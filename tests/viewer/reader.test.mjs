// Compares the page's reader with docs/format.md and with the C++ reader.
import assert from "node:assert/strict";
import { readFileSync, rmSync } from "node:fs";
import { join } from "node:path";
import { test } from "node:test";
import { startServer } from "./server.mjs";
import { changed, datasetFiles, folderFiles, generated, modules, rewrite, run, small, town, viewerPage } from "./support.mjs";

const { Dataset, Dequantiser, FolderSource, HttpSource, ViewError, cellAt, parseMeta, parseMetaText, recordsOf, rotationOf, split, valueOf, wordParts } =
    await modules("dataset", "dequantiser", "format", "map", "meta", "metatext", "records", "sources");

const open = (folder) => Dataset.open(new FolderSource("here", folderFiles(folder)));
const metaOf = (folder) => readFileSync(join(folder, "converted_from_ply.ytr"), "utf8");
const never = new AbortController().signal;
// Both compute in double precision, in another order.
const close = (one, other) => Math.abs(one - other) <= 1e-12 * Math.max(1, Math.abs(one), Math.abs(other));

// Compares a dataset, splat by splat, with the values of the C++ reader.
async function compare(folder, dataset, count) {
    const lines = run("tests/viewer/viewer_reference", folder, String(count)).trim().split("\n");
    assert.equal(lines.length, Math.min(count, dataset.count));
    const data = new Map();
    for (const line of lines) {
        const expected = JSON.parse(line);
        const cell = dataset.cells.find(({ key }) => key === expected.key);
        assert.equal(cell.first + expected.number, expected.record);
        if (!data.has(cell)) data.set(cell, await recordsOf(dataset, cell.first, cell.count, never));
        const { data: records, coefficients } = data.get(cell);
        const at = new DataView(records, expected.number * 32, 32);
        const size = coefficients && 64;
        const splat = dataset.dequantiser.splat(at, coefficients && new DataView(coefficients, expected.number * size, size));
        assert.deepEqual(splat.position, expected.position, "positions are exact");
        for (const name of ["colour", "scale", "rotation", "normal", "coefficients"]) {
            assert.equal(splat[name].length, expected[name].length);
            splat[name].forEach((value, i) => assert.ok(close(value, expected[name][i]), `${name} ${i}: ${value} and ${expected[name][i]}`));
        }
        assert.ok(close(splat.opacity, expected.opacity), `opacity ${splat.opacity} and ${expected.opacity}`);
    }
}

test("every attribute of a thousand splats is what the C++ reader sees, in one cell, with normals", async () => {
    const folder = small();
    const dataset = await open(folder);
    assert.equal(dataset.cells.length, 1);
    assert.equal(dataset.meta.epsg, 25832);
    assert.deepEqual(dataset.meta.offset, [500000, 5400000, 100]);
    await compare(folder, dataset, 1000);
});

test("the same without coefficients", async () => {
    const folder = generated("plain", "--splats", "5000", "--no-coefficients", "--bounds");
    const dataset = await open(folder);
    assert.equal(dataset.meta.coefficientSize, 0);
    await compare(folder, dataset, 1000);
});

test("the same in a grid of cells, and every splat lies in its cell", async () => {
    const folder = town();
    const dataset = await open(folder);
    assert.equal(dataset.cells.length, 63);
    assert.equal(dataset.count, 1200000);
    await compare(folder, dataset, 1000);
    const cell = dataset.cells[30];
    const { data } = await recordsOf(dataset, cell.first, cell.count, never);
    const values = new Float32Array(data);
    for (let i = 0; i < cell.count; ++i) assert.equal(cellAt(dataset.cells, values[8 * i], values[8 * i + 1]), cell);
});

test("over HTTP: ranges alone, each byte once", async () => {
    const server = await startServer(viewerPage, [small()]);
    const dataset = await Dataset.open(new HttpSource(new URL("data/0/", server.address), "small"));
    await compare(small(), dataset, 50);
    await server.close();
    assert.deepEqual(
        server.log.map(({ path, status }) => [path.split("/").pop(), status]).sort(),
        [["converted_from_ply.ytr", 200], ["data.bin", 206], ["index.bin", 200], ["shcoef.bin", 206]],
    );
});

// Opens a dataset and reads all records. Returns the error message.
async function failure(opened) {
    try {
        const dataset = await opened;
        const cell = dataset.cells[0];
        await recordsOf(dataset, cell.first, cell.count, never);
    } catch (error) {
        assert.ok(error instanceof ViewError, String(error.stack));
        assert.ok(!error.message.includes("\n"));
        return error.message;
    }
    return assert.fail("nothing failed");
}

test("a server that sends whole files is refused with what to do", async () => {
    const server = await startServer(viewerPage, [small()], { ranges: false });
    assert.match(await failure(Dataset.open(new HttpSource(new URL("data/0/", server.address), "small"))), /200 instead of 206.*Use plyconvert view/);
    await server.close();
});

test("a server that answers with too few bytes, another file or an error is told", async () => {
    const server = await startServer(viewerPage, [small()]);
    const at = () => Dataset.open(new HttpSource(new URL("data/0/", server.address), "small"));
    server.fault = (path, response, request) =>
        request.headers.range !== undefined && (response.writeHead(206, { "Content-Length": 5 }).end("short"), true);
    assert.match(await failure(at()), /sent 5 bytes from 0 instead of/);
    server.fault = (path, response, request) => {
        response.setHeader("ETag", request.method === "HEAD" ? '"a"' : '"b"');
        return false;
    };
    assert.match(await failure(at()), /has been replaced.*Load the page again/);
    server.fault = (path, response) => path.endsWith("index.bin") && (response.writeHead(500).end(), true);
    assert.match(await failure(at()), /index\.bin: the server answers 500/);
    await server.close();
    assert.match(await failure(at()), /cannot be reached/);
});

for (const name of datasetFiles) {
    test(`a dataset without ${name} is refused by that name`, async () => {
        const folder = changed(small(), (copy) => rmSync(join(copy, name)));
        assert.match(await failure(open(folder)), new RegExp(`^${name.replace(".", "\\.")} is missing`));
    });
}

test("an index that points beyond its file, is cut, or is empty is refused", async () => {
    const with_ = (change) => open(changed(small(), (copy) => rewrite(copy, "index.bin", change)));
    const count = (value) => (bytes) => (bytes.writeUInt32LE(value, 4), bytes);
    assert.match(await failure(with_(count(20001))), /points beyond its file: entry 0 \(cell 0\) wants the bytes 0 to 640032 of data\.bin, which has 640000/);
    assert.match(await failure(with_((bytes) => (bytes.writeUInt32LE(7, 8), bytes))), /points beyond/);
    assert.match(await failure(with_((bytes) => (bytes.writeUInt32LE(0xffffffff, 12), bytes))), /points beyond/);
    assert.match(await failure(with_((bytes) => bytes.subarray(0, 19))), /no multiple of 20/);
    assert.match(await failure(with_(count(0))), /holds no splats/);
});

test("coefficients of another dataset are refused", async () => {
    const folder = changed(small(), (copy) => rewrite(copy, "shcoef.bin", (bytes) => bytes.subarray(64)));
    assert.match(await failure(open(folder)), /shcoef\.bin has 1279936 bytes instead of 1280000/);
});

test("the meta document's oddities are read", () => {
    const text = metaOf(small());
    assert.deepEqual(parseMeta(text.replaceAll("\n", "\r\n")), parseMeta(text), "lines that end with CR LF");
    const odd = parseMeta(text.replace(/"dataType": ".*"/, '"dataType": "a "quoted" \\ text, with a comma"'));
    assert.equal(odd.dataType, 'a "quoted" \\ text, with a comma');
    const ranges = parseMeta(text.replace(/("name": "normal",\s*"min": \[)[^\]]*(\],\s*"max": \[)[^\]]*/, "$1inf, nan, -nan$2-inf, 1, 2"));
    assert.deepEqual(ranges.ranges.normal, { min: [Infinity, NaN, NaN], max: [-Infinity, 1, 2] });
    const values = new Dequantiser(ranges);
    assert.deepEqual([0, 1, 2].map((axis) => valueOf(values.normal[axis], 7)), [0, 1, 2], "a range without an end gives the other, or 0");
});

test("a meta document that cannot be used is refused by line or key", () => {
    const text = metaOf(small());
    const message = (changedText) => {
        try {
            parseMeta(changedText);
        } catch (error) {
            assert.ok(error instanceof ViewError);
            return error.message;
        }
        return assert.fail("nothing failed");
    };
    assert.match(message(""), /line 1/);
    assert.match(message(text.slice(0, 300)), /line \d+/);
    assert.match(message("[".repeat(100000)), /nested too deeply/);
    assert.match(message(text.replace(/"totalSplats": \d+/, '"totalSplats": "many"')), /"totalSplats"/);
    assert.match(message(text.replace('"COMPRESS"', '"ZIP"')), /"encoding" .*"COMPRESS" or "DEFAULT"/);
    assert.match(message(text.replace('"name": "scale"', '"name": "size"')), /attributes: scale/);
    assert.match(message(text.replace(/"indexDataSize": \d+/, '"indexDataSize": 24')), /"indexDataSize"/);
    assert.match(message(text.replace(/"boundingBox": \{/, '"boundingBox": 1, "x": {')), /"boundingBox"/);
    assert.equal(parseMetaText('{"__proto__": 1}')["__proto__"], 1);
});

test("no cut of the meta document and no changed byte of it does anything but read or refuse", () => {
    const text = metaOf(small());
    for (let i = 0; i < text.length; ++i) {
        for (const broken of [text.slice(0, i), `${text.slice(0, i)}"${text.slice(i + 1)}`, `${text.slice(0, i)}${text.slice(i + 1)}`]) {
            try {
                parseMeta(broken);
            } catch (error) {
                assert.ok(error instanceof ViewError, `${i}: ${error}`);
            }
        }
    }
});

test("the worked example of docs/format.md", () => {
    const range = (min, max, count = 3) => ({ min: Array(count).fill(min), max: Array(count).fill(max) });
    const ranges = { scale: range(0.01, 0.51), normal: range(-1, 1), color: range(0, 1), opacity: range(0, 1, 1), shcoef: range(-0.5, 0.5) };
    const values = new Dequantiser({ ranges });
    const bytes = Buffer.from("0000803F000020C00000003FFF80007F00000080FFFFFFFDF7DF00000080FFFF", "hex");
    const coefficients = new DataView(new ArrayBuffer(64));
    coefficients.setUint32(0, 0x80000400, true);
    const splat = values.splat(new DataView(bytes.buffer, bytes.byteOffset, 32), coefficients);
    const near = (value, expected) => assert.ok(Math.abs(value - expected) < 1e-6, `${value} and ${expected}`);
    assert.deepEqual(splat.position, [1, -2.5, 0.5]);
    [1, 0.503922, 0.001961].forEach((value, i) => near(splat.colour[i], value));
    near(splat.opacity, 0.5);
    [0.0100038, 0.260006, 0.509998].forEach((value, i) => near(splat.scale[i], value));
    [1.0, -0.000345, -0.000345, -0.000345].forEach((value, i) => near(splat.rotation[i], value));
    [-0.999985, 0.0000229, 0.999992].forEach((value, i) => near(splat.normal[i], value));
    [[0, 0.000366], [15, -0.499511], [30, 0.000366]].forEach(([at, value]) => near(splat.coefficients[at], value));
    assert.deepEqual(rotationOf(0), [1, 0, 0, 0], "no rotation");
});

test("unpacked coefficients are read as they are, and packed for the graphics memory", async () => {
    const packed = await open(small());
    const folder = changed(small(), (copy) => {
        rewrite(copy, "converted_from_ply.ytr", (text) => text.replace('"COMPRESS"', '"DEFAULT"'), "utf8");
        rewrite(copy, "shcoef.bin", (bytes) => {
            const raw = Buffer.alloc(bytes.length * 3);
            for (let record = 0; record < bytes.length / 64; ++record) {
                for (let k = 0; k < 15; ++k) {
                    wordParts(bytes.readUInt32LE(record * 64 + 4 * k)).forEach((q, channel) =>
                        raw.writeFloatLE(valueOf(packed.dequantiser.coefficient[channel], q), record * 192 + 4 * (3 * k + channel)));
                }
            }
            return raw;
        });
    });
    const raw = await open(folder);
    assert.equal(raw.meta.coefficientSize, 192);
    const [one, other] = await Promise.all([packed, raw].map((dataset) => recordsOf(dataset, 100, 500, never)));
    assert.deepEqual(new Uint8Array(other.coefficients), new Uint8Array(one.coefficients));
    const bytes = readFileSync(join(folder, "shcoef.bin")).subarray(0, 192);
    const splat = raw.dequantiser.splat(new DataView(one.data), new DataView(bytes.buffer, bytes.byteOffset, 192));
    assert.equal(splat.coefficients[15], bytes.readFloatLE(4), "the first green one");
});

test("records are split for the textures word by word", async () => {
    const records = await recordsOf(await open(small()), 7, 300, never);
    const [data, coefficients] = [new Uint32Array(records.data), new Uint32Array(records.coefficients)];
    const parts = split(records);
    const [first, second, harmonics] = [parts.first, parts.second, parts.harmonics].map((buffer) => new Uint32Array(buffer));
    assert.deepEqual([first.length, second.length, harmonics.length], [1200, 1200, 4500]);
    for (let i = 0; i < 300; ++i) {
        assert.deepEqual([...first.subarray(4 * i, 4 * i + 4), ...second.subarray(4 * i, 4 * i + 4)], [...data.subarray(8 * i, 8 * i + 8)]);
        assert.deepEqual(harmonics.subarray(15 * i, 15 * i + 15), coefficients.subarray(16 * i, 16 * i + 15));
    }
    assert.equal(split({ data: records.data, coefficients: undefined }).harmonics, undefined);
});
