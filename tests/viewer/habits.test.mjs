// Use of the page: mouse, keys, touch, links, lists and files.
import assert from "node:assert/strict";
import { copyFileSync, readFileSync } from "node:fs";
import { join } from "node:path";
import { test } from "node:test";
import { figures, openPage, pixelsOf, pngOf, settled } from "./browser.mjs";
import { browser, covered, meanAt, openFolder, recordsOf, withPage } from "./pages.mjs";
import { datasetFiles, generated, makeFolder, small, viewerPage } from "./support.mjs";

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
