// Compares the page's pictures with those of two other renderers: playcanvas and picture/renderscene.
import assert from "node:assert/strict";
import { createReadStream, existsSync, readFileSync, writeFileSync } from "node:fs";
import { createServer } from "node:http";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { look, openPage, pixelsOf, pngOf, settled, startBrowser } from "./browser.mjs";
import { startServer } from "./server.mjs";
import { converted, decibels, modules, root, run, samples, scratch, viewerPage } from "./support.mjs";

const { framing } = await modules("camera");

const least = 35; // decibels
// Three views of each sample, chosen by one rule for all before looking at any: a third of a turn apart,
// slightly from above, at twice the distance from which the box of the middle 96 of 100 splats fills the picture.
const azimuths = [0, 120, 240]; // degrees
const pitch = 20;
const far = 2;
const names = ["real_61849_sh3_62f_trained_here", "real_58649_nosh_17f"];

let browser;
before(async () => (browser = await startBrowser()));
after(() => browser.close());

// The pose that shows the middle 96 of 100 splats of a dataset on each axis.
function wholeOf(dataset) {
    const bytes = readFileSync(join(dataset, "data.bin"));
    const values = new Float32Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.length));
    const ends = [0, 1, 2].map((axis) => {
        const sorted = values.filter((_, i) => i % 8 === axis).sort();
        return [0.02, 0.98].map((share) => sorted[Math.floor(share * (sorted.length - 1))]);
    });
    return framing(ends.map(([min]) => min), ends.map(([, max]) => max));
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

for (const sample of names) {
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
            const pose = wholeOf(dataset);
            const twin = await openPage(browser.context, `http://127.0.0.1:${other.address().port}/`, { settle: false });
            await twin.waitForFunction(() => window.ready, undefined, { timeout: 60000 });
            for (const yaw of azimuths) {
                const [a, b] = [yaw, pitch].map((value) => (value * Math.PI) / 180);
                const forward = [Math.sin(a) * Math.cos(b), Math.cos(a) * Math.cos(b), -Math.sin(b)];
                const distance = pose.distance * far;
                const eye = pose.target.map((value, i) => value - forward[i] * distance);
                await page.bringToFront();
                await look(page, [...pose.target, distance, yaw, pitch].join());
                await settled(page);
                const own = (await pixelsOf(page)).data;
                await twin.bringToFront();
                const address = await twin.evaluate(([from, to]) => window.look(from, to), [eye, pose.target]);
                const theirs = (await pixelsOf(twin, address)).data;
                const png = join(scratch, `${sample}-${yaw}.png`);
                run("picture/renderscene", ply, png, "--eye", ...eye.map(String), "--target", ...pose.target.map(String));
                const third = (await pixelsOf(twin, `data:image/png;base64,${readFileSync(png).toString("base64")}`)).data;
                if (process.env["KEEP_PICTURES"]) {
                    writeFileSync(join(scratch, `${sample}-${yaw}-theirs.png`), Buffer.from(address.split(",")[1], "base64"));
                    writeFileSync(join(scratch, `${sample}-${yaw}-own.png`), await pngOf(page));
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
