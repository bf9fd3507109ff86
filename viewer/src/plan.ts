// Chooses the pieces that should be in memory for a view. A piece is a cell, or a part of a large one: the unit of fetching.
import { type View, dot, minus } from "./camera.ts";
import type { Ground } from "./city.ts";
import type { Triple } from "./format.ts";
import type { Run } from "./slots.ts";

export interface Piece {
    id: number;
    cell: number;
    first: number; // number of its first splat in the cell
    count: number;
    state: "away" | "coming" | "here" | "leaving"; // leaving: it fades out, and will be away
    cancelled: boolean; // while it is fetched: no longer wanted
    runs: Run[]; // but while away
}

const pieceSize = 32768; // splats: 3 MB with coefficients

export function piecesOf(cells: readonly Ground[]): Piece[] {
    const pieces: Piece[] = [];
    cells.forEach((cell, index) => {
        for (let first = 0; first < cell.count; first += pieceSize) {
            const count = Math.min(pieceSize, cell.count - first);
            pieces.push({ id: pieces.length, cell: index, first, count, state: "away", cancelled: false, runs: [] });
        }
    });
    return pieces;
}

// Pieces in memory or under way count as nearer than they are, so that two cells at one distance do not take turns.
const loyalty = 0.85 ** 2;
// Pieces outside the picture count as twice as far.
const outside = 2 ** 2;

// Whether a cell, with these heights, is wholly beside the picture or behind the eye.
export function isOutside(cell: Ground, [low, high]: readonly [number, number], view: View): boolean {
    const min: Triple = [cell.min[0], cell.min[1], low];
    const max: Triple = [cell.max[0], cell.max[1], high];
    const radius = 0.5 * Math.hypot(...minus(max, min));
    const centre = minus([(min[0] + max[0]) / 2, (min[1] + max[1]) / 2, (low + high) / 2], view.eye);
    const depth = dot(centre, view.forward);
    const beside = (direction: Triple, pixels: number): boolean => {
        const tangent = (0.5 * pixels) / view.focal;
        return (Math.abs(dot(centre, direction)) - tangent * depth) / Math.hypot(1, tangent) > radius;
    };
    return depth < -radius || beside(view.right, view.width) || beside(view.up, view.height);
}

function score(cell: Ground, heights: readonly [number, number], view: View): number {
    const min: Triple = [cell.min[0], cell.min[1], heights[0]];
    const max: Triple = [cell.max[0], cell.max[1], heights[1]];
    let squares = 0;
    for (let i = 0; i < 3; ++i) squares += Math.max(min[i] - view.eye[i], 0, view.eye[i] - max[i]) ** 2;
    return isOutside(cell, heights, view) ? squares * outside : squares;
}

// How far the pieces count as away from a view. `heights` bound the splats of each dataset.
export function scoresOf(
    cells: readonly Ground[],
    pieces: readonly Piece[],
    view: View,
    heights: readonly (readonly [number, number])[],
): Float64Array {
    const cellScores = cells.map((cell) => score(cell, heights[cell.owner], view));
    return Float64Array.from(pieces, (piece) => cellScores[piece.cell] * (piece.state === "away" ? 1 : loyalty));
}

// The pieces with the least scores, the nearest first, as many as `capacity` splats allow.
export function wantedPieces(pieces: readonly Piece[], scores: Float64Array, capacity: number): Piece[] {
    const order = Uint32Array.from(pieces.keys()).sort((a, b) => scores[a] - scores[b] || a - b);
    const wanted: Piece[] = [];
    let left = capacity;
    for (const index of order) {
        const piece = pieces[index];
        if (piece.count > left) break;
        left -= piece.count;
        wanted.push(piece);
    }
    return wanted;
}
