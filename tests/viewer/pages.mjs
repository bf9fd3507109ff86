// Shared by the tests of the page: the browser, a page with a server of its own, and the look at pictures.
import { writeFileSync } from "node:fs";
import { join } from "node:path";
import { after, before } from "node:test";
import { openPage, startBrowser } from "./browser.mjs";
import { startServer } from "./server.mjs";
import { folderFiles, makeFolder, modules, viewerPage } from "./support.mjs";

const { Dataset, FolderSource, ...records } = await modules("dataset", "records", "sources");
export const { recordsOf } = records;
export const openFolder = (folder) => Dataset.open(new FolderSource("small", folderFiles(folder)));

// The browser of the tests of a file.
export let browser;
before(async () => (browser = await startBrowser()));
after(() => browser.close());

export const sky = [158, 189, 224];
const isSky = (pixels, i) => sky.every((value, channel) => Math.abs(pixels.data[4 * i + channel] - value) <= 1);

// The percentage of pixels that are not sky.
export function covered(pixels) {
    let count = 0;
    for (let i = 0; i < pixels.width * pixels.height; ++i) count += isSky(pixels, i) ? 0 : 1;
    return (100 * count) / (pixels.width * pixels.height);
}

// The mean colour of a square. Its centre (x, y) is given as shares of the picture's sides.
export function meanAt(pixels, x, y, half = 4) {
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
export async function withPage(datasets, work, { hash = "", options, settle = true, page = viewerPage, context = browser.context } = {}) {
    const server = await startServer(page, datasets, options);
    const opened = await openPage(context, server.address + hash, { settle });
    try {
        await work(opened, server);
    } finally {
        await opened.close();
        await server.close();
    }
}

export const message = (page) => page.locator("#message:visible #message-text").textContent({ timeout: 20000 });

// A dataset of few splats with known positions, colours and sizes, cell by cell, written directly from docs/format.md.
export function byHand(name, ...cells) {
    const splats = cells.flat();
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
    const index = Buffer.alloc(20 * cells.length);
    let first = 0;
    cells.forEach(({ length }, key) => {
        [key, length, 32 * first].forEach((value, field) => index.writeUInt32LE(value, 20 * key + 4 * field));
        index.writeUInt32LE(32 * length, 20 * key + 16);
        first += length;
    });
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
