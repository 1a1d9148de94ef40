// What the leak checker of the sanitizer build is not to report. The tests' own accounting of BATs
// and references sees these calls all the same.

extern "C" const char *__lsan_default_suppressions();

extern "C" const char *__lsan_default_suppressions() {
    return
        // Where a path is chosen by a sample, the exception string of a failing kernel operator is
        // dropped as it stands.
        "leak:vask_group_select\n"
        "leak:vask_derive_select\n"
        "leak:vask_derive_mask\n"
        // A parameter that cannot be read gets its operator's own message; the reader's is dropped.
        "leak:vask_read_\n";
}
