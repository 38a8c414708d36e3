// Row 1: the application-policy daemon orvel, its event loop and the database
// recovery that runs inside it.
#pragma once

#include "keldra.h"

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
