// Tests of keldra-sandbox and of the Smack simulation library, run on the
// host. Everything that writes the system's paths runs inside a sandbox; the
// host side only reads /run, /tmp, /proc and the other fixed paths, and keeps
// its own files in a scratch directory of the build tree.
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

const std::string tools_dir = KELDRA_BUILD_DIR "/tools";
const std::string sandbox = tools_dir + "/keldra-sandbox";
const std::string probe = tools_dir + "/keldra-smack-sim-probe";

bool wait_until(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
  auto deadline = clock_type::now() + limit;
  while (!condition()) {
    if (clock_type::now() > deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A directory of the build tree for the current test's files.
std::string scratch_dir() {
  const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string dir = std::string(KELDRA_BUILD_DIR) + "/sandbox-test-scratch/" +
                    info->test_suite_name() + "." + info->name();
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

struct sandbox_run {
  pid_t pid = -1;
  std::string out_path, err_path;
  std::string out() const { return read_file(out_path); }
  std::string err() const { return read_file(err_path); }
};

// Starts keldra-sandbox with the given arguments; stdout and stderr go to
// files of the scratch directory. extra_env is added to its environment.
sandbox_run start_sandbox(const std::vector<std::string> &args, const std::string &dir,
                          const std::map<std::string, std::string> &extra_env = {}) {
  sandbox_run run{-1, dir + "/stdout", dir + "/stderr"};
  pid_t pid = fork();
  if (pid == 0) {
    FILE *out = freopen(run.out_path.c_str(), "w", stdout);
    FILE *err = freopen(run.err_path.c_str(), "w", stderr);
    if (!out || !err) _exit(99);
    for (const auto &[name, value] : extra_env) setenv(name.c_str(), value.c_str(), 1);
    std::vector<char *> argv{const_cast<char *>(sandbox.c_str())};
    for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    execv(sandbox.c_str(), argv.data());
    _exit(98);
  }
  run.pid = pid;
  return run;
}

// The sandbox's exit code (128 + signal when it was killed), or -1 when it
// did not end within the limit (it is then killed).
int wait_sandbox(sandbox_run &run, std::chrono::milliseconds limit = 60s) {
  int status = 0;
  bool ended = wait_until([&] { return waitpid(run.pid, &status, WNOHANG) == run.pid; }, limit);
  if (!ended) {
    kill(run.pid, SIGKILL);
    waitpid(run.pid, &status, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int run_sandbox(const std::vector<std::string> &args, const std::string &dir,
                std::string *out = nullptr, std::string *err = nullptr,
                const std::map<std::string, std::string> &extra_env = {}) {
  sandbox_run run = start_sandbox(args, dir, extra_env);
  int code = wait_sandbox(run);
  if (out) *out = run.out();
  if (err) *err = run.err();
  return code;
}

int run_script(const std::string &script, std::string *out, const std::string &dir,
               std::vector<std::string> options = {"--timeout", "60"}) {
  options.insert(options.end(), {"--", "/bin/sh", "-c", script});
  std::string err;
  int code = run_sandbox(options, dir, out, &err);
  if (code != 0) ADD_FAILURE() << "script failed with " << code << ":\n" << *out << err;
  return code;
}

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool has_line(const std::string &text, const std::string &line) {
  for (const std::string &l : lines_of(text))
    if (l == line) return true;
  return false;
}

// name -> "mode size" of every entry of a directory, for those names that
// pass the filter.
std::map<std::string, std::string> listing(const std::string &dir,
                                           const std::function<bool(const std::string &)> &keep) {
  std::map<std::string, std::string> entries;
  DIR *d = opendir(dir.c_str());
  if (!d) return entries;
  while (dirent *entry = readdir(d)) {
    std::string name = entry->d_name;
    struct stat st;
    if (name == "." || name == ".." || !keep(name)) continue;
    if (lstat((dir + "/" + name).c_str(), &st) != 0) continue;
    entries[name] = std::to_string(st.st_mode) + " " + std::to_string(st.st_size);
  }
  closedir(d);
  return entries;
}

// "absent", or mode, size and modification time of a path.
std::string path_state(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return "absent";
  return std::to_string(st.st_mode) + " " + std::to_string(st.st_size) + " " +
         std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
}

std::string unique_marker() {
  return "keldra-sandbox-test-" + std::to_string(getpid()) + "-" +
         std::to_string(clock_type::now().time_since_epoch().count() % 1000000007);
}

// Every host process whose command line contains the text.
std::vector<pid_t> host_processes_with(const std::string &text) {
  std::vector<pid_t> found;
  DIR *d = opendir("/proc");
  while (dirent *entry = readdir(d)) {
    char *end;
    long pid = strtol(entry->d_name, &end, 10);
    if (*end != '\0' || pid == getpid()) continue;
    std::string cmdline = read_file("/proc/" + std::string(entry->d_name) + "/cmdline");
    for (char &c : cmdline)
      if (c == '\0') c = ' ';
    if (cmdline.find(text) != std::string::npos) found.push_back(static_cast<pid_t>(pid));
  }
  closedir(d);
  return found;
}

TEST(Sandbox, HostPathsStayUntouched) {
  std::string dir = scratch_dir();
  std::string marker = unique_marker();
  std::set<std::string> tmp_names{"keldra.lock", "simd", "sandbox", marker};
  auto ours_in_tmp = [&](const std::string &name) { return tmp_names.count(name) > 0; };
  auto everything = [](const std::string &) { return true; };
  std::vector<std::string> paths{
      "/usr/apps", "/etc/rc.d", "/var/pellan", "/usr/share/orvel", "/usr/bin/pellan",
      "/usr/bin/orvel", "/usr/bin/tavish", "/opt/dbspace", "/opt/var/pellan",
      "/usr/bin/restore_zelto_db.sh", "/etc/hostname", "/usr/" + marker,
      "/etc/" + marker, "/var/" + marker, "/opt/" + marker};
  auto run_before = listing("/run", everything);
  auto tmp_before = listing("/tmp", ours_in_tmp);
  std::map<std::string, std::string> paths_before;
  for (const std::string &path : paths) paths_before[path] = path_state(path);

  std::string script =
      "set -e; M=" + marker + "\n"
      "echo x > /run/x; : > /run/keldra.ready; mkdir -p /run/pellan\n"
      "echo $$ > /tmp/keldra.lock; echo x > /tmp/$M\n"
      "echo simulated > /usr/bin/pellan; echo x > /usr/bin/orvel\n"
      "echo x > /usr/apps/privileged-service/bin/dunmar\n"
      "echo x > /etc/rc.d/init.d/orvel-launcher.sh\n"
      "echo x > /opt/dbspace/.orvel.db-recovered; echo x > /opt/var/pellan/$M\n"
      "echo x > /var/pellan/db-recovered; echo x > /usr/share/orvel/policy/$M\n"
      "for d in /usr /etc /var /opt; do echo x > $d/$M; done\n"
      "if [ -f /etc/hostname ]; then echo changed >> /etc/hostname; fi\n"
      "ls /run /tmp /usr/bin/pellan /opt/dbspace /var/pellan /usr/share/orvel/policy\n";
  std::string out;
  ASSERT_EQ(run_script(script, &out, dir, {"--timeout", "60", "--bare"}), 0);
  EXPECT_TRUE(has_line(out, "keldra.lock")) << out;
  EXPECT_TRUE(has_line(out, marker)) << out;
  EXPECT_TRUE(has_line(out, "/usr/bin/pellan")) << out;

  EXPECT_EQ(listing("/run", everything), run_before);
  EXPECT_EQ(listing("/tmp", ours_in_tmp), tmp_before);
  for (const std::string &path : paths) EXPECT_EQ(path_state(path), paths_before[path]) << path;
}

// A number of seconds for "sleep" that no other command line contains.
std::string unique_seconds() {
  return "1000." + std::to_string(getpid()) +
         std::to_string(clock_type::now().time_since_epoch().count() % 100000);
}

TEST(Sandbox, LeavesNoProcessBehind) {
  std::string dir = scratch_dir();
  // The orphan's command line is "sleep 1000.<digits>", a number that appears
  // nowhere else, not even in the sandbox's own arguments.
  std::string seconds = unique_seconds();
  std::string go = dir + "/go";
  std::string script =
      "setsid sleep \"$ORPHAN_SECONDS\" </dev/null >/dev/null 2>&1 &\n"
      "echo started\n"
      "while [ ! -e \"$GO_FILE\" ]; do sleep 0.05; done\n";
  sandbox_run run = start_sandbox({"--timeout", "60", "--bare", "--", "/bin/sh", "-c", script},
                                  dir, {{"ORPHAN_SECONDS", seconds}, {"GO_FILE", go}});
  ASSERT_TRUE(wait_until([&] { return has_line(run.out(), "started"); }, 20s)) << run.err();
  EXPECT_TRUE(wait_until([&] { return !host_processes_with("sleep " + seconds).empty(); }, 20s))
      << "the orphan never showed up on the host";
  std::ofstream(go).put('\n');
  EXPECT_EQ(wait_sandbox(run), 0) << run.err();
  EXPECT_EQ(host_processes_with("sleep " + seconds), std::vector<pid_t>{});
}

// What ctest does to a test that runs too long.
TEST(Sandbox, KilledSandboxLeavesNoProcessBehind) {
  std::string dir = scratch_dir();
  std::string seconds = unique_seconds();
  std::string script = "setsid sleep \"$ORPHAN_SECONDS\" </dev/null >/dev/null 2>&1 &\n"
                       "sleep \"$ORPHAN_SECONDS\"\n";
  sandbox_run run = start_sandbox({"--bare", "--", "/bin/sh", "-c", script}, dir,
                                  {{"ORPHAN_SECONDS", seconds}});
  EXPECT_TRUE(wait_until([&] { return host_processes_with("sleep " + seconds).size() == 2; }, 20s))
      << "the two sleeps never showed up on the host";
  kill(run.pid, SIGKILL);
  EXPECT_EQ(wait_sandbox(run), 128 + SIGKILL);
  EXPECT_TRUE(wait_until([&] { return host_processes_with("sleep " + seconds).empty(); }, 10s))
      << "processes of a killed sandbox survive";
}

TEST(Sandbox, PropagatesExitStatus) {
  std::string dir = scratch_dir();
  EXPECT_EQ(run_sandbox({"--bare", "--timeout", "60", "--", "/bin/true"}, dir), 0);
  EXPECT_EQ(run_sandbox({"--bare", "--timeout", "60", "--", "/bin/sh", "-c", "exit 3"}, dir), 3);
  EXPECT_EQ(run_sandbox({"--bare", "--timeout", "60", "--", "/bin/sh", "-c", "kill -KILL $$"}, dir),
            128 + SIGKILL);
  EXPECT_EQ(run_sandbox({"--bare", "--timeout", "60", "--", "/bin/sh", "-c", "kill -TERM $$"}, dir),
            128 + SIGTERM);
  std::string err;
  EXPECT_EQ(run_sandbox({"--bare", "--", "/nonexistent/program"}, dir, nullptr, &err), 127);
  EXPECT_NE(err.find("keldra-sandbox: cannot run /nonexistent/program"), std::string::npos) << err;
}

TEST(Sandbox, RefusesToRunFromUnderTmp) {
  // A copy of the sandbox in the host's /tmp: it must stop before it sets up
  // anything, since its own /tmp would hide the build directory.
  char copy_dir[] = "/tmp/keldra-sandbox-copy.XXXXXX";
  ASSERT_NE(mkdtemp(copy_dir), nullptr);
  std::string copy = std::string(copy_dir) + "/keldra-sandbox";
  std::filesystem::copy_file(sandbox, copy);
  ASSERT_EQ(chmod(copy.c_str(), 0755), 0);
  std::string err_path = scratch_dir() + "/stderr";
  pid_t pid = fork();
  if (pid == 0) {
    if (!freopen(err_path.c_str(), "w", stderr)) _exit(99);
    execl(copy.c_str(), copy.c_str(), "--bare", "--", "/bin/true", (char *)nullptr);
    _exit(98);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  std::filesystem::remove_all(copy_dir);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 125);
  EXPECT_EQ(read_file(err_path), "keldra-sandbox: " + std::string(copy_dir) +
                                     " lies under /tmp, which the sandbox replaces: build "
                                     "outside /tmp and /run\n");
}

TEST(Sandbox, TimeoutKillsEverythingWithStatus124) {
  std::string dir = scratch_dir();
  std::string err;
  auto started = clock_type::now();
  int code = run_sandbox({"--bare", "--timeout", "1", "--", "/bin/sh", "-c", "sleep 100 & sleep 100"},
                         dir, nullptr, &err);
  auto elapsed = clock_type::now() - started;
  EXPECT_EQ(code, 124);
  EXPECT_GE(elapsed, 900ms);
  EXPECT_LT(elapsed, 10s);
  EXPECT_NE(err.find("keldra-sandbox: timed out after 1 s\n"), std::string::npos) << err;
}

TEST(Sandbox, ProgramSeesAPrivateSystem) {
  std::string dir = scratch_dir();
  std::string script =
      "echo pid=$$\n"
      "for p in /proc/[0-9]*; do echo proc=${p#/proc/}; done\n"
      "for f in /run/* /run/.[!.]*; do [ -e \"$f\" ] && echo run=$f; done\n"
      "for f in /tmp/* /tmp/.[!.]*; do [ -e \"$f\" ] && echo tmp=$f; done\n"
      "echo fs-run=$(stat -f -c %T /run) fs-tmp=$(stat -f -c %T /tmp)\n"
      "echo mode-run=$(stat -c %a /run) mode-tmp=$(stat -c %a /tmp)"
      " mode-sim=$(stat -c %a /tmp/simd) mode-sandbox=$(stat -c %a /tmp/sandbox)\n"
      "for d in /usr/apps/privileged-service/bin /etc/rc.d/init.d /opt/dbspace /opt/var/pellan"
      " /opt/var/log /var/pellan /usr/share/orvel/policy; do [ -d $d ] && echo dir=$d; done\n"
      "echo env=$KELDRA_SANDBOX\n"
      "true\n";
  std::string out;
  ASSERT_EQ(run_script(script, &out, dir, {"--timeout", "60", "--bare"}), 0);
  EXPECT_TRUE(has_line(out, "pid=2")) << out;
  int processes = 0;
  for (const std::string &line : lines_of(out)) {
    if (line.rfind("proc=", 0) != 0) continue;
    processes++;
    EXPECT_LT(std::stoi(line.substr(5)), 20) << out;
  }
  EXPECT_GE(processes, 2) << out;
  EXPECT_LE(processes, 6) << out;
  for (const std::string &line : lines_of(out)) {
    EXPECT_NE(line.rfind("run=", 0), 0u) << "/run is not empty: " << line;
    if (line.rfind("tmp=", 0) == 0) {
      EXPECT_TRUE(line == "tmp=/tmp/simd" || line == "tmp=/tmp/sandbox") << line;
    }
  }
  EXPECT_TRUE(has_line(out, "fs-run=tmpfs fs-tmp=tmpfs")) << out;
  EXPECT_TRUE(has_line(out, "mode-run=755 mode-tmp=1777 mode-sim=777 mode-sandbox=777")) << out;
  for (const char *d : {"/usr/apps/privileged-service/bin", "/etc/rc.d/init.d", "/opt/dbspace",
                        "/opt/var/pellan", "/opt/var/log", "/var/pellan", "/usr/share/orvel/policy"})
    EXPECT_TRUE(has_line(out, std::string("dir=") + d)) << out;
  EXPECT_TRUE(has_line(out, "env=1")) << out;
}

TEST(Sandbox, InstallsTheSimulatedDaemons) {
  std::string dir = scratch_dir();
  std::string script =
      "for f in /usr/bin/pellan /usr/bin/orvel /usr/apps/privileged-service/bin/dunmar"
      " /usr/bin/tavish /etc/rc.d/init.d/orvel-launcher.sh /usr/bin/restore_zelto_db.sh; do"
      " [ -f $f ] && echo \"$f $(stat -c '%a %s' $f)\"; done; true\n";
  std::string out;
  ASSERT_EQ(run_script(script, &out, dir), 0);
  std::string simd = tools_dir + "/keldra-simd";
  ASSERT_EQ(access(simd.c_str(), X_OK), 0) << "keldra-simd is not built";
  std::string simd_size = std::to_string(std::filesystem::file_size(simd));
  for (const char *daemon : {"/usr/bin/pellan", "/usr/bin/orvel",
                             "/usr/apps/privileged-service/bin/dunmar", "/usr/bin/tavish"})
    EXPECT_TRUE(has_line(out, std::string(daemon) + " 755 " + simd_size)) << out;
  for (auto [from, to] : {std::pair{"orvel-launcher.sh", "/etc/rc.d/init.d/orvel-launcher.sh"},
                          std::pair{"restore_zelto_db.sh", "/usr/bin/restore_zelto_db.sh"}}) {
    std::string source = tools_dir + "/scripts/" + from;
    if (access(source.c_str(), R_OK) != 0) continue;
    std::string size = std::to_string(std::filesystem::file_size(source));
    EXPECT_TRUE(has_line(out, std::string(to) + " 755 " + size)) << out;
  }

  std::string bare_out;
  ASSERT_EQ(run_script(script, &bare_out, dir, {"--timeout", "60", "--bare"}), 0);
  EXPECT_EQ(bare_out, "");
}

TEST(SmackSim, RecordsOneLabelPerThreadAndTheForkingThreadsLabel) {
  std::string dir = scratch_dir();
  std::string out;
  ASSERT_EQ(run_script(probe + " threads System System::Privileged && "
                       "echo records: && cat /tmp/sandbox/smack-labels",
                       &out, dir, {"--timeout", "60", "--bare"}),
            0);
  std::smatch m;
  std::map<std::string, std::string> tid_of;  // label -> tid
  std::map<std::string, std::string> child_of;  // label -> child pid
  std::string labels, forks;
  bool in_records = false;
  for (const std::string &line : lines_of(out)) {
    if (line == "records:") in_records = true;
    else if (!in_records && std::regex_match(line, m, std::regex("thread tid=(\\d+) label=(\\S+)")))
      tid_of[m[2]] = m[1];
    else if (!in_records && std::regex_match(line, m, std::regex("child pid=(\\d+) label=(\\S+)")))
      child_of[m[2]] = m[1];
    else if (in_records && line.rfind("label ", 0) == 0) labels += line + "\n";
    else if (in_records && line.rfind("fork ", 0) == 0) forks += line + "\n";
  }
  ASSERT_EQ(tid_of.size(), 2u) << out;
  ASSERT_NE(tid_of["System"], tid_of["System::Privileged"]);
  ASSERT_EQ(child_of.size(), 2u) << out;
  // The probe is the process the shell forked; its pid is the one in the
  // records, and both children were forked by it.
  std::regex label_record("label pid=(\\d+) tid=" + tid_of["System"] + " label=System");
  ASSERT_TRUE(std::regex_search(labels, m, label_record)) << out;
  std::string probe_pid = m[1];
  EXPECT_EQ(labels, "label pid=" + probe_pid + " tid=" + tid_of["System"] + " label=System\n" +
                        "label pid=" + probe_pid + " tid=" + tid_of["System::Privileged"] +
                        " label=System::Privileged\n");
  EXPECT_NE(forks.find("fork pid=" + child_of["System"] + " ppid=" + probe_pid + " label=System\n"),
            std::string::npos)
      << forks;
  EXPECT_NE(forks.find("fork pid=" + child_of["_"] + " ppid=" + probe_pid + " label=_\n"),
            std::string::npos)
      << forks;
}

TEST(SmackSim, RefusesLabelsLikeTheKernel) {
  std::string dir = scratch_dir();
  std::string long_label(256, 'L'), longest_label(255, 'K');
  std::string script =
      "echo Other > /tmp/sandbox/smack-refuse; echo Refused.Label >> /tmp/sandbox/smack-refuse\n"
      "for l in Refused.Label '' -dash /slash " + long_label + " Accepted " + longest_label + "; do"
      " echo \"[$l] $(" + probe + " label \"$l\")\"; done\n"
      "echo records:; cat /tmp/sandbox/smack-labels\n";
  std::string out;
  ASSERT_EQ(run_script(script, &out, dir, {"--timeout", "60", "--bare"}), 0);
  for (const std::string &label : {std::string("Refused.Label"), std::string(""),
                                   std::string("-dash"), std::string("/slash"), long_label})
    EXPECT_TRUE(has_line(out, "[" + label + "] error EINVAL")) << out;
  std::string records = out.substr(out.find("records:\n") + 9);
  std::string label_records;
  for (const std::string &line : lines_of(records))
    if (line.rfind("label ", 0) == 0) label_records += line.substr(line.find(" label=")) + "\n";
  EXPECT_EQ(label_records, " label=Accepted\n label=" + longest_label + "\n") << out;
}

TEST(SmackSim, NotLoadedWithNoSmackSim) {
  std::string dir = scratch_dir();
  std::string out;
  ASSERT_EQ(run_script("echo \"preload=$LD_PRELOAD dir=$SMACK_SIM_DIR\"; " + probe +
                           " label System; ls /tmp/sandbox; true",
                       &out, dir, {"--timeout", "60", "--bare", "--no-smack-sim"}),
            0);
  EXPECT_EQ(out, "preload= dir=\nerror EINVAL\n");
}

void expect_one_sigterm_after(int signal_to_sandbox) {
  std::string dir = scratch_dir();
  std::string record = dir + "/signals";
  sandbox_run run = start_sandbox({"--bare", "--timeout", "20", "--", probe, "signals", record}, dir);
  ASSERT_TRUE(wait_until([&] { return access((record + ".ready").c_str(), F_OK) == 0; }, 20s))
      << run.err();
  kill(run.pid, signal_to_sandbox);
  EXPECT_EQ(wait_sandbox(run), 0) << run.err();
  EXPECT_EQ(read_file(record), "TERM from=1\n");
}

TEST(Sandbox, SigtermReachesTheProgramOnce) { expect_one_sigterm_after(SIGTERM); }

TEST(Sandbox, SigintReachesTheProgramAsOneSigterm) { expect_one_sigterm_after(SIGINT); }

TEST(Sandbox, SecondStopRequestKillsEverything) {
  std::string dir = scratch_dir();
  std::string script = "trap '' TERM; echo ready; while :; do sleep 0.05; done";
  sandbox_run run = start_sandbox({"--bare", "--timeout", "60", "--", "/bin/sh", "-c", script}, dir);
  ASSERT_TRUE(wait_until([&] { return has_line(run.out(), "ready"); }, 20s)) << run.err();
  kill(run.pid, SIGTERM);
  int status;
  EXPECT_FALSE(wait_until([&] { return waitpid(run.pid, &status, WNOHANG) == run.pid; }, 500ms))
      << "the sandbox ended although its program ignores SIGTERM";
  kill(run.pid, SIGTERM);
  EXPECT_EQ(wait_sandbox(run, 20s), 128 + SIGKILL);
}

TEST(Sandbox, PidsMaxLimitsForks) {
  std::string dir = scratch_dir();
  sandbox_run run =
      start_sandbox({"--bare", "--timeout", "60", "--pids-max", "6", "--", probe, "forks", "20"}, dir);
  std::string cgroup = "/sys/fs/cgroup/pids/keldra-sandbox." + std::to_string(run.pid);
  ASSERT_EQ(wait_sandbox(run), 0) << run.err();
  // PID 1 and the probe count as well.
  EXPECT_EQ(run.out(), "forked=4 error=EAGAIN\n");
  EXPECT_EQ(path_state(cgroup), "absent");
}

}  // namespace
