/*
 * What the checks need in the machine:
 *   guest wait                   a plain program that only waits in libevent
 *   guest descriptors PID MOST   lets a running process have no more descriptors than this
 *   guest alone SECONDS COMMAND  lets nobody start a process for so long, and becomes COMMAND meanwhile
 *   guest eat FILE...            takes memory until it is killed for it; keeps these files in memory,
 *                                or the machine would read them from its flash again and again, slowly,
 *                                before it gives up
 */

#define _GNU_SOURCE
#include <event.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

static void nothing(int descriptor, short events, void *argument)
{
    (void)descriptor, (void)events, (void)argument;
}

int main(int argc, char **argv)
{
    const char *const what = argc > 1 ? argv[1] : "";
    if (strcmp(what, "wait") == 0) {
        struct event timer;
        const struct timeval second = {1, 0};
        event_init();
        event_set(&timer, -1, EV_PERSIST, nothing, NULL);
        event_add(&timer, &second);
        return event_dispatch();
    }
    if (strcmp(what, "descriptors") == 0 && argc == 4) {
        /* Not every C library has prlimit(2). */
        const uint64_t limit[] = {(uint64_t)atoi(argv[3]), 4096};
        return syscall(SYS_prlimit64, atoi(argv[2]), RLIMIT_NOFILE, limit, NULL) != 0;
    }
    if (strcmp(what, "alone") == 0 && argc > 3) {
        char before[16] = "";
        int begun[2];
        const int most = open("/proc/sys/kernel/threads-max", O_RDWR);
        if (read(most, before, sizeof before - 1) <= 0 || pipe(begun) < 0)
            return 1;
        if (fork() == 0) {
            close(begun[1]);
            if (read(begun[0], before, 1) == 0)
                execvp(argv[3], argv + 3);
            _exit(1);
        }
        /* The kernel takes no less, and has as many threads of its own. */
        if (pwrite(most, "20", 2, 0) < 0)
            return 1;
        close(begun[1]);
        sleep((unsigned)atoi(argv[2]));
        return pwrite(most, before, strlen(before), 0) < 0;
    }
    if (strcmp(what, "eat") == 0) {
        for (int i = 2; i < argc; i++) {
            const int file = open(argv[i], O_RDONLY);
            const size_t size = (size_t)lseek(file, 0, SEEK_END);
            mlock(mmap(NULL, size, PROT_READ, MAP_SHARED, file, 0), size);
        }
        for (;;) {
            char *const block = malloc(65536);
            if (block)
                memset(block, 1, 65536);
        }
    }
    return 2;
}
