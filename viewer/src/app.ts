// The page: its elements, the open datasets, and the loop that draws.
import { type Pose, type View, framing, poseFrom, poseText, viewOf } from "./camera.ts";
import { type Choice, choicesOf } from "./choices.ts";
import { City, type Entry } from "./city.ts";
import { Controls, type Target } from "./controls.ts";
import { button, div, element, setFacts, whole } from "./dom.ts";
import { cityFacts, datasetFacts, pointedText, splatFacts } from "./facts.ts";
import { chosen, dropped, sourceFrom } from "./folder.ts";
import { ViewError, files } from "./format.ts";
import { GroundMap } from "./map.ts";
import type { Box } from "./messages.ts";
import { isOneCell } from "./meta.ts";
import type { Look } from "./renderer.ts";
import { type Figures, Scene } from "./scene.ts";
import { HttpSource, isAbort } from "./sources.ts";
import workerText from "worker:./worker.ts";

const coloursWhileMoving = 262144; // splats whose colours follow the eye in one picture
const planning = 120; // milliseconds between two plans of what is needed
const gathering = 150; // milliseconds for which new splats wait for each other
const telling = { moving: 60, still: 250 }; // milliseconds between two updates of the map and the bar
const skies = { light: [0.62, 0.74, 0.88], dark: [0.07, 0.082, 0.1] } as const;

export class App implements Target {
    drawing = true; // for measurements; false draws nothing
    pose: Pose = { target: [0, 0, 0], distance: 10, yaw: 0, pitch: 0.6 };
    private readonly canvas = element("picture", HTMLCanvasElement);
    private readonly gl: WebGL2RenderingContext;
    private readonly controls: Controls;
    private readonly longestSide: number; // pixels
    private city: City | undefined;
    private owner = -1; // number of the dataset whose facts are shown
    private scene: Scene | undefined;
    private map: GroundMap | undefined;
    private budget = 1_000_000;
    private touched = false; // the user has moved the camera
    private framed: "no" | "asked" | "yes" = "no"; // whether the view fits the splats that came first
    private framedOf = 0; // how many splats were drawn then
    private scheduled = false;
    private stale = true; // the picture is out of date
    private told = 0; // when the map and the bar were drawn last
    private telling = 0;
    private planned = 0; // when
    private moving = 0; // when the camera moved last
    private linking = 0;
    private opened = 0; // number of the last opening; results of an earlier one are dropped
    private final = false; // the last picture has the colours for its eye
    private choices: Choice[] = [];
    private readonly watchers: (() => void)[] = [];

    constructor() {
        const gl = this.canvas.getContext("webgl2", { alpha: false, antialias: false, depth: false, powerPreference: "high-performance" });
        if (gl === null) {
            throw new ViewError("This browser gives no WebGL2: switch hardware acceleration on in its settings, or use a current Firefox, Chrome, Edge or Safari.");
        }
        this.gl = gl;
        this.longestSide = gl.getParameter(gl.MAX_RENDERBUFFER_SIZE) as number;
        this.controls = new Controls(this.canvas, this);
        this.connect();
        this.connectContext();
        this.connectMap();
    }

    // Opens what the address names, else what the server lists, else what lies beside the page, else asks for a folder.
    async start(): Promise<void> {
        const asked = new URLSearchParams(location.search).get("data");
        if (!location.protocol.startsWith("http")) {
            if (asked !== null) throw new ViewError("A page opened from a file cannot fetch a dataset: drop the folder here, or use plyconvert view.");
            return this.welcome();
        }
        if (asked !== null) return this.open([entryAt(asked, asked)]);
        this.choices = await choicesOf("datasets.json");
        if (this.choices.length === 0) {
            const beside = await fetch(files.meta, { method: "HEAD" }).catch(() => undefined);
            return beside?.ok === true ? this.open([entryAt(".", location.pathname)]) : this.welcome();
        }
        const choice = element("choice", HTMLSelectElement);
        choice.replaceChildren(...this.choices.map(({ label }, i) => new Option(label, String(i))));
        div("datasets").hidden = this.choices.length < 2;
        const first = Math.min(this.choices.length - 1, Math.max(0, Number(linkPart("d")) || 0));
        choice.value = String(first);
        await this.choose(first);
    }

    private choose(number: number): Promise<void> {
        return this.open(this.choices[number].entries.map(({ name, base, box }) => entryAt(base, name, box)));
    }

    private welcome(): void {
        div("welcome").hidden = false;
        button("welcome-folder").focus();
    }

    private async open(entries: Entry[]): Promise<void> {
        const mine = ++this.opened;
        this.say("");
        const city = await City.open(entries, (opened) => {
            if (mine !== this.opened || entries.length === 1) return;
            div("status").hidden = false;
            element("progress", HTMLProgressElement).value = opened / entries.length;
            div("progress-text").textContent = `${whole(opened)} of ${whole(entries.length)} datasets opened`;
        });
        if (mine !== this.opened) return;
        div("welcome").hidden = true;
        div("side").hidden = div("status").hidden = false;
        div("splat-details").hidden = true;
        document.title = `${city.name} - plyconvert viewer`;
        this.city = city;
        this.owner = -1;
        div("city-details").hidden = city.isOne;
        setFacts(div("city"), cityFacts(city));
        this.map = new GroundMap(element("map", HTMLCanvasElement), city.cells, (cell) => this.scene?.isHere(cell) ?? false);
        const linked = poseFrom(linkPart("v"));
        this.touched = linked !== undefined;
        this.framed = this.touched ? "yes" : "no";
        this.framedOf = 0;
        this.pose = linked ?? this.emptyPose();
        this.build();
    }

    // Puts the splats into graphics memory, from nothing.
    private build(): void {
        this.scene?.end();
        this.scene = undefined;
        if (this.framed === "asked") this.framed = "no"; // who was asked has ended
        if (this.city === undefined || this.gl.isContextLost()) return;
        const url = URL.createObjectURL(new Blob([workerText], { type: "text/javascript" }));
        const worker = new Worker(url);
        URL.revokeObjectURL(url);
        const told = (error: unknown): void => this.fail(error, true);
        const changed = (picture: boolean): void => (picture ? this.invalidate() : this.soon());
        this.scene = new Scene(this.gl, this.city, this.budget, worker, changed, told, ordersByDepth());
        this.planned = 0;
        this.invalidate();
    }

    // The view while no splat is here.
    private emptyPose(): Pose {
        const { heights } = this.city!;
        const { min, max } = this.map!.middle();
        const low = heights.reduce((least, [from]) => Math.min(least, from), Infinity);
        const high = heights.reduce((most, [, to]) => Math.max(most, to), -Infinity);
        const finite = [...min, ...max].every(Number.isFinite);
        return finite ? framing([...min, low], [...max, high]) : framing([-10, -10, -10], [10, 10, 10]);
    }

    // Then its cell does not tell where the splats lie: the meta document's box always holds the origin.
    private hasOneCell(): boolean {
        const { datasets, isOne } = this.city!;
        return isOne && isOneCell(datasets[0].meta);
    }

    private async frame(byHand: boolean): Promise<void> {
        const { scene } = this;
        if (scene === undefined) return;
        const ground = this.map!.middle();
        const known = !this.hasOneCell() && [...ground.min, ...ground.max].every(Number.isFinite);
        this.framedOf = scene.figures.drawn;
        const pose = await scene.frame(known ? ground : undefined);
        if (scene !== this.scene) return;
        this.framed = "yes";
        if (byHand || !this.touched) this.pose = pose ?? this.emptyPose();
        this.moved(byHand);
    }

    moved(byHand = true): void {
        this.touched ||= byHand;
        this.moving = performance.now();
        clearTimeout(this.linking);
        if (this.touched) this.linking = window.setTimeout(() => this.link(), 300);
        this.invalidate();
    }

    private link(): void {
        const dataset = this.choices.length > 1 ? `d=${element("choice", HTMLSelectElement).value}&` : "";
        history.replaceState(null, "", `#${dataset}v=${poseText(this.pose)}`);
    }

    // Asks for a new picture.
    private invalidate(): void {
        this.stale = true;
        this.again();
    }

    // There is something to do.
    private again(): void {
        if (this.scheduled) return;
        this.scheduled = true;
        requestAnimationFrame((now) => this.tick(now));
    }

    // There is something to do, and more of it may come: each turn costs the page a frame. The first picture is not kept waiting.
    private soon(): void {
        if (this.scene === undefined || this.scene.figures.drawn === 0) return this.again();
        this.delay ||= window.setTimeout(() => {
            this.delay = 0;
            this.again();
        }, gathering);
    }
    private delay = 0;

    private tick(now: number): void {
        this.scheduled = false;
        const { scene } = this;
        if (scene === undefined || this.gl.isContextLost()) return;
        if (this.controls.fly(now)) this.invalidate();
        const view = this.view();
        if (now - this.planned >= planning || this.planned === 0) {
            this.planned = now;
            scene.update(view);
        } else if (this.moving > this.planned) {
            window.setTimeout(() => this.again(), planning);
        }
        this.frameFirst(scene);
        const later = scene.sort(view, now);
        if (later > 0) window.setTimeout(() => this.again(), later);
        this.paint(scene, view, now);
        const settled = this.watchers.length > 0 && this.isSettled();
        if (settled) this.told = 0;
        this.tell(view, now);
        if (settled) this.watchers.splice(0).forEach((watcher) => watcher());
    }

    // The view follows the splats that come first. Those of a scene of one cell come in no order: its view follows them all once more.
    private frameFirst({ figures: { drawn, wanted } }: Scene): void {
        if (drawn === 0 || this.framed === "asked") return;
        const more = this.hasOneCell() && drawn === wanted && drawn > this.framedOf;
        if (this.framed === "yes" && !more) return;
        this.framed = this.touched ? "yes" : "asked";
        if (!this.touched) void this.frame(false);
    }

    private paint(scene: Scene, view: View, now: number): void {
        if (!this.stale) return;
        if (this.drawing && !scene.ready()) return this.again();
        const still = now - this.moving > planning;
        this.final = !this.drawing || scene.draw(view, this.look(), still ? Infinity : coloursWhileMoving, false);
        this.stale = false;
        if (!this.final) this.invalidate();
    }

    // The map, the bar and the facts are updated a few times a second only, because they cost time.
    private tell(view: View, now: number): void {
        const pause = this.moving > this.told ? telling.moving : telling.still;
        if (now - this.told < pause) {
            this.telling ||= window.setTimeout(() => {
                this.telling = 0;
                this.tell(this.view(), performance.now());
            }, pause);
            return;
        }
        this.told = now;
        if (this.scene === undefined || this.city === undefined) return;
        this.map?.draw(view, this.pose.target);
        this.progress(this.scene.figures);
        const owner = this.city.isOne ? 0 : this.city.ownerAt(this.pose.target[0], this.pose.target[1]);
        if (owner === this.owner) return;
        this.owner = owner;
        setFacts(div("facts"), datasetFacts(this.city.datasets[owner]));
    }

    private view(): View {
        const ratio = Math.min(2, devicePixelRatio);
        const side = (css: number): number => Math.max(1, Math.min(this.longestSide, Math.round(css * ratio)));
        const [width, height] = [side(this.canvas.clientWidth), side(this.canvas.clientHeight)];
        if (this.canvas.width !== width || this.canvas.height !== height) {
            this.canvas.width = width;
            this.canvas.height = height;
        }
        return viewOf(this.pose, width, height);
    }

    private look(): Look {
        return { background: skies[isDark() ? "dark" : "light"], pointSize: this.points() ? 2 * Math.min(2, devicePixelRatio) : 0 };
    }

    private points(): boolean {
        return element("points", HTMLInputElement).checked;
    }

    private progress(figures: Figures): void {
        element("progress", HTMLProgressElement).value = figures.wanted > 0 ? Math.min(1, figures.loaded / figures.wanted) : 0;
        const all = this.city!.count;
        const rest = figures.wanted < all ? `, ${whole(all)} in all` : "";
        div("progress-text").textContent = `${whole(Math.min(figures.loaded, figures.wanted))} of ${whole(figures.wanted)} splats${rest}`;
    }

    // An empty text removes the message.
    private say(text: string, retry = false): void {
        div("message").hidden = text === "";
        div("message-text").textContent = text;
        button("retry").hidden = !retry;
    }

    fail(error: unknown, retry = false): void {
        if (isAbort(error)) return;
        const known = error instanceof ViewError;
        if (!known) console.error(error);
        this.say(known ? error.message : `The page has an error of its own: ${String(error)}`, retry);
    }

    private attempt(work: () => Promise<void> | void): void {
        Promise.resolve()
            .then(work)
            .catch((error: unknown) => this.fail(error));
    }

    private connect(): void {
        const picker = element("files", HTMLInputElement);
        for (const id of ["folder", "welcome-folder"]) button(id).onclick = () => picker.click();
        picker.onchange = () => this.attempt(() => this.open([{ source: sourceFrom(chosen(picker.files!)), box: undefined }]));
        button("frame").onclick = () => this.attempt(() => this.frame(true));
        button("save").onclick = () => this.attempt(() => this.save());
        button("theme").onclick = () => this.toggleTheme();
        button("help-open").onclick = () => this.help();
        button("retry").onclick = () => {
            this.say("");
            this.scene?.retry();
            this.planned = 0;
        };
        element("points", HTMLInputElement).onchange = () => this.invalidate();
        const choice = element("choice", HTMLSelectElement);
        choice.onchange = () => {
            history.replaceState(null, "", `#d=${choice.value}`);
            this.attempt(() => this.choose(Number(choice.value)));
        };
        const budget = element("budget", HTMLInputElement);
        const text = element("budget-text", HTMLOutputElement);
        const show = (): void => void (text.value = `at most ${whole(Number(budget.value))}`);
        show();
        budget.oninput = show;
        budget.onchange = () => {
            this.budget = Number(budget.value);
            this.attempt(() => this.build());
        };
        document.addEventListener("keydown", (event) => this.key(event));
        window.addEventListener("resize", () => this.invalidate());
        matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.invalidate());
        window.addEventListener("hashchange", () => {
            const pose = poseFrom(linkPart("v"));
            if (pose === undefined) return;
            this.pose = pose;
            this.moved();
        });
        this.connectDrop();
    }

    private connectDrop(): void {
        const shown = (on: boolean): void => void document.body.classList.toggle("dropping", on);
        document.addEventListener("dragover", (event) => {
            event.preventDefault();
            shown(true);
        });
        document.addEventListener("dragleave", () => shown(false));
        document.addEventListener("drop", (event) => {
            event.preventDefault();
            shown(false);
            const { dataTransfer } = event;
            if (dataTransfer === null) return;
            const found = dropped(dataTransfer);
            this.attempt(async () => this.open([{ source: sourceFrom(await found), box: undefined }]));
        });
    }

    private connectContext(): void {
        this.canvas.addEventListener("webglcontextlost", (event) => {
            event.preventDefault();
            this.scene?.end();
            this.scene = undefined;
            this.say("The graphics driver took the picture's memory away. The page goes on as soon as it gives it back.");
        });
        this.canvas.addEventListener("webglcontextrestored", () => {
            this.say("");
            this.attempt(() => this.build());
        });
    }

    private connectMap(): void {
        const canvas = element("map", HTMLCanvasElement);
        canvas.addEventListener("pointermove", (event) => {
            if (this.map === undefined || this.city === undefined) return;
            div("pointed").textContent = pointedText(this.map.at(event.offsetX, event.offsetY), this.city);
        });
        canvas.addEventListener("click", (event) => {
            const place = this.map?.at(event.offsetX, event.offsetY);
            if (place === undefined) return;
            this.pose = { ...this.pose, target: [place.x, place.y, this.pose.target[2]] };
            this.moved();
        });
    }

    private key(event: KeyboardEvent): void {
        const { target } = event;
        const typing = target instanceof HTMLInputElement || target instanceof HTMLSelectElement;
        if (typing || event.ctrlKey || event.metaKey || event.altKey || event.repeat) return;
        if (event.code === "KeyF") this.attempt(() => this.frame(true));
        if (event.code === "KeyP") this.attempt(() => this.save());
        if (event.code === "KeyH") this.help();
    }

    private help(): void {
        const dialog = element("help", HTMLDialogElement);
        if (dialog.open) dialog.close();
        else dialog.showModal();
    }

    private toggleTheme(): void {
        document.documentElement.dataset["theme"] = isDark() ? "light" : "dark";
        this.invalidate();
    }

    // The picture as it is now, with the colours of this eye. What fades is there as a whole, or not at all, unless `whole` is false.
    picture(whole = true): Promise<Blob> {
        this.scene?.draw(this.view(), this.look(), Infinity, whole);
        return new Promise((resolve, reject) => {
            this.canvas.toBlob((blob) => (blob === null ? reject(new ViewError("The browser could not save the picture.")) : resolve(blob)), "image/png");
        });
    }

    private async save(): Promise<void> {
        const link = document.createElement("a");
        link.href = URL.createObjectURL(await this.picture());
        link.download = `${(this.city?.name ?? "view").replace(/[^\w.-]+/g, "_")}.png`;
        link.click();
        setTimeout(() => URL.revokeObjectURL(link.href), 10000);
    }

    clicked(x: number, y: number): void {
        if (!this.points()) return;
        this.attempt(async () => {
            const view = this.view();
            const ratio = view.width / this.canvas.clientWidth;
            const ray = { ...view, x: (x * ratio - view.width / 2) / view.focal, y: (view.height / 2 - y * ratio) / view.focal };
            const picked = await this.scene?.pick({ ...ray, radius: (6 * ratio) / view.focal });
            div("splat-details").hidden = picked === undefined;
            if (picked !== undefined) setFacts(div("splat"), splatFacts(picked, this.city!));
        });
    }

    private isSettled(): boolean {
        return this.final && this.framed === "yes" && this.scene?.settled(this.view()) === true;
    }

    // For tests and scripts: figures about the scene that is shown.
    figures(): Figures | undefined {
        return this.scene?.figures;
    }

    // Resolves once everything that the view asks for is drawn.
    settled(): Promise<void> {
        return new Promise((resolve) => {
            this.watchers.push(resolve);
            this.planned = 0;
            this.invalidate();
        });
    }
}

function isDark(): boolean {
    const theme = document.documentElement.dataset["theme"];
    return theme === undefined ? matchMedia("(prefers-color-scheme: dark)").matches : theme === "dark";
}

// By distance, what is seen does not change when one turns. Trainers order by depth: for pictures to compare with theirs.
function ordersByDepth(): boolean {
    return new URLSearchParams(location.search).get("order") === "depth";
}

function linkPart(name: string): string {
    return new URLSearchParams(location.hash.slice(1)).get(name) ?? "";
}

function entryAt(address: string, name: string, box?: Box): Entry {
    const url = new URL(address, location.href);
    if (url.protocol !== "http:" && url.protocol !== "https:") throw new ViewError("?data= takes the address of a folder on a web server.");
    return { source: new HttpSource(url, name), box };
}
