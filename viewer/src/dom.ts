// Small helpers for the page's elements. Text is only added as text nodes.

export function element<T extends HTMLElement>(id: string, type: new () => T): T {
    const found = document.getElementById(id);
    if (!(found instanceof type)) throw new Error(`the page lacks #${id}`);
    return found;
}

export const button = (id: string): HTMLButtonElement => element(id, HTMLButtonElement);
export const div = (id: string): HTMLElement => element(id, HTMLElement);

export function setFacts(list: HTMLElement, facts: readonly (readonly [string, string])[]): void {
    list.replaceChildren(
        ...facts.flatMap(([name, value]) => {
            const term = document.createElement("dt");
            term.textContent = name;
            const detail = document.createElement("dd");
            detail.textContent = value;
            return [term, detail];
        }),
    );
}

export const whole = (value: number): string => value.toLocaleString("en-US");
export const short = (value: number): string => String(Number(value.toPrecision(6)));
export const list = (values: readonly number[], form: (value: number) => string = short): string => values.map(form).join(", ");
