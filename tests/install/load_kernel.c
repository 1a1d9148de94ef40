// A process whose kernel is a shared library: loads it, then lets it load the operators.
//
//   load_kernel global|local KERNEL OPERATORS
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv) {
    if (argc != 4)
        return 2;
    const int visibility = strcmp(argv[1], "global") == 0 ? RTLD_GLOBAL : RTLD_LOCAL;
    void *const kernel = dlopen(argv[2], RTLD_LAZY | visibility);
    int (*run)(int, char **) = NULL;
    if (kernel != NULL)
        *(void **)&run = dlsym(kernel, "main");
    if (run == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    return run(2, (char *[]){argv[2], argv[3], NULL});
}
