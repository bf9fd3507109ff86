// Starts the page.
import { App } from "./app.ts";
import { div } from "./dom.ts";
import { ViewError } from "./format.ts";

declare global {
    interface Window {
        viewer?: App; // for tests and scripts
    }
}

try {
    const app = new App();
    window.viewer = app;
    app.start().catch((error: unknown) => app.fail(error));
} catch (error) {
    div("message").hidden = false;
    div("retry").hidden = true;
    div("message-text").textContent = error instanceof ViewError ? error.message : String(error);
}
