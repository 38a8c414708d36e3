// Row 0 of the launcher table: runs the access-policy checker pellan under
// its own user and group, gives its four sockets their owners and modes, and
// relaunches it whenever it dies. Its init routine pushes the privileges of
// the admin user type to the checker once per new version of the admin
// profile.
#include "pellan-launcher.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "keldra-log.h"

namespace {

constexpr const char *PELLAN_LABEL = "System";
constexpr const char *PELLAN_RUN_DIR_CLEANUP = "/usr/bin/rm -rf /run/pellan";
constexpr mode_t PELLAN_RUN_DIR_MODE = 0775;

// The checker's own user and group, and the group of its agent sockets. The
// numbers are the platform's accounts; they are never looked up by name.
constexpr unsigned PELLAN_UID = 401;
constexpr unsigned PELLAN_GID = 401;
constexpr unsigned PELLAN_AGENT_GID = 402;

// Socket polls after a launch, counted over the whole life of the thread.
constexpr int PELLAN_SOCKET_POLLS = 10;
constexpr useconds_t PELLAN_SOCKET_POLL_US = 300000;
constexpr int PELLAN_SOCKET_POLL_MS = 300;

struct pellan_socket {
    const char *path;
    unsigned mode;
    unsigned uid;
    unsigned gid;
};

// In the order they are waited for and set up. The agent and monitor sockets
// are read-write for group 402 alone (0060, nothing for the owner) on purpose.
constexpr pellan_socket pellan_sockets[] = {
    {"/run/pellan/pellan.socket", 0777, PELLAN_UID, PELLAN_GID},
    {"/run/pellan/pellan-admin.socket", 0700, PELLAN_UID, PELLAN_GID},
    {"/run/pellan/pellan-agent.socket", 0060, PELLAN_UID, PELLAN_AGENT_GID},
    {"/run/pellan/pellan-monitor-get.socket", 0060, PELLAN_UID, PELLAN_AGENT_GID},
};

// The token buffer of the policy file: tokens are read with "%99s".
constexpr size_t PELLAN_POLICY_TOKEN_SIZE = 100;

// Every admin-user record goes to this bucket, for any client and user.
constexpr const char *PELLAN_ADMIN_BUCKET = "USER_TYPE_ADMIN";
constexpr const char *PELLAN_ADMIN_ANY = "*";
constexpr int PELLAN_ADMIN_RESULT = 0xFFFF;

pellan_admin_policy make_admin_policy(const char *privilege)
{
    pellan_admin_policy policy = {};
    policy.bucket = PELLAN_ADMIN_BUCKET;
    policy.client = PELLAN_ADMIN_ANY;
    policy.user = PELLAN_ADMIN_ANY;
    policy.privilege = strdup(privilege);
    policy.result = PELLAN_ADMIN_RESULT;
    policy.result_extra = nullptr;
    return policy;
}

// The null-terminated array of record pointers that the library takes.
std::vector<const pellan_admin_policy *>
make_policy_pointers(const std::vector<pellan_admin_policy> &policy)
{
    std::vector<const pellan_admin_policy *> pointers;
    for (const pellan_admin_policy &record : policy)
        pointers.push_back(&record);
    pointers.push_back(nullptr);
    return pointers;
}

bool pellan_sockets_exist(void)
{
    for (const pellan_socket &socket : pellan_sockets) {
        if (access(socket.path, F_OK) != 0)
            return false;
    }
    return true;
}

// Gives the sockets their modes and owners, in order, up to the first
// failure. 0 when all four are set, -1 otherwise.
int set_pellan_sockets_perm(void)
{
    for (const pellan_socket &socket : pellan_sockets) {
        if (set_sock_perm(socket.path, socket.mode, socket.uid, socket.gid) != 0)
            return -1;
    }
    return 0;
}

} // namespace

keldra_context *pellan_launcher_create_context(void)
{
    keldra_context *context = new keldra_context;
    context->id = 0;
    context->thread = 0;
    context->finished = true;
    context->init_script = nullptr;
    context->handler = pellan_launcher_handler;
    return context;
}

int set_sock_perm(const char *path, unsigned mode, unsigned uid, unsigned gid)
{
    if (chmod(path, mode) != 0) {
        keldra_log(E, "can't change mode (%s)\n", path);
        return -1;
    }
    if (chown(path, uid, gid) != 0) {
        keldra_log(E, "can't change owner (%s)\n", path);
        return -1;
    }
    return 0;
}

// Forks the checker into a session of its own, as user and group 401 (the
// group first, while the process may still change it). The child keeps the
// thread's Smack label, its descriptors and its signal mask, and leaves with
// errno as its status if the checker cannot be executed.
int launch_pellan(void)
{
    int pid = fork();
    if (pid == 0) {
        setsid();
        if (setgid(PELLAN_GID) < 0)
            keldra_log(E, "failed to setgid - %d [errno : %d]\n", PELLAN_GID, errno);
        if (setuid(PELLAN_UID) < 0)
            keldra_log(E, "failed to setuid - %d [errno : %d]\n", PELLAN_UID, errno);
        if (execl(PELLAN_PATH, PELLAN_PATH, static_cast<char *>(nullptr)) == -1) {
            char err[256];
            keldra_log(E, "failed execl :%s\n", strerror_r(errno, err, sizeof err));
        }
        exit(errno);
    }
    if (pid == -1)
        keldra_log(E, "failed to launch pellan\n");
    else
        keldra_log(I, "launch pellan( %d )\n", pid);
    return pid;
}

// One pass per life of the checker: adopt a running one (ready file present
// and process found) and wait for its end, or launch a new one, set up its
// sockets and reap it. pid survives a pass: after a launched checker has died
// the next pass takes the watch path with the stale pid, whose wait fails at
// once, and the pass after that launches again.
//
// Every message of a pass is written from this routine itself, so that the
// log names it; only the fork (launch_pellan) and the permissions of one
// socket (set_sock_perm) report under their own names.
void *pellan_launcher_handler(void *context)
{
    keldra_context *ctx = static_cast<keldra_context *>(context);
    if (ctx == nullptr) {
        keldra_log(E, "Invalid context\n");
        pthread_exit(nullptr);
    }

    keldra_log(E, "Pellan launcher started\n");

    if (keldra_set_label(PELLAN_LABEL) < 0) {
        keldra_log(E, "Can't set label %s\n", PELLAN_LABEL);
        pthread_exit(nullptr);
    }

    int pid = -1;
    // Socket polls spent by this thread; never reset, so later launches only
    // get what the earlier ones left over, and the elapsed time logged goes
    // on from there.
    int socket_wait_count = 0;

    while (!ctx->finished) {
        pthread_cleanup_push(keldra_cleanup_handler, ctx);

        if (keldra_is_ready_file_done(PELLAN_READY_FILE)) {
            keldra_log(E, "%s already was ran ...\n", PELLAN_PATH);
            pid = keldra_find_process_by_name(PELLAN_PATH);
        }

        if (pid >= 0) {
            // Watch path: a checker (or a stale pid) that is not our child.
            keldra_log(I, "Found pellan launched successfully (pid: %d)\n", pid);
            int r = wait_for_pid(pid);
            int u = unlink(PELLAN_READY_FILE);
            if (u < 0)
                keldra_log(E, "Can't set event reset for %s. error: %d\n", PELLAN_READY_FILE, u);
            keldra_log(E, "pellan(%d) is dead\n", r);
            pid = -1;
        } else {
            keldra_log(W, "No process pellan found, start new one!\n");

            // A fresh runtime directory: whatever a former checker left goes.
            bool prepared = false;
            if (access(PELLAN_RUN_DIR, F_OK) == 0 && system(PELLAN_RUN_DIR_CLEANUP) == -1)
                keldra_log(E, "failed to command - %s\n", PELLAN_RUN_DIR_CLEANUP);
            if (mkdir(PELLAN_RUN_DIR, PELLAN_RUN_DIR_MODE) != 0)
                keldra_log(E, "can't create directory (/run/pellan)\n");
            else if (chown(PELLAN_RUN_DIR, PELLAN_UID, PELLAN_GID) != 0)
                keldra_log(E, "can't change owner (/run/pellan)\n");
            else
                prepared = true;

            if (prepared) {
                // A failed fork leaves pid -1 and the pass goes on with it.
                pid = launch_pellan();

                // When the polls run out the pass carries on as if the
                // sockets were there.
                int elapsed = PELLAN_SOCKET_POLL_MS * (socket_wait_count + 1);
                while (socket_wait_count < PELLAN_SOCKET_POLLS && !pellan_sockets_exist()) {
                    ++socket_wait_count;
                    keldra_log(I, "wait socket files:%d\n", elapsed);
                    usleep(PELLAN_SOCKET_POLL_US);
                    elapsed += PELLAN_SOCKET_POLL_MS;
                }

                if (set_pellan_sockets_perm() != 0)
                    kill(pid, SIGKILL);

                int d = keldra_ready_file_done(PELLAN_READY_FILE);
                if (d < 0)
                    keldra_log(E, "Can't set event done for %s. error: %d\n", PELLAN_READY_FILE, d);
                keldra_log(I, "pellan launched successfully (pid: %d)\n", pid);

                // The status word is examined whatever waitpid returned; it
                // stays 0 when nothing was reaped.
                int status = 0;
                int w = waitpid(pid, &status, 0);
                bool ended = false;
                if (WIFEXITED(status)) {
                    keldra_log(I, "pellan process finished - success\n");
                    keldra_log(I, "return value : %d \n", WEXITSTATUS(status));
                    ended = true;
                } else if (WIFSIGNALED(status)) {
                    keldra_log(E, "pellan process terminated - fail\n");
                    keldra_log(E, "signal num : %d \n", WTERMSIG(status));
                    ended = true;
                } else if (WIFSTOPPED(status)) {
                    keldra_log(I, "pellan process - stop \n");
                    keldra_log(I, "signal num : %d \n", WSTOPSIG(status));
                } else if (WIFCONTINUED(status)) {
                    keldra_log(I, "pellan process - restart \n");
                }
                if (ended) {
                    int u = unlink(PELLAN_READY_FILE);
                    if (u < 0)
                        keldra_log(E, "Can't reset event for %s. error: %d\n", PELLAN_READY_FILE,
                                   u);
                }
                keldra_log(E, "pellan(%d) is dead\n", w);
            }
        }

        pthread_cleanup_pop(0);
    }
    return nullptr;
}

int get_timestamp_ro(const char *path, char token[PELLAN_TIMESTAMP_SIZE])
{
    memset(token, 0, PELLAN_TIMESTAMP_SIZE);
    FILE *file = fopen(path, "r");
    if (file == nullptr) {
        keldra_log(E, "failed to fopen timestampro\n");
        return -1;
    }
    if (fscanf(file, "%19s", token) == -1) {
        keldra_log(E, "timestampro fscanf return value -1\n");
        fclose(file);
        return -1;
    }
    fclose(file);
    return 0;
}

int get_timestamp_rw(const char *path, char token[PELLAN_TIMESTAMP_SIZE])
{
    memset(token, 0, PELLAN_TIMESTAMP_SIZE);
    FILE *file = fopen(path, "r");
    if (file == nullptr) {
        keldra_log(E, "failed to fopen timestamprw\n");
        return -1;
    }
    if (fscanf(file, "%19s", token) == -1) {
        keldra_log(E, "timestamprw fscanf return value -1\n");
        fclose(file);
        return -1;
    }
    fclose(file);
    return 0;
}

// The first token is the number of privileges announced, every further token
// one privilege name; a token longer than 99 characters is read as several.
long get_policy(const char *path, std::vector<pellan_admin_policy> &policy)
{
    FILE *file = fopen(path, "r");
    if (file == nullptr) {
        keldra_log(E, "failed to fopen policy\n");
        return -1;
    }

    std::vector<char> token(PELLAN_POLICY_TOKEN_SIZE);
    long policysize = -1;
    bool first = true;
    while (fscanf(file, "%99s", token.data()) != -1) {
        if (first)
            policysize = strtol(token.data(), nullptr, 10);
        else
            policy.push_back(make_admin_policy(token.data()));
        first = false;
    }

    fclose(file);
    return policysize;
}

void policy_free(const std::vector<pellan_admin_policy> &policy)
{
    for (const pellan_admin_policy &record : policy)
        free(const_cast<char *>(record.privilege));
}

int set_timestamp_rw(const char *path, const char *timestamp)
{
    FILE *file = fopen(path, "w");
    if (file == nullptr) {
        keldra_log(E, "failed to fopen timestamprw\n");
        return -1;
    }
    fprintf(file, "%s\n", timestamp);
    fclose(file);
    return 0;
}

int set_pellan_admin_polices(const char *policy_path, const char *rw_path,
                             const char *timestamp)
{
    std::vector<pellan_admin_policy> policy;
    long policysize = get_policy(policy_path, policy);
    if (policysize < 0) {
        // The privilege copies of a file with a negative count are not freed.
        keldra_log(E, "failed to read policy\n");
        return -1;
    }
    if (static_cast<long>(policy.size()) != policysize) {
        keldra_log(E, "policy.size() and policysize are different.\n");
        policy_free(policy);
        return -1;
    }
    if (policysize == 0)
        return 0;

    std::vector<const pellan_admin_policy *> pointers = make_policy_pointers(policy);

    pellan_admin *admin = nullptr;
    int e = pellan_admin_initialize(&admin);
    if (e != 0) {
        keldra_log(E, "failed to pellan_admin_initialize %d\n", e);
        policy_free(policy);
        return -1;
    }

    int result = pellan_admin_set_policies(admin, pointers.data());
    if (result != 0)
        keldra_log(E, "failed to pellan_admin_set_policies %d\n", result);
    else
        set_timestamp_rw(rw_path, timestamp);

    pellan_admin_finish(admin);
    admin = nullptr;
    policy_free(policy);
    return result == 0 ? 0 : -1;
}

// Pushes the admin-user privileges when the profile's version differs from
// the one last pushed. Failures are only logged: the versions still differ at
// the next start, which tries again.
int pellan_launcher_init(keldra_context *)
{
    char ro[PELLAN_TIMESTAMP_SIZE];
    char rw[PELLAN_TIMESTAMP_SIZE];

    if (get_timestamp_ro(PELLAN_TIMESTAMP_RO_FILE, ro) != 0)
        return 0;
    if (get_timestamp_rw(PELLAN_TIMESTAMP_RW_FILE, rw) != 0)
        return 0;
    if (strncmp(ro, rw, PELLAN_TIMESTAMP_SIZE) == 0)
        return 0;

    set_pellan_admin_polices(PELLAN_POLICY_FILE, PELLAN_TIMESTAMP_RW_FILE, ro);
    return 0;
}
