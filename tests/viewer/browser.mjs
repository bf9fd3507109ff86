// Debian's chromium with software rendering, and what the tests do with a page.
import { mkdtempSync, rmSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { join } from "node:path";

const require = createRequire(new URL("../../viewer/package.json", import.meta.url));
const { chromium } = require("playwright-core");

export const executable = process.env["CHROMIUM"] ?? "/usr/bin/chromium";

export async function startBrowser(options = {}) {
    const profile = mkdtempSync(join(tmpdir(), "viewer-profile-"));
    const context = await chromium.launchPersistentContext(profile, {
        executablePath: executable,
        headless: true,
        viewport: { width: 960, height: 540 },
        ...options,
        args: [
            "--no-sandbox",
            "--use-angle=swiftshader",
            "--enable-unsafe-swiftshader",
            "--disable-background-networking",
            "--disable-component-update",
            "--disable-sync",
            "--no-first-run",
            ...(options.args ?? []),
        ],
    });
    return {
        context,
        close: async () => {
            await context.close();
            rmSync(profile, { recursive: true, force: true });
        },
    };
}

// Opens an address, waits until all that the view needs is drawn, and gives the page. page.errors holds what the console said.
export async function openPage(context, address, { settle = true } = {}) {
    const page = await context.newPage();
    page.errors = [];
    page.on("pageerror", (error) => page.errors.push(String(error)));
    page.on("console", (message) => message.type() === "error" && page.errors.push(message.text()));
    await page.goto(address);
    if (settle) await settled(page);
    return page;
}

export async function settled(page) {
    await page.waitForFunction(() => window.viewer?.figures() !== undefined);
    await page.evaluate(() => window.viewer.settled());
}

// Shows another view; `pose` as in a link.
export const look = (page, pose) =>
    page.evaluate((hash) => new Promise((resolve) => {
        addEventListener("hashchange", () => resolve(), { once: true });
        location.hash = hash;
    }), `v=${pose}`);

export const figures = (page) => page.evaluate(() => window.viewer.figures());

// The picture as PNG bytes; `whole` as in pixelsOf.
export async function pngOf(page, whole = true) {
    const text = await page.evaluate(async (all) => {
        const bytes = new Uint8Array(await (await window.viewer.picture(all)).arrayBuffer());
        let binary = "";
        for (let i = 0; i < bytes.length; i += 32768) binary += String.fromCharCode(...bytes.subarray(i, i + 32768));
        return btoa(binary);
    }, whole);
    return Buffer.from(text, "base64");
}

// The picture, or that at an address, as {width, height, data} with four bytes a pixel. Where `whole` is false, what fades in is in
// the picture as it is at the moment.
export async function pixelsOf(page, address, whole = true) {
    const picture = await page.evaluate(async ([url, all]) => {
        const blob = url === undefined ? await window.viewer.picture(all) : await (await fetch(url)).blob();
        const bitmap = await createImageBitmap(blob);
        const context = new OffscreenCanvas(bitmap.width, bitmap.height).getContext("2d");
        context.drawImage(bitmap, 0, 0);
        const { data } = context.getImageData(0, 0, bitmap.width, bitmap.height);
        let binary = "";
        for (let i = 0; i < data.length; i += 32768) binary += String.fromCharCode(...data.subarray(i, i + 32768));
        return { width: bitmap.width, height: bitmap.height, text: btoa(binary) };
    }, [address, whole]);
    return { width: picture.width, height: picture.height, data: Buffer.from(picture.text, "base64") };
}
