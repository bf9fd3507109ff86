// The sources of a dataset's bytes: a web server that supports ranges, or files of a local folder.
import { ViewError } from "./format.ts";

// The form in which a source is sent to a worker, which makes its own source of it.
export type Description =
    | { kind: "http"; base: string; name: string; tags: Map<string, string> }
    | { kind: "folder"; name: string; files: Map<string, File> };

export interface Source {
    readonly name: string; // shown to the user
    fetched: number; // bytes fetched so far
    // What another thread needs to make the same source.
    description(): Description;
    // The size of a file in bytes, undefined when the source cannot say. Throws ViewError for a missing file.
    size(file: string): Promise<number | undefined>;
    // A whole small file. Throws ViewError when it is missing or longer than `most` bytes.
    whole(file: string, most: number): Promise<ArrayBuffer>;
    // Exactly `length` bytes. Throws ViewError, or an AbortError when `signal` aborts.
    range(file: string, offset: number, length: number, signal: AbortSignal): Promise<ArrayBuffer>;
}

export const isAbort = (error: unknown): boolean => error instanceof DOMException && error.name === "AbortError";

function missing(file: string, where: string): ViewError {
    return new ViewError(`${file} is missing in ${where}. A dataset is a whole folder: copy all its files.`);
}

function tooLong(file: string, most: number): ViewError {
    return new ViewError(`${file} is longer than ${most.toLocaleString("en")} bytes: this is no dataset that the page can show.`);
}

const noRanges =
    "The server sends whole files where a part was asked for (status 200 instead of 206), as python3 -m http.server does. " +
    "Use plyconvert view, or a server that knows Range requests, such as nginx or Apache.";

export class HttpSource implements Source {
    fetched = 0;
    readonly name: string;
    private readonly base: URL;
    // `base` is the address of a folder. `tags` has the ETag of each file when it was opened.
    constructor(
        base: URL,
        name: string,
        private readonly tags = new Map<string, string>(),
    ) {
        this.base = new URL(base);
        if (!this.base.pathname.endsWith("/")) this.base.pathname += "/";
        this.name = name;
    }

    description(): Description {
        return { kind: "http", base: this.base.href, name: this.name, tags: this.tags };
    }

    async size(file: string): Promise<number | undefined> {
        const response = await this.ask(file, { method: "HEAD" });
        const length = response.headers.get("Content-Length");
        const tag = response.headers.get("ETag");
        if (tag !== null) this.tags.set(file, tag);
        return length === null || response.headers.has("Content-Encoding") ? undefined : Number(length);
    }

    async whole(file: string, most: number): Promise<ArrayBuffer> {
        const response = await this.ask(file, {});
        if (Number(response.headers.get("Content-Length") ?? 0) > most) {
            await response.body?.cancel();
            throw tooLong(file, most);
        }
        const bytes = await this.body(response, file);
        if (bytes.byteLength > most) throw tooLong(file, most);
        return bytes;
    }

    async range(file: string, offset: number, length: number, signal: AbortSignal): Promise<ArrayBuffer> {
        const last = offset + length - 1;
        const response = await this.ask(file, { headers: { Range: `bytes=${offset}-${last}` }, signal });
        if (response.status !== 206) {
            await response.body?.cancel();
            throw new ViewError(noRanges);
        }
        const tag = this.tags.get(file);
        if (tag !== undefined && (response.headers.get("ETag") ?? tag) !== tag) {
            await response.body?.cancel();
            throw new ViewError(`${file} has been replaced on the server since this page opened it. Load the page again.`);
        }
        const bytes = await this.body(response, file);
        if (bytes.byteLength !== length) {
            throw new ViewError(`${file}: the server sent ${bytes.byteLength} bytes from ${offset} instead of ${length}. Is the file cut?`);
        }
        return bytes;
    }

    private async body(response: Response, file: string): Promise<ArrayBuffer> {
        try {
            const bytes = await response.arrayBuffer();
            this.fetched += bytes.byteLength;
            return bytes;
        } catch (error) {
            if (isAbort(error)) throw error;
            throw new ViewError(`${file}: the connection ended within the file. Is the server still running?`);
        }
    }

    private async ask(file: string, options: RequestInit): Promise<Response> {
        let response: Response;
        try {
            response = await fetch(new URL(file, this.base), { ...options, credentials: "same-origin" });
        } catch (error) {
            if (isAbort(error)) throw error;
            throw new ViewError(`${this.base.href} cannot be reached. Is the server still running, and does it allow this page?`);
        }
        if (response.ok) return response;
        await response.body?.cancel();
        if (response.status === 404) throw missing(file, this.base.href);
        if (response.status === 416) throw new ViewError(`${file} on the server is shorter than the index says. Copy the folder again.`);
        throw new ViewError(`${file}: the server answers ${response.status} ${response.statusText}.`);
    }
}

export class FolderSource implements Source {
    fetched = 0;
    readonly name: string;
    private readonly files: Map<string, File>;

    constructor(name: string, files: Map<string, File>) {
        this.name = name;
        this.files = files;
    }

    description(): Description {
        return { kind: "folder", name: this.name, files: this.files };
    }

    async size(file: string): Promise<number | undefined> {
        return this.file(file).size;
    }

    async whole(file: string, most: number): Promise<ArrayBuffer> {
        if (this.file(file).size > most) throw tooLong(file, most);
        return this.read(file, this.file(file));
    }

    async range(file: string, offset: number, length: number, signal: AbortSignal): Promise<ArrayBuffer> {
        const bytes = await this.read(file, this.file(file).slice(offset, offset + length));
        signal.throwIfAborted();
        if (bytes.byteLength !== length) {
            throw new ViewError(`${file} ends at byte ${offset + bytes.byteLength}, before what the index points to. Copy the folder again.`);
        }
        return bytes;
    }

    private file(name: string): File {
        const file = this.files.get(name);
        if (file === undefined) throw missing(name, this.name);
        return file;
    }

    private async read(name: string, blob: Blob): Promise<ArrayBuffer> {
        try {
            const bytes = await blob.arrayBuffer();
            this.fetched += bytes.byteLength;
            return bytes;
        } catch {
            throw new ViewError(`${name} cannot be read any more: it has changed since the folder was chosen. Choose it again.`);
        }
    }
}

export function sourceOf(description: Description): Source {
    return description.kind === "http"
        ? new HttpSource(new URL(description.base), description.name, description.tags)
        : new FolderSource(description.name, description.files);
}
