// Keeps track of the slots of the graphics memory. A slot holds one splat. A piece gets runs of slots and gives them back, so that
// a flight allocates nothing and no slot is lost to rounding.

export interface Run {
    start: number;
    count: number;
}

export class SlotPool {
    private readonly free: Run[]; // sorted by start; no two are adjacent
    private left: number;

    constructor(readonly capacity: number) {
        this.free = [{ start: 0, count: capacity }];
        this.left = capacity;
    }

    get available(): number {
        return this.left;
    }

    // Runs with `count` slots in all; nothing if there are not enough.
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

    // Joins free[at] and the next run if they are adjacent.
    private join(at: number): void {
        const run = this.free[at];
        const next = this.free[at + 1];
        if (run === undefined || next === undefined || run.start + run.count !== next.start) return;
        run.count += next.count;
        this.free.splice(at + 1, 1);
    }
}

// One word names a drawn splat: its slot in the lower bits, above them the number of its dataset.
export function slotBits(capacity: number): number {
    return 32 - Math.clz32(Math.max(1, capacity - 1));
}

export function mostDatasets(capacity: number): number {
    return 2 ** (32 - slotBits(capacity));
}

// The order of slots in a texture array: along the columns of a row, then row by row, then layer by layer.
export interface Shape {
    columns: number;
    rows: number;
    layers: number;
}

// The shape that wastes the fewest slots.
export function shapeFor(capacity: number, mostColumns: number, mostRows: number): Shape {
    const layers = Math.ceil(capacity / (mostRows * mostColumns));
    const each = Math.ceil(capacity / layers);
    let best = { columns: Math.min(mostColumns, each), waste: Infinity };
    for (let columns = best.columns; columns >= Math.max(1, mostColumns >> 1) && best.waste > 0; --columns) {
        const rows = Math.ceil(each / columns);
        const waste = columns * rows - each;
        if (rows <= mostRows && waste < best.waste) best = { columns, waste };
    }
    return { columns: best.columns, rows: Math.ceil(each / best.columns), layers };
}

export interface Block {
    layer: number;
    column: number;
    row: number;
    columns: number; // how many of them
    rows: number;
    first: number; // how many slots of the run lie before
}

// A run as rectangles: what is left of a row, whole rows, and the begin of a last one.
export function blocksOf(run: Run, { columns, rows }: Shape): Block[] {
    const blocks: Block[] = [];
    for (let done = 0; done < run.count; ) {
        const slot = run.start + done;
        const left = run.count - done;
        const [column, line] = [slot % columns, Math.floor(slot / columns)];
        const [row, layer] = [line % rows, Math.floor(line / rows)];
        const whole = column === 0 && left >= columns;
        const width = whole ? columns : Math.min(columns - column, left);
        const height = whole ? Math.min(rows - row, Math.floor(left / columns)) : 1;
        blocks.push({ layer, column, row, columns: width, rows: height, first: done });
        done += width * height;
    }
    return blocks;
}
