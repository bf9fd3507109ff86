// Fetches records in the worker, splits them for the textures, and hands them over without a copy.
import { Dequantiser } from "./dequantiser.ts";
import { type Triple, ViewError } from "./format.ts";
import type { Owner, Reply, Request } from "./messages.ts";
import type { Meta } from "./meta.ts";
import { recordsOf, split } from "./records.ts";
import type { Sampler } from "./sample.ts";
import type { Sorter } from "./sorting.ts";
import { type Source, isAbort, sourceOf } from "./sources.ts";

type Fetch = Extract<Request, { type: "fetch" }>;

interface Opened {
    source: Source;
    meta: Meta;
    dequantiser: Dequantiser;
    shift: Triple;
}

export class Loader {
    private readonly opened: Opened[];
    private readonly under = new Map<number, AbortController>(); // pieces that are being fetched

    constructor(
        owners: Owner[],
        private readonly sorter: Sorter,
        private readonly sampler: Sampler,
    ) {
        this.opened = owners.map(({ source, meta, shift }) => ({ source: sourceOf(source), meta, dequantiser: new Dequantiser(meta), shift }));
    }

    // The sorter and the sampler know the piece before the reply leaves. Throws nothing.
    async fetch({ piece, owner: number, first, count, runs }: Fetch): Promise<{ reply: Reply; transfer: Transferable[] }> {
        const opened = this.opened[number];
        const abort = new AbortController();
        this.under.set(piece, abort);
        try {
            const records = await recordsOf(opened, first, count, abort.signal);
            if (abort.signal.aborted) return { reply: { type: "dropped", piece }, transfer: [] };
            const box = this.sorter.add(piece, opened.shift, runs, records.data);
            this.sampler.add(piece, opened.dequantiser, opened.shift, records.data);
            const parts = split(records);
            const transfer = [parts.first, parts.second, ...(parts.harmonics === undefined ? [] : [parts.harmonics])];
            return { reply: { type: "fetched", piece, split: parts, box, bytes: this.fetched() }, transfer };
        } catch (error) {
            const wanted = !abort.signal.aborted;
            abort.abort(); // the other one of two files is still being fetched
            if (!wanted || isAbort(error)) return { reply: { type: "dropped", piece }, transfer: [] };
            const text = error instanceof Error ? error.message : String(error);
            return { reply: { type: "failed", piece, text, known: error instanceof ViewError }, transfer: [] };
        } finally {
            this.under.delete(piece);
        }
    }

    // Bytes fetched so far.
    private fetched(): number {
        return this.opened.reduce((sum, { source }) => sum + source.fetched, 0);
    }

    cancel(piece: number): void {
        this.under.get(piece)?.abort();
    }
}
