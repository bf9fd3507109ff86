// The choices from the server's list of datasets: those of one map together, and each alone.
import type { Triple } from "./format.ts";
import type { Box } from "./messages.ts";

interface Listed {
    name: string;
    base: string; // address of its folder
    map: string | undefined; // datasets with the same word lie on one map
    box: Box | undefined; // of its splats, in world coordinates
}

export interface Choice {
    label: string;
    entries: Listed[];
}

// Nothing without a list. The map of the most datasets comes first.
export async function choicesOf(address: string): Promise<Choice[]> {
    const response = await fetch(address).catch(() => undefined);
    if (response?.ok !== true) return [];
    const list: unknown = await response.json().catch(() => undefined);
    return Array.isArray(list) ? together(list.map(listed).filter((one) => one !== undefined)) : [];
}

export function together(list: readonly Listed[]): Choice[] {
    const maps = new Map<string, Listed[]>();
    for (const one of list) {
        if (one.map !== undefined) maps.set(one.map, [...(maps.get(one.map) ?? []), one]);
    }
    const groups = [...maps].filter(([, entries]) => entries.length > 1).sort(([, a], [, b]) => b.length - a.length);
    return [
        ...groups.map(([map, entries]) => ({ label: `${map}: all ${entries.length}`, entries })),
        ...list.map((one) => ({ label: one.name, entries: [one] })),
    ];
}

function listed(one: unknown): Listed | undefined {
    if (typeof one !== "object" || one === null) return undefined;
    const { name, base, map, box } = one as Record<string, unknown>;
    if (typeof name !== "string" || typeof base !== "string") return undefined;
    return { name, base, map: typeof map === "string" ? map : undefined, box: boxFrom(box) };
}

// Six numbers: the minimum of x, y and z, then the maximum.
function boxFrom(value: unknown): Box | undefined {
    if (!Array.isArray(value) || value.length !== 6 || !value.every((one) => Number.isFinite(one))) return undefined;
    const numbers = value as number[];
    return { min: numbers.slice(0, 3) as Triple, max: numbers.slice(3) as Triple };
}
