// The scene that is shown: lets the worker fetch what the view needs, puts it into the graphics memory, and draws.
import type { Pose, View } from "./camera.ts";
import type { City } from "./city.ts";
import type { Splat } from "./dequantiser.ts";
import { Fades, fadeTime } from "./fading.ts";
import { ViewError, recordSize } from "./format.ts";
import type { Box, Ground, Ray, Reply, Request } from "./messages.ts";
import { type Piece, isOutside, piecesOf, scoresOf, wantedPieces } from "./plan.ts";
import type { Split } from "./records.ts";
import { type Look, Renderer } from "./renderer.ts";
import { type Run, SlotPool, mostDatasets } from "./slots.ts";

const together = 4; // pieces under way at a time, from their request until they are in the graphics memory
const uploading = 65536; // splats that go to the graphics memory in one turn
const pausing = { first: 4, most: 64 }; // milliseconds until the page looks whether the card has taken them; doubled from look to look
const slow = 100; // milliseconds that a picture takes beyond which nothing fades: a fade would be three pictures
const gathering = 250; // milliseconds between two orders that only new pieces ask for

export interface Figures {
    loaded: number; // splats in memory
    wanted: number; // splats that the view asks for
    drawn: number; // splats of the last picture
    capacity: number;
    graphicsBytes: number;
    scriptBytes: number;
    fetchedBytes: number;
    uploaded: number; // splats since the start
    mainMilliseconds: number; // of the main thread for those
    sortMilliseconds: number; // of the last sort, in the worker
    sorts: number;
    evicted: number; // pieces that made room
    cancelled: number; // fetches
}

export interface Picked {
    owner: number; // number of the dataset
    cellKey: number;
    number: number; // of the splat in its cell
    record: number; // in data.bin
    splat: Splat;
}

export class Scene {
    readonly pieces: Piece[];
    readonly figures: Figures;
    private readonly pool: SlotPool;
    private readonly renderer: Renderer;
    private readonly worker: Worker;
    private readonly fades: Fades;
    private readonly lessMotion = matchMedia("(prefers-reduced-motion: reduce)"); // asked once, because asking takes a millisecond
    private wanted: Piece[] = [];
    private scores: Float64Array = new Float64Array(); // of all pieces, when they were looked at last
    private view: View | undefined; // at that time
    private readonly heights: [number, number][];
    private readonly arrived: { piece: Piece; split: Split }[] = []; // not yet in the graphics memory
    private order: ArrayBuffer | undefined;
    private sorting = false;
    private sequence = 0;
    private sortedFor = "";
    private sortedAt = 0;
    private changed = false; // pieces came or went since the last request for an order
    private urgent = false; // a fade waits for the next order, and splats wait for the fade
    private readonly leaving: { runs: Run[]; sequence: number }[] = [];
    private readonly waiting = new Map<number, (reply: Reply) => void>();
    private token = 0;
    private failed = false;
    private ended = false;

    // `worker` is the scene's own: it ends with it. `onChange` is told when there is something to do, and whether that is a new
    // picture; `onError` when a fetch fails: fetching then rests until `retry`. `byDepth` orders splats along the view instead of by their distance.
    // Throws ViewError when the budget cannot hold splats of as many datasets.
    constructor(
        gl: WebGL2RenderingContext,
        private readonly city: City,
        budget: number,
        worker: Worker,
        private readonly onChange: (picture: boolean) => void,
        private readonly onError: (error: unknown) => void,
        private readonly byDepth: boolean,
    ) {
        const capacity = Math.min(budget, city.count);
        const most = mostDatasets(capacity);
        if (city.datasets.length > most) {
            throw new ViewError(`At most ${most} datasets can be shown together with as many splats: choose fewer splats, or fewer datasets.`);
        }
        const dequantisers = city.datasets.map(({ dequantiser, meta }) => ({ dequantiser, harmonics: meta.coefficientSize > 0 }));
        const keepNormals = dequantisers.some(({ dequantiser, harmonics }) => harmonics && dequantiser.normal.some((axis) => axis.span !== 0));
        this.pool = new SlotPool(capacity);
        this.renderer = new Renderer(gl, capacity, dequantisers, city.shifts);
        this.fades = new Fades(city.datasets.length, most);
        this.pieces = piecesOf(city.cells);
        this.heights = city.heights.map(([low, high]) => [low, high]);
        this.figures = {
            loaded: 0,
            wanted: 0,
            drawn: 0,
            capacity,
            graphicsBytes: this.renderer.bytes,
            scriptBytes: capacity * (keepNormals ? 16 : 12),
            fetchedBytes: 0,
            uploaded: 0,
            mainMilliseconds: 0,
            sortMilliseconds: 0,
            sorts: 0,
            evicted: 0,
            cancelled: 0,
        };
        this.worker = worker;
        worker.onmessage = (event: MessageEvent<Reply>) => this.receive(event.data);
        worker.onerror = (event) => this.onError(new ViewError(`The page's worker failed: ${event.message}. Load the page again.`));
        this.send({ type: "reset", capacity, keepNormals, owners: city.owners() });
    }

    // True once everything that the view asks for is in memory, sorted and drawn.
    settled(view: View): boolean {
        return (
            this.wanted.length > 0 &&
            this.wanted.every((piece) => piece.state === "here") &&
            this.pieces.every((piece) => piece.state !== "leaving") &&
            !this.sorting &&
            !this.changed &&
            this.sortedFor === this.sortKey(view)
        );
    }

    isHere(cell: number): boolean {
        return this.hereByCell.has(cell);
    }
    private readonly hereByCell = new Map<number, number>(); // pieces that are here

    // Requests what the view needs, and drops what it no longer needs.
    update(view: View): void {
        if (this.failed || this.ended) return;
        this.view = view;
        this.scores = scoresOf(this.city.cells, this.pieces, view, this.heights);
        this.wanted = wantedPieces(this.pieces, this.scores, this.figures.capacity);
        this.figures.wanted = this.wanted.reduce((sum, piece) => sum + piece.count, 0);
        const keep = new Set(this.wanted);
        for (const piece of this.pieces) {
            if (piece.state === "coming" && !piece.cancelled && !keep.has(piece)) this.cancel(piece);
            if (piece.state === "leaving" && keep.has(piece)) this.stay(piece);
        }
        this.fetchMore(keep);
    }

    // A piece that has arrived goes at once; else the worker answers, with the piece where it is too late.
    private cancel(piece: Piece): void {
        const at = this.arrived.findIndex((one) => one.piece === piece);
        if (at >= 0) {
            this.arrived.splice(at, 1);
            this.send({ type: "remove", piece: piece.id });
            this.drop(piece);
        } else {
            piece.cancelled = true;
            this.send({ type: "cancel", piece: piece.id });
        }
    }

    // No order holds its slots.
    private drop(piece: Piece): void {
        this.pool.give(piece.runs);
        piece.runs = [];
        piece.state = "away";
        this.figures.cancelled += piece.cancelled ? 1 : 0;
        piece.cancelled = false;
    }

    // The nearest pieces first. What makes room are the farthest ones; some of it is there only after a fade.
    private fetchMore(keep: Set<Piece>): void {
        const coming = this.pieces.filter((piece) => piece.state === "coming");
        const spare = this.pieces.filter((piece) => piece.state === "here" && !keep.has(piece));
        spare.sort((a, b) => this.scores[a.id] - this.scores[b.id]);
        let soon = this.leaving.reduce((sum, { runs }) => sum + countOf(runs), 0);
        for (const piece of this.pieces) soon += piece.state === "leaving" || piece.cancelled ? piece.count : 0;
        let needed = 0; // splats of the pieces that wait for room
        for (const piece of this.wanted.filter(({ state }) => state === "away").slice(0, Math.max(0, together - coming.length))) {
            needed += piece.count;
            while (this.pool.available + soon < needed && spare.length > 0) soon += this.evict(spare.pop()!);
            if (needed > piece.count || this.pool.available < needed) continue;
            needed = 0;
            this.fetch(piece);
        }
    }

    // Gives the splats that make room: once an order without them is drawn or, when they are in the picture, after a fade.
    private evict(piece: Piece): number {
        const { owner } = this.city.cells[piece.cell];
        const seen = this.view !== undefined && !isOutside(this.city.cells[piece.cell], this.heights[owner], this.view);
        const under = seen && this.mayFade() ? this.fades.leave(piece.id, owner, this.sequence + 1, performance.now()) : undefined;
        this.count(piece, -1);
        ++this.figures.evicted;
        if (under === undefined) {
            this.release(piece);
        } else {
            piece.state = "leaving";
            this.send({ type: "show", piece: piece.id, under });
            this.urgent = true;
        }
        this.changed = true;
        this.onChange(false);
        return piece.count;
    }

    // Somebody wants it again while it fades out.
    private stay(piece: Piece): void {
        this.fades.stay(piece.id, performance.now());
        piece.state = "here";
        this.count(piece, 1);
        this.onChange(true);
    }

    // The slots stay in use until an order without them is drawn.
    private release(piece: Piece): void {
        this.send({ type: "remove", piece: piece.id });
        this.renderer.forget(piece.id);
        this.fades.drop(piece.id, this.sequence + 1);
        this.leaving.push({ runs: piece.runs, sequence: this.sequence + 1 });
        piece.runs = [];
        piece.state = "away";
    }

    // The piece is here from now on, or no longer.
    private count(piece: Piece, by: 1 | -1): void {
        this.figures.loaded += by * piece.count;
        const pieces = (this.hereByCell.get(piece.cell) ?? 0) + by;
        if (pieces > 0) this.hereByCell.set(piece.cell, pieces);
        else this.hereByCell.delete(piece.cell);
    }

    private fetch(piece: Piece): void {
        const runs = this.pool.take(piece.count);
        if (runs === undefined) throw new ViewError("The page lost count of its graphics memory. Load the page again.");
        const { owner, first } = this.city.cells[piece.cell];
        piece.state = "coming";
        piece.runs = runs;
        this.send({ type: "fetch", piece: piece.id, owner, first: first + piece.first, count: piece.count, runs });
    }

    // Puts what has arrived into the graphics memory, a little in one turn, as soon as the card has taken what came before: waiting
    // for it would keep the page from everything else.
    private upload(): void {
        if (this.ended || this.arrived.length === 0) return;
        if (!this.renderer.hasTaken()) {
            this.pause ||= window.setTimeout(() => {
                this.pause = 0;
                this.upload();
            }, this.patience);
            this.patience = Math.min(pausing.most, 2 * this.patience);
            return;
        }
        this.patience = pausing.first;
        const begin = performance.now();
        for (let left = uploading; left > 0 && this.arrived.length > 0; ) {
            const { piece, split } = this.arrived.shift()!;
            left -= piece.count;
            const { owner } = this.city.cells[piece.cell];
            this.renderer.upload(piece.id, owner, piece.runs, split);
            const under = this.mayFade() ? this.fades.begin(piece.id, owner, this.sequence + 1) : owner;
            this.send({ type: "show", piece: piece.id, under });
            piece.state = "here";
            piece.cancelled = false;
            this.count(piece, 1);
            this.figures.uploaded += piece.count;
        }
        this.renderer.endUpload();
        this.changed = true;
        if (!this.failed) this.fetchMore(new Set(this.wanted));
        this.figures.mainMilliseconds += performance.now() - begin;
        this.onChange(false);
        this.upload();
    }
    private pause = 0;
    private patience: number = pausing.first;

    // The first picture does not wait.
    private mayFade(): boolean {
        return this.figures.drawn > 0 && this.renderer.wait <= slow && !this.lessMotion.matches;
    }

    // Continues to fetch after a failure.
    retry(): void {
        this.failed = false;
        this.onChange(true);
    }

    // False while the previous picture is still being drawn.
    ready(): boolean {
        return this.renderer.ready();
    }

    // Draws; true when the picture is final as far as its colours go, and nothing fades. Besides new splats, `most` splats get the
    // colours of this eye. `whole` draws what fades as it will be.
    draw(view: View, look: Look, most: number, whole: boolean): boolean {
        const fading = this.fades.at(whole ? Infinity : performance.now());
        return this.renderer.draw(view, look, most, this.fades.values) && !fading;
    }

    private sortKey(view: View): string {
        return this.byDepth ? [...view.eye, ...view.forward].join() : view.eye.join();
    }

    // Asks for the order of this view, unless it is there or another one is being made. New pieces wait for each other a moment, but
    // for the first ones: gives the milliseconds until then, else 0.
    sort(view: View, now: number): number {
        const wantedFor = this.sortKey(view);
        const clock = performance.now();
        const urgent = this.urgent || this.fades.hasLeft(clock);
        if (this.sorting || (!this.changed && !urgent && wantedFor === this.sortedFor)) return 0;
        const more = this.pieces.some(({ state }) => state === "coming");
        const early = this.sortedAt + gathering - now;
        if (wantedFor === this.sortedFor && more && !urgent && this.figures.drawn > 0 && early > 0) return early;
        this.sorting = true;
        this.changed = this.urgent = false;
        this.sortedFor = wantedFor;
        this.sortedAt = now;
        const order = this.order;
        this.order = undefined;
        const along = this.byDepth ? view.forward : undefined;
        this.finishFades(clock);
        ++this.sequence;
        this.send({ type: "sort", sequence: this.sequence, eye: view.eye, along, order }, order === undefined ? [] : [order]);
        return 0;
    }

    private finishFades(now: number): void {
        for (const { piece: id, leaves } of this.fades.finish(this.sequence + 1, now)) {
            const piece = this.pieces[id];
            if (leaves) this.release(piece);
            else this.send({ type: "show", piece: id, under: this.city.cells[piece.cell].owner });
        }
    }

    private receive(reply: Reply): void {
        if (this.ended) return;
        switch (reply.type) {
            case "fetched":
                this.fetched(this.pieces[reply.piece], reply.split, reply.box);
                this.figures.fetchedBytes = reply.bytes;
                break;
            case "dropped":
                this.drop(this.pieces[reply.piece]);
                if (!this.failed) this.fetchMore(new Set(this.wanted));
                this.onChange(false);
                break;
            case "failed":
                this.drop(this.pieces[reply.piece]);
                if (!this.failed) this.onError(reply.known ? new ViewError(reply.text) : new Error(reply.text));
                this.failed = true;
                break;
            case "sorted":
                this.sorted(reply.order, reply.count, reply.sequence);
                this.figures.sortMilliseconds = reply.milliseconds;
                ++this.figures.sorts;
                break;
            default:
                this.waiting.get(reply.token)?.(reply);
                this.waiting.delete(reply.token);
        }
    }

    private fetched(piece: Piece, split: Split, box: Box): void {
        const heights = this.heights[this.city.cells[piece.cell].owner];
        heights[0] = Math.min(heights[0], box.min[2]);
        heights[1] = Math.max(heights[1], box.max[2]);
        this.arrived.push({ piece, split });
        this.upload();
    }

    private sorted(order: ArrayBuffer, count: number, sequence: number): void {
        const begin = performance.now();
        this.sorting = false;
        this.renderer.setOrder(new Uint32Array(order), count);
        this.figures.drawn = count;
        // Nothing is drawn any more when the last piece has left, so that somebody has to ask for the order without it.
        if (this.fades.drawn(sequence, begin)) window.setTimeout(() => this.ended || this.onChange(true), fadeTime + 20);
        this.order = order;
        while (this.leaving.length > 0 && this.leaving[0].sequence <= sequence) this.pool.give(this.leaving.shift()!.runs);
        if (!this.failed) this.fetchMore(new Set(this.wanted));
        this.figures.mainMilliseconds += performance.now() - begin;
        this.onChange(true);
    }

    // The splat under the pointer, as its dataset states it.
    async pick(ray: Ray): Promise<Picked | undefined> {
        const reply = await this.ask((token) => ({ type: "pick", token, ray }));
        if (reply.type !== "picked" || reply.hit === undefined) return undefined;
        const { piece: id, slot, normals } = reply.hit;
        const piece = this.pieces[id];
        if (piece.state !== "here") return undefined;
        const cell = this.city.cells[piece.cell];
        const { dequantiser, meta } = this.city.datasets[cell.owner];
        const { record, coefficients } = this.renderer.readBack(slot, meta.coefficientSize > 0);
        const view = new DataView(record);
        if (coefficients !== undefined) view.setUint32(recordSize - 4, normals ?? 0, true);
        const number = piece.first + reply.hit.number;
        const splat = dequantiser.splat(view, coefficients && new DataView(coefficients));
        return { owner: cell.owner, cellKey: cell.key, number, record: cell.first + number, splat };
    }

    // The view that the splats that are here ask for. `ground` is what the whole covers, where the cells tell.
    async frame(ground: Ground | undefined): Promise<Pose | undefined> {
        const reply = await this.ask((token) => ({ type: "frame", token, ground }));
        return reply.type === "framed" ? reply.pose : undefined;
    }

    private ask(request: (token: number) => Request): Promise<Reply> {
        const token = ++this.token;
        return new Promise((resolve) => {
            this.waiting.set(token, resolve);
            this.send(request(token));
        });
    }

    private send(request: Request, transfer: Transferable[] = []): void {
        this.worker.postMessage(request, transfer);
    }

    // Ends fetches and the worker, and frees the memory.
    end(): void {
        this.ended = true;
        this.worker.terminate();
        this.renderer.free();
    }
}

function countOf(runs: readonly Run[]): number {
    return runs.reduce((sum, run) => sum + run.count, 0);
}
