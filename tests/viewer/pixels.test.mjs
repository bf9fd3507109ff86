// Pixels of the page: splats whose places and colours are known, and a scene.
import assert from "node:assert/strict";
import { readFileSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { test } from "node:test";
import { pixelsOf, settled } from "./browser.mjs";
import { byHand, covered, meanAt, openFolder, recordsOf, sky, withPage } from "./pages.mjs";
import { changed, rewrite, small } from "./support.mjs";

test("splats of known places and colours are where they belong, the nearer before the farther", async () => {
    const ball = [0.5, 0.5, 0.5];
    const folder = byHand("by hand", [
        { at: [0, 5, 0], colour: [255, 0, 0], scale: ball },
        { at: [0, 0, 0], colour: [0, 255, 0], scale: [0.2, 0.2, 0.2] },
        { at: [4, 0, 0], colour: [0, 0, 255], scale: ball },
        { at: [-4, 0, 0], colour: [255, 255, 0], scale: ball, opacity: 127 },
        { at: [0, 0, 2], colour: [255, 0, 255], scale: [0.5, 0.1, 0.05] },
        { at: [0, -15, 0], colour: [255, 255, 255], scale: [1, 1, 1] }, // behind the eye
    ]);
    await withPage([folder], async (page) => {
        const pixels = await pixelsOf(page);
        const focal = 480 / Math.tan(Math.PI / 6);
        const at = (right, up, depth) => meanAt(pixels, 0.5 + (right / depth) * (focal / 960), 0.5 - (up / depth) * (focal / 540), 1);
        const near = (one, other, within) => assert.ok(one.every((value, i) => Math.abs(value - other[i]) <= within), `${one} and ${other}`);
        near(at(0, 0, 10), [3, 252, 2], 6); // opaque splats let a hundredth through
        near(at(4, 0, 10), [2, 2, 255], 6);
        const half = sky.map((value, i) => (value + [255, 255, 0][i]) / 2);
        near(at(-4, 0, 10), half, 6);
        near(at(0, 2, 10), [253, 2, 254], 6);
        near(at(0.6, 2, 10), at(-0.6, 2, 10), 6);
        assert.ok(at(0.6, 2, 10)[1] < 130, "broad along x");
        near(at(0, 2.6, 10), sky, 3); // and flat along z
        // Beside the centre of the small green splat, the red one behind it is visible.
        const [red, green] = [Math.exp(-0.5 * (0.45 / 0.5) ** 2), Math.exp(-0.5 * (0.3 / 0.2) ** 2)];
        const behind = sky.map((value, i) => value * (1 - red) + [255, 2, 2][i] * red);
        near(at(0.3, 0, 10), behind.map((value, i) => value * (1 - green) + [2, 255, 2][i] * green), 8);
        assert.equal(await page.title(), "by hand - plyconvert viewer");
        assert.match(await page.locator("#facts").textContent(), /<img src=x onerror="document\.title='broken'">/);
        assert.equal(await page.locator("#facts img").count(), 0, "what the meta document says is text");
        assert.deepEqual(page.errors, []);
    }, { hash: "#v=0,0,0,10,0,0" });
});

test("a cell that comes while one looks fades in; whoever wants less motion sees it at once, and so does who saves the picture", async () => {
    const ball = [0.5, 0.5, 0.5];
    const [red, green] = [[255, 0, 0], [0, 255, 0]];
    const folder = byHand("two cells", [{ at: [-3, 0, 0], colour: red, scale: ball }], [{ at: [3, 0, 0], colour: green, scale: ball }]);
    const focal = 480 / Math.tan(Math.PI / 6);
    const x = (right) => 0.5 + (right / 10) * (focal / 960);
    const near = (pixels, right, colour, share, what) => {
        const expected = sky.map((value, i) => value * (1 - 0.99 * share) + colour[i] * 0.99 * share);
        const seen = meanAt(pixels, x(right), 0.5, 1);
        assert.ok(seen.every((value, i) => Math.abs(value - expected[i]) <= 5), `${what}: ${seen} and ${expected}`);
    };
    for (const reducedMotion of ["no-preference", "reduce"]) {
        await withPage([folder], async (page, server) => {
            await page.emulateMedia({ reducedMotion });
            // The page's clock stands still until it is told to go on.
            await page.addInitScript(() => {
                window.moment = 1000;
                performance.now = () => window.moment;
            });
            let release;
            const second = new Promise((resolve) => (release = resolve));
            server.held = (path, request) => request.headers.range?.startsWith("bytes=32-") && second;
            await page.reload();
            await page.waitForFunction(() => window.viewer?.figures()?.drawn === 1);
            near(await pixelsOf(page, undefined, false), -3, red, 1, "the first one waits for nothing");
            near(await pixelsOf(page, undefined, false), 3, green, 0, "the second one is not there");
            release();
            await page.waitForFunction(() => window.viewer.figures().drawn === 2);
            const fades = reducedMotion === "no-preference";
            near(await pixelsOf(page, undefined, false), 3, green, fades ? 0 : 1, `${reducedMotion}: it has just come`);
            await page.evaluate(() => (window.moment += 336));
            near(await pixelsOf(page, undefined, false), 3, green, fades ? 0.84 ** 4 : 1, `${reducedMotion}: after 84 of 100 of the time`);
            near(await pixelsOf(page, undefined, false), -3, red, 1, "the first one stays");
            near(await pixelsOf(page), 3, green, 1, "the picture that is saved");
            if (fades) assert.equal(await page.evaluate(() => window.viewer.final), false, "the page goes on drawing");
            await page.evaluate(() => (window.moment += 64));
            await settled(page);
            near(await pixelsOf(page, undefined, false), 3, green, 1, "at the end");
            assert.deepEqual(page.errors, []);
        }, { hash: "#v=0,0,0,10,0,0", settle: false });
    }
});

test("a cell that makes room fades out before its place is taken; whoever wants less motion sees it go at once", async () => {
    const ball = [0.5, 0.5, 0.5];
    const [red, green] = [[255, 0, 0], [0, 255, 0]];
    const folder = byHand("two cells of a grid", [{ at: [8, 0, 0], colour: red, scale: ball }], [{ at: [12, 0, 0], colour: green, scale: ball }]);
    rewrite(folder, "converted_from_ply.ytr", (text) => text.replace('"totalSplats": 2', '"totalSplats": 2000000'), "utf8");
    const focal = 480 / Math.tan(Math.PI / 6);
    for (const reducedMotion of ["no-preference", "reduce"]) {
        await withPage([folder], async (page, server) => {
            const near = async (right, colour, share, what, whole = false) => {
                const expected = sky.map((value, i) => value * (1 - 0.99 * share) + colour[i] * 0.99 * share);
                const seen = meanAt(await pixelsOf(page, undefined, whole), 0.5 + (right / 10) * (focal / 960), 0.5, 1);
                assert.ok(seen.every((value, i) => Math.abs(value - expected[i]) <= 5), `${reducedMotion}, ${what}: ${seen} and ${expected}`);
            };
            const advance = (milliseconds) => page.evaluate((by) => (window.moment += by), milliseconds);
            const look = async (x) => {
                await page.waitForTimeout(200); // the page plans by another clock, which goes on
                await page.evaluate((hash) => (location.hash = hash), `v=${x},0,0,10,0,0`);
            };
            const states = (...wanted) => page.waitForFunction((list) => window.viewer.scene?.pieces.map(({ state }) => state).join() === list, wanted.join());
            const leaves = () => page.waitForFunction(() => [...window.viewer.scene.fades.fades.values()].some(({ leaves, begin }) => leaves && begin !== undefined));
            const fetched = () => server.log.filter(({ path }) => path.endsWith("data.bin")).map(({ first }) => first);
            await page.emulateMedia({ reducedMotion });
            await page.addInitScript(() => {
                window.moment = 1000;
                performance.now = () => window.moment;
            });
            await page.reload();
            await page.waitForFunction(() => window.viewer?.figures() !== undefined);
            await page.evaluate(() => {
                window.viewer.budget = 1;
                window.viewer.build();
            });
            server.log.length = 0;
            await settled(page);
            await states("here", "away");
            await near(-1, red, 1, "one of them has room");
            const before = fetched().length;
            await look(11);
            if (reducedMotion === "no-preference") {
                await leaves();
                await near(-3, red, 1, "it begins to leave");
                await advance(64);
                await near(-3, red, 0.84 ** 4, "after 16 of 100 of the time");
                await near(-3, red, 0, "the picture that is saved", true);
                await look(9);
                await states("here", "away");
                await near(-1, red, 0.84 ** 4, "it is wanted again");
                await advance(64);
                await near(-1, red, 1, "it is back");
                assert.equal(fetched().length, before, "and was not fetched for that");
                await settled(page);
                await look(11);
                await leaves();
                await advance(200);
                await near(-3, red, 0.5 ** 4, "half of the time");
                assert.equal(fetched().length, before, "its memory is not free yet");
                await advance(200);
            }
            await states("away", "here");
            await page.waitForFunction(() => window.viewer.figures().drawn === 1);
            await near(-3, red, 0, "it has left");
            await advance(400);
            await settled(page);
            await near(1, green, 1, "the other one has its place");
            assert.deepEqual(fetched().slice(before), [32]);
            assert.deepEqual(page.errors, []);
        }, { hash: "#v=9,0,0,10,0,0", settle: false });
    }
});

test("coefficients change the colour with the direction, as the formula says", async () => {
    const { dequantiser, records } = await (async () => {
        const dataset = await openFolder(small());
        return { dequantiser: dataset.dequantiser, records: await recordsOf(dataset, 0, 20000, new AbortController().signal) };
    })();
    // One large opaque splat of the town, alone, seen from two sides.
    const alone = changed(small(), (copy) => {
        rewrite(copy, "converted_from_ply.ytr", (text) => text.replace('"totalSplats": 20000', '"totalSplats": 1'), "utf8");
        rewrite(copy, "index.bin", (bytes) => (bytes.writeUInt32LE(1, 4), bytes.writeUInt32LE(32, 16), bytes));
        const record = Buffer.from(records.data.slice(0, 32));
        record.writeUInt8(255, 15);
        for (const at of [16, 18, 20]) record.writeUInt16LE(65535, at);
        writeFileSync(join(copy, "data.bin"), record);
        // Larger coefficients than those of the scene.
        const coefficients = Buffer.alloc(64);
        for (let k = 0; k < 15; ++k) coefficients.writeUInt32LE((((k * 613) % 2048) | (((k * 377) % 1024) << 11) | (((k * 991) % 2048) << 21)) >>> 0, 4 * k);
        writeFileSync(join(copy, "shcoef.bin"), coefficients);
    });
    const record = readFileSync(join(alone, "data.bin"));
    const coefficients = readFileSync(join(alone, "shcoef.bin"));
    const splat = dequantiser.splat(new DataView(record.buffer, record.byteOffset, 32), new DataView(coefficients.buffer, coefficients.byteOffset, 64));
    await withPage([alone], async (page) => {
        for (const [yaw, pitch] of [[0, 0], [70, 20], [200, -35], [310, 60]]) {
            await page.evaluate((hash) => (location.hash = hash), `v=${splat.position.join()},3,${yaw},${pitch}`);
            await settled(page);
            const expected = colourFrom(splat, yaw * (Math.PI / 180), pitch * (Math.PI / 180));
            const seen = meanAt(await pixelsOf(page), 0.5, 0.5, 1);
            // Of the sky a hundredth shows.
            expected.forEach((value, i) => assert.ok(Math.abs(seen[i] - (0.99 * value + 0.01 * sky[i])) <= 2.5, `${yaw}: ${seen} and ${expected}`));
        }
    });
});

function colourFrom(splat, yaw, pitch) {
    const [x, y, z] = [Math.sin(yaw) * Math.cos(pitch), Math.cos(yaw) * Math.cos(pitch), -Math.sin(pitch)];
    const basis = [
        -0.4886025119 * y, 0.4886025119 * z, -0.4886025119 * x,
        1.0925484306 * x * y, -1.0925484306 * y * z, 0.3153915653 * (2 * z * z - x * x - y * y), -1.0925484306 * x * z, 0.5462742153 * (x * x - y * y),
        -0.5900435899 * y * (3 * x * x - y * y), 2.8906114426 * x * y * z, -0.4570457995 * y * (4 * z * z - x * x - y * y),
        0.3731763326 * z * (2 * z * z - 3 * x * x - 3 * y * y), -0.4570457995 * x * (4 * z * z - x * x - y * y), 1.4453057213 * z * (x * x - y * y),
        -0.5900435899 * x * (x * x - 3 * y * y),
    ];
    return splat.colour.map((value, channel) =>
        255 * Math.min(1, Math.max(0, basis.reduce((sum, b, k) => sum + b * splat.coefficients[15 * channel + k], value))));
}

test("the first view of a scene shows it, without an error", async () => {
    await withPage([small()], async (page) => {
        const pixels = await pixelsOf(page);
        assert.ok(covered(pixels) > 40 && covered(pixels) < 99, `${covered(pixels)} %`);
        const map = await page.locator("#map").evaluate((canvas) => {
            const { data } = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
            return new Set(Array.from({ length: data.length / 4 }, (_, i) => data.slice(4 * i, 4 * i + 4).join())).size;
        });
        assert.ok(map > 5, "cells, camera and scale bar are on the map");
        assert.match(await page.locator("#progress-text").textContent(), /^20,000 of 20,000 splats$/);
        assert.match(await page.locator("#facts").textContent(), /EPSG25832.*offset500000, 5400000, 100/s);
        assert.deepEqual(page.errors, []);
    });
});
