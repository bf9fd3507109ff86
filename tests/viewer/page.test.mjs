// The page in a browser: pixels, behaviour, faults, and what it fetches and keeps in memory.
import assert from "node:assert/strict";
import { copyFileSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { figures, openPage, pixelsOf, pngOf, settled, startBrowser } from "./browser.mjs";
import { startServer } from "./server.mjs";
import { changed, datasetFiles, decibels, folderFiles, generated, makeFolder, modules, quarters, rewrite, root, small, town, viewed, viewerPage } from "./support.mjs";

const { Dataset, FolderSource, recordsOf } = await modules("dataset", "records", "sources");
const openFolder = (folder) => Dataset.open(new FolderSource("small", folderFiles(folder)));

let browser;
before(async () => (browser = await startBrowser()));
after(() => browser.close());

const sky = [158, 189, 224];
const isSky = (pixels, i) => sky.every((value, channel) => Math.abs(pixels.data[4 * i + channel] - value) <= 1);

// The percentage of pixels that are not sky.
function covered(pixels) {
    let count = 0;
    for (let i = 0; i < pixels.width * pixels.height; ++i) count += isSky(pixels, i) ? 0 : 1;
    return (100 * count) / (pixels.width * pixels.height);
}

// The mean colour of a square. Its centre (x, y) is given as shares of the picture's sides.
function meanAt(pixels, x, y, half = 4) {
    const sum = [0, 0, 0];
    for (let row = -half; row <= half; ++row) {
        for (let column = -half; column <= half; ++column) {
            const i = (Math.round(y * pixels.height) + row) * pixels.width + Math.round(x * pixels.width) + column;
            sum.forEach((_, channel) => (sum[channel] += pixels.data[4 * i + channel]));
        }
    }
    return sum.map((value) => value / (2 * half + 1) ** 2);
}

// Opens a page on a server of its own and closes both.
async function withPage(datasets, work, { hash = "", options, settle = true, page = viewerPage, context = browser.context } = {}) {
    const server = await startServer(page, datasets, options);
    const opened = await openPage(context, server.address + hash, { settle });
    try {
        await work(opened, server);
    } finally {
        await opened.close();
        await server.close();
    }
}

const message = (page) => page.locator("#message:visible #message-text").textContent({ timeout: 20000 });

// A dataset of few splats with known positions, colours and sizes, written directly from docs/format.md.
function byHand(name, splats) {
    const folder = makeFolder(name);
    const three = (value) => `[${value}, ${value}, ${value}]`;
    const attribute = (title, min, max) => `{"name": "${title}", "min": ${three(min)}, \n"max": ${three(max)}}`;
    const opacity = '{"name": "opacity", "min": [0], \n"max": [1]}';
    writeFileSync(
        join(folder, "converted_from_ply.ytr"),
        `{"version": "4.0", "guid": "00", "name": "", "description": "",\n"source": "<img src=x onerror="document.title='broken'">",\n"dataType": "None",\n` +
            `"totalSplats": ${splats.length}, "totalLevel": 1, "cellLengthX": 20, "cellLengthY": 20, "indexDataSize": 20, "offset": [0, 0, 0], "epsg": 0,` +
            `"shift": [0, 0, 0], "scale": [1, 1, 1], "splats": [${splats.length}], "boundingBox": {"min": ${three(-10)}, "max": ${three(10)}},` +
            `"encoding": "COMPRESS", "fileType": "Portable", "attributes": [${attribute("position", -100, 100)}, ${attribute("normal", "inf", "-inf")},` +
            `${attribute("color", 0, 1)}, ${attribute("shcoef", 0, 1)}, ${opacity}, ${attribute("scale", 0, 1)}]}`,
    );
    const index = Buffer.alloc(20);
    index.writeUInt32LE(splats.length, 4);
    index.writeUInt32LE(32 * splats.length, 16);
    const data = Buffer.alloc(32 * splats.length);
    splats.forEach(({ at, colour, scale, opacity: alpha = 255 }, i) => {
        at.forEach((value, axis) => data.writeFloatLE(value, 32 * i + 4 * axis));
        [...colour, alpha].forEach((value, channel) => data.writeUInt8(value, 32 * i + 12 + channel));
        scale.forEach((value, axis) => data.writeUInt16LE(Math.floor(value * 65535.5), 32 * i + 16 + 2 * axis));
        data.writeUInt32LE(0xdff7fdff, 32 * i + 22);
    });
    writeFileSync(join(folder, "index.bin"), index);
    writeFileSync(join(folder, "data.bin"), data);
    return folder;
}

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

test("mouse, wheel, keys and touch move the view; F brings it back; the link keeps it", async () => {
    await withPage([small()], async (page, server) => {
        const pose = () => page.evaluate(() => JSON.stringify(window.viewer.pose));
        const start = await pose();
        let last = start;
        const moved = async (what) => {
            const now = await pose();
            assert.notEqual(now, last, what);
            last = now;
        };
        const drag = async (button, key) => {
            if (key) await page.keyboard.down(key);
            await page.mouse.move(700, 300);
            await page.mouse.down({ button });
            await page.mouse.move(760, 330, { steps: 3 });
            await page.mouse.up({ button });
            if (key) await page.keyboard.up(key);
        };
        await drag("left");
        await moved("orbit");
        await drag("right");
        await moved("pan");
        await drag("left", "Shift");
        await moved("pan with Shift");
        await page.mouse.wheel(0, -200);
        await page.waitForTimeout(100);
        await moved("zoom");
        await page.locator("#picture").focus();
        for (const key of ["ArrowLeft", "ArrowUp", "+", "-", "w", "a", "s", "d", "q", "e"]) {
            await page.keyboard.down(key);
            await page.waitForFunction((before) => JSON.stringify(window.viewer.pose) !== before, last);
            await page.keyboard.up(key);
            await page.waitForTimeout(50);
            await moved(key);
        }
        await settled(page);
        await page.waitForFunction(() => location.hash.startsWith("#v="));
        await page.waitForTimeout(400);
        const picture = await pixelsOf(page);
        const again = await openPage(browser.context, page.url());
        const twin = await pixelsOf(again);
        let worst = 0;
        picture.data.forEach((value, i) => (worst = Math.max(worst, Math.abs(value - twin.data[i]))));
        assert.ok(worst <= 8, `the link shows the same picture, but for ${worst}`);
        await again.close();
        await page.bringToFront(); // background pages draw nothing
        await page.locator("#picture").focus();
        await page.keyboard.press("f");
        await page.waitForFunction((first) => JSON.parse(first).distance === window.viewer.pose.distance, start);
        assert.equal(server.log.filter(({ path }) => path.endsWith("data.bin")).length, 2, "each page fetched its splats once");
    });
});

test("two fingers pinch and pan", async () => {
    await withPage([small()], async (page) => {
        const client = await browser.context.newCDPSession(page);
        const touch = (type, ...points) => client.send("Input.dispatchTouchEvent", { type, touchPoints: points.map(([x, y], id) => ({ x, y, id })) });
        const distance = await page.evaluate(() => window.viewer.pose.distance);
        await touch("touchStart", [600, 300], [700, 300]);
        for (let i = 1; i <= 5; ++i) await touch("touchMove", [600 - 10 * i, 300], [700 + 10 * i, 300]);
        await touch("touchEnd");
        const after = await page.evaluate(() => window.viewer.pose.distance);
        assert.ok(Math.abs(after - distance / 2) < 0.05 * distance, `${distance}, ${after}`);
    });
});

test("a click on the map flies there; the cell under the pointer is named, its place with the offset", async () => {
    await withPage([small()], async (page) => {
        const box = await page.locator("#map").boundingBox();
        await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
        const text = await page.locator("#pointed").textContent();
        assert.match(text, /x 5000\d\d\.\d{3}, y 5400\d{3}\.\d{3}|x 4999\d\d\.\d{3}, y 5399\d{3}\.\d{3}|x \d+\.\d{3}, y \d+\.\d{3}/);
        assert.match(text, /EPSG 25832/);
        assert.match(text, /cell key 0 \(column 0, row 0\): 20,000 splats/);
        await page.mouse.click(box.x + box.width / 4, box.y + box.height / 4);
        const [x, y] = await page.evaluate(() => window.viewer.pose.target);
        assert.ok(x < -30 && y > 20, `${x}, ${y}`);
    });
});

test("points: a click reads a splat out exactly as the dataset has it", async () => {
    const folder = small();
    const dataset = await openFolder(folder);
    await withPage([folder], async (page, server) => {
        await page.locator("#points").check();
        const before = server.log.length;
        let read = 0;
        for (const [x, y] of [[600, 300], [700, 350], [500, 280], [640, 420]]) {
            await page.locator("#splat").evaluate((list) => list.replaceChildren());
            await page.mouse.click(x, y);
            await page.waitForTimeout(300);
            const facts = await page.locator("#splat").evaluate((list) => Object.fromEntries([...list.querySelectorAll("dt")].map((dt) => [dt.textContent, dt.nextSibling.textContent])));
            if (facts["record"] === undefined) continue;
            ++read;
            const number = Number(facts["record"].replaceAll(",", ""));
            const { data, coefficients } = await recordsOf(dataset, number, 1, new AbortController().signal);
            const splat = dataset.dequantiser.splat(new DataView(data), new DataView(coefficients));
            const list = (values) => values.map((value) => String(Number(value.toPrecision(6)))).join(", ");
            assert.equal(facts["position"], splat.position.join(", "));
            assert.equal(facts["number in the cell"], facts["record"]);
            for (const name of ["colour", "scale", "normal"]) assert.equal(facts[name], list(splat[name]));
            assert.equal(facts["rotation w, x, y, z"], list(splat.rotation));
            assert.equal(facts["coefficients, green"], list(splat.coefficients.slice(15, 30)));
            assert.equal(facts["with the offset"], splat.position.map((value, i) => value + [500000, 5400000, 100][i]).join(", "));
        }
        assert.ok(read >= 2, `${read} clicks hit`);
        assert.equal(server.log.length, before, "nothing is fetched for it");
    });
});

test("a picture is saved as PNG", async () => {
    await withPage([small()], async (page) => {
        const [download] = await Promise.all([page.waitForEvent("download"), page.locator("#save").click()]);
        assert.equal(download.suggestedFilename(), "small.png");
        const bytes = readFileSync(await download.path());
        assert.equal(bytes.subarray(1, 4).toString(), "PNG");
        assert.deepEqual([bytes.readUInt32BE(16), bytes.readUInt32BE(20)], [960, 540]);
        assert.ok(bytes.length > 50000, "it is no empty picture");
        assert.ok((await pngOf(page)).length > 50000);
    });
});

test("H helps, Escape closes it; dark is dark; every control can be reached by Tab", async () => {
    await withPage([small()], async (page) => {
        await page.keyboard.press("h");
        await page.locator("#help").waitFor({ state: "visible" });
        await page.keyboard.press("Escape");
        await page.locator("#help").waitFor({ state: "hidden" });
        await page.locator("#theme").click();
        await settled(page);
        const corner = meanAt(await pixelsOf(page), 0.99, 0.02, 2);
        assert.ok(corner.every((value) => value < 40), `dark sky: ${corner}`);
        const paper = await page.locator("#bar").evaluate((bar) => getComputedStyle(bar).backgroundColor);
        assert.match(paper, /28, 31, 36/);
        const reached = new Set();
        for (let i = 0; i < 20; ++i) {
            await page.keyboard.press("Tab");
            reached.add(await page.evaluate(() => document.activeElement?.id));
        }
        for (const id of ["picture", "frame", "save", "points", "budget", "theme", "folder", "help-open", "map"]) assert.ok(reached.has(id), `${id} of ${[...reached]}`);
    });
});

test("text of twice the size fits a small window: nothing lies outside it", async () => {
    await withPage([small()], async (page) => {
        await page.setViewportSize({ width: 640, height: 480 });
        await page.evaluate(() => document.documentElement.style.setProperty("font-size", "200%"));
        await settled(page);
        for (const id of ["bar", "side", "status"]) {
            const box = await page.locator(`#${id}`).boundingBox();
            assert.ok(box.x >= 0 && box.y >= 0 && box.x + box.width <= 640 && box.y + box.height <= 480, `${id}: ${JSON.stringify(box)}`);
            assert.ok(box.height > 40, `${id} is ${box.height} high`);
        }
    });
});

test("several datasets: the list chooses, the link remembers", async () => {
    await withPage([small(), generated("plain", "--splats", "5000", "--no-coefficients", "--bounds")], async (page) => {
        assert.deepEqual(await page.locator("#choice option").allTextContents(), ["small", "plain"]);
        await page.locator("#choice").selectOption("1");
        await page.waitForFunction(() => window.viewer.figures()?.capacity === 5000);
        await settled(page);
        assert.ok(covered(await pixelsOf(page)) > 10);
        const again = await openPage(browser.context, page.url());
        assert.equal((await figures(again)).capacity, 5000);
        await again.close();
    });
});

test("four tiles of a catalogue are one map, without a seam, and each is streamed", { timeout: 120000 }, async (t) => {
    const { whole, tiles, catalogue } = quarters();
    const poses = ["0,0,5,120,0,35", "1.234,2.345,3,25,40,20", "20,-30,2,60,200,80"];
    const pictures = async (server, look) => {
        const page = await openPage(browser.context, `${server.address}?order=depth#v=${poses[0]}`);
        try {
            const seen = [];
            for (const pose of poses) {
                await page.evaluate((hash) => (location.hash = hash), `v=${pose}`);
                await page.waitForTimeout(50);
                await settled(page);
                seen.push(await pixelsOf(page));
            }
            await look(page);
            assert.deepEqual(page.errors, []);
            return seen;
        } finally {
            await page.close();
            await server.close();
        }
    };
    const one = await pictures(await viewed(whole), async (page) => assert.equal((await figures(page)).loaded, 20000));
    const four = await pictures(await viewed(catalogue), async (page) => {
        const { loaded, fetchedBytes } = await figures(page);
        assert.deepEqual([loaded, fetchedBytes], [20000, 96 * 20000]);
        assert.deepEqual(await page.locator("#choice option").allTextContents(), ["EPSG 25832: all 4", ...[0, 1, 2, 3].map((i) => `quarter${i}`)]);
        assert.match(await page.locator("#city").textContent(), /datasets4splats20,000/);
        assert.match(await page.locator("#facts").textContent(), /^namequarter1/, "the tile in the middle of the view");
        const box = await page.locator("#map").boundingBox();
        await page.mouse.move(box.x + box.width * 0.3, box.y + box.height * 0.3);
        assert.match(await page.locator("#pointed").textContent(), /x 4999\d\d\.\d{3}, y 54000\d\d\.\d{3} \(EPSG 25832\)\s+quarter2, cell key 0/);
    });
    one.forEach((pixels, i) => {
        const agreed = decibels(pixels.data, four[i].data);
        t.diagnostic(`view ${i}: ${agreed.toFixed(1)} dB between the tiles and the whole`);
        assert.ok(agreed >= 45, `${agreed} dB`);
    });
    // The same tiles by their folders, and one of them alone.
    const folders = await viewed(...tiles);
    const page = await openPage(browser.context, folders.address);
    assert.equal((await figures(page)).loaded, 20000);
    await page.locator("#choice").selectOption("2");
    await page.waitForFunction(() => window.viewer.figures()?.capacity < 20000);
    await settled(page);
    assert.match(await page.locator("#facts").textContent(), /^namequarter1/);
    assert.equal(folders.said(), "");
    await page.close();
    await folders.close();
});

test("without a list the page takes ?data=, or asks for a folder; from a file, too", async () => {
    await withPage([small()], async (page) => {
        assert.equal((await figures(page)).loaded, 20000);
    }, { hash: "?data=data/0", options: { list: false } });
    await withPage([small()], async (page) => {
        await page.locator("#welcome").waitFor({ state: "visible" });
        await page.locator("#files").setInputFiles(small());
        await settled(page);
        assert.equal((await figures(page)).loaded, 20000);
        assert.ok(covered(await pixelsOf(page)) > 40);
    }, { options: { list: false }, settle: false });
    const copy = join(makeFolder("page"), "viewer.html");
    copyFileSync(viewerPage, copy);
    const page = await openPage(browser.context, `file://${copy}`, { settle: false });
    await page.locator("#files").setInputFiles(small());
    await settled(page);
    assert.equal((await figures(page)).loaded, 20000);
    assert.deepEqual(page.errors, []);
    await page.close();
});

test("a folder that is dropped is opened", async () => {
    await withPage([small()], async (page) => {
        const contents = datasetFiles.map((name) => [name, readFileSync(join(small(), name)).toString("base64")]);
        await page.evaluate((list) => {
            const transfer = new DataTransfer();
            for (const [name, text] of list) transfer.items.add(new File([Uint8Array.from(atob(text), (c) => c.charCodeAt(0))], name));
            document.dispatchEvent(new DragEvent("drop", { dataTransfer: transfer, bubbles: true, cancelable: true }));
        }, contents);
        await settled(page);
        assert.equal((await figures(page)).loaded, 20000);
    }, { options: { list: false }, settle: false });
});

test("each fault has its one clear line", async () => {
    const told = async (dataset, expected, setting = {}) => {
        const { fault, ...rest } = setting;
        await withPage([dataset], async (page, server) => {
            if (fault) {
                server.fault = fault;
                await page.reload();
            }
            const text = await message(page);
            assert.match(text, expected);
            assert.ok(!text.includes("\n"));
            assert.ok((await page.locator("#message").boundingBox()).height < 200);
        }, { settle: false, ...rest });
    };
    await told(small(), /200 instead of 206.*Use plyconvert view/, { options: { ranges: false } });
    await told(changed(small(), (copy) => rmSync(join(copy, "index.bin"))), /^index\.bin is missing in http/);
    await told(changed(small(), (copy) => rmSync(join(copy, "data.bin"))), /^data\.bin is missing in http/);
    const beyond = changed(small(), (copy) => rewrite(copy, "index.bin", (bytes) => (bytes.writeUInt32LE(20001, 4), bytes)));
    await told(beyond, /^index\.bin points beyond its file/);
    await told(changed(small(), (copy) => rewrite(copy, "converted_from_ply.ytr", () => "{", "utf8")), /^converted_from_ply\.ytr cannot be read: line 1/);
    await told(small(), /\?data= takes the address of a folder/, { hash: "?data=javascript:alert(1)" });
    await told(small(), /^converted_from_ply\.ytr is missing/, { hash: "?data=nowhere/" });
    // The server fails while splats are fetched, and works again for a second try.
    let down = true;
    await withPage([small()], async (page, server) => {
        server.fault = (path, response) => down && path.endsWith("data.bin") && (response.destroy(), true);
        await page.reload();
        assert.match(await message(page), /cannot be reached|connection ended/);
        down = false;
        await page.reload();
        await settled(page);
        assert.ok(covered(await pixelsOf(page)) > 40);
    }, { settle: false });
});

test("a fetch that fails can be tried again", async () => {
    await withPage([small()], async (page, server) => {
        let down = true;
        server.fault = (path, response, request) => down && request.method === "GET" && path.endsWith("data.bin") && (response.destroy(), true);
        await page.reload();
        assert.match(await message(page), /cannot be reached|connection ended/);
        down = false;
        await page.locator("#retry").click();
        await settled(page);
        assert.ok(covered(await pixelsOf(page)) > 40);
        assert.equal(await page.locator("#message").isVisible(), false);
    }, { settle: false });
});

test("a lost context is told, and the picture comes back", async () => {
    await withPage([small()], async (page) => {
        const before = await pixelsOf(page);
        await page.evaluate(() => {
            const gl = document.getElementById("picture").getContext("webgl2");
            window.loss = gl.getExtension("WEBGL_lose_context");
            window.loss.loseContext();
        });
        assert.match(await message(page), /took the picture's memory away/);
        await page.evaluate(() => window.loss.restoreContext());
        await page.waitForFunction(() => window.viewer.figures() !== undefined);
        await settled(page);
        assert.equal(await page.locator("#message").isVisible(), false);
        const after = await pixelsOf(page);
        let worst = 0;
        before.data.forEach((value, i) => (worst = Math.max(worst, Math.abs(value - after.data[i]))));
        assert.ok(worst <= 2, `the same picture, but for ${worst}`);
    });
});

test("a browser without WebGL2 is told so", async () => {
    const bare = await startBrowser({ args: ["--disable-webgl2", "--disable-3d-apis"] });
    try {
        await withPage([small()], async (page) => assert.match(await message(page), /gives no WebGL2/), { settle: false, context: bare.context });
    } finally {
        await bare.close();
    }
});

test("the page's policy lets no other script in", async () => {
    await withPage([small()], async (page) => {
        const ran = await page.evaluate(() => {
            const script = document.createElement("script");
            script.textContent = "window.intruder = true";
            document.body.append(script);
            return window.intruder === true;
        });
        assert.equal(ran, false);
        const text = readFileSync(join(root, "viewer", "dist", "viewer.html"), "utf8");
        assert.doesNotMatch(text.slice(0, 2000), /unsafe-/);
        assert.doesNotMatch(text, /<script[^>]+src=|<link[^>]+href="http|@import/);
    });
});

test("the first picture of the town needs the first cell alone", { timeout: 120000 }, async () => {
    await withPage([town()], async (page, server) => {
        const asked = [];
        server.fault = (path, response, request) => {
            const range = /^bytes=(\d+)-(\d+)$/.exec(request.headers.range ?? "");
            if (range === null) return false;
            const size = path.endsWith("data.bin") ? 32 : 64;
            const first = Number(range[1]) / size;
            asked.push(first);
            return first !== asked[0]; // the others wait for ever
        };
        await page.reload();
        await page.waitForFunction(() => window.viewer?.figures()?.drawn > 0, undefined, { timeout: 60000 });
        await page.waitForFunction(() => window.viewer.final, undefined, { timeout: 60000 });
        const { drawn, loaded, wanted, fetchedBytes } = await figures(page);
        const dataset = await openFolder(town());
        const cell = dataset.cells.find(({ first }) => first === asked[0]);
        assert.equal(drawn, cell.count);
        assert.equal(loaded, cell.count);
        assert.equal(fetchedBytes, 96 * cell.count);
        assert.ok(wanted > 900000);
        assert.ok(covered(await pixelsOf(page)) > 0.5, "it is to be seen");
    }, { settle: false });
});

test("the town: nothing is fetched twice, and the memory is what was promised", { timeout: 280000 }, async (t) => {
    await withPage([town()], async (page, server) => {
        const client = await browser.context.newCDPSession(page);
        await client.send("Performance.enable", { timeDomain: "threadTicks" });
        const busy = async () => (await client.send("Performance.getMetrics")).metrics.find(({ name }) => name === "TaskDuration").value * 1000;
        await page.evaluate(() => (window.viewer.drawing = false));
        await page.reload();
        await page.waitForFunction(() => window.viewer !== undefined);
        server.log.length = 0;
        const begin = await busy();
        await page.evaluate(() => (window.viewer.drawing = false));
        await page.waitForFunction(() => {
            const now = window.viewer.figures();
            window.viewer.moved(false);
            return now !== undefined && now.wanted > 900000 && now.drawn === now.wanted;
        }, undefined, { timeout: 120000, polling: 200 });
        const now = await figures(page);
        const perMillion = (now.mainMilliseconds / now.uploaded) * 1e6;
        assert.equal(now.capacity, 1000000);
        assert.ok(now.graphicsBytes <= 96 * now.capacity + 4192, `${now.graphicsBytes} bytes; 4,192 of them are the dataset's own tables`);
        assert.ok(now.scriptBytes <= 16 * now.capacity);
        const seen = new Map();
        let bytes = 0;
        for (const { path, status, first, last } of server.log.filter(({ path }) => /data\.bin|shcoef\.bin/.test(path))) {
            assert.equal(status, 206);
            const ranges = seen.get(path) ?? [];
            for (const [from, to] of ranges) assert.ok(last < from || first > to, `${path}: ${first} to ${last} was fetched before`);
            seen.set(path, [...ranges, [first, last]]);
            bytes += last - first + 1;
        }
        assert.equal(bytes, now.loaded * 96, "what was fetched is what is here");
        const work = (((await busy()) - begin) / now.uploaded) * 1e6;
        t.diagnostic(`main thread: uploads ${perMillion.toFixed(0)} ms, the whole page ${work.toFixed(0)} ms of processor time, for a million splats; sort of ${now.loaded}: ${now.sortMilliseconds.toFixed(0)} ms`);
    }, { settle: false });
});

test("within a small budget cells come and go with the eye, and what is no longer wanted is not waited for", { timeout: 280000 }, async () => {
    await withPage([town()], async (page, server) => {
        let held = true; // until the budget is chosen, since another budget starts again
        server.fault = (path, response, request) => held && request.headers.range !== undefined;
        await page.reload();
        await page.waitForFunction(() => window.viewer?.figures() !== undefined);
        await page.evaluate(() => (window.viewer.drawing = false)); // software rendering would take most of the time
        server.log.length = 0;
        held = false;
        await page.locator("#budget").evaluate((slider) => {
            slider.value = "250000";
            slider.dispatchEvent(new Event("input"));
            slider.dispatchEvent(new Event("change"));
        });
        assert.equal(await page.locator("#budget-text").textContent(), "at most 250,000");
        const nearest = async (x, y) => {
            await page.evaluate((hash) => (location.hash = hash), `v=${x},${y},5,60,30,40`);
            await page.waitForTimeout(50);
            await settled(page);
            const { here, figures: now } = await page.evaluate(() => {
                const { scene, city } = window.viewer;
                return { here: city.cells.filter((_, i) => scene.isHere(i)).map(({ min }) => min), figures: scene.figures };
            });
            assert.equal(now.capacity, 250000);
            assert.ok(now.loaded <= 250000 && now.loaded > 150000, `${now.loaded}`);
            assert.equal(now.drawn, now.loaded, "all that is here is drawn, and nothing else");
            assert.ok(here.some(([left, low]) => x >= left && x < left + 30 && y >= low && y < low + 30), "the cell in the middle is here");
            return now;
        };
        await nearest(-90, -70);
        assert.equal((await nearest(-90, -69)).evicted, 0, "a step changes nothing");
        const before = server.log.length;
        const far = await nearest(90, 70);
        assert.ok(far.evicted > 0);
        const keys = server.log.slice(0, before).map(({ path, first }) => `${path} ${first}`);
        assert.deepEqual(keys.filter((key, i) => keys.indexOf(key) !== i), [], "nothing was fetched twice");
        // A slow server, and a view that moves on before the cells arrive.
        server.delay = 1500;
        for (const [x, y] of [[-90, -70], [90, 70]]) {
            await page.evaluate((hash) => (location.hash = hash), `v=${x},${y},5,60,30,40`);
            await page.waitForTimeout(600);
        }
        server.delay = 0;
        const end = await nearest(-90, 70);
        assert.ok(end.cancelled > 0, "fetches were cancelled");
        assert.ok(covered(await pixelsOf(page)) > 60);
    }, { settle: false, hash: "#v=-90,-70,5,60,30,40" });
});
