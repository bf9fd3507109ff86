// A dataset on its way to the screen: fetches what the view needs, hands it to the graphics memory and to the worker, and draws.
import type { View } from "./camera.ts";
import type { Dataset, Splat } from "./dataset.ts";
import { type Triple, ViewError, recordSize } from "./format.ts";
import { type Piece, piecesOf, wantedPieces } from "./plan.ts";
import { type Look, Renderer } from "./renderer.ts";
import { SlotPool } from "./slots.ts";
import type { Ray, Reply, Request } from "./sorting.ts";
import { isAbort } from "./sources.ts";
import type { Run } from "./slots.ts";

const together = 4; // fetches under way at a time

export interface Figures {
    loaded: number; // splats here
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
    private wanted: Piece[] = [];
    private heights: [number, number];
    private order: ArrayBuffer | undefined;
    private sorting = false;
    private sequence = 0;
    private sortedFor = "";
    private changed = false; // pieces came or went since the last sort was asked for
    private readonly leaving: { runs: Run[]; sequence: number }[] = [];
    private readonly waiting = new Map<number, (reply: Reply) => void>();
    private token = 0;
    private failed = false;
    private ended = false;

    // `worker` is the scene's own: it ends with it. `onChange` is told when there is something new to draw, `onError` when a
    // fetch fails; fetching then rests until `retry`. `byDepth` orders splats along the view instead of by their distance.
    constructor(
        gl: WebGL2RenderingContext,
        private readonly dataset: Dataset,
        budget: number,
        worker: Worker,
        private readonly onChange: () => void,
        private readonly onError: (error: unknown) => void,
        private readonly byDepth: boolean,
    ) {
        const capacity = Math.min(budget, dataset.count);
        const { meta, dequantiser } = dataset;
        const harmonics = meta.coefficientSize > 0;
        this.pool = new SlotPool(capacity);
        this.renderer = new Renderer(gl, capacity, harmonics, dequantiser);
        this.pieces = piecesOf(dataset.cells);
        const { min, max } = meta.box;
        this.heights = Number.isFinite(min[2]) && Number.isFinite(max[2]) ? [min[2], max[2]] : [0, 0];
        const keepNormals = harmonics && dequantiser.normal.some((axis) => axis.span !== 0);
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
        this.send({ type: "reset", capacity, keepNormals });
    }

    // True once everything that the view asks for is here, sorted and on the screen's way.
    settled(view: View): boolean {
        return (
            this.wanted.length > 0 &&
            this.wanted.every((piece) => piece.state === "here") &&
            !this.sorting &&
            !this.changed &&
            this.sortedFor === this.sortKey(view)
        );
    }

    isHere(cell: number): boolean {
        return this.hereByCell.has(cell);
    }
    private readonly hereByCell = new Map<number, number>(); // pieces that are here

    // Asks for what the view needs, and lets go of what it no longer does.
    update(view: View): void {
        if (this.failed || this.ended) return;
        this.wanted = wantedPieces(this.dataset.cells, this.pieces, view, this.figures.capacity, this.heights);
        this.figures.wanted = this.wanted.reduce((sum, piece) => sum + piece.count, 0);
        const keep = new Set(this.wanted);
        for (const piece of this.pieces) {
            if (piece.state === "coming" && !keep.has(piece)) this.cancel(piece);
        }
        this.fetchMore(keep);
    }

    private cancel(piece: Piece): void {
        piece.abort?.abort();
        piece.abort = undefined;
        piece.state = "away";
        ++this.figures.cancelled;
    }

    private fetchMore(keep: Set<Piece>): void {
        const coming = this.pieces.filter((piece) => piece.state === "coming");
        const spare = this.pieces.filter((piece) => piece.state === "here" && !keep.has(piece));
        let free = this.pool.available - coming.reduce((sum, piece) => sum + piece.count, 0);
        let soon = this.leaving.reduce((sum, { runs }) => sum + countOf(runs), 0);
        let under = coming.length;
        for (const piece of this.wanted) {
            if (piece.state !== "away") continue;
            if (under >= together) return;
            while (free + soon < piece.count && spare.length > 0) soon += this.evict(spare.pop()!);
            if (free < piece.count) return; // the next order frees the rest
            free -= piece.count;
            ++under;
            void this.fetch(piece);
        }
    }

    // The slots stay taken until an order without them is drawn.
    private evict(piece: Piece): number {
        this.send({ type: "remove", piece: piece.id });
        this.leaving.push({ runs: piece.runs, sequence: this.sequence + 1 });
        piece.runs = [];
        piece.state = "away";
        this.figures.loaded -= piece.count;
        ++this.figures.evicted;
        const left = (this.hereByCell.get(piece.cell) ?? 1) - 1;
        if (left > 0) this.hereByCell.set(piece.cell, left);
        else this.hereByCell.delete(piece.cell);
        this.changed = true;
        this.onChange();
        return piece.count;
    }

    private async fetch(piece: Piece): Promise<void> {
        const abort = new AbortController();
        piece.state = "coming";
        piece.abort = abort;
        try {
            const first = this.dataset.cells[piece.cell].first + piece.first;
            const { data, coefficients } = await this.dataset.records(first, piece.count, abort.signal);
            if (!abort.signal.aborted) this.take(piece, data, coefficients);
        } catch (error) {
            if (isAbort(error) || abort.signal.aborted) return;
            piece.state = "away";
            abort.abort(); // of two files the other one is still being fetched
            if (!this.failed) {
                this.failed = true;
                this.onError(error);
            }
        }
    }

    private take(piece: Piece, data: ArrayBuffer, coefficients: ArrayBuffer | undefined): void {
        const begin = performance.now();
        const runs = this.pool.take(piece.count);
        if (runs === undefined) throw new ViewError("The page lost count of its graphics memory. Load the page again.");
        this.renderer.upload(runs, data, coefficients);
        this.send({ type: "add", piece: piece.id, runs, records: data }, [data]);
        piece.state = "here";
        piece.abort = undefined;
        piece.runs = runs;
        this.hereByCell.set(piece.cell, (this.hereByCell.get(piece.cell) ?? 0) + 1);
        this.figures.loaded += piece.count;
        this.figures.uploaded += piece.count;
        this.figures.mainMilliseconds += performance.now() - begin;
        this.figures.fetchedBytes = this.dataset.source.fetched;
        this.changed = true;
        this.fetchMore(new Set(this.wanted));
        this.onChange();
    }

    // Fetching goes on after a failure.
    retry(): void {
        this.failed = false;
        this.onChange();
    }

    // False while the picture before is still being drawn.
    ready(): boolean {
        return this.renderer.ready();
    }

    // Draws; true when the picture is final as far as its colours go.
    draw(view: View, look: Look, layers: number): boolean {
        return this.renderer.draw(view, look, layers);
    }

    private sortKey(view: View): string {
        return this.byDepth ? [...view.eye, ...view.forward].join() : view.eye.join();
    }

    // Asks for the order of this view, unless it is there or another one is being made.
    sort(view: View): void {
        const wantedFor = this.sortKey(view);
        if (this.sorting || (!this.changed && wantedFor === this.sortedFor)) return;
        this.sorting = true;
        this.changed = false;
        this.sortedFor = wantedFor;
        const order = this.order;
        this.order = undefined;
        const along = this.byDepth ? view.forward : undefined;
        this.send({ type: "sort", sequence: ++this.sequence, eye: view.eye, along, order }, order === undefined ? [] : [order]);
    }

    private receive(reply: Reply): void {
        if (this.ended) return;
        switch (reply.type) {
            case "added":
                this.widen(reply.min[2], reply.max[2]);
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

    private widen(low: number, high: number): void {
        this.heights = [Math.min(this.heights[0], low), Math.max(this.heights[1], high)];
    }

    private sorted(order: ArrayBuffer, count: number, sequence: number): void {
        const begin = performance.now();
        this.sorting = false;
        this.renderer.setOrder(new Uint32Array(order), count);
        this.figures.drawn = count;
        this.order = order;
        while (this.leaving.length > 0 && this.leaving[0].sequence <= sequence) this.pool.give(this.leaving.shift()!.runs);
        if (!this.failed) this.fetchMore(new Set(this.wanted));
        this.figures.mainMilliseconds += performance.now() - begin;
        this.onChange();
    }

    // The splat under the pointer, as the dataset has it.
    async pick(ray: Ray): Promise<Picked | undefined> {
        const reply = await this.ask((token) => ({ type: "pick", token, ray }));
        if (reply.type !== "picked" || reply.hit === undefined) return undefined;
        const { piece: id, slot, normals } = reply.hit;
        const piece = this.pieces[id];
        if (piece.state !== "here") return undefined;
        const { record, coefficients } = this.renderer.readBack(slot);
        const view = new DataView(record);
        if (coefficients !== undefined) view.setUint32(recordSize - 4, normals ?? 0, true);
        const cell = this.dataset.cells[piece.cell];
        const number = piece.first + reply.hit.number;
        const splat = this.dataset.dequantiser.splat(view, coefficients && new DataView(coefficients));
        return { cellKey: cell.key, number, record: cell.first + number, splat };
    }

    // The box of the splats that are here, but for a few that fly far outside.
    async frame(): Promise<{ min: Triple; max: Triple } | undefined> {
        const reply = await this.ask((token) => ({ type: "frame", token }));
        return reply.type === "framed" ? reply.box : undefined;
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

    // Ends fetches and the worker, and gives the memory back.
    end(): void {
        this.ended = true;
        for (const piece of this.pieces) piece.abort?.abort();
        this.worker.terminate();
        this.renderer.free();
    }
}

function countOf(runs: readonly Run[]): number {
    return runs.reduce((sum, run) => sum + run.count, 0);
}
