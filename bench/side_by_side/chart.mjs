// The chart: for each case our time and that of the fastest other system, on a scale of powers of 10.
import { describe } from "./report.mjs";

const width = 1000;
const left = 250; // of the bars
const right = 830;
const rowHeight = 34;
const barHeight = 12;
const colours = { ours: "#1b6ca8", peer: "#c9c9c9", faster: "#1a7f37", slower: "#b3261e", text: "#222" };

const escape = (text) => text.replaceAll("&", "&amp;").replaceAll("<", "&lt;");
const text = (x, y, content, more = "") => `<text x="${x}" y="${y}" ${more}>${escape(content)}</text>`;
const inMs = (ms) => (ms >= 1000 ? `${(ms / 1000).toPrecision(3)} s` : `${ms.toPrecision(3)} ms`);

// By how much, in words that need no thinking.
function verdict(ratio) {
    if (ratio > 0.95 && ratio < 1.05) return ["as fast", colours.text];
    return ratio < 1
        ? [`${(1 / ratio).toPrecision(2)}× faster`, colours.faster]
        : [`${ratio.toPrecision(2)}× slower`, colours.slower];
}

function logScale(values) {
    const low = Math.floor(Math.log10(Math.min(...values) / 2));
    const high = Math.ceil(Math.log10(Math.max(...values)));
    const at = (ms) => left + ((Math.log10(ms) - low) / Math.max(1, high - low)) * (right - left);
    const ticks = Array.from({ length: high - low + 1 }, (_, i) => 10 ** (low + i));
    return { at, ticks };
}

function drawPanel(title, entries, ourName, top) {
    const rows = entries.map((e) => ({ ...e, ours: e.runs[ourName].ms, peer: e.runs[e.best].ms }));
    const { at, ticks } = logScale(rows.flatMap((r) => [r.ours, r.peer]));
    const bottom = top + 40 + rows.length * rowHeight;
    const parts = [text(20, top + 14, title, `font-size="15" font-weight="bold"`)];
    for (const tick of ticks)
        parts.push(
            `<line x1="${at(tick)}" x2="${at(tick)}" y1="${top + 30}" y2="${bottom}" stroke="#e6e6e6"/>`,
            text(at(tick), top + 26, tick >= 1000 ? `${tick / 1000} s` : `${tick} ms`, `text-anchor="middle" font-size="11"`),
        );
    rows.forEach((r, i) => {
        const y = top + 40 + i * rowHeight;
        const bar = (ms, place, colour) =>
            `<rect x="${left}" y="${y + place}" width="${Math.max(1, at(ms) - left)}" height="${barHeight}" fill="${colour}"/>` +
            text(at(ms) + 4, y + place + 10, inMs(ms), `font-size="10"`);
        const [words, colour] = verdict(r.ratio);
        parts.push(
            text(left - 8, y + 16, r.title, `text-anchor="end" font-size="13"`),
            bar(r.ours, 0, colours.ours),
            bar(r.peer, barHeight + 1, colours.peer),
            text(width - 20, y + 11, words, `text-anchor="end" font-size="13" font-weight="bold" style="fill:${colour}"`),
            text(width - 20, y + 24, `than ${r.best}`.replace("than", words === "as fast" ? "as" : "than"), `text-anchor="end" font-size="10"`),
        );
    });
    return { parts, bottom };
}

export function drawChart(results) {
    const { operators, files, commands } = results.found;
    const panels = [
        ["Operators, data in memory", Object.values(operators), "ours"],
        ["vask beside systems that run already, reading the same rows from a CSV file", Object.values(files), "vask"],
        [`Commands, reading a CSV file of ${results.data.commandsRows.toExponential(0).replace("+", "")} rows`, Object.values(commands), "vask"],
    ];
    const parts = [
        text(20, 30, "Time beside the fastest other system (shorter is better, log scale)", `font-size="18" font-weight="bold"`),
        text(20, 50, describe(results), `font-size="12"`),
        `<rect x="20" y="60" width="12" height="12" fill="${colours.ours}"/>`,
        text(38, 70, "vask_ops", `font-size="12"`),
        `<rect x="120" y="60" width="12" height="12" fill="${colours.peer}"/>`,
        text(138, 70, "fastest other", `font-size="12"`),
    ];
    let top = 90;
    for (const [title, entries, ours] of panels.filter(([, entries]) => entries.length)) {
        const panel = drawPanel(title, entries, ours, top);
        parts.push(...panel.parts);
        top = panel.bottom + 20;
    }
    return (
        `<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 ${width} ${top}" width="${width}" height="${top}" ` +
        `font-family="DejaVu Sans, Arial, sans-serif" fill="${colours.text}">\n` +
        `<rect width="100%" height="100%" fill="white"/>\n${parts.join("\n")}\n</svg>\n`
    );
}
