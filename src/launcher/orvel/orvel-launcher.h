// Row 1: the application-policy daemon orvel, its event loop and the database
// recovery that runs inside it.
#pragma once

#include "keldra.h"

#include <stddef.h>
#include <stdint.h>

class orvel_context : public keldra_context {
public:
    int32_t signal_fd = -1;    // reports SIGCHLD
    int32_t inotify_fd = -1;   // carries the three directory watches
    int32_t epoll_fd = -1;     // the event loop
    int32_t run_wd;            // watch on /run, written by the init routine
    int32_t dbspace_wd;        // watch on /opt/dbspace
    int32_t pellan_wd;         // watch on /var/pellan
};

keldra_context *orvel_launcher_create_context(void);
int orvel_launcher_init(keldra_context *context);
void *orvel_launcher_handler(void *context);
void orvel_launcher_finish(keldra_context *context);

int set_epoll_event(int epoll_fd, int fd, uint32_t events, int operation);
int add_inotify_watch(int inotify_fd, const char *path, uint32_t mask);
int remove_inotify_watch(int inotify_fd, int wd);
void waitpid_orvel(int pid);
void handle_inotify_event(orvel_context *context);

// What the directory watches have seen since the last search for the daemon or
// the last restore decision. Touched by the orvel launcher thread only.
extern bool socket_file_exist;
extern bool orvel_db_recover_file;
extern bool pellan_db_recover_file;

// Walks the inotify records of one read of the directory watches (buffer holds
// the length bytes the kernel returned) against the three watch descriptors,
// marks the packages for reinstall and sets the three flags above as the
// records and the marker files say. Never reads outside [buffer, buffer +
// length): a record whose header or name runs past the end ends the walk with
// "wrong address...". Returns true when the restore decision has been reached
// (the records after that one are dropped), false when the walk ran out of
// records.
bool walk_inotify_records(const uint8_t *buffer, size_t length, int32_t run_wd,
                          int32_t dbspace_wd, int32_t pellan_wd);
