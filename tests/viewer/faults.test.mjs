// Faults: each gives one clear line, and the page goes on where it can.
import assert from "node:assert/strict";
import { readFileSync, rmSync } from "node:fs";
import { join } from "node:path";
import { test } from "node:test";
import { pixelsOf, settled, startBrowser } from "./browser.mjs";
import { covered, message, withPage } from "./pages.mjs";
import { changed, rewrite, root, small } from "./support.mjs";

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
