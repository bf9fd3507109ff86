// The meta document's text: JSON with two licences. Numbers may be inf, -inf, nan and -nan, and nothing is escaped
// in strings.
import { ViewError, files } from "./format.ts";

export type Value = string | number | boolean | null | Value[] | { [key: string]: Value };

const deepest = 16;
const free = new Set(["source", "dataType"]); // their values hold any text, quotes included

class Scanner {
    private at = 0;
    private readonly text: string;

    constructor(text: string) {
        this.text = text.charCodeAt(0) === 0xfeff ? text.slice(1) : text;
    }

    document(): Value {
        const value = this.value(0, "");
        this.blanks();
        if (this.at < this.text.length) this.fail("ends too late");
        return value;
    }

    private fail(what: string): never {
        const line = this.text.slice(0, this.at).split("\n").length;
        throw new ViewError(`${files.meta} cannot be read: line ${line} ${what}. Is this the folder of a dataset?`);
    }

    private blanks(): void {
        while (/\s/.test(this.text.charAt(this.at))) ++this.at;
    }

    private take(character: string): boolean {
        this.blanks();
        if (this.text[this.at] !== character) return false;
        ++this.at;
        return true;
    }

    private value(depth: number, key: string): Value {
        if (depth > deepest) this.fail("is nested too deeply");
        this.blanks();
        switch (this.text[this.at]) {
            case "{":
                return this.object(depth);
            case "[":
                return this.array(depth);
            case '"':
                return free.has(key) ? this.freeString() : this.string();
            default:
                return this.word();
        }
    }

    private object(depth: number): Value {
        const result: { [key: string]: Value } = Object.create(null);
        ++this.at;
        if (this.take("}")) return result;
        do {
            this.blanks();
            if (this.text[this.at] !== '"') this.fail("lacks a key");
            const key = this.string();
            if (!this.take(":")) this.fail("lacks a colon");
            result[key] = this.value(depth + 1, key);
        } while (this.take(","));
        if (!this.take("}")) this.fail("lacks a comma or a closing brace");
        return result;
    }

    private array(depth: number): Value {
        const result: Value[] = [];
        ++this.at;
        if (this.take("]")) return result;
        do result.push(this.value(depth + 1, ""));
        while (this.take(","));
        if (!this.take("]")) this.fail("lacks a comma or a closing bracket");
        return result;
    }

    private string(): string {
        const end = this.text.indexOf('"', this.at + 1);
        if (end < 0) this.fail("has a text without an end");
        const result = this.text.slice(this.at + 1, end);
        this.at = end + 1;
        return result;
    }

    // Ends at the last quote of its line.
    private freeString(): string {
        const lineEnd = this.text.indexOf("\n", this.at);
        const line = this.text.slice(this.at, lineEnd < 0 ? undefined : lineEnd);
        const end = line.lastIndexOf('"');
        if (end < 1) this.fail("has a text without an end");
        this.at += end + 1;
        return line.slice(1, end);
    }

    private word(): Value {
        const token = /^[-+.\w]*/.exec(this.text.slice(this.at, this.at + 64))?.[0] ?? "";
        this.at += token.length;
        switch (token) {
            case "inf":
                return Infinity;
            case "-inf":
                return -Infinity;
            case "nan":
            case "-nan":
                return NaN;
            case "true":
            case "false":
                return token === "true";
            case "null":
                return null;
        }
        if (!/^-?\d+(\.\d*)?([eE][-+]?\d+)?$/.test(token)) this.fail("has something that is no value");
        return Number(token);
    }
}

// Throws ViewError with the line that cannot be read.
export function parseMetaText(text: string): Value {
    return new Scanner(text).document();
}
