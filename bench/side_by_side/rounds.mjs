// Rounds in which every system runs a case once, in turn, and the medians of what they took.
import { difference, groupsIn } from "./answers.mjs";

const leastRounds = 3;
const enoughMs = 15_000; // of timed rounds of one case

export const median = (numbers) =>
    [...numbers].sort((a, b) => a - b)[Math.floor(numbers.length / 2)];

// Times are kept of a round only if all answers are the same. The first round warms up: its
// answers are compared, its times dropped; the peak of memory is taken there, after what earlier
// cases left was given back. Gives by system: {ms, times, peakMib, calls}; or {skip}.
export async function runRounds(systems, c, repetitions) {
    const runs = Object.fromEntries(systems.map(({ name }) => [name, { times: [] }]));
    let groups;
    let spent = 0;
    for (let round = 0; round <= repetitions; ++round) {
        const replies = [];
        for (let i = 0; i < systems.length; ++i) {
            const system = systems[(round + i) % systems.length];
            if (round === 0) await system.worker.ask({ release: {} });
            system.worker.resetPeakMemory();
            const reply = await system.worker.ask(system.request(c));
            if (reply.skip) return { skip: reply.skip };
            if (reply.error) throw new Error(`${c.title}: ${system.name}: ${reply.error}`);
            if (round === 0)
                runs[system.name].peakMib = Math.max(0, system.worker.peakMib() - system.loadedMib);
            replies.push({ ...reply, name: system.name });
        }
        for (const { name, answer } of replies.slice(1)) {
            const different = difference(replies[0].answer, answer);
            if (different)
                throw new Error(`${c.title}: ${replies[0].name} and ${name} differ: ${different}`);
        }
        groups = groupsIn(replies[0].answer);
        if (round === 0) continue;
        for (const { name, ms, calls } of replies) {
            runs[name].times.push(ms);
            runs[name].calls = calls;
            spent += ms;
        }
        if (round >= leastRounds && spent > enoughMs) break;
    }
    for (const run of Object.values(runs)) run.ms = median(run.times);
    return { groups, runs };
}
