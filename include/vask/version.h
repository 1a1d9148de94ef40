/*
 * The release that these headers belong to.
 *
 *     #if VASK_VERSION >= VASK_MAKE_VERSION(0, 2, 0)
 */
#ifndef VASK_VERSION_H
#define VASK_VERSION_H

/* The build reads the version from these three lines. */
#define VASK_VERSION_MAJOR 0
#define VASK_VERSION_MINOR 1
#define VASK_VERSION_PATCH 0

/* A version as one number, which grows from release to release. */
#define VASK_MAKE_VERSION(major, minor, patch) ((major)*1000000 + (minor)*1000 + (patch))
#define VASK_VERSION VASK_MAKE_VERSION(VASK_VERSION_MAJOR, VASK_VERSION_MINOR, VASK_VERSION_PATCH)

#define VASK_VERSION_TEXT_OF(number) #number
#define VASK_VERSION_JOIN(major, minor, patch)                                                     \
    VASK_VERSION_TEXT_OF(major) "." VASK_VERSION_TEXT_OF(minor) "." VASK_VERSION_TEXT_OF(patch)
/* The same as a text, such as "0.1.0". */
#define VASK_VERSION_STRING                                                                        \
    VASK_VERSION_JOIN(VASK_VERSION_MAJOR, VASK_VERSION_MINOR, VASK_VERSION_PATCH)

#endif
