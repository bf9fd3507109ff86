// Pieces that come while one looks fade in: whole houses would appear at once. A piece that fades is drawn under a number of its
// own, above those of the datasets; once it is there as a whole, orders name it by its dataset again.

export const mostFading = 64; // pieces at a time
const duration = 400; // milliseconds
// A surface is many splats deep: ten of a quarter of the opacity already hide what is behind them. The power keeps the first half of
// the time from doing all of it.
const power = 4;

interface Fade {
    row: number;
    sequence: number; // of the first order that holds the piece
    begin: number | undefined; // when that was drawn, in milliseconds
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
        const row = this.free.pop();
        if (row === undefined) return owner;
        this.values.set([owner, 0], 2 * row);
        this.fades.set(piece, { row, sequence, begin: undefined });
        return this.first + row;
    }

    // The order `sequence` is drawn from now on.
    drawn(sequence: number, now: number): void {
        for (const fade of this.fades.values()) {
            if (fade.begin === undefined && fade.sequence <= sequence) fade.begin = now;
        }
        while (this.left.length > 0 && this.left[0].sequence <= sequence) this.free.push(this.left.shift()!.row);
    }

    // Sets the values for a moment. False when nothing fades any more.
    at(now: number): boolean {
        let fading = false;
        for (const { row, begin } of this.fades.values()) {
            const time = begin === undefined ? 0 : Math.min(1, (now - begin) / duration);
            this.values[2 * row + 1] = time ** power;
            fading ||= begin !== undefined && time < 1;
        }
        return fading;
    }

    // The pieces that are there as a whole: orders from `sequence` on name them by their datasets.
    finish(sequence: number, now: number): number[] {
        const done = [...this.fades].filter(([, { begin }]) => begin !== undefined && now - begin >= duration);
        for (const [piece, { row }] of done) {
            this.values[2 * row + 1] = 1; // the order of this moment is drawn a little longer
            this.drop(piece, sequence);
        }
        return done.map(([piece]) => piece);
    }

    // Orders from `sequence` on do not name the piece's row.
    drop(piece: number, sequence: number): void {
        const fade = this.fades.get(piece);
        if (fade === undefined) return;
        this.fades.delete(piece);
        this.left.push({ row: fade.row, sequence });
    }
}
