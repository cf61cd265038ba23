/* Linked against libkavro_rt: its clock_nanosleep reports a bad request as
 * -1 with errno, where the C library's returns the error number. Prints what
 * the call returned and the error, and whether a clock reading and a timer
 * round trip work through the library. */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>

int main(void) {
    struct timespec bad = {0, 1000000000L}, rem = {7, 7}, now;
    errno = 0;
    int rc = clock_nanosleep(CLOCK_MONOTONIC, 0, &bad, &rem);
    printf("nanosleep %d %d rem %ld.%ld\n", rc, errno, (long)rem.tv_sec, rem.tv_nsec);

    printf("gettime %d\n", clock_gettime(CLOCK_REALTIME, &now));

    struct sigevent ev = {0};
    ev.sigev_notify = SIGEV_NONE;
    timer_t id;
    int created = timer_create(CLOCK_MONOTONIC, &ev, &id);
    printf("timer %d %d\n", created, created == 0 ? timer_delete(id) : -1);
    return 0;
}
