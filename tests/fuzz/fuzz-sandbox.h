// Shared by the fuzz targets: they touch the system's fixed paths and so run
// only inside keldra-sandbox (KELDRA_SANDBOX=1 and PID 1 is the sandbox).
#pragma once

#include <fcntl.h>
#include <sanitizer/common_interface_defs.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

inline bool fuzz_inside_sandbox(void)
{
    const char *flag = getenv("KELDRA_SANDBOX");
    if (flag == nullptr || strcmp(flag, "1") != 0)
        return false;
    int fd = open("/proc/1/cmdline", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char cmdline[4096] = {};
    ssize_t n = read(fd, cmdline, sizeof cmdline - 1);
    close(fd);
    if (n <= 0)
        return false;
    const char *slash = strrchr(cmdline, '/');
    return strcmp(slash ? slash + 1 : cmdline, "keldra-sandbox") == 0;
}

// Ends the program before anything is touched when it runs on the host.
inline void fuzz_require_sandbox(void)
{
    if (fuzz_inside_sandbox())
        return;
    fprintf(stderr, "this fuzz target writes the system's fixed paths: run it in keldra-sandbox\n");
    exit(1);
}

// Creates the empty file path (mode 0644) or removes it.
inline void fuzz_set_file(const char *path, bool present)
{
    if (!present) {
        unlink(path);
        return;
    }
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        perror(path);
        abort();
    }
    close(fd);
}

inline bool fuzz_file_exists(const char *path)
{
    return access(path, F_OK) == 0;
}

// Stops the run as a crash. The message goes to the sanitizers' report
// descriptor, which libFuzzer keeps open when it closes the target's stderr
// (-close_fd_mask=2, used because the supervisor logs every record there).
#define fuzz_check(condition)                                                  \
    do {                                                                       \
        if (!(condition)) {                                                    \
            __sanitizer_report_error_summary(__FILE__ ":" fuzz_line_text(__LINE__) \
                                             ": check failed: " #condition);   \
            abort();                                                           \
        }                                                                      \
    } while (0)
#define fuzz_line_text(line) fuzz_line_text_of(line)
#define fuzz_line_text_of(line) #line
