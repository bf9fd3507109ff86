// A worker's program as text; build.mjs makes it.
declare module "worker:*" {
    const text: string;
    export default text;
}
