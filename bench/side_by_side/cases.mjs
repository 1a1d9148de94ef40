// What is compared: for each result a call of our operators and the SQL that means the same.
const call = (operator, columns, sql, more = {}) => ({
    call: { operator, columns, ...more },
    sql: typeof sql === "string" ? { duckdb: sql, clickhouse: sql } : sql,
});

const sum = (c) => call("vask_grp_sum", [c], `sum(${c})`);
const mean = (c) => call("mean", [c], `avg(${c})`);
const min = (c) => call("vask_grp_min", [c], `min(${c})`);
const max = (c) => call("vask_grp_max", [c], `max(${c})`);
const interpolatedMedian = {
    duckdb: "median(v3)",
    clickhouse: "quantileExactInclusive(0.5)(v3)",
};
const secondLargest = {
    duckdb: "max(v3, 2)[2]",
    clickhouse: "if(count(v3) > 1, -groupArraySorted(2)(-v3)[2], NULL)",
};
// ClickHouse has the skewness of a population.
const sampleSkewness = {
    duckdb: "skewness(v3)",
    clickhouse: "skewPop(v3) * sqrt(count(v3) * (count(v3) - 1)) / (count(v3) - 2)",
};
const line = (i) => ({
    duckdb: i === 1 ? "regr_slope(v3, v1)" : "regr_intercept(v3, v1)",
    clickhouse: `tupleElement(simpleLinearRegression(v1, v3), ${i})`,
});

// The most frequent value, the smallest of several, none if no value occurs twice. The systems' own
// modes take any of several; counting first is also faster than those by group. The weight is exact:
// values have four places and are below 101.
const mode = (value, key) => {
    const weight = `c * 1000000 - ${value}`;
    const text = (argMax) => {
        const keys = key ? `${key}, ` : "";
        const by = key ? ` GROUP BY ${key}` : "";
        return (
            `SELECT ${keys}CASE WHEN max(c) > 1 THEN ${argMax}(${value}, ${weight}) END AS r0 FROM ` +
            `(SELECT ${keys}${value}, count(*) AS c FROM x GROUP BY ${keys}${value}) q${by}`
        );
    };
    return { duckdb: text("arg_max"), clickhouse: text("argMax") };
};

// A missing value is a value to our distinct count. Grouping twice is faster than counting in sets.
const distinct = (value, key) => {
    const text =
        `SELECT ${key}, count(*) AS r0 FROM ` +
        `(SELECT ${key}, ${value} FROM x GROUP BY ${key}, ${value}) q GROUP BY ${key}`;
    return { duckdb: text, clickhouse: text };
};

const scalar = (slot) => ({ slot });

export const cases = [
    {
        id: "sum_by_id1",
        title: "sum v1 by id1",
        bound: "bandwidth: texts by their heap offsets, the map written and read",
        keys: ["id1"],
        results: [sum("v1")],
    },
    {
        id: "sum_by_id1_id2",
        title: "sum v1 by id1, id2",
        bound: "one pass that numbers and counts the pairs, then the map written",
        keys: ["id1", "id2"],
        results: [sum("v1")],
    },
    {
        id: "sum_mean_by_id3",
        title: "sum v1, mean v3 by id3",
        bound: "cache misses: a text's group, then a sum per row and pass, of 1e5 groups",
        keys: ["id3"],
        results: [sum("v1"), mean("v3")],
    },
    {
        id: "means_by_id4",
        title: "mean v1, v2, v3 by id4",
        bound: "bandwidth: the map and a column read for each sum",
        keys: ["id4"],
        results: [mean("v1"), mean("v2"), mean("v3")],
    },
    {
        id: "sums_by_id6",
        title: "sum v1, v2, v3 by id6",
        bound: "cache misses: a sum per row in each of three passes",
        keys: ["id6"],
        results: [sum("v1"), sum("v2"), sum("v3")],
    },
    {
        id: "median_sd_by_id4_id5",
        title: "median, sd v3 by id4, id5",
        bound: "moving values to their groups; selection",
        keys: ["id4", "id5"],
        results: [
            call("vask_grp_median", ["v3"], interpolatedMedian),
            call("vask_grp_stdev", ["v3"], {
                duckdb: "stddev_samp(v3)",
                clickhouse: "stddevSamp(v3)",
            }),
        ],
        noMissing: true,
    },
    {
        id: "max_min_by_id3",
        title: "max v1, min v2 by id3",
        bound: "cache misses: as sum, mean by id3",
        keys: ["id3"],
        results: [max("v1"), min("v2")],
    },
    {
        id: "largest_by_id6",
        title: "largest v3 by id6",
        bound: "cache misses: a group's place and its largest so far, of 1e5 groups",
        keys: ["id6"],
        results: [call("vask_grp_largest", ["v3"], "max(v3)", { parameter: 1 })],
        noMissing: true,
    },
    {
        id: "second_largest_by_id6",
        title: "second largest v3 by id6",
        bound: "cache misses: as the largest",
        keys: ["id6"],
        results: [call("vask_grp_largest", ["v3"], secondLargest, { parameter: 2 })],
        noMissing: true,
    },
    {
        id: "r2_by_id2_id4",
        title: "r² of v1, v2 by id2, id4",
        bound: "pairs of numbers converted a block at a time, six sums of 1e4 groups",
        keys: ["id2", "id4"],
        results: [
            call("vask_grp_correl", ["v1", "v2"], "power(corr(v1, v2), 2)", { squared: true }),
        ],
    },
    {
        id: "sum_count_by_six",
        title: "sum v3, count by all six ids",
        bound: "1e7 groups appended by one thread; pages of new memory",
        keys: ["id1", "id2", "id3", "id4", "id5", "id6"],
        results: [sum("v3"), call("rows", [], "count(*)")],
    },
    {
        id: "sum",
        title: "sum v3",
        bound: "latency of additions in row order",
        results: [call("vask_sum_dbl", ["v3"], "sum(v3)", scalar("dbl"))],
    },
    {
        id: "min_max",
        title: "min, max v3",
        bound: "bandwidth, two passes",
        results: [
            call("vask_min_dbl", ["v3"], "min(v3)", scalar("dbl")),
            call("vask_max_dbl", ["v3"], "max(v3)", scalar("dbl")),
        ],
    },
    {
        id: "count",
        title: "count v3",
        bound: "bandwidth",
        results: [call("vask_count", ["v3"], "count(v3)", scalar("lng"))],
    },
    {
        id: "median",
        title: "median v3",
        bound: "bandwidth of a copy, a few passes of selection over it",
        results: [call("vask_median", ["v3"], interpolatedMedian, scalar("dbl"))],
        noMissing: true,
    },
    {
        id: "mode",
        title: "mode v1",
        bound: "bandwidth of a copy; counters on one thread",
        results: [call("vask_mode", ["v1"], "", scalar("int"))],
        sql: mode("v1"),
        noMissing: true,
    },
    {
        id: "sd_skewness",
        title: "sd, skewness v3",
        bound: "latency of additions in row order, two passes",
        results: [
            call("vask_stdev", ["v3"], { duckdb: "stddev_samp(v3)", clickhouse: "stddevSamp(v3)" }, scalar("dbl")),
            call("vask_skews", ["v3"], sampleSkewness, scalar("dbl")),
        ],
    },
    {
        id: "correlation",
        title: "correlation v1, v2",
        bound: "bandwidth and conversion, a block at a time; sums of integers in any order",
        results: [call("vask_correl", ["v1", "v2"], "corr(v1, v2)", scalar("dbl"))],
    },
    {
        id: "slope_intercept",
        title: "slope, intercept v3 on v1",
        bound: "latency of additions in row order, two passes",
        results: [
            call("vask_slope", ["v3", "v1"], line(1), scalar("dbl")),
            call("vask_intercept", ["v3", "v1"], line(2), scalar("dbl")),
        ],
    },
    {
        id: "mode_by_id4",
        title: "mode v3 by id4",
        bound: "values dealt out by hash, then counted",
        keys: ["id4"],
        results: [call("vask_grp_mode", ["v3"], "")],
        sql: mode("v3", "id4"),
        noMissing: true,
    },
    {
        id: "distinct_id6_by_id4",
        title: "distinct id6 by id4",
        bound: "cache misses: a bit per group and value, in more of them than the cache holds",
        keys: ["id4"],
        results: [call("AggrX3_countDistinct", ["id6"], "")],
        sql: distinct("id6", "id4"),
    },
    {
        id: "distinct_v3_by_id6",
        title: "distinct v3 by id6",
        bound: "pairs of group and value written to parts and back, then a set for each part",
        keys: ["id6"],
        results: [call("AggrX3_countDistinct", ["v3"], "")],
        sql: distinct("v3", "id6"),
    },
    {
        id: "containment",
        title: "id6 among N/2K values",
        bound: "bandwidth, and a bit looked up in the second-level cache for each row",
        results: [
            call(
                "vaskops_are_bat_indexes_contained",
                ["id6", "odd"],
                "coalesce(id6 IN (SELECT n FROM odd), false)",
                scalar("column"),
            ),
        ],
    },
].map((c) => ({ keys: [], ...c }));

// The statement whose answer a system makes into a table.
export function statement(dialect, { keys, results, sql }) {
    if (sql) return sql[dialect];
    const columns = results.map((r, i) => `${r.sql[dialect]} AS r${i}`);
    const by = keys.length ? ` GROUP BY ${keys}` : "";
    return `SELECT ${[...keys, ...columns]} FROM x${by}`;
}

export const plan = ({ keys, results }) => ({ keys, calls: results.map((r) => r.call) });
