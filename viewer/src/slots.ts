// Which places of the graphics memory are taken. A place ("slot") holds one splat; a piece gets runs of slots and gives them
// back, so that nothing is allocated anew while one flies and no slot is lost to rounding.

export interface Run {
    start: number;
    count: number;
}

export class SlotPool {
    private readonly free: Run[]; // by start, never touching each other
    private left: number;

    constructor(readonly capacity: number) {
        this.free = [{ start: 0, count: capacity }];
        this.left = capacity;
    }

    get available(): number {
        return this.left;
    }

    // Runs of `count` slots together, or nothing when there are not as many.
    take(count: number): Run[] | undefined {
        if (count > this.left) return undefined;
        this.left -= count;
        const runs: Run[] = [];
        for (let wanted = count; wanted > 0; ) {
            const first = this.free[0];
            const taken = Math.min(first.count, wanted);
            runs.push({ start: first.start, count: taken });
            wanted -= taken;
            first.start += taken;
            first.count -= taken;
            if (first.count === 0) this.free.shift();
        }
        return runs;
    }

    give(runs: readonly Run[]): void {
        for (const run of runs) {
            this.left += run.count;
            let at = this.free.findIndex((other) => other.start > run.start);
            if (at < 0) at = this.free.length;
            this.free.splice(at, 0, { ...run });
            this.join(at);
            this.join(at - 1);
        }
    }

    // Makes one run of free[at] and the next, where they touch.
    private join(at: number): void {
        const run = this.free[at];
        const next = this.free[at + 1];
        if (run === undefined || next === undefined || run.start + run.count !== next.start) return;
        run.count += next.count;
        this.free.splice(at + 1, 1);
    }
}

// How slots lie in a texture array: down the rows of a column, then column by column, then layer by layer. Columns, since the
// upload of a run then picks a part of every record by its row length.
export interface Shape {
    rows: number;
    columns: number;
    layers: number;
}

// The shape that wastes the fewest slots.
export function shapeFor(capacity: number, mostRows: number, mostColumns: number): Shape {
    const layers = Math.ceil(capacity / (mostRows * mostColumns));
    const each = Math.ceil(capacity / layers);
    let best = { rows: Math.min(mostRows, each), waste: Infinity };
    for (let rows = best.rows; rows >= Math.max(1, mostRows >> 1) && best.waste > 0; --rows) {
        const columns = Math.ceil(each / rows);
        const waste = columns * rows - each;
        if (columns <= mostColumns && waste < best.waste) best = { rows, waste };
    }
    return { rows: best.rows, columns: Math.ceil(each / best.rows), layers };
}

export interface Block {
    layer: number;
    column: number;
    row: number;
    count: number; // rows
    first: number; // how many slots of the run lie before
}

// A run cut where a column ends.
export function blocksOf(run: Run, shape: Shape): Block[] {
    const blocks: Block[] = [];
    for (let done = 0; done < run.count; ) {
        const slot = run.start + done;
        const row = slot % shape.rows;
        const column = Math.floor(slot / shape.rows);
        const count = Math.min(shape.rows - row, run.count - done);
        const layer = Math.floor(column / shape.columns);
        blocks.push({ layer, column: column % shape.columns, row, count, first: done });
        done += count;
    }
    return blocks;
}
