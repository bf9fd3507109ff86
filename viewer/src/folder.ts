// Finds a dataset among files that were dropped or chosen.
import { ViewError, files } from "./format.ts";
import { FolderSource } from "./sources.ts";

interface Found {
    path: string; // of the folder
    file: File;
}

const mostFiles = 100000;

// Throws ViewError when there is no dataset among them. Of several it takes the one nearest to the root.
export function sourceFrom(found: readonly Found[]): FolderSource {
    const metas = found.filter(({ file }) => file.name === files.meta).sort((a, b) => depth(a.path) - depth(b.path));
    if (metas.length === 0) {
        throw new ViewError(`There is no ${files.meta} in what was chosen. Choose the folder that plyconvert wrote.`);
    }
    const { path } = metas[0];
    const own = new Map(found.filter((one) => one.path === path).map(({ file }) => [file.name, file]));
    return new FolderSource(path.split("/").filter(Boolean).pop() ?? "dataset", own);
}

const depth = (path: string): number => path.split("/").length;

export function chosen(list: FileList): Found[] {
    return [...list].map((file) => ({ path: file.webkitRelativePath.split("/").slice(0, -1).join("/"), file }));
}

// Call it before the drop's event handler returns, because its items are gone afterwards.
export async function dropped(transfer: DataTransfer): Promise<Found[]> {
    const entries = [...transfer.items].map((item) => item.webkitGetAsEntry()).filter((entry) => entry !== null);
    const loose = [...transfer.files].map((file) => ({ path: "", file }));
    if (!entries.some((entry) => entry.isDirectory)) return loose;
    const found: Found[] = [];
    for (const entry of entries) await collect(entry, "", found);
    return found;
}

async function collect(entry: FileSystemEntry, path: string, found: Found[]): Promise<void> {
    if (found.length > mostFiles) throw new ViewError("The folder holds too many files. Choose the dataset's own folder.");
    if (entry.isFile) {
        const file = await new Promise<File>((resolve, reject) => (entry as FileSystemFileEntry).file(resolve, reject));
        found.push({ path, file });
        return;
    }
    const reader = (entry as FileSystemDirectoryEntry).createReader();
    for (;;) {
        const more = await new Promise<FileSystemEntry[]>((resolve, reject) => reader.readEntries(resolve, reject));
        if (more.length === 0) return;
        for (const one of more) await collect(one, `${path}/${entry.name}`, found);
    }
}
