// Measures how the town loads in chromium: `node tests/viewer/measure.mjs [RUNS] [--profile]` after a release build. Nothing is drawn
// while it loads, since software rendering would take most of the time. Prints every run and the medians; --profile names the
// functions of the main thread that took longest. docs/viewing.md has the figures.
import { figures, openPage, startBrowser } from "./browser.mjs";
import { startServer } from "./server.mjs";
import { town, viewerPage } from "./support.mjs";

const profiling = process.argv.includes("--profile");
const runs = Number(process.argv.slice(2).find((word) => !word.startsWith("-")) ?? 5);

function longest({ nodes, samples, timeDeltas }) {
    const own = new Map();
    const byId = new Map(nodes.map((node) => [node.id, node]));
    samples.forEach((id, i) => {
        const { functionName, lineNumber, columnNumber } = byId.get(id).callFrame;
        const name = `${functionName || "?"} ${lineNumber}:${columnNumber}`;
        own.set(name, (own.get(name) ?? 0) + timeDeltas[i] / 1000);
    });
    return [...own].sort((a, b) => b[1] - a[1]).slice(0, 25);
}

async function load(context, address) {
    const page = await openPage(context, "about:blank", { settle: false });
    const client = await context.newCDPSession(page);
    await client.send("Performance.enable", { timeDomain: "threadTicks" });
    const busy = async () => (await client.send("Performance.getMetrics")).metrics.find(({ name }) => name === "TaskDuration").value * 1000;
    await page.addInitScript(() => {
        addEventListener("DOMContentLoaded", () => (window.viewer.drawing = false));
    });
    await page.goto(address);
    await page.waitForFunction(() => window.viewer?.figures() !== undefined);
    if (profiling) {
        await client.send("Profiler.enable");
        await client.send("Profiler.start");
    }
    const begin = await busy();
    const start = performance.now();
    await page.waitForFunction(
        () => {
            const now = window.viewer.figures();
            return now.wanted > 900000 && now.drawn === now.wanted;
        },
        undefined,
        { timeout: 120000, polling: 200 },
    );
    const seconds = (performance.now() - start) / 1000;
    const now = await figures(page);
    const work = (((await busy()) - begin) / now.uploaded) * 1e6;
    if (profiling) {
        const { profile } = await client.send("Profiler.stop");
        for (const [name, time] of longest(profile)) console.log(`    ${time.toFixed(1).padStart(8)} ms  ${name}`);
    }
    await page.close();
    return { uploads: (now.mainMilliseconds / now.uploaded) * 1e6, work, sort: now.sortMilliseconds, sorts: now.sorts, seconds };
}

const browser = await startBrowser();
const server = await startServer(viewerPage, [town()]);
const all = [];
const text = (one) => Object.entries(one).map(([name, value]) => `${name} ${value.toFixed(1)}`).join(", ");
for (let run = 0; run < runs; ++run) {
    all.push(await load(browser.context, server.address));
    console.log(text(all.at(-1)));
}
const median = (name) => all.map((one) => one[name]).sort((a, b) => a - b)[all.length >> 1];
console.log(`medians: ${text(Object.fromEntries(Object.keys(all[0]).map((name) => [name, median(name)])))}`);
await browser.close();
await server.close();
