// Row 0: the access-policy checker pellan and the admin-user policy push.
#pragma once

#include "keldra.h"

keldra_context *pellan_launcher_create_context(void);
int pellan_launcher_init(keldra_context *context);
void *pellan_launcher_handler(void *context);
int launch_pellan(void);
int set_sock_perm(const char *path, unsigned mode, unsigned uid, unsigned gid);
