/* A minimal scan of the process directory: for every all-digit entry, one
 * open, one read and one close of its cmdline file, and a comparison of the
 * first argument. No stdio, no allocation. */
#define _GNU_SOURCE
#include "cscan.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int all_digits(const char *name)
{
    if (*name == '\0')
        return 0;
    for (; *name; name++)
        if (*name < '0' || *name > '9')
            return 0;
    return 1;
}

static int first_argument_is(const char *pid, const char *argv0)
{
    char path[64];
    char buffer[512];
    snprintf(path, sizeof path, "/proc/%s/cmdline", pid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    ssize_t n = read(fd, buffer, sizeof buffer - 1);
    close(fd);
    if (n <= 0)
        return 0;
    buffer[n] = '\0';
    return strcmp(buffer, argv0) == 0;
}

int cscan_find_by_argv0(const char *argv0)
{
    DIR *proc = opendir("/proc");
    if (!proc)
        return -1;
    int found = -1;
    struct dirent *entry;
    while ((entry = readdir(proc)) != NULL) {
        if (all_digits(entry->d_name) && first_argument_is(entry->d_name, argv0)) {
            found = atoi(entry->d_name);
            break;
        }
    }
    closedir(proc);
    return found;
}
