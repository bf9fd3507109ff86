// An opened dataset: its meta document and its cells.
import { Dequantiser } from "./dequantiser.ts";
import { ViewError, files, recordSize } from "./format.ts";
import { type Cell, type Meta, parseIndex, parseMeta } from "./meta.ts";
import type { Source } from "./sources.ts";

const longestMeta = 1 << 20;
const longestIndex = 1 << 28;

export class Dataset {
    private constructor(
        readonly source: Source,
        readonly meta: Meta,
        readonly cells: Cell[],
    ) {
        this.dequantiser = new Dequantiser(meta);
        this.count = cells.reduce((sum, cell) => sum + cell.count, 0);
    }
    readonly dequantiser: Dequantiser;
    readonly count: number; // splats that the index counts

    // Reads the meta document and the index. Throws ViewError.
    static async open(source: Source): Promise<Dataset> {
        const text = new TextDecoder().decode(await source.whole(files.meta, longestMeta));
        const meta = parseMeta(text);
        const [index, dataBytes, coefficientBytes] = await Promise.all([
            source.whole(files.index, longestIndex),
            source.size(files.data),
            meta.coefficientSize > 0 ? source.size(files.coefficients) : undefined,
        ]);
        const dataset = new Dataset(source, meta, parseIndex(index, meta, dataBytes));
        if (dataset.count === 0) throw new ViewError(`${source.name} holds no splats: there is nothing to show.`);
        if (dataBytes !== undefined && coefficientBytes !== undefined) {
            const needed = (dataBytes / recordSize) * meta.coefficientSize;
            if (coefficientBytes !== needed) {
                throw new ViewError(
                    `${files.coefficients} has ${coefficientBytes} bytes instead of ${needed}: it does not belong to ${files.data}. Copy the folder again.`,
                );
            }
        }
        return dataset;
    }
}
