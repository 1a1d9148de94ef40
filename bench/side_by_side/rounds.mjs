// Rounds in which every system runs a case once, in turn, and the medians of what they took.
import { difference, groupsIn } from "./answers.mjs";

const leastRounds = 3;
const enoughMs = 15_000; // of timed rounds of one case

export const median = (numbers) =>
    [...numbers].sort((a, b) => a - b)[Math.floor(numbers.length / 2)];

// Times are kept of a round only if all answers are the same. The first round warms up: its
// answers are compared, its times dropped. Gives by system: {ms, times, peakMib, calls}; or {skip}.
export async function runRounds(systems, c, repetitions) {
    const runs = Object.fromEntries(systems.map(({ name }) => [name, { times: [], peaks: [] }]));
    let groups;
    let spent = 0;
    for (let round = 0; round <= repetitions; ++round) {
        const replies = [];
        for (let i = 0; i < systems.length; ++i) {
            const system = systems[(round + i) % systems.length];
            system.worker.resetPeakMemory();
            const reply = await system.worker.ask(system.request(c));
            if (reply.skip) return { skip: reply.skip };
            if (reply.error) throw new Error(`${c.title}: ${system.name}: ${reply.error}`);
            const peakMib = system.worker.peakMib() - system.loadedMib;
            replies.push({ ...reply, name: system.name, peakMib });
        }
        for (const { name, answer } of replies.slice(1)) {
            const different = difference(replies[0].answer, answer);
            if (different)
                throw new Error(`${c.title}: ${replies[0].name} and ${name} differ: ${different}`);
        }
        groups = groupsIn(replies[0].answer);
        if (round === 0) continue;
        for (const { name, ms, peakMib, calls } of replies) {
            runs[name].times.push(ms);
            runs[name].peaks.push(peakMib);
            runs[name].calls = calls;
            spent += ms;
        }
        if (round >= leastRounds && spent > enoughMs) break;
    }
    for (const run of Object.values(runs)) {
        run.ms = median(run.times);
        run.peakMib = Math.max(0, median(run.peaks));
        delete run.peaks;
    }
    return { groups, runs };
}
