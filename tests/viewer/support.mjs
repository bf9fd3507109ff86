// Shared by the tests: the page's modules for node, datasets made with the programs of the build, and changed
// copies of them.
import { execFileSync, spawn } from "node:child_process";
import { File } from "node:buffer";
import { cpSync, existsSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

export const root = join(dirname(fileURLToPath(import.meta.url)), "..", "..");
export const buildFolder = process.env["BUILD"] ?? join(root, "build", "release");
export const viewerPage = join(root, "viewer", "dist", "viewer.html");
export const samples = process.env["SAMPLES"] ?? join(root, "..", "shared", "samples");
export const scratch = process.env["SCRATCH"] ?? mkdtempSync(join(tmpdir(), "viewer-tests-"));
const require = createRequire(join(root, "viewer", "package.json"));

if (process.env["SCRATCH"] === undefined) process.on("exit", () => rmSync(scratch, { recursive: true, force: true }));

export const datasetFiles = ["converted_from_ply.ytr", "index.bin", "data.bin", "shcoef.bin"];

// The peak signal to noise ratio of the colours of two pictures with four bytes a pixel.
export function decibels(one, other) {
    if (one.length !== other.length) throw new Error("the pictures differ in size");
    let squares = 0;
    for (let i = 0; i < one.length; ++i) if (i % 4 !== 3) squares += (one[i] - other[i]) ** 2;
    return 10 * Math.log10((255 * 255 * one.length * 0.75) / squares);
}

// Runs a program of the build and gives what it prints.
export function run(program, ...args) {
    return execFileSync(join(buildFolder, program), args, { encoding: "utf8", maxBuffer: 1 << 28 });
}

// Runs `plyconvert view` with these arguments. Gives the address that it prints, its other output, and its
// end.
export async function viewed(...words) {
    const program = spawn(join(buildFolder, "program/plyconvert"), ["view", "--no-open", ...words], { stdio: ["ignore", "pipe", "pipe"] });
    const said = [];
    program.stderr.on("data", (text) => said.push(String(text)));
    const ended = new Promise((resolve) => program.on("exit", resolve));
    const address = await Promise.race([new Promise((resolve) => program.stdout.once("data", (text) => resolve(String(text).trim()))), ended]);
    if (typeof address !== "string") throw new Error(`plyconvert view ended: ${said.join("")}`);
    return { address, said: () => said.join(""), close: () => (program.kill("SIGINT"), ended) };
}

// The named modules of the page as one module.
export async function modules(...names) {
    const { build } = require("esbuild");
    const contents = names.map((name) => `export * from "./${name}.ts";`).join("\n");
    const outfile = join(mkdtempSync(join(scratch, "modules-")), "modules.mjs");
    const stdin = { contents, resolveDir: join(root, "viewer", "src"), loader: "ts" };
    await build({ stdin, bundle: true, format: "esm", target: "es2022", outfile, logLevel: "error" });
    return import(outfile);
}

// The dataset of a PLY file, converted once for all tests.
export function converted(name, ply) {
    const folder = join(scratch, name);
    if (!existsSync(join(folder, "index.bin"))) run("program/plyconvert", ply, folder);
    return folder;
}

// The dataset of a scene of makescene, made once for all tests.
export function generated(name, ...options) {
    const ply = join(scratch, `${name}.ply`);
    if (!existsSync(ply)) run("scenes/makescene", ply, ...options);
    return converted(name, ply);
}

export const small = () => generated("small", "--splats", "20000", "--normals", "--epsg", "25832", "--offset", "500000", "5400000", "100");
export const town = () => generated("town", "--splats", "1200000", "--bounds", "--source", "makescene");

// A small town, the same town as four datasets with different offsets, and a catalogue of these.
export function quarters() {
    const [x, y] = [1.234, 2.345]; // where it is cut
    const far = 1000;
    const corners = [
        [-far, -far, x, y, 0, 0],
        [x, -far, far, y, 300, -40],
        [-far, y, x, far, -70, 500],
        [x, y, far, far, 7000, 9000],
    ];
    const town = (name, right, up) => {
        const ply = join(scratch, `${name}.ply`);
        const offset = [500000 - right, 5400000 - up, 100].map(String);
        run("scenes/makescene", ply, "--splats", "20000", "--epsg", "25832", "--centre", String(right), String(up), "0", "--offset", ...offset);
        return ply;
    };
    const whole = converted("whole", town("whole", 0, 0));
    const tiles = corners.map(([left, low, end, high, right, up], i) => {
        const folder = join(scratch, `quarter${i}`);
        const box = [left + right, low + up, -far, end + right, high + up, far].join();
        if (!existsSync(folder)) run("program/plyconvert", "convert", town(`quarter${i}`, right, up), folder, "--quiet", "--crop", box);
        return folder;
    });
    const catalogue = join(scratch, "city.json");
    if (!existsSync(catalogue)) run("program/plyconvert", "catalogue", "--quiet", ...tiles, catalogue);
    return { whole, tiles, catalogue };
}

// A copy of a dataset whose folder `change` has modified.
export function changed(dataset, change) {
    const folder = mkdtempSync(join(scratch, "changed-"));
    for (const name of readdirSync(dataset)) cpSync(join(dataset, name), join(folder, name));
    change(folder);
    return folder;
}

// `change` gets a file's content and returns the new one.
export function rewrite(folder, name, change, encoding) {
    const path = join(folder, name);
    writeFileSync(path, change(readFileSync(path, encoding)), encoding);
}

export function folderFiles(folder) {
    return new Map(readdirSync(folder).map((name) => [name, new File([readFileSync(join(folder, name))], name)]));
}

export const makeFolder = (name) => {
    const folder = join(scratch, name);
    mkdirSync(folder, { recursive: true });
    return folder;
};
