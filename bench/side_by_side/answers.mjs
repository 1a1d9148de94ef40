// Answers of different systems, made comparable: see answer.h.
import { isText } from "./columns.mjs";

const keyBase = 128;
const bins = 16411;

// Systems add in different orders.
const relativeTolerance = 1e-9;
const absoluteTolerance = 1e-9;
export const tolerance = `counts the same, sums and values to ${relativeTolerance} of the larger or to ${absoluteTolerance}`;

const numberInKey = {
    duckdb: (key) =>
        `coalesce(CAST(${isText(key) ? `substr(CAST(${key} AS VARCHAR), 3)` : key} AS BIGINT), 0)`,
    clickhouse: (key) =>
        `ifNull(${isText(key) ? `toInt64(substring(${key}, 3))` : `toInt64(${key})`}, 0)`,
};
const finiteSum = {
    duckdb: (column) => {
        const value = `CAST(${column} AS DOUBLE)`;
        const finite = `FILTER (WHERE isfinite(${value}))`;
        return `count(*) ${finite}::DOUBLE, coalesce(sum(${value}) ${finite}, 0)`;
    },
    clickhouse: (column) => {
        const value = `toFloat64(${column})`;
        const finite = `ifNull(isFinite(${value}), 0)`;
        return `countIf(${finite}), ifNull(sumIf(${value}, ${finite}), 0)`;
    },
};

// The same of an answer that a command wrote: lines of the keys, then the results, after a header.
export function digestLines(text, keys, results) {
    const found = new Map();
    for (const line of text.trimEnd().split("\n").slice(1)) {
        const cells = line.split(",");
        const codes = keys.map((key, i) => Number(isText(key) ? cells[i].slice(2) : cells[i]));
        const bin = codes.reduce((sum, code, i) => sum + code * keyBase ** i, 0) % bins;
        if (!found.has(bin)) found.set(bin, [bin, 0, ...Array(2 * results).fill(0)]);
        const row = found.get(bin);
        ++row[1];
        for (let i = 0; i < results; ++i) {
            if (cells[keys.length + i] === "") continue;
            ++row[2 + 2 * i];
            row[3 + 2 * i] += Number(cells[keys.length + i]);
        }
    }
    return [...found.values()].sort((a, b) => a[0] - b[0]);
}

// The statement that summarises the table `answer`, of the keys and of columns r0, r1, ...
export function checkStatement(dialect, keys, results) {
    const code = keys.map((key, i) => `${numberInKey[dialect](key)} * ${keyBase ** i}`).join(" + ");
    const bin = keys.length ? `(${code}) % ${bins}` : "0";
    const columns = Array.from({ length: results }, (_, i) => finiteSum[dialect](`r${i}`));
    const cast = dialect === "duckdb" ? "::DOUBLE" : "";
    return `SELECT (${bin})${cast} AS bin, count(*)${cast}, ${columns} FROM answer GROUP BY bin ORDER BY bin`;
}

export const near = (a, b) =>
    Math.abs(a - b) <= Math.max(absoluteTolerance, relativeTolerance * Math.max(Math.abs(a), Math.abs(b)));
// A row is: bin, groups, then values and their sum for each column.
const isSum = (place) => place >= 3 && place % 2 === 1;

// What tells two answers apart, or nothing.
export function difference(a, b) {
    if (a.length !== b.length) return `${a.length} bins against ${b.length}`;
    for (const [i, row] of a.entries()) {
        if (row.length !== b[i].length) return `${row.length} figures against ${b[i].length}`;
        for (const [place, value] of row.entries()) {
            const other = b[i][place];
            if (!(isSum(place) ? near(value, other) : value === other))
                return `bin ${row[0]}, figure ${place}: ${value} against ${other}`;
        }
    }
    return undefined;
}

export const groupsIn = (answer) => answer.reduce((sum, row) => sum + row[1], 0);
