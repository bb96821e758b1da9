/* See program.c. A program without it ends as ever. */
#include <stddef.h>

void __gcov_dump(void);
void kap_coverage_add(void (*dump)(void)) __attribute__((weak));

__attribute__((constructor)) static void add(void)
{
    if (kap_coverage_add != NULL) {
        kap_coverage_add(__gcov_dump);
    }
}
