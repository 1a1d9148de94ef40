// Questions of a file of the same rows: our command, from the start of its process to its end, beside
// statements of systems that run already and read the file.
import { spawn } from "node:child_process";
import { closeSync, openSync, readFileSync, rmSync } from "node:fs";
import { join } from "node:path";

import { digestLines } from "./answers.mjs";
import { cases } from "./cases.mjs";
import { dataFile, threads } from "./systems.mjs";

// By the id of the case in memory, what the command is asked for.
const asked = {
    sum_by_id1: "sum(v1)",
    sum_mean_by_id3: "sum(v1),mean(v3)",
    median_sd_by_id4_id5: "median(v3),stdev(v3)",
    sums_by_id6: "sum(v1),sum(v2),sum(v3)",
};

export const fileCases = Object.entries(asked).map(([id, aggregates]) => {
    const memory = cases.find((c) => c.id === id);
    return { ...memory, id: `file_${id}`, aggregates, bound: "reading the text" };
});

// The command as a system: a request is a process.
class CommandRuns {
    #words;
    #answerFile;
    #peakMib = 0;

    constructor(words, answerFile) {
        this.#words = words;
        this.#answerFile = answerFile;
    }

    resetPeakMemory() {
        this.#peakMib = 0;
    }
    peakMib() {
        return this.#peakMib;
    }
    close() {}

    async ask(request) {
        if (!request.run) return {};
        const { keys, results, aggregates } = request.run;
        const types = "id1:str,id2:str,id3:str,id4:int,id5:int,id6:int,v1:int,v2:int,v3:dbl";
        const words = [...this.#words, "--types", types, "--group-by", keys.join(","), "--agg", aggregates];
        const answer = openSync(this.#answerFile, "w+");
        const begin = performance.now();
        const process = spawn(words[0], words.slice(1), { stdio: ["ignore", answer, "pipe"] });
        let told = "";
        process.stderr.on("data", (part) => (told += part));
        // The last that is seen of a process that is still there.
        const watch = setInterval(() => this.#notePeak(process.pid), 5);
        const status = await new Promise((resolve) => process.on("close", resolve));
        clearInterval(watch);
        const ms = performance.now() - begin;
        closeSync(answer);
        if (status !== 0) return { error: told };
        const text = readFileSync(this.#answerFile, "utf8");
        rmSync(this.#answerFile);
        return { ms, answer: digestLines(text, keys, results.length) };
    }

    #notePeak(pid) {
        try {
            const status = readFileSync(`/proc/${pid}/status`, "utf8");
            this.#peakMib = Number(status.match(/VmHWM:\s+(\d+)/)?.[1] ?? 0) / 1024 || this.#peakMib;
        } catch {
            // It has ended.
        }
    }
}

export function commandOnFile(options, rows) {
    const words = [join(options.build, "bin/vask"), dataFile(options, rows)];
    const worker = new CommandRuns(
        [...words, "--threads", String(threads), "--format", "csv"],
        join(options.out, "answer.csv"),
    );
    return { name: "vask", worker, loadedMib: 0, request: (c) => ({ run: c }) };
}
