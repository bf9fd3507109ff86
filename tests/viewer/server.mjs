// A small web server for the tests. It serves the page and datasets like `plyconvert view`, supports single
// ranges, logs the requests, and can be made to fail.
import { createReadStream, existsSync, readFileSync, statSync } from "node:fs";
import { createServer } from "node:http";
import { basename, join } from "node:path";
import { datasetFiles } from "./support.mjs";

// `datasets` are folders; `list` false leaves datasets.json out, as for a page that stands alone. server.log
// holds {path, status, first, last} of every GET that was answered completely. server.fault may be a function
// of (path, response, request) that answers itself and returns true. server.delay delays files by this many
// milliseconds, and server.held, a function of (path, request), until the promise that it returns has resolved.
export async function startServer(page, datasets, { list = true, ranges = true } = {}) {
    const state = { log: [], fault: undefined, delay: 0, held: undefined };
    const files = new Map([["/", page]]);
    datasets.forEach((folder, i) => {
        for (const name of datasetFiles) {
            if (existsSync(join(folder, name))) files.set(`/data/${i}/${name}`, join(folder, name));
        }
    });
    const server = createServer((request, response) => {
        const path = new URL(request.url, "http://localhost").pathname;
        if (state.fault?.(path, response, request)) return;
        if (path === "/datasets.json" && list) {
            response.setHeader("Content-Type", "application/json");
            response.end(JSON.stringify(datasets.map((folder, i) => ({ name: basename(folder), base: `data/${i}/` }))));
            return;
        }
        const file = files.get(path);
        if (file === undefined) {
            response.writeHead(404).end();
            return;
        }
        const send = () => response.destroyed || sendFile(request, response, path, file, ranges, state.log);
        void Promise.resolve(state.held?.(path, request)).then(() => setTimeout(send, state.delay));
    });
    await new Promise((resolve) => server.listen(0, "127.0.0.1", resolve));
    return Object.assign(state, {
        address: `http://127.0.0.1:${server.address().port}/`,
        close: () => new Promise((resolve) => (server.closeAllConnections(), server.close(resolve))),
    });
}

function sendFile(request, response, path, file, ranges, log) {
    const { size } = statSync(file);
    response.setHeader("Content-Type", path === "/" ? "text/html; charset=utf-8" : "application/octet-stream");
    const asked = ranges ? /^bytes=(\d+)-(\d+)$/.exec(request.headers.range ?? "") : null;
    const [first, last] = asked ? [Number(asked[1]), Math.min(Number(asked[2]), size - 1)] : [0, size - 1];
    if (asked && first >= size) {
        response.writeHead(416, { "Content-Range": `bytes */${size}` }).end();
        return;
    }
    if (asked) response.setHeader("Content-Range", `bytes ${first}-${last}/${size}`);
    response.writeHead(asked ? 206 : 200, { "Content-Length": last - first + 1 });
    if (request.method === "HEAD") {
        response.end();
        return;
    }
    response.on("finish", () => log.push({ path, status: asked ? 206 : 200, first, last }));
    if (size === 0) response.end(readFileSync(file));
    else createReadStream(file, { start: first, end: last }).pipe(response);
}
