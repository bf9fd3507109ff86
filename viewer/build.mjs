// Makes dist/viewer.html of src/: one file that needs nothing else. It states the hash of the sources that it was made of.
//
//   node build.mjs [FILE]      writes FILE instead of dist/viewer.html
import { createHash } from "node:crypto";
import { mkdirSync, readFileSync, readdirSync, writeFileSync } from "node:fs";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";
import { gzipSync } from "node:zlib";
import { build } from "esbuild";

const here = dirname(fileURLToPath(import.meta.url));
const source = join(here, "src");
const sha256 = (text, form) => createHash("sha256").update(text).digest(form);

async function bundle(entry, plugins = []) {
    const result = await build({
        entryPoints: [entry],
        bundle: true,
        minify: true,
        format: "iife",
        target: "es2022",
        charset: "utf8",
        legalComments: "none",
        write: false,
        plugins,
    });
    return result.outputFiles[0].text.trim();
}

const workers = {
    name: "worker",
    setup({ onResolve, onLoad }) {
        onResolve({ filter: /^worker:/ }, ({ path, resolveDir }) => ({ path: join(resolveDir, path.slice(7)), namespace: "worker" }));
        onLoad({ filter: /.*/, namespace: "worker" }, async ({ path }) => ({ contents: await bundle(path), loader: "text" }));
    },
};

async function minifiedStyle() {
    const result = await build({ entryPoints: [join(source, "style.css")], minify: true, target: "es2022", write: false, supported: { "color-functions": true } });
    return result.outputFiles[0].text.trim();
}

// What the page is made of: every source, this script and the pinned tools.
function sourcesHash() {
    const files = [...readdirSync(source).map((name) => join("src", name)), "build.mjs", "package-lock.json"].sort();
    return sha256(files.map((name) => `${sha256(readFileSync(join(here, name)), "hex")} ${name}\n`).join(""), "hex");
}

const script = (await bundle(join(source, "main.ts"), [workers])).replaceAll("</script", "<\\/script");
const style = await minifiedStyle();
const policy = [
    "default-src 'none'",
    `script-src 'sha256-${sha256(script, "base64")}'`,
    `style-src 'sha256-${sha256(style, "base64")}'`,
    "worker-src blob:",
    "connect-src 'self' http: https:",
    "img-src data: blob:",
    "base-uri 'none'",
    "form-action 'none'",
].join("; ");
const parts = { POLICY: policy, STYLE: style, SCRIPT: script };
const page =
    readFileSync(join(source, "page.html"), "utf8").replace(/@(POLICY|STYLE|SCRIPT)@/g, (_, name) => parts[name]) +
    `<!-- sources ${sourcesHash()} -->\n`;
const target = process.argv[2] ?? join(here, "dist", "viewer.html");
mkdirSync(dirname(target), { recursive: true });
writeFileSync(target, page);
console.log(`${target}: ${page.length} bytes, ${gzipSync(page, { level: 9 }).length} compressed`);
