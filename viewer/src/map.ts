// The ground plan: the density of every cell, the camera, and a scale bar. A click flies there.
import type { View } from "./camera.ts";
import type { Ground } from "./city.ts";
import type { Triple } from "./format.ts";

export interface Pointed {
    x: number; // on the ground, scene units
    y: number;
    cell: Ground | undefined;
}

interface Fit {
    left: number; // scene units at the canvas's corner
    top: number;
    scale: number; // pixels a unit
}

const longestSide = 8192;

export class GroundMap {
    private plan: HTMLCanvasElement | undefined; // the cells, drawn once
    private readonly min: [number, number];
    private readonly max: [number, number];
    private readonly densest: number;

    // `isHere` tells whether splats of the cell with this number are in memory.
    constructor(
        private readonly canvas: HTMLCanvasElement,
        private readonly cells: readonly Ground[],
        private readonly isHere: (cell: number) => boolean,
    ) {
        const known = cells.filter((cell) => [...cell.min, ...cell.max].every(Number.isFinite));
        const least = (axis: 0 | 1): number => known.reduce((m, cell) => Math.min(m, cell.min[axis]), Infinity);
        const most = (axis: 0 | 1): number => known.reduce((m, cell) => Math.max(m, cell.max[axis]), -Infinity);
        this.min = known.length > 0 ? [least(0), least(1)] : [0, 0];
        this.max = known.length > 0 ? [most(0), most(1)] : [1, 1];
        this.densest = known.reduce((m, cell) => Math.max(m, density(cell)), 0);
    }

    private fit(): Fit {
        const { width, height } = this.canvas;
        const [w, h] = [Math.max(1e-9, this.max[0] - this.min[0]), Math.max(1e-9, this.max[1] - this.min[1])];
        const scale = 0.94 * Math.min(width / w, height / h);
        return { scale, left: this.min[0] - (width / scale - w) / 2, top: this.max[1] + (height / scale - h) / 2 };
    }

    resize(): void {
        const ratio = Math.min(2, devicePixelRatio);
        const side = (css: number): number => Math.max(1, Math.min(longestSide, Math.round(css * ratio)));
        const [width, height] = [side(this.canvas.clientWidth), side(this.canvas.clientHeight)];
        if (width === this.canvas.width && height === this.canvas.height) return;
        this.canvas.width = width;
        this.canvas.height = height;
        this.plan = undefined;
    }

    draw(view: View, target: Triple): void {
        this.resize();
        const context = this.canvas.getContext("2d");
        if (context === null) return;
        const style = getComputedStyle(this.canvas);
        const fit = this.fit();
        this.plan ??= this.drawPlan(fit);
        context.clearRect(0, 0, this.canvas.width, this.canvas.height);
        context.drawImage(this.plan, 0, 0);
        this.markLoaded(context, fit);
        this.drawCamera(context, fit, view, target);
        this.drawScale(context, fit, style);
    }

    private rectangle(cell: Ground, fit: Fit): [number, number, number, number] {
        const x = (cell.min[0] - fit.left) * fit.scale;
        const y = (fit.top - cell.max[1]) * fit.scale;
        return [x, y, Math.max(1, (cell.max[0] - cell.min[0]) * fit.scale), Math.max(1, (cell.max[1] - cell.min[1]) * fit.scale)];
    }

    private drawPlan(fit: Fit): HTMLCanvasElement {
        const plan = document.createElement("canvas");
        plan.width = this.canvas.width;
        plan.height = this.canvas.height;
        const context = plan.getContext("2d");
        for (const cell of this.cells) {
            const share = this.densest > 0 ? Math.log1p((99 * density(cell)) / this.densest) / Math.log(100) : 1;
            context!.fillStyle = `hsl(${210 - 160 * share} 70% ${25 + 40 * share}%)`;
            context!.fillRect(...this.rectangle(cell, fit));
        }
        return plan;
    }

    private markLoaded(context: CanvasRenderingContext2D, fit: Fit): void {
        if (this.cells.length > 20000) return;
        context.strokeStyle = "#fff";
        context.lineWidth = 1;
        this.cells.forEach((cell, index) => {
            const [x, y, w, h] = this.rectangle(cell, fit);
            if (this.isHere(index)) context.strokeRect(x + 1.5, y + 1.5, w - 3, h - 3);
        });
    }

    private drawCamera(context: CanvasRenderingContext2D, fit: Fit, view: View, target: Triple): void {
        const margin = 6;
        const clamp = (value: number, end: number): number => Math.min(end - margin, Math.max(margin, value));
        const x = clamp((view.eye[0] - fit.left) * fit.scale, this.canvas.width);
        const y = clamp((fit.top - view.eye[1]) * fit.scale, this.canvas.height);
        const direction = Math.atan2(-view.forward[1], view.forward[0]);
        const half = Math.atan((0.5 * view.width) / view.focal);
        context.beginPath();
        context.moveTo(x, y);
        context.arc(x, y, 0.12 * this.canvas.width, direction - half, direction + half);
        context.closePath();
        context.fillStyle = "rgb(255 60 40 / 45%)";
        context.strokeStyle = "#d21";
        context.fill();
        context.stroke();
        context.beginPath();
        context.arc((target[0] - fit.left) * fit.scale, (fit.top - target[1]) * fit.scale, 3, 0, 7);
        context.stroke();
    }

    private drawScale(context: CanvasRenderingContext2D, fit: Fit, style: CSSStyleDeclaration): void {
        const { width, height } = this.canvas;
        const rough = (0.35 * width) / fit.scale;
        const power = 10 ** Math.floor(Math.log10(rough));
        const length = [5, 2, 1].map((m) => m * power).find((l) => l <= rough) ?? power;
        const size = Math.round((parseFloat(style.fontSize) * this.canvas.width) / Math.max(1, this.canvas.clientWidth));
        context.font = `${size}px ${style.fontFamily}`;
        context.fillStyle = style.color;
        context.fillRect(8, height - 8, length * fit.scale, 3);
        context.fillText(`${Number(length.toPrecision(1))} units`, 8, height - 8 - size * 0.4);
    }

    // The ground under a place of the canvas, in CSS pixels from its corner.
    at(x: number, y: number): Pointed {
        const fit = this.fit();
        const ratio = this.canvas.width / Math.max(1, this.canvas.clientWidth);
        const ground = { x: fit.left + (x * ratio) / fit.scale, y: fit.top - (y * ratio) / fit.scale };
        return { ...ground, cell: cellAt(this.cells, ground.x, ground.y) };
    }

    // The ground that the middle 96 of 100 splats cover, cell by cell.
    middle(): { min: [number, number]; max: [number, number] } {
        const ends = ([0, 1] as const).map((axis) => {
            const sorted = this.cells.map((cell) => [cell.min[axis], cell.max[axis], cell.count] as const).sort((a, b) => a[0] - b[0]);
            const total = sorted.reduce((sum, [, , count]) => sum + count, 0);
            let below = 0;
            let low: number | undefined;
            for (const [from, to, count] of sorted) {
                below += count;
                if (below > 0.02 * total) low ??= from;
                if (below >= 0.98 * total) return [low ?? from, to];
            }
            return [this.min[axis], this.max[axis]];
        });
        return { min: [ends[0][0], ends[1][0]], max: [ends[0][1], ends[1][1]] };
    }
}

function density(cell: Ground): number {
    const area = (cell.max[0] - cell.min[0]) * (cell.max[1] - cell.min[1]);
    return area > 0 && Number.isFinite(area) ? cell.count / area : 0;
}

export function cellAt(cells: readonly Ground[], x: number, y: number): Ground | undefined {
    return cells.find((cell) => x >= cell.min[0] && x < cell.max[0] && y >= cell.min[1] && y < cell.max[1]);
}
