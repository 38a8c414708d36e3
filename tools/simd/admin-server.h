// The simulated checker's side of the admin protocol of the host stand-in of
// the policy administration library (see platform/pellan-admin).
#pragma once

// Serves one accepted admin connection until the client closes it: decodes
// every request, appends what it received to record_path (one line per policy
// record) and answers each set-policies request with verdict (0 accepts).
// Returns 0 when the client closed the connection cleanly, -1 on a protocol or
// I/O error.
int sim_admin_serve_connection(int client_fd, const char *record_path, int verdict);
