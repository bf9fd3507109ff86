// What the page fetches and keeps in memory: of a town, and of tiles beside each other.
import assert from "node:assert/strict";
import { test } from "node:test";
import { figures, look, openPage, pixelsOf, settled } from "./browser.mjs";
import { browser, covered, message, openFolder, withPage } from "./pages.mjs";
import { decibels, quarters, town, viewed } from "./support.mjs";

test("four tiles of a catalogue are one map, without a seam, and each is streamed", { timeout: 120000 }, async (t) => {
    const { whole, tiles, catalogue } = quarters();
    const poses = ["0,0,5,120,0,35", "1.234,2.345,3,25,40,20", "20,-30,2,60,200,80"];
    const pictures = async (server, check) => {
        const page = await openPage(browser.context, `${server.address}?order=depth#v=${poses[0]}`);
        try {
            const seen = [];
            for (const pose of poses) {
                if (pose !== poses[0]) await look(page, pose);
                await settled(page);
                seen.push(await pixelsOf(page));
            }
            await check(page);
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
        let down = true; // until the budget is chosen, since another budget starts again
        server.fault = (path, response, request) => down && request.headers.range !== undefined && (response.destroy(), true);
        await page.reload();
        assert.match(await message(page), /cannot be reached|connection ended/);
        await page.waitForFunction(() => window.viewer.scene.pieces.every(({ state }) => state === "away"));
        await page.evaluate(() => (window.viewer.drawing = false)); // software rendering would take most of the time
        server.log.length = 0;
        down = false;
        await page.locator("#budget").evaluate((slider) => {
            slider.value = "250000";
            slider.dispatchEvent(new Event("input"));
            slider.dispatchEvent(new Event("change"));
        });
        assert.equal(await page.locator("#budget-text").textContent(), "at most 250,000");
        const nearest = async (x, y) => {
            await look(page, `${x},${y},5,60,30,40`);
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
        await nearest(-91, -70);
        assert.equal((await nearest(-90, -70)).evicted, 0, "a step changes nothing");
        const before = server.log.length;
        const far = await nearest(90, 70);
        assert.ok(far.evicted > 0);
        const keys = server.log.slice(0, before).map(({ path, first }) => `${path} ${first}`);
        assert.deepEqual(keys.filter((key, i) => keys.indexOf(key) !== i), [], "nothing was fetched twice");
        // A slow server, and a view that moves on before the cells arrive.
        server.delay = 1500;
        for (const [x, y] of [[-90, -70], [90, 70]]) {
            await look(page, `${x},${y},5,60,30,40`);
            await page.waitForTimeout(600);
        }
        server.delay = 0;
        const end = await nearest(-90, 70);
        assert.ok(end.cancelled > 0, "fetches were cancelled");
        assert.ok(covered(await pixelsOf(page)) > 60);
    }, { settle: false, hash: "#v=-90,-70,5,60,30,40" });
});
