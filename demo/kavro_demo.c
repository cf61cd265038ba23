/*
 * kavro-demo: a host program of the product's shape. It brings the
 * library's families up, uses them the way a media component would, takes
 * them down again and reports what it saw.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <kavro_rt/kavro_rt.h>

static int failures;

static void check(const char *what, int ok) {
    printf("  %-44s %s\n", what, ok ? "ok" : "FAILED");
    if (!ok) ++failures;
}

static void demo_core(void) {
    int32_t conf = 0, onln = 0;
    LST_List *queue;
    LST_Elem items[3];
    uintptr_t order[3];
    int i;
    uint32_t allocs = memalloccalls;

    printf("core runtime\n");
    check("MEM_Init", MEM_Init() == 0);
    check("ULX_Init", ULX_Init() == 0);
    check("LST_Init brings the list family up", LST_Init() == 0);
    check("SMP_GetNumProcessors", SMP_GetNumProcessors(&conf, &onln) == 0 && onln > 0);
    printf("  processors: %d configured, %d online\n", (int)conf, (int)onln);

    queue = LST_Create();
    check("LST_Create", queue != NULL);
    for (i = 0; i < 3; ++i) LST_PutTail(queue, LST_InitElem(&items[i]));
    for (i = 0; i < 3; ++i) order[i] = LST_GetHead(queue);
    check("queue keeps first-in first-out order",
          order[0] == (uintptr_t)&items[0] && order[1] == (uintptr_t)&items[1] &&
              order[2] == (uintptr_t)&items[2] && LST_GetHead(queue) == 0);
    LST_Delete(queue);
    check("allocations were counted", memalloccalls == allocs + 1);

    LST_Exit();
    ULX_Exit();
    MEM_Exit();
}

int main(int argc, char **argv) {
    (void)argc;
    (void)argv;
    printf("kavro-demo: libkavro_rt host program\n");
    demo_core();
    printf("kavro-demo: %s\n", failures == 0 ? "all steps succeeded" : "some steps FAILED");
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
