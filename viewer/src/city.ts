// The datasets that are shown together. Their positions are moved to one map, whose origin is the offset of the first one.
import { Dataset } from "./dataset.ts";
import { type Triple, ViewError } from "./format.ts";
import type { Box, Owner } from "./messages.ts";
import { type Cell, isOneCell } from "./meta.ts";
import type { Source } from "./sources.ts";

const together = 6; // datasets that are opened at a time

// A cell of the map.
export interface Ground extends Cell {
    owner: number; // which dataset it belongs to
}

// A source, and the box of its splats in world coordinates, if known.
export interface Entry {
    source: Source;
    box: Box | undefined;
}

export class City {
    readonly origin: Triple; // of the map, in world coordinates
    readonly shifts: Triple[]; // from each dataset's positions to the map's
    readonly heights: [number, number][]; // of each dataset's splats, on the map
    readonly cells: Ground[];
    readonly count: number; // splats of all datasets

    // `boxes` has the box of each dataset's splats, if known. Throws ViewError when there can be no common map.
    constructor(
        readonly datasets: readonly Dataset[],
        boxes: readonly (Box | undefined)[],
    ) {
        this.origin = datasets[0].meta.offset;
        const shifts = datasets.map(({ meta }, i) => (i === 0 ? [0, 0, 0] : this.fromWorld(meta.offset)) as Triple);
        const lost = shifts.findIndex((shift) => !shift.every(Number.isFinite));
        if (lost >= 0) throw new ViewError(`${datasets[lost].source.name}: its offset is no number: it has no place on a map.`);
        this.shifts = shifts;
        const onMap = boxes.map((box) => box && { min: this.fromWorld(box.min), max: this.fromWorld(box.max) });
        this.heights = datasets.map(({ meta }, i) => heightsOf(onMap[i] ?? moved(meta.box, shifts[i])));
        this.cells = datasets.flatMap((dataset, owner) => dataset.cells.map((cell) => groundOf(cell, dataset, owner, shifts[owner], onMap[owner])));
        this.count = datasets.reduce((sum, dataset) => sum + dataset.count, 0);
    }

    // Opens all datasets, a few at a time. `progress` gets the number of open ones. Throws ViewError.
    static async open(entries: readonly Entry[], progress: (opened: number) => void): Promise<City> {
        const datasets = new Array<Dataset>(entries.length);
        let next = 0;
        let opened = 0;
        const work = async (): Promise<void> => {
            while (next < entries.length) {
                const number = next++;
                datasets[number] = await Dataset.open(entries[number].source);
                progress(++opened);
            }
        };
        try {
            await Promise.all(Array.from({ length: together }, work));
        } catch (error) {
            next = entries.length;
            throw error;
        }
        return new City(datasets, entries.map(({ box }) => box));
    }

    get isOne(): boolean {
        return this.datasets.length === 1;
    }

    get name(): string {
        const { name } = this.datasets[0].source;
        return this.isOne ? name : `${name} and ${this.datasets.length - 1} more`;
    }

    owners(): Owner[] {
        return this.datasets.map(({ source, meta }, i) => ({ source: source.description(), meta, shift: this.shifts[i] }));
    }

    fromWorld(place: readonly number[]): Triple {
        return place.map((value, i) => value - this.origin[i]) as Triple;
    }

    // The dataset at a place on the map: that of the cell there, else that of the nearest cell.
    ownerAt(x: number, y: number): number {
        const distance = ({ min, max }: Ground): number => {
            const [dx, dy] = [Math.max(min[0] - x, 0, x - max[0]), Math.max(min[1] - y, 0, y - max[1])];
            return dx * dx + dy * dy;
        };
        let best = Infinity;
        let owner = 0;
        for (const cell of this.cells) {
            const squares = distance(cell);
            if (squares >= best) continue;
            best = squares;
            owner = cell.owner;
        }
        return owner;
    }
}

function moved({ min, max }: Box, shift: Triple): Box {
    return { min: min.map((v, i) => v + shift[i]) as Triple, max: max.map((v, i) => v + shift[i]) as Triple };
}

function heightsOf({ min, max }: Box): [number, number] {
    return Number.isFinite(min[2]) && Number.isFinite(max[2]) ? [min[2], max[2]] : [0, 0];
}

// A dataset of one cell says with its box where that lies. A box that is known from elsewhere is that of its splats alone.
function groundOf(cell: Cell, { meta }: Dataset, owner: number, [dx, dy]: Triple, box: Box | undefined): Ground {
    if (isOneCell(meta) && box !== undefined) {
        return { ...cell, owner, min: [box.min[0], box.min[1]], max: [box.max[0], box.max[1]] };
    }
    return { ...cell, owner, min: [cell.min[0] + dx, cell.min[1] + dy], max: [cell.max[0] + dx, cell.max[1] + dy] };
}
