// Records the frames of a flight over the town, for a person to look at: `node tests/viewer/flight.mjs
// FOLDER` after a release build. The budget is small and the server slow, so that cells appear and disappear.
// Every frame is saved, finished or not. The page's clock advances by 100 ms a frame, as on a fast graphics
// card, because nothing fades in when pictures take as long as with software rendering.
import { mkdirSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { figures, openPage, pngOf, startBrowser } from "./browser.mjs";
import { startServer } from "./server.mjs";
import { town, viewerPage } from "./support.mjs";

const folder = process.argv[2];
if (folder === undefined) throw new Error("Name the folder for the frames.");
mkdirSync(folder, { recursive: true });
const browser = await startBrowser({ viewport: { width: 640, height: 360 } });
const server = await startServer(viewerPage, [town()]);
server.delay = 100;
await browser.context.addInitScript(() => {
    window.moment = 1000;
    performance.now = () => window.moment;
});
const page = await openPage(browser.context, `${server.address}#v=-80,-60,4,40,45,20`, { settle: false });
await page.waitForFunction(() => window.viewer?.figures() !== undefined);
await page.locator("#budget").evaluate((slider) => {
    slider.value = "250000";
    slider.dispatchEvent(new Event("change"));
});
await page.waitForTimeout(3000);
for (let frame = 0; frame < 40; ++frame) {
    const [x, y] = [-80 + 4 * frame, -60 + 3 * frame];
    await page.evaluate((hash) => {
        window.moment += 100;
        location.hash = hash;
    }, `v=${x},${y},4,40,45,20`);
    await page.waitForTimeout(250);
    writeFileSync(join(folder, `frame${String(frame).padStart(2, "0")}.png`), await pngOf(page, false));
    const { loaded, wanted, drawn, evicted } = await figures(page);
    console.log(`frame ${frame}: ${loaded} of ${wanted} here, ${drawn} drawn, ${evicted} pieces made room`);
}
await browser.close();
await server.close();
