// The simulated checker's side of the admin protocol of the host stand-in of
// the policy administration library (see platform/pellan-admin: the protocol
// is in pellan-admin.h and PROTOCOL.md).
#pragma once

// Serves one accepted admin connection until the client closes it: decodes
// every request, appends what it received to record_path (one line per policy
// record) and answers each set-policies request with verdict (0 accepts).
// Returns 0 when the client closed the connection cleanly, -1 on a protocol or
// I/O error.
//
// The record file is opened with O_APPEND (created with mode 0666, and set to
// 0666 whatever the umask); a null record_path records nothing. Every record
// of a request is in the file before the request is answered, and lines of
// connections served at the same time never mix. One line per record:
//
//   bucket=<s> client=<s> user=<s> privilege=<s> result=<d> result_extra=<s>\n
//
// <d> is the result in decimal (65535, -1, ...). <s> is the text, or "(null)"
// for a null pointer; in a text a backslash is written as "\\" and every byte
// below 0x21 (space and control characters) or equal to 0x7f as "\xHH" (two
// lower-case hex digits), so a field never holds a blank or a line end. For
// the records that keldra sends:
//
//   bucket=USER_TYPE_ADMIN client=* user=* privilege=<p> result=65535 result_extra=(null)
//
// A request that breaks the protocol (wrong magic, count above
// PELLAN_ADMIN_MAX_RECORDS, a length other than -1 or 0..PELLAN_ADMIN_MAX_FIELD,
// end of stream inside a request) ends the connection with -1 and is not
// answered; the records of that request decoded before the fault are written.
int sim_admin_serve_connection(int client_fd, const char *record_path, int verdict);
