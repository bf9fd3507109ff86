// The worker's thread.
import type { Pose } from "./camera.ts";
import { firstView } from "./firstview.ts";
import { Loader } from "./loading.ts";
import type { Ground, Reply, Request } from "./messages.ts";
import { Sampler, middleOf } from "./sample.ts";
import { Sorter } from "./sorting.ts";

interface WorkerScope {
    onmessage: ((event: MessageEvent<Request>) => void) | null;
    postMessage(message: Reply, transfer?: Transferable[]): void;
}
const scope = self as unknown as WorkerScope;
let sorter = new Sorter(0, false);
let sampler = new Sampler();
let loader = new Loader([], sorter, sampler);

scope.onmessage = ({ data: request }) => {
    switch (request.type) {
        case "reset":
            sorter = new Sorter(request.capacity, request.keepNormals);
            sampler = new Sampler();
            loader = new Loader(request.owners, sorter, sampler);
            break;
        case "fetch":
            void loader.fetch(request).then(({ reply, transfer }) => scope.postMessage(reply, transfer));
            break;
        case "cancel":
            loader.cancel(request.piece);
            break;
        case "show":
            sorter.show(request.piece, request.under);
            break;
        case "remove":
            sorter.remove(request.piece);
            sampler.remove(request.piece);
            break;
        case "sort": {
            const begin = performance.now();
            const { order, count } = sorter.sort(request.eye, request.along, request.order);
            const buffer = order.buffer as ArrayBuffer;
            const milliseconds = performance.now() - begin;
            scope.postMessage({ type: "sorted", sequence: request.sequence, order: buffer, count, milliseconds }, [buffer]);
            break;
        }
        case "pick":
            scope.postMessage({ type: "picked", token: request.token, hit: sorter.pick(request.ray) });
            break;
        case "frame":
            scope.postMessage({ type: "framed", token: request.token, pose: framed(request.ground) });
            break;
    }
};

// Cells say better where the ground is, splats how high it is.
function framed(ground: Ground | undefined): Pose | undefined {
    const sample = sampler.all();
    const box = middleOf(sample);
    if (box === undefined || ground === undefined) return box && firstView(sample, box);
    return firstView(sample, { min: [...ground.min, box.min[2]], max: [...ground.max, box.max[2]] });
}
