// Draws splats with WebGL2. Owns the graphics memory. The caller decides which splats are in it, and in which order they are drawn.
import type { View } from "./camera.ts";
import type { Dequantiser } from "./dequantiser.ts";
import { type Triple, ViewError, packedSize, recordSize } from "./format.ts";
import { type Split, keptWords } from "./records.ts";
import { colourFragment, screenVertex, splatFragment, splatVertex } from "./shaders.ts";
import { type Block, type Run, type Shape, blocksOf, shapeFor, slotBits } from "./slots.ts";

export interface Look {
    background: readonly [number, number, number];
    pointSize: number; // pixels; 0 draws Gaussians
}

// What the renderer needs to know about a dataset.
export interface Ranges {
    dequantiser: Dequantiser;
    harmonics: boolean; // it has coefficients
}

type Uniforms = Map<string, WebGLUniformLocation>;
interface Program {
    handle: WebGLProgram;
    uniforms: Uniforms;
}

// The place of a piece.
interface Region {
    owner: number;
    count: number;
    blocks: Block[];
    eye: number; // number of the eye of its colours; 0 without colours
}

const units = { first: 0, second: 1, harmonics: 2, byteValues: 3, ranges: 4, eyes: 5 } as const;
const widest = 4096; // texels a side

export class Renderer {
    readonly bytes: number; // of graphics memory for splats
    drawn = 0; // splats of the order that was set last
    private readonly shape: Shape;
    private readonly splats: Program;
    private readonly colours: Program | undefined;
    private readonly textures: WebGLTexture[] = [];
    private readonly order: WebGLBuffer;
    private readonly array: WebGLVertexArrayObject;
    private readonly frame: WebGLFramebuffer;
    private readonly regions = new Map<number, Region>(); // of pieces, those whose colours are oldest first
    private eye = 1; // number of the eye that colours were asked for last
    private eyeText = "";
    private readonly eyes: Float32Array;

    // `shifts` move the datasets' positions to the map's. Throws ViewError when the graphics memory cannot hold `capacity` splats.
    constructor(
        private readonly gl: WebGL2RenderingContext,
        capacity: number,
        private readonly datasets: readonly Ranges[],
        private readonly shifts: readonly Triple[],
    ) {
        while (gl.getError() !== gl.NO_ERROR);
        const harmonics = datasets.some((dataset) => dataset.harmonics);
        const most = Math.min(widest, gl.getParameter(gl.MAX_TEXTURE_SIZE) as number);
        this.shape = shapeFor(capacity, Math.floor(most / keptWords), most);
        this.splats = program(gl, splatVertex, splatFragment);
        this.colours = harmonics ? program(gl, screenVertex, colourFragment) : undefined;
        this.eyes = new Float32Array(8 * datasets.length);
        this.bytes = this.allocate(capacity, harmonics);
        this.order = gl.createBuffer();
        this.array = gl.createVertexArray();
        gl.bindVertexArray(this.array);
        gl.bindBuffer(gl.ARRAY_BUFFER, this.order);
        gl.bufferData(gl.ARRAY_BUFFER, 4 * capacity, gl.DYNAMIC_DRAW);
        gl.enableVertexAttribArray(0);
        gl.vertexAttribIPointer(0, 1, gl.UNSIGNED_INT, 0, 0);
        gl.vertexAttribDivisor(0, 1);
        this.frame = gl.createFramebuffer();
        if (gl.getError() === gl.OUT_OF_MEMORY) {
            throw new ViewError("The graphics memory cannot hold as many splats. Choose a smaller number of splats.");
        }
        for (const one of [this.splats, this.colours]) {
            if (one === undefined) continue;
            gl.useProgram(one.handle);
            for (const [name, unit] of Object.entries(units)) gl.uniform1i(at(one.uniforms, name), unit);
            gl.uniform2i(at(one.uniforms, "shape"), this.shape.columns, this.shape.rows);
            gl.uniform1i(at(one.uniforms, "slotBits"), slotBits(capacity));
            gl.uniform1i(at(one.uniforms, "fadingFrom"), datasets.length);
        }
    }

    private bind(unit: number, target: number): void {
        const { gl } = this;
        const handle = gl.createTexture();
        this.textures.push(handle);
        gl.activeTexture(gl.TEXTURE0 + unit);
        gl.bindTexture(target, handle);
        gl.texParameteri(target, gl.TEXTURE_MIN_FILTER, gl.NEAREST);
        gl.texParameteri(target, gl.TEXTURE_MAG_FILTER, gl.NEAREST);
    }

    // Returns its bytes.
    private allocate(capacity: number, harmonics: boolean): number {
        const { gl, shape, datasets } = this;
        const slots = shape.columns * shape.rows * shape.layers;
        for (const unit of [units.first, units.second]) {
            this.bind(unit, gl.TEXTURE_2D_ARRAY);
            gl.texStorage3D(gl.TEXTURE_2D_ARRAY, 1, gl.RGBA32UI, shape.columns, shape.rows, shape.layers);
        }
        let bytes = 4 * capacity + recordSize * slots;
        if (harmonics) {
            this.bind(units.harmonics, gl.TEXTURE_2D_ARRAY);
            gl.texStorage3D(gl.TEXTURE_2D_ARRAY, 1, gl.R32UI, keptWords * shape.columns, shape.rows, shape.layers);
            bytes += 4 * keptWords * slots;
        }
        const table = (unit: number, width: number, values: Float32Array): void => {
            this.bind(unit, gl.TEXTURE_2D);
            gl.texImage2D(gl.TEXTURE_2D, 0, gl.RGBA32F, width, datasets.length, 0, gl.RGBA, gl.FLOAT, values);
            bytes += values.byteLength;
        };
        table(units.byteValues, 256, byteTable(datasets));
        table(units.ranges, 4, rangeTable(datasets));
        table(units.eyes, 2, this.eyes);
        return bytes;
    }

    // Puts the records of a piece into the slots of `runs`.
    upload(piece: number, owner: number, runs: readonly Run[], split: Split): void {
        const { gl } = this;
        const [first, second] = [new Uint32Array(split.first), new Uint32Array(split.second)];
        const harmonics = split.harmonics && new Uint32Array(split.harmonics);
        const region: Region = { owner, count: 0, blocks: [], eye: 0 };
        for (const run of runs) {
            for (const block of blocksOf(run, this.shape)) {
                const from = region.count + block.first;
                this.put(units.first, block, 1, gl.RGBA_INTEGER, first, 4 * from);
                this.put(units.second, block, 1, gl.RGBA_INTEGER, second, 4 * from);
                if (harmonics) this.put(units.harmonics, block, keptWords, gl.RED_INTEGER, harmonics, keptWords * from);
                region.blocks.push(block);
            }
            region.count += run.count;
        }
        if (harmonics) this.regions.set(piece, region);
    }

    private put(unit: number, { column, row, layer, columns, rows }: Block, width: number, format: number, source: Uint32Array, from: number): void {
        const { gl } = this;
        gl.activeTexture(gl.TEXTURE0 + unit);
        gl.texSubImage3D(gl.TEXTURE_2D_ARRAY, 0, width * column, row, layer, width * columns, rows, 1, format, gl.UNSIGNED_INT, source, from);
    }

    endUpload(): void {
        this.uploads = this.gl.fenceSync(this.gl.SYNC_GPU_COMMANDS_COMPLETE, 0);
        this.gl.flush(); // once: a flush with every look costs the main thread more than the look
    }
    private uploads: WebGLSync | null = null;

    // False while the graphics card still works on earlier uploads.
    hasTaken(): boolean {
        if (!this.isOver(this.uploads)) return false;
        this.uploads = null;
        return true;
    }

    private isOver(fence: WebGLSync | null): boolean {
        const { gl } = this;
        if (fence === null) return true;
        if (gl.clientWaitSync(fence, 0, 0) === gl.TIMEOUT_EXPIRED) return false;
        gl.deleteSync(fence);
        return true;
    }

    // The piece is no longer drawn.
    forget(piece: number): void {
        this.regions.delete(piece);
    }

    // The splats to draw, from the farthest to the nearest.
    setOrder(order: Uint32Array, count: number): void {
        const { gl } = this;
        gl.bindBuffer(gl.ARRAY_BUFFER, this.order);
        gl.bufferSubData(gl.ARRAY_BUFFER, 0, order, 0, count);
        this.drawn = count;
    }

    // False while the graphics card still works on the previous picture. Another one would only wait in its queue.
    ready(): boolean {
        if (this.picture === null) return true;
        if (!this.isOver(this.picture)) {
            this.waiting = performance.now() - this.drawnAt;
            return false;
        }
        this.picture = null;
        this.waited = this.waiting;
        this.waiting = 0;
        return true;
    }
    // Milliseconds for which the page has waited for a picture: for the last one that is done, or for the current one so far.
    get wait(): number {
        return Math.max(this.waited, this.waiting);
    }
    private waited = 0;
    private waiting = 0;
    private drawnAt = 0;
    private picture: WebGLSync | null = null;

    // Draws to the canvas. At most `most` splats, but for a part of a piece, get the colours of this eye first, besides new ones;
    // true when all have them. `fades` are those of fading.ts.
    draw(view: View, look: Look, most: number, fades: Float32Array): boolean {
        const { gl } = this;
        this.setEyes(view);
        const done = this.evaluate(most);
        const [red, green, blue] = look.background;
        gl.bindFramebuffer(gl.FRAMEBUFFER, null);
        gl.viewport(0, 0, view.width, view.height);
        gl.colorMask(true, true, true, true);
        gl.clearColor(red, green, blue, 1);
        gl.clear(gl.COLOR_BUFFER_BIT);
        if (this.drawn === 0) return done;
        gl.enable(gl.BLEND);
        gl.blendFunc(gl.ONE, gl.ONE_MINUS_SRC_ALPHA);
        gl.useProgram(this.splats.handle);
        const { uniforms } = this.splats;
        gl.uniformMatrix3fv(at(uniforms, "turn"), true, [...view.right, ...view.up, ...view.forward]);
        gl.uniform2f(at(uniforms, "size"), view.width, view.height);
        gl.uniform1f(at(uniforms, "focal"), view.focal);
        gl.uniform1f(at(uniforms, "pointSize"), look.pointSize);
        gl.uniform2fv(at(uniforms, "fades[0]"), fades);
        gl.bindVertexArray(this.array);
        gl.drawArraysInstanced(gl.TRIANGLE_STRIP, 0, 4, this.drawn);
        gl.deleteSync(this.picture);
        this.picture = gl.fenceSync(gl.SYNC_GPU_COMMANDS_COMPLETE, 0);
        gl.flush();
        this.waiting = 0;
        this.drawnAt = performance.now();
        return done;
    }

    // The eye as each dataset's positions see it, as a sum of two singles: the difference is taken in double.
    private setEyes(view: View): void {
        const text = view.eye.join();
        if (text === this.eyeText) return;
        this.eyeText = text;
        ++this.eye;
        this.shifts.forEach((shift, number) => {
            for (let axis = 0; axis < 3; ++axis) {
                const eye = view.eye[axis] - shift[axis];
                const high = Math.fround(eye);
                this.eyes[8 * number + axis] = high;
                this.eyes[8 * number + 4 + axis] = eye - high;
            }
        });
        const { gl } = this;
        gl.activeTexture(gl.TEXTURE0 + units.eyes);
        gl.texSubImage2D(gl.TEXTURE_2D, 0, 0, 0, 2, this.shifts.length, gl.RGBA, gl.FLOAT, this.eyes);
    }

    // Colours depend on the direction from the eye, so all are out of date once it has moved.
    private evaluate(most: number): boolean {
        if (this.colours === undefined) return true;
        const { gl } = this;
        const old = [...this.regions].filter(([, region]) => region.eye !== this.eye);
        if (old.length === 0) return true;
        gl.useProgram(this.colours.handle);
        gl.bindFramebuffer(gl.FRAMEBUFFER, this.frame);
        gl.disable(gl.BLEND);
        gl.colorMask(false, false, false, true);
        let done = true;
        let layer = -1;
        for (const [piece, region] of old) {
            if (most <= 0 && region.eye > 0) {
                done = false;
                continue;
            }
            most -= region.eye > 0 ? region.count : 0;
            layer = this.colour(region, layer);
            region.eye = this.eye;
            this.regions.delete(piece); // and to the end
            this.regions.set(piece, region);
        }
        return done;
    }

    // Draws one region of the texture; `bound` is the layer that is bound already. Gives the one that is bound then.
    private colour(region: Region, bound: number): number {
        const { gl } = this;
        const { uniforms } = this.colours!;
        gl.uniform1i(at(uniforms, "owner"), region.owner);
        for (const { layer, column, row, columns, rows } of region.blocks) {
            if (layer !== bound) {
                gl.framebufferTextureLayer(gl.FRAMEBUFFER, gl.COLOR_ATTACHMENT0, this.textures[units.second], 0, layer);
                gl.uniform1i(at(uniforms, "layer"), layer);
                bound = layer;
            }
            gl.viewport(column, row, columns, rows);
            gl.drawArrays(gl.TRIANGLES, 0, 3);
        }
        return bound;
    }

    // A record from the graphics memory: 32 bytes, and on request 64 of coefficients.
    readBack(slot: number, harmonics: boolean): { record: ArrayBuffer; coefficients: ArrayBuffer | undefined } {
        const record = new Uint32Array(recordSize / 4);
        this.readTexels(units.first, slot, 1, record.subarray(0, 4));
        this.readTexels(units.second, slot, 1, record.subarray(4));
        if (!harmonics) return { record: record.buffer, coefficients: undefined };
        const read = new Uint32Array(4 * keptWords);
        this.readTexels(units.harmonics, slot, keptWords, read);
        const coefficients = new Uint32Array(packedSize / 4);
        for (let k = 0; k < keptWords; ++k) coefficients[k] = read[4 * k];
        return { record: record.buffer, coefficients: coefficients.buffer };
    }

    private readTexels(unit: number, slot: number, width: number, into: Uint32Array): void {
        const { gl } = this;
        const [{ column, row, layer }] = blocksOf({ start: slot, count: 1 }, this.shape);
        gl.bindFramebuffer(gl.FRAMEBUFFER, this.frame);
        gl.framebufferTextureLayer(gl.FRAMEBUFFER, gl.COLOR_ATTACHMENT0, this.textures[unit], 0, layer);
        gl.readPixels(width * column, row, width, 1, gl.RGBA_INTEGER, gl.UNSIGNED_INT, into);
    }

    // Gives all graphics memory back.
    free(): void {
        const { gl } = this;
        for (const texture of this.textures) gl.deleteTexture(texture);
        gl.deleteBuffer(this.order);
        gl.deleteVertexArray(this.array);
        gl.deleteFramebuffer(this.frame);
        for (const one of [this.splats, this.colours]) gl.deleteProgram(one?.handle ?? null);
    }
}

// For each dataset a row: the 256 values of red, green, blue and opacity.
function byteTable(datasets: readonly Ranges[]): Float32Array {
    const table = new Float32Array(1024 * datasets.length);
    datasets.forEach(({ dequantiser }, row) =>
        dequantiser.bytes.forEach((values, channel) => values.forEach((value, i) => (table[1024 * row + 4 * i + channel] = value))),
    );
    return table;
}

// For each dataset a row: begin and length of the ranges of scales and of coefficients; the first texel's last value says whether
// it has coefficients.
function rangeTable(datasets: readonly Ranges[]): Float32Array {
    const rows = datasets.flatMap(({ dequantiser: { scale, coefficient }, harmonics }) => {
        const ends = [scale, coefficient].flatMap((axes) => [axes.map(({ min }) => min), axes.map(({ span }) => span)]);
        return ends.flatMap((triple, texel) => [...triple, texel === 0 && harmonics ? 1 : 0]);
    });
    return Float32Array.from(rows);
}

// Uniforms that a program does not use have no location; setting them does nothing.
function at(uniforms: Uniforms, name: string): WebGLUniformLocation | null {
    return uniforms.get(name) ?? null;
}

function program(gl: WebGL2RenderingContext, vertex: string, fragment: string): Program {
    const handle = gl.createProgram();
    for (const [type, text] of [[gl.VERTEX_SHADER, vertex], [gl.FRAGMENT_SHADER, fragment]] as const) {
        const shader = gl.createShader(type);
        if (shader === null) break; // the context is lost
        gl.shaderSource(shader, text);
        gl.compileShader(shader);
        gl.attachShader(handle, shader);
        gl.deleteShader(shader);
    }
    gl.linkProgram(handle);
    if (!gl.getProgramParameter(handle, gl.LINK_STATUS) && !gl.isContextLost()) {
        const shaders = gl.getAttachedShaders(handle) ?? [];
        const log = [gl.getProgramInfoLog(handle), ...shaders.map((shader) => gl.getShaderInfoLog(shader))].join(" ");
        throw new ViewError(`The graphics driver refuses the page's programs: ${log.replace(/\s+/g, " ").trim()}`);
    }
    const uniforms: Uniforms = new Map();
    const count = gl.getProgramParameter(handle, gl.ACTIVE_UNIFORMS) as number;
    for (let i = 0; i < count; ++i) {
        const name = gl.getActiveUniform(handle, i)?.name ?? "";
        const location = gl.getUniformLocation(handle, name);
        if (location !== null) uniforms.set(name, location);
    }
    return { handle, uniforms };
}
