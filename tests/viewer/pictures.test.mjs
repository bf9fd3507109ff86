// The page's pictures against those of two other renderers of the same splats: playcanvas, and picture/renderscene.
import assert from "node:assert/strict";
import { createReadStream, existsSync, readFileSync, writeFileSync } from "node:fs";
import { createServer } from "node:http";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { openPage, pixelsOf, settled, startBrowser } from "./browser.mjs";
import { startServer } from "./server.mjs";
import { converted, root, run, samples, scratch, viewerPage } from "./support.mjs";

const least = 35; // decibels
// Three views of each: how far off in first views, and degrees over the ground and downwards.
const views = {
    real_61849_sh3_62f_trained_here: [1.5, [[20, 25], [140, 10], [260, 45]]],
    real_58649_nosh_17f: [2.5, [[90, 20], [180, 35], [200, 10]]],
};

let browser;
before(async () => (browser = await startBrowser()));
after(() => browser.close());

// Of the colours alone; both have four bytes a pixel.
function decibels(one, other) {
    assert.equal(one.length, other.length);
    let squares = 0;
    for (let i = 0; i < one.length; ++i) if (i % 4 !== 3) squares += (one[i] - other[i]) ** 2;
    return 10 * Math.log10((255 * 255 * one.length * 0.75) / squares);
}

async function startPlaycanvas(ply) {
    const files = new Map([
        ["/", [join(root, "tests", "viewer", "playcanvas.html"), "text/html"]],
        ["/playcanvas.mjs", [join(root, "viewer", "node_modules", "playcanvas", "build", "playcanvas.mjs"), "text/javascript"]],
        ["/scene.ply", [ply, "application/octet-stream"]],
    ]);
    const server = createServer((request, response) => {
        const [file, type] = files.get(request.url) ?? [];
        if (file === undefined) return response.writeHead(404).end();
        response.writeHead(200, { "Content-Type": type });
        return createReadStream(file).pipe(response);
    });
    await new Promise((resolve) => server.listen(0, "127.0.0.1", resolve));
    return server;
}

// A picture at an address, in four bytes a pixel.
async function pixelsOfAddress(page, address) {
    const text = await page.evaluate(async (url) => {
        const bitmap = await createImageBitmap(await (await fetch(url)).blob());
        const context = new OffscreenCanvas(bitmap.width, bitmap.height).getContext("2d");
        context.drawImage(bitmap, 0, 0);
        const { data } = context.getImageData(0, 0, bitmap.width, bitmap.height);
        let binary = "";
        for (let i = 0; i < data.length; i += 32768) binary += String.fromCharCode(...data.subarray(i, i + 32768));
        return btoa(binary);
    }, address);
    return Buffer.from(text, "base64");
}

for (const [sample, [far, angles]] of Object.entries(views)) {
    const source = join(samples, `${sample}.ply`);
    const skip = existsSync(source) ? false : `${source} is not there`;
    test(`three views of ${sample}`, { skip, timeout: 280000 }, async (t) => {
        const dataset = converted(sample, source);
        const ply = join(scratch, `${sample}-again.ply`);
        if (!existsSync(ply)) run("program/plyconvert", "export", dataset, ply);
        const server = await startServer(viewerPage, [dataset]);
        const other = await startPlaycanvas(ply);
        try {
            const page = await openPage(browser.context, `${server.address}?order=depth`); // as both others do
            const pose = await page.evaluate(() => window.viewer.pose);
            const twin = await openPage(browser.context, `http://127.0.0.1:${other.address().port}/`, { settle: false });
            await twin.waitForFunction(() => window.ready, undefined, { timeout: 60000 });
            for (const [yaw, pitch] of angles) {
                const [a, b] = [yaw, pitch].map((value) => (value * Math.PI) / 180);
                const forward = [Math.sin(a) * Math.cos(b), Math.cos(a) * Math.cos(b), -Math.sin(b)];
                const distance = pose.distance * far;
                const eye = pose.target.map((value, i) => value - forward[i] * distance);
                await page.bringToFront();
                await page.evaluate((hash) => (location.hash = hash), `v=${[...pose.target, distance, yaw, pitch].join()}`);
                await page.waitForTimeout(50);
                await settled(page);
                const own = (await pixelsOf(page)).data;
                await twin.bringToFront();
                const address = await twin.evaluate(([from, to]) => window.look(from, to), [eye, pose.target]);
                const theirs = await pixelsOfAddress(twin, address);
                const png = join(scratch, `${sample}-${yaw}.png`);
                run("picture/renderscene", ply, png, "--eye", ...eye.map(String), "--target", ...pose.target.map(String));
                const third = await pixelsOfAddress(twin, `data:image/png;base64,${readFileSync(png).toString("base64")}`);
                if (process.env["KEEP_PICTURES"]) {
                    writeFileSync(join(scratch, `${sample}-${yaw}-theirs.png`), Buffer.from(address.split(",")[1], "base64"));
                    const kept = await page.evaluate(async () => new Promise(async (resolve) => {
                        const reader = new FileReader();
                        reader.onload = () => resolve(reader.result);
                        reader.readAsDataURL(await window.viewer.picture());
                    }));
                    writeFileSync(join(scratch, `${sample}-${yaw}-own.png`), Buffer.from(kept.split(",")[1], "base64"));
                }
                const [first, second] = [decibels(own, theirs), decibels(own, third)];
                t.diagnostic(`yaw ${yaw}: ${first.toFixed(1)} dB from playcanvas, ${second.toFixed(1)} dB from renderscene; these two: ${decibels(theirs, third).toFixed(1)} dB`);
                if (process.env["KEEP_PICTURES"]) continue;
                assert.ok(first >= least && second >= least, `yaw ${yaw}: ${first} dB, ${second} dB`);
            }
        } finally {
            await server.close();
            other.closeAllConnections();
            other.close();
        }
    });
}
