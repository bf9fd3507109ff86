// Draws splats with WebGL2. It owns the graphics memory; which splats are in there, and in which order they are drawn, is told.
import type { Dequantiser } from "./dataset.ts";
import { type Axis, ViewError, packedSize, recordSize } from "./format.ts";
import { colourFragment, screenVertex, splatFragment, splatVertex } from "./shaders.ts";
import { type Block, type Run, type Shape, blocksOf, shapeFor } from "./slots.ts";
import type { View } from "./camera.ts";

const words = 15; // of coefficients that are kept of a record

export interface Look {
    background: readonly [number, number, number];
    pointSize: number; // pixels; 0 draws Gaussians
}

type Uniforms = Map<string, WebGLUniformLocation>;
interface Program {
    handle: WebGLProgram;
    uniforms: Uniforms;
}

const units = { first: 0, second: 1, harmonics: 2, byteValues: 3 } as const;

export class Renderer {
    readonly bytes: number; // of graphics memory that splats take
    drawn = 0; // splats of the order that was set last
    private readonly gl: WebGL2RenderingContext;
    private readonly shape: Shape;
    private readonly harmonicShape: Shape | undefined;
    private readonly splats: Program;
    private readonly colours: Program | undefined;
    private readonly textures: WebGLTexture[] = [];
    private readonly order: WebGLBuffer;
    private readonly array: WebGLVertexArrayObject;
    private readonly frame: WebGLFramebuffer;
    private readonly stale: boolean[]; // layers whose colours are those of another eye
    private readonly fresh: boolean[]; // layers with records that have no colour yet
    private coloursFrom = ""; // the eye of the colours that were asked for last

    // Throws ViewError when the graphics memory cannot hold `capacity` splats.
    constructor(gl: WebGL2RenderingContext, capacity: number, harmonics: boolean, dequantiser: Dequantiser) {
        this.gl = gl;
        while (gl.getError() !== gl.NO_ERROR);
        const most = Math.min(2048, gl.getParameter(gl.MAX_TEXTURE_SIZE) as number);
        this.shape = shapeFor(capacity, 1024, 128);
        this.harmonicShape = harmonics ? shapeFor(capacity, most, Math.floor(most / words)) : undefined;
        this.stale = new Array<boolean>(this.shape.layers).fill(false);
        this.fresh = [...this.stale];
        this.splats = program(gl, splatVertex, splatFragment);
        this.colours = harmonics ? program(gl, screenVertex, colourFragment) : undefined;
        this.bytes = this.allocate(capacity, dequantiser);
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
        this.setConstants(dequantiser);
    }

    private allocate(capacity: number, dequantiser: Dequantiser): number {
        const { gl, shape, harmonicShape } = this;
        const texture = (unit: number, target: number): void => {
            const handle = gl.createTexture();
            this.textures.push(handle);
            gl.activeTexture(gl.TEXTURE0 + unit);
            gl.bindTexture(target, handle);
            gl.texParameteri(target, gl.TEXTURE_MIN_FILTER, gl.NEAREST);
            gl.texParameteri(target, gl.TEXTURE_MAG_FILTER, gl.NEAREST);
        };
        for (const unit of [units.first, units.second]) {
            texture(unit, gl.TEXTURE_2D_ARRAY);
            gl.texStorage3D(gl.TEXTURE_2D_ARRAY, 1, gl.RGBA32UI, shape.columns, shape.rows, shape.layers);
        }
        let bytes = 4 * capacity + recordSize * shape.columns * shape.rows * shape.layers;
        if (harmonicShape !== undefined) {
            const { columns, rows, layers } = harmonicShape;
            texture(units.harmonics, gl.TEXTURE_2D_ARRAY);
            gl.texStorage3D(gl.TEXTURE_2D_ARRAY, 1, gl.R32UI, words * columns, rows, layers);
            bytes += 4 * words * columns * rows * layers;
        }
        texture(units.byteValues, gl.TEXTURE_2D);
        const values = new Float32Array(1024);
        dequantiser.bytes.forEach((table, channel) => table.forEach((value, i) => (values[4 * i + channel] = value)));
        gl.pixelStorei(gl.UNPACK_ROW_LENGTH, 0); // another scene's uploads may have left it
        gl.pixelStorei(gl.UNPACK_SKIP_PIXELS, 0);
        gl.texImage2D(gl.TEXTURE_2D, 0, gl.RGBA32F, 256, 1, 0, gl.RGBA, gl.FLOAT, values);
        return bytes + values.byteLength;
    }

    private setConstants(dequantiser: Dequantiser): void {
        const { gl } = this;
        const axes = (name: string, uniforms: Uniforms, list: Axis[]): void => {
            gl.uniform3fv(at(uniforms, `${name}Min`), list.map((axis) => axis.min));
            gl.uniform3fv(at(uniforms, `${name}Span`), list.map((axis) => axis.span));
        };
        for (const one of [this.splats, this.colours]) {
            if (one === undefined) continue;
            gl.useProgram(one.handle);
            for (const [name, unit] of Object.entries(units)) gl.uniform1i(at(one.uniforms, name), unit);
            gl.uniform2i(at(one.uniforms, "shape"), this.shape.rows, this.shape.columns);
            axes("scale", one.uniforms, dequantiser.scale);
            axes("coefficient", one.uniforms, dequantiser.coefficient);
            gl.uniform1i(at(one.uniforms, "evaluated"), this.colours === undefined ? 0 : 1);
            if (this.harmonicShape !== undefined) {
                gl.uniform2i(at(one.uniforms, "harmonicShape"), this.harmonicShape.rows, this.harmonicShape.columns);
            }
        }
    }

    // Puts records, and coefficients in the packed form, into the slots of `runs`.
    upload(runs: readonly Run[], data: ArrayBuffer, coefficients: ArrayBuffer | undefined): void {
        const { gl } = this;
        const all = new Uint32Array(data);
        const half = (unit: number, skip: number, block: Block, from: number): void =>
            this.put(unit, block, 1, 2, skip, gl.RGBA_INTEGER, all.subarray((from + block.first) * (recordSize / 4)));
        let from = 0;
        for (const run of runs) {
            for (const block of blocksOf(run, this.shape)) {
                half(units.first, 0, block, from);
                half(units.second, 1, block, from);
                this.fresh[block.layer] = this.stale[block.layer] = true;
            }
            if (this.harmonicShape !== undefined && coefficients !== undefined) {
                const packed = new Uint32Array(coefficients);
                for (const block of blocksOf(run, this.harmonicShape)) {
                    const part = packed.subarray((from + block.first) * (packedSize / 4));
                    this.put(units.harmonics, block, words, packedSize / 4, 0, gl.RED_INTEGER, part);
                }
            }
            from += run.count;
        }
    }

    // Of every `row` texels of `source`, the `width` from `skip` on, one record below the other.
    private put(unit: number, block: Block, width: number, row: number, skip: number, format: number, source: Uint32Array): void {
        const { gl } = this;
        gl.activeTexture(gl.TEXTURE0 + unit);
        gl.pixelStorei(gl.UNPACK_ROW_LENGTH, row);
        gl.pixelStorei(gl.UNPACK_SKIP_PIXELS, skip);
        const x = width * block.column;
        gl.texSubImage3D(gl.TEXTURE_2D_ARRAY, 0, x, block.row, block.layer, width, block.count, 1, format, gl.UNSIGNED_INT, source);
    }

    // The slots to draw, from the farthest to the nearest.
    setOrder(order: Uint32Array, count: number): void {
        const { gl } = this;
        gl.bindBuffer(gl.ARRAY_BUFFER, this.order);
        gl.bufferSubData(gl.ARRAY_BUFFER, 0, order, 0, count);
        this.drawn = count;
    }

    // False while the graphics card still works on the picture before: another one would only queue up behind it.
    ready(): boolean {
        const { gl } = this;
        if (this.fence === null) return true;
        const state = gl.clientWaitSync(this.fence, gl.SYNC_FLUSH_COMMANDS_BIT, 0);
        if (state === gl.TIMEOUT_EXPIRED) return false;
        gl.deleteSync(this.fence);
        this.fence = null;
        return true;
    }
    private fence: WebGLSync | null = null;

    // Draws to the canvas. At most `layers` layers get the colours of this eye first, besides those with new records; true when
    // all have them.
    draw(view: View, look: Look, layers: number): boolean {
        const { gl } = this;
        const done = this.evaluate(view, layers);
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
        setEye(gl, uniforms, view);
        gl.uniformMatrix3fv(at(uniforms, "turn"), true, [...view.right, ...view.up, ...view.forward]);
        gl.uniform2f(at(uniforms, "size"), view.width, view.height);
        gl.uniform1f(at(uniforms, "focal"), view.focal);
        gl.uniform1f(at(uniforms, "pointSize"), look.pointSize);
        gl.bindVertexArray(this.array);
        gl.drawArraysInstanced(gl.TRIANGLE_STRIP, 0, 4, this.drawn);
        gl.deleteSync(this.fence);
        this.fence = gl.fenceSync(gl.SYNC_GPU_COMMANDS_COMPLETE, 0);
        return done;
    }

    // Colours depend on the direction from the eye: once it has moved, the colours of all layers are old.
    private evaluate(view: View, layers: number): boolean {
        if (this.colours === undefined) return true;
        const { gl, shape } = this;
        const eye = view.eye.join();
        if (eye !== this.coloursFrom) this.stale.fill(true);
        this.coloursFrom = eye;
        if (!this.stale.includes(true)) return true;
        gl.useProgram(this.colours.handle);
        setEye(gl, this.colours.uniforms, view);
        gl.bindFramebuffer(gl.FRAMEBUFFER, this.frame);
        gl.viewport(0, 0, shape.columns, shape.rows);
        gl.disable(gl.BLEND);
        gl.colorMask(false, false, false, true);
        for (let i = 0, from = this.next; i < shape.layers; ++i) {
            const layer = (from + i) % shape.layers;
            if (!this.stale[layer] || (layers <= 0 && !this.fresh[layer])) continue;
            gl.framebufferTextureLayer(gl.FRAMEBUFFER, gl.COLOR_ATTACHMENT0, this.textures[units.second], 0, layer);
            gl.uniform1i(at(this.colours.uniforms, "layer"), layer);
            gl.drawArrays(gl.TRIANGLES, 0, 3);
            this.fresh[layer] = this.stale[layer] = false;
            this.next = layer + 1;
            --layers;
        }
        return !this.stale.includes(true);
    }
    private next = 0;

    // A record as it is in the graphics memory: 32 bytes, and 64 of coefficients when there are some.
    readBack(slot: number): { record: ArrayBuffer; coefficients: ArrayBuffer | undefined } {
        const record = new Uint32Array(recordSize / 4);
        this.readTexels(units.first, slot, this.shape, 1, record.subarray(0, 4));
        this.readTexels(units.second, slot, this.shape, 1, record.subarray(4));
        if (this.harmonicShape === undefined) return { record: record.buffer, coefficients: undefined };
        const read = new Uint32Array(4 * words);
        this.readTexels(units.harmonics, slot, this.harmonicShape, words, read);
        const coefficients = new Uint32Array(packedSize / 4);
        for (let k = 0; k < words; ++k) coefficients[k] = read[4 * k];
        return { record: record.buffer, coefficients: coefficients.buffer };
    }

    private readTexels(unit: number, slot: number, shape: Shape, width: number, into: Uint32Array): void {
        const { gl } = this;
        const [block] = blocksOf({ start: slot, count: 1 }, shape);
        gl.bindFramebuffer(gl.FRAMEBUFFER, this.frame);
        gl.framebufferTextureLayer(gl.FRAMEBUFFER, gl.COLOR_ATTACHMENT0, this.textures[unit], 0, block.layer);
        gl.readPixels(width * block.column, block.row, width, 1, gl.RGBA_INTEGER, gl.UNSIGNED_INT, into);
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

// Uniforms that a program does not use have no location; setting them does nothing.
function at(uniforms: Uniforms, name: string): WebGLUniformLocation | null {
    return uniforms.get(name) ?? null;
}

function setEye(gl: WebGL2RenderingContext, uniforms: Uniforms, view: View): void {
    const high = view.eye.map(Math.fround);
    gl.uniform3fv(at(uniforms, "eyeHigh"), high);
    gl.uniform3fv(at(uniforms, "eyeLow"), view.eye.map((value, i) => value - high[i]));
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
