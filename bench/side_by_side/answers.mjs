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
