// Systems run in processes of their own. Each reads requests, one JSON text a line, and answers
// each with one line.
import { spawn } from "node:child_process";
import { readFileSync, writeFileSync } from "node:fs";
import { createInterface } from "node:readline";

const mib = 1024;

export class Worker {
    #process;
    #waiting = [];

    constructor(command, args) {
        this.#process = spawn(command, args, { stdio: ["pipe", "pipe", "inherit"] });
        createInterface({ input: this.#process.stdout }).on("line", (line) =>
            this.#waiting.shift().resolve(JSON.parse(line)),
        );
        this.#process.on("exit", (code) => {
            for (const { reject } of this.#waiting) reject(new Error(`${command} ended with ${code}`));
        });
    }

    ask(request) {
        return new Promise((resolve, reject) => {
            this.#waiting.push({ resolve, reject });
            this.#process.stdin.write(JSON.stringify(request) + "\n");
        });
    }

    // From now on the peak counts from what is resident.
    resetPeakMemory() {
        writeFileSync(`/proc/${this.#process.pid}/clear_refs`, "5");
    }

    #status(field) {
        const status = readFileSync(`/proc/${this.#process.pid}/status`, "utf8");
        return Number(status.match(new RegExp(`${field}:\\s+(\\d+)`))[1]) / mib;
    }
    residentMib() {
        return this.#status("VmRSS");
    }
    peakMib() {
        return this.#status("VmHWM");
    }

    close() {
        this.#process.stdin.end();
    }
}

// The other end of it: answers every line of standard input by handlers[its only field].
export async function serve(handlers) {
    for await (const line of createInterface({ input: process.stdin })) {
        const [[kind, details]] = Object.entries(JSON.parse(line));
        let reply;
        try {
            reply = await handlers[kind](details);
        } catch (failure) {
            reply = { error: String(failure) };
        }
        process.stdout.write(JSON.stringify(reply) + "\n");
    }
    process.exit(0);
}

// Runs a step and gives its milliseconds.
export async function timed(step) {
    const begin = performance.now();
    await step();
    return performance.now() - begin;
}
