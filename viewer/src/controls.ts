// Mouse, touch and keyboard move the camera.
import { type Pose, add, limited, viewOf } from "./camera.ts";
import type { Triple } from "./format.ts";

export interface Target {
    pose: Pose;
    moved(): void; // the pose has changed
    clicked(x: number, y: number): void; // CSS pixels from the element's corner
}

const flight = new Map<string, Triple>([
    // to the right, up, and forward over the ground
    ["KeyW", [0, 0, 1]],
    ["KeyS", [0, 0, -1]],
    ["KeyA", [-1, 0, 0]],
    ["KeyD", [1, 0, 0]],
    ["KeyE", [0, 1, 0]],
    ["KeyQ", [0, -1, 0]],
    ["PageUp", [0, 1, 0]],
    ["PageDown", [0, -1, 0]],
]);
const turns = new Map<string, [number, number]>([
    ["ArrowLeft", [-1, 0]],
    ["ArrowRight", [1, 0]],
    ["ArrowUp", [0, -1]],
    ["ArrowDown", [0, 1]],
]);

export class Controls {
    private readonly pressed = new Set<string>();
    private readonly pointers = new Map<number, { x: number; y: number; button: number }>();
    private travelled = 0; // pixels since the pointer went down; a few still count as a click
    private last = 0;

    constructor(
        private readonly element: HTMLElement,
        private readonly target: Target,
    ) {
        element.addEventListener("pointerdown", (event) => this.down(event));
        element.addEventListener("pointermove", (event) => this.move(event));
        for (const type of ["pointerup", "pointercancel"] as const) element.addEventListener(type, (event) => this.up(event));
        element.addEventListener("contextmenu", (event) => event.preventDefault());
        element.addEventListener("wheel", (event) => this.wheel(event), { passive: false });
        element.addEventListener("keydown", (event) => this.key(event));
        window.addEventListener("keyup", (event) => this.pressed.delete(event.code));
        window.addEventListener("blur", () => this.pressed.clear());
    }

    private down(event: PointerEvent): void {
        this.element.focus({ preventScroll: true });
        this.element.setPointerCapture(event.pointerId);
        this.pointers.set(event.pointerId, { x: event.clientX, y: event.clientY, button: event.shiftKey ? 2 : event.button });
        if (this.pointers.size === 1) this.travelled = 0;
    }

    private up(event: PointerEvent): void {
        const known = this.pointers.delete(event.pointerId);
        if (known && event.type === "pointerup" && this.pointers.size === 0 && this.travelled < 4) {
            const box = this.element.getBoundingClientRect();
            this.target.clicked(event.clientX - box.left, event.clientY - box.top);
        }
    }

    private move(event: PointerEvent): void {
        const pointer = this.pointers.get(event.pointerId);
        if (pointer === undefined) return;
        const [dx, dy] = [event.clientX - pointer.x, event.clientY - pointer.y];
        this.travelled += Math.hypot(dx, dy);
        if (this.pointers.size === 1) {
            if (pointer.button === 0) this.orbit(dx, dy);
            else this.pan(dx, dy);
        } else {
            this.pinch(event.pointerId, dx, dy);
        }
        pointer.x = event.clientX;
        pointer.y = event.clientY;
    }

    private change(pose: Partial<Pose>): void {
        this.target.pose = limited({ ...this.target.pose, ...pose });
        this.target.moved();
    }

    private orbit(dx: number, dy: number): void {
        const { yaw, pitch } = this.target.pose;
        this.change({ yaw: yaw + dx * 0.006, pitch: pitch + dy * 0.006 });
    }

    private pan(dx: number, dy: number): void {
        const { pose } = this.target;
        const view = viewOf(pose, this.element.clientWidth, this.element.clientHeight);
        const unit = pose.distance / view.focal;
        this.change({ target: add(add(pose.target, view.right, -dx * unit), view.up, dy * unit) });
    }

    // Two fingers: their middle pans, their distance zooms.
    private pinch(moved: number, dx: number, dy: number): void {
        const [other] = [...this.pointers].filter(([id]) => id !== moved).map(([, p]) => p);
        const pointer = this.pointers.get(moved)!;
        const before = Math.hypot(pointer.x - other.x, pointer.y - other.y);
        const after = Math.hypot(pointer.x + dx - other.x, pointer.y + dy - other.y);
        this.pan(dx / 2, dy / 2);
        if (before > 0 && after > 0) this.zoom(before / after);
    }

    private wheel(event: WheelEvent): void {
        event.preventDefault();
        const pixels = event.deltaY * (event.deltaMode === 0 ? 1 : event.deltaMode === 1 ? 16 : 400);
        this.zoom(Math.exp(Math.max(-300, Math.min(300, pixels)) * 0.0015));
    }

    private zoom(factor: number): void {
        this.change({ distance: this.target.pose.distance * factor });
    }

    private key(event: KeyboardEvent): void {
        if (event.ctrlKey || event.metaKey || event.altKey) return;
        const turn = turns.get(event.code);
        if (turn !== undefined) {
            const { yaw, pitch } = this.target.pose;
            this.change({ yaw: yaw + turn[0] * 0.06, pitch: pitch + turn[1] * 0.06 });
        } else if (event.key === "+" || event.key === "-") {
            this.zoom(event.key === "+" ? 0.9 : 1 / 0.9);
        } else if (flight.has(event.code)) {
            if (this.pressed.size === 0) this.last = performance.now();
            this.pressed.add(event.code);
            this.target.moved();
        } else {
            return;
        }
        if (event.shiftKey) this.pressed.add("fast");
        else this.pressed.delete("fast");
        event.preventDefault();
    }

    // Moves the camera while keys are held; true if some are. Called before every picture.
    fly(now: number): boolean {
        const held = [...this.pressed].map((code) => flight.get(code)).filter((way) => way !== undefined);
        const seconds = Math.min(0.1, Math.max(0, now - this.last) / 1000);
        this.last = now;
        if (held.length === 0) return false;
        const { pose } = this.target;
        const step = pose.distance * seconds * (this.pressed.has("fast") ? 4 : 1);
        const ahead: Triple = [Math.sin(pose.yaw), Math.cos(pose.yaw), 0];
        const right: Triple = [Math.cos(pose.yaw), -Math.sin(pose.yaw), 0];
        let place = pose.target;
        for (const [x, up, forward] of held) {
            place = add(add(add(place, right, x * step), [0, 0, 1], up * step), ahead, forward * step);
        }
        this.change({ target: place });
        return true;
    }
}
