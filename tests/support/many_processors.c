/*
 * Preloaded into a program, pretends that the machine has 16 processors: the task scheduler then
 * has 15 workers, and tasks overlap in ways that two processors never show.
 */
#define _GNU_SOURCE
#include <sched.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

enum { pretended = 16 };

int sched_getaffinity(pid_t pid, size_t size, cpu_set_t *set) {
    (void)pid;
    memset(set, 0, size);
    for (int i = 0; i < pretended; ++i)
        CPU_SET_S(i, size, set);
    return 0;
}

/* What asks for the processors' number by sysconf comes here in the end. */
int get_nprocs(void) {
    return pretended;
}

int get_nprocs_conf(void) {
    return pretended;
}

long sysconf(int name) {
    extern long __sysconf(int);
    if (name == _SC_NPROCESSORS_ONLN || name == _SC_NPROCESSORS_CONF)
        return pretended;
    return __sysconf(name);
}
