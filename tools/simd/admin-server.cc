// Placeholder: refuses every connection until the protocol lands.
#include "admin-server.h"

int sim_admin_serve_connection(int, const char *, int) { return -1; }
