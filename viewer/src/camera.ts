// The camera. z is up; angles are in radians.
import type { Triple } from "./format.ts";

export interface Pose {
    target: Triple; // the point in the middle of the picture
    distance: number; // from the eye to it
    yaw: number; // direction of the view over the ground: 0 along y, growing towards x
    pitch: number; // downwards
}

export interface View {
    eye: Triple;
    right: Triple;
    up: Triple;
    forward: Triple;
    focal: number; // pixels
    width: number; // pixels
    height: number;
}

const degrees = 180 / Math.PI;
const steepest = 89.5 / degrees;
export const fieldOfView = 60 / degrees; // over the longer side of the picture

export const add = (a: Triple, b: Triple, factor = 1): Triple => [a[0] + b[0] * factor, a[1] + b[1] * factor, a[2] + b[2] * factor];
export const dot = (a: Triple, b: Triple): number => a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
export const minus = (a: Triple, b: Triple): Triple => add(a, b, -1);

export function viewOf(pose: Pose, width: number, height: number): View {
    const [sinYaw, cosYaw] = [Math.sin(pose.yaw), Math.cos(pose.yaw)];
    const [sinPitch, cosPitch] = [Math.sin(pose.pitch), Math.cos(pose.pitch)];
    const forward: Triple = [sinYaw * cosPitch, cosYaw * cosPitch, -sinPitch];
    return {
        eye: add(pose.target, forward, -pose.distance),
        right: [cosYaw, -sinYaw, 0],
        up: [sinYaw * sinPitch, cosYaw * sinPitch, cosPitch],
        forward,
        focal: (0.5 * Math.max(width, height)) / Math.tan(fieldOfView / 2),
        width,
        height,
    };
}

export function limited(pose: Pose): Pose {
    const whole = 2 * Math.PI;
    return {
        target: pose.target,
        distance: Math.min(1e9, Math.max(1e-3, pose.distance)),
        yaw: pose.yaw - whole * Math.floor(pose.yaw / whole),
        pitch: Math.min(steepest, Math.max(-steepest, pose.pitch)),
    };
}

// A pose that shows a box from the south and above.
export function framing(min: Triple, max: Triple): Pose {
    const size = minus(max, min);
    const radius = Math.max(1e-3, 0.5 * Math.hypot(...size));
    return { target: add(min, size, 0.5), distance: (0.9 * radius) / Math.tan(fieldOfView / 2), yaw: 0, pitch: 35 / degrees };
}

// The form in a link: target, distance, yaw and pitch in degrees.
export function poseText(pose: Pose): string {
    const fine = (value: number): number => Number(value.toPrecision(10));
    return [...pose.target, pose.distance, pose.yaw * degrees, pose.pitch * degrees].map(fine).join(",");
}

export function poseFrom(text: string): Pose | undefined {
    const parts = text.split(",").map((part) => (part.trim() === "" ? NaN : Number(part)));
    if (parts.length !== 6 || !parts.every(Number.isFinite)) return undefined;
    const [x, y, z, distance, yaw, pitch] = parts;
    return limited({ target: [x, y, z], distance, yaw: yaw / degrees, pitch: pitch / degrees });
}
