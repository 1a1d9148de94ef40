// Means by species, of columns in the program's own memory, through libvask's C interface.
#include "vask/vask.h"

#include <stdio.h>

int main(void) {
    static const int8_t species[] = {1, 2, 1, 2, 1};
    static const double mass[] = {3750, 5000, 3800, 5700, 3250};
    static const uint8_t known[] = {0x1d}; // bit by bit: the second mass is null
    const char *by[] = {"species"};
    const vask_aggregate wanted[] = {{.function = "mean", .columns = {"mass"}, .as = "mean"},
                                     {.function = "count", .columns = {"mass"}, .as = "n"}};
    const vask_query query = {.size = sizeof query,
                              .aggregate_size = sizeof *wanted,
                              .by = by,
                              .n_by = 1,
                              .aggregates = wanted,
                              .n_aggregates = 2};
    vask_table *table = NULL;
    vask_result *result = NULL;
    struct ArrowArrayStream stream = {0};
    struct ArrowArray batch = {0};
    char *error = NULL;
    int code = vask_table_new(&table, &error);
    if (!code)
        code =
            vask_table_add_values(table, "species", "c", 5, species, NULL, 0, NULL, NULL, &error);
    if (!code)
        code = vask_table_add_values(table, "mass", "g", 5, mass, known, 0, NULL, NULL, &error);
    if (!code && !(code = vask_run(table, &query, &result, &error)))
        code = vask_result_stream(result, &stream, &error);
    vask_table_free(table); // results live on
    vask_result_free(result);
    if (!code && stream.get_next(&stream, &batch) == 0) {
        for (int64_t row = 0; row < batch.length; ++row)
            printf("%d %g %d\n", ((const int8_t *)batch.children[0]->buffers[1])[row],
                   ((const double *)batch.children[1]->buffers[1])[row],
                   (int)((const int64_t *)batch.children[2]->buffers[1])[row]);
        batch.release(&batch);
    }
    if (stream.release != NULL)
        stream.release(&stream);
    if (code)
        fprintf(stderr, "%s\n", error != NULL ? error : "out of memory");
    vask_free_text(error);
    return code;
}
