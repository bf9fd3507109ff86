// Pieces that come while one looks fade in, and pieces that make room fade out: whole houses would appear and vanish. A piece that
// fades is drawn under a number of its own, above those of the datasets; once it is there as a whole, orders name it by its dataset.

export const mostFading = 64; // pieces at a time
export const fadeTime = 400; // milliseconds
// A surface is many splats deep: ten of a quarter of the opacity already hide what is behind them. The power keeps the first half of
// the time, or the last when it leaves, from doing all of it.
const power = 4;

interface Fade {
    row: number;
    sequence: number; // of the first order that names the row
    begin: number | undefined; // when that was drawn, in milliseconds
    leaves: boolean;
}

export class Fades {
    // For each row the piece's dataset, and how much of its opacity is there.
    readonly values: Float32Array;
    private readonly free: number[];
    private readonly fades = new Map<number, Fade>(); // by piece
    private readonly left: { row: number; sequence: number }[] = []; // rows that are free once this order is drawn

    // `first` is the number that row 0 is drawn under, `most` how many numbers there are.
    constructor(
        private readonly first: number,
        most: number,
    ) {
        const rows = Math.min(mostFading, Math.max(0, most - first));
        this.values = new Float32Array(2 * mostFading);
        this.free = Array.from({ length: rows }, (_, i) => rows - 1 - i);
    }

    // The piece is in the orders from `sequence` on. Gives the number that it is drawn under: its dataset's when no row is free.
    begin(piece: number, owner: number, sequence: number): number {
        return this.take(piece, owner, sequence, false) ?? owner;
    }

    // The piece is to leave; the orders from `sequence` on name it by the number that this gives. Undefined when it cannot fade:
    // no row is free, or nothing of it has been drawn.
    leave(piece: number, owner: number, sequence: number, now: number): number | undefined {
        const fade = this.fades.get(piece);
        if (fade === undefined) return this.take(piece, owner, sequence, true);
        if (fade.begin === undefined) return undefined;
        turn(fade, fade.begin, now);
        return this.first + fade.row;
    }

    // A piece that leaves is to stay.
    stay(piece: number, now: number): void {
        const fade = this.fades.get(piece);
        if (fade?.leaves === true) turn(fade, fade.begin ?? now, now);
    }

    private take(piece: number, owner: number, sequence: number, leaves: boolean): number | undefined {
        const row = this.free.pop();
        if (row === undefined) return undefined;
        this.values.set([owner, leaves ? 1 : 0], 2 * row);
        this.fades.set(piece, { row, sequence, begin: undefined, leaves });
        return this.first + row;
    }

    // The order `sequence` is drawn from now on. True when something in it leaves.
    drawn(sequence: number, now: number): boolean {
        let leaves = false;
        for (const fade of this.fades.values()) {
            if (fade.sequence > sequence) continue;
            fade.begin ??= now;
            leaves ||= fade.leaves;
        }
        while (this.left.length > 0 && this.left[0].sequence <= sequence) this.free.push(this.left.shift()!.row);
        return leaves;
    }

    // Sets the values for a moment. False when nothing fades any more.
    at(now: number): boolean {
        let fading = false;
        for (const { row, begin, leaves } of this.fades.values()) {
            const time = begin === undefined ? 0 : doneOf(begin, now);
            this.values[2 * row + 1] = (leaves ? 1 - time : time) ** power;
            fading ||= begin !== undefined && time < 1;
        }
        return fading;
    }

    // True when a piece that leaves is no longer to be seen.
    hasLeft(now: number): boolean {
        return [...this.fades.values()].some((fade) => fade.leaves && isOver(fade, now));
    }

    // The pieces whose fade is over, and whether they leave: orders from `sequence` on do not name their rows.
    finish(sequence: number, now: number): { piece: number; leaves: boolean }[] {
        const over = [...this.fades].filter(([, fade]) => isOver(fade, now));
        return over.map(([piece, { row, leaves }]) => {
            this.values[2 * row + 1] = leaves ? 0 : 1; // the order of this moment is drawn a little longer
            this.drop(piece, sequence);
            return { piece, leaves };
        });
    }

    // Orders from `sequence` on do not name the piece's row.
    drop(piece: number, sequence: number): void {
        const fade = this.fades.get(piece);
        if (fade === undefined) return;
        this.fades.delete(piece);
        this.left.push({ row: fade.row, sequence });
    }
}

const doneOf = (begin: number, now: number): number => Math.min(1, (now - begin) / fadeTime);
const isOver = ({ begin }: Fade, now: number): boolean => begin !== undefined && now - begin >= fadeTime;

// From in to out, or back, with the opacity of this moment.
function turn(fade: Fade, begin: number, now: number): void {
    fade.begin = now - fadeTime * (1 - doneOf(begin, now));
    fade.leaves = !fade.leaves;
}
