/* Linked against libkavro_rt: prints what its clock_nanosleep returns for a bad request, errno and the remainder. */
#include <errno.h>
#include <stdio.h>
#include <time.h>

int main(void) {
    struct timespec bad = {0, 1000000000L}, rem = {7, 7};
    int rc = clock_nanosleep(CLOCK_MONOTONIC, 0, &bad, &rem);
    printf("nanosleep %d %d rem %ld.%ld\n", rc, errno, (long)rem.tv_sec, rem.tv_nsec);
    return 0;
}
