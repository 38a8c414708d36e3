// Fuzz target of the record walk of the database recovery
// (walk_inotify_records): the bytes of one read of the directory watches, as
// the kernel would have returned them, checked against the three watch
// descriptors 1, 2 and 3 (those the init routine gets on a fresh inotify
// instance).
//
// Input: byte 0 chooses the state before the walk, the rest (at most 8192
// bytes, the size of the read) is the read buffer:
//   bit 0  /var/pellan/db-recovered exists
//   bit 1  /opt/dbspace/pkgreinstall exists
//   bit 2  /run/orvel.socket exists
//   bit 3  /run/dunmar.pid exists
//   bit 4  socket_file_exist is set
//   bit 5  orvel_db_recover_file is set
//   bit 6  pellan_db_recover_file is set
//
// The walk only looks at files and creates the reinstall marker; the restore
// script runs in its caller (handle_inotify_event), which is not called here,
// so no input starts a process. Besides the sanitizers, every run checks what
// the walk promises: the flags only ever get set, a newly set recovery flag
// comes with the reinstall marker, and a restore decision needs the socket,
// a recovery and the agent's pid file.
#include "fuzz-sandbox.h"
#include "orvel-launcher.h"

#include <stddef.h>
#include <stdint.h>

namespace {

constexpr size_t read_size = 8192;
constexpr int32_t run_wd = 1;
constexpr int32_t dbspace_wd = 2;
constexpr int32_t pellan_wd = 3;

constexpr const char *pellan_db_recovered = "/var/pellan/db-recovered";
constexpr const char *pkgreinstall = "/opt/dbspace/pkgreinstall";
constexpr const char *orvel_socket = "/run/orvel.socket";
constexpr const char *dunmar_pid = "/run/dunmar.pid";

struct flags {
    bool socket;
    bool orvel_db;
    bool pellan_db;
};

flags current_flags(void)
{
    return {socket_file_exist, orvel_db_recover_file, pellan_db_recover_file};
}

void prepare_state(uint8_t state)
{
    fuzz_set_file(pellan_db_recovered, state & 0x01);
    fuzz_set_file(pkgreinstall, state & 0x02);
    fuzz_set_file(orvel_socket, state & 0x04);
    fuzz_set_file(dunmar_pid, state & 0x08);
    socket_file_exist = state & 0x10;
    orvel_db_recover_file = state & 0x20;
    pellan_db_recover_file = state & 0x40;
}

void check_walk(const flags &before, bool decided)
{
    const flags after = current_flags();
    fuzz_check(after.socket || !before.socket);
    fuzz_check(after.orvel_db || !before.orvel_db);
    fuzz_check(after.pellan_db || !before.pellan_db);
    if ((after.orvel_db && !before.orvel_db) || (after.pellan_db && !before.pellan_db))
        fuzz_check(fuzz_file_exists(pkgreinstall));
    if (decided) {
        fuzz_check(after.socket);
        fuzz_check(after.orvel_db || after.pellan_db);
        fuzz_check(fuzz_file_exists(dunmar_pid));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_require_sandbox();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    prepare_state(data[0]);
    // The records end where libFuzzer's copy of the input ends, so that a
    // read past the bytes of the read hits AddressSanitizer's redzone.
    const uint8_t *records = data + 1;
    size_t length = size - 1;
    if (length > read_size)
        length = read_size;
    const flags before = current_flags();
    bool decided = walk_inotify_records(records, length, run_wd, dbspace_wd, pellan_wd);
    check_walk(before, decided);
    return 0;
}
