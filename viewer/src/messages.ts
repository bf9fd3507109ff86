// The messages between the page and its worker.
import type { Pose } from "./camera.ts";
import type { Triple } from "./format.ts";
import type { Meta } from "./meta.ts";
import type { Split } from "./records.ts";
import type { Run } from "./slots.ts";
import type { Description } from "./sources.ts";

export interface Ray {
    eye: Triple;
    right: Triple;
    up: Triple;
    forward: Triple;
    x: number; // tangents to the right and up
    y: number;
    radius: number; // tangent within which a splat counts as hit
}

// What the worker knows about a dataset.
export interface Owner {
    source: Description;
    meta: Meta;
    shift: Triple; // from its positions to the map's
}

export interface Hit {
    piece: number;
    number: number; // of the splat in its piece
    slot: number;
    normals: number | undefined;
}

export type Box = { min: Triple; max: Triple };
export type Ground = { min: [number, number]; max: [number, number] };

export type Request =
    | { type: "reset"; capacity: number; keepNormals: boolean; owners: Owner[] }
    | { type: "fetch"; piece: number; owner: number; first: number; count: number; runs: Run[] } // answered once: fetched, dropped or failed
    | { type: "cancel"; piece: number } // may come too late
    | { type: "show"; piece: number; under: number } // its records are in the graphics memory; orders mark them with this number
    | { type: "remove"; piece: number }
    | { type: "sort"; sequence: number; eye: Triple; along: Triple | undefined; order: ArrayBuffer | undefined }
    | { type: "pick"; token: number; ray: Ray }
    | { type: "frame"; token: number; ground: Ground | undefined }; // ground: what the whole covers, where the cells tell

export type Reply =
    | { type: "fetched"; piece: number; split: Split; box: Box; bytes: number } // bytes: of all so far
    | { type: "dropped"; piece: number }
    | { type: "failed"; piece: number; text: string; known: boolean } // known: a ViewError
    | { type: "sorted"; sequence: number; order: ArrayBuffer; count: number; milliseconds: number }
    | { type: "picked"; token: number; hit: Hit | undefined }
    | { type: "framed"; token: number; pose: Pose | undefined }; // undefined while no splat is here
