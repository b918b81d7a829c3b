// aarch64-run PROGRAM [ARG...]   (make_sysroot.sh compiles it for the host, into the sysroot)
//
// Runs an AArch64 PROGRAM under user-mode emulation such that the AArch64 programs that it starts
// run, too. PROGRAM may also be a host program that starts AArch64 ones (sh, ctest). It replaces
// itself: same process, same exit status. Two things stand between the bare emulator and that:
//
// 1. The emulator passes execve() to the host's kernel as it is, so starting programs needs
//    binfmt_misc. PROGRAM gets one of its own, in a user namespace (Linux 6.7 or newer, no root);
//    that of the host is neither used nor changed.
// 2. Qt 5.15's QProcess asks waitid(P_PIDFD) whether there are pidfds. The host's kernel says yes,
//    but the emulator refuses clone(CLONE_PIDFD); QProcess goes on with process -1 and later calls
//    kill(-1, SIGKILL): as root, that is every process of the machine. A seccomp filter answers the
//    question with no, so that QProcess forks, and refuses kill(-1) in any case.
//
// AARCH64_RUN_MODE in the environment: auto (default) does 1 and 2, or only 2 where 1 cannot be
// had; namespace does both or fails; plain only 2, for an AArch64 PROGRAM that starts none.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#define EMULATOR "/usr/bin/qemu-aarch64-static"
#define BINFMT "/proc/sys/fs/binfmt_misc"

static char sysroot[3000];
static const char* step = "";  // what is being tried, for the message when it fails

static bool WriteFile(const char* path, const char* text) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  if (file < 0) {
    return false;
  }
  const ssize_t written = write(file, text, strlen(text));
  close(file);
  return written == (ssize_t)strlen(text);
}

static bool MapOneId(unsigned user_inside, unsigned user, unsigned group_inside, unsigned group) {
  char users[64];
  char groups[64];
  snprintf(users, sizeof users, "%u %u 1", user_inside, user);
  snprintf(groups, sizeof groups, "%u %u 1", group_inside, group);
  return WriteFile("/proc/self/setgroups", "deny") && WriteFile("/proc/self/uid_map", users) &&
         WriteFile("/proc/self/gid_map", groups);
}

// In a process that stays outside the new namespace, where it may write the maps of `process`.
static void MapAllIdsWhenTold(int told, pid_t process) {
  char byte;
  if (read(told, &byte, 1) != 1) {
    _exit(1);
  }
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/uid_map", (int)process);
  const bool users = WriteFile(path, "0 0 4294967295");
  snprintf(path, sizeof path, "/proc/%d/gid_map", (int)process);
  _exit(users && WriteFile(path, "0 0 4294967295") ? 0 : 1);
}

// A new user namespace in which every id means what it meant outside.
static bool UnshareAsRoot(void) {
  int pipes[2];
  if (pipe2(pipes, O_CLOEXEC) != 0) {
    return false;
  }
  const pid_t process = getpid();
  const pid_t helper = fork();
  if (helper < 0) {
    return false;
  }
  if (helper == 0) {
    close(pipes[1]);
    MapAllIdsWhenTold(pipes[0], process);
  }
  close(pipes[0]);
  const bool unshared = unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && write(pipes[1], "x", 1) == 1;
  close(pipes[1]);
  int status = 1;
  return waitpid(helper, &status, 0) == helper && unshared && status == 0;
}

static bool Unshare(uid_t user, gid_t group) {
  step = "unshare";
  return user == 0 ? UnshareAsRoot()
                   : unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && MapOneId(0, user, 0, group);
}

static bool MountBinfmt(void) {
  step = "mount binfmt_misc";
  return mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) == 0 &&
         mount("binfmt_misc", BINFMT, "binfmt_misc", MS_NOSUID | MS_NODEV | MS_NOEXEC, NULL) == 0;
}

// The first 20 bytes of an AArch64 ELF program choose the interpreter; flag P tells it the original
// argv[0].
static bool RegisterInterpreter(void) {
  step = "register with binfmt_misc";
  char rule[4096];
  snprintf(rule, sizeof rule,
           ":aarch64:M::\\x7f\\x45\\x4c\\x46\\x02\\x01\\x01\\x00\\x00\\x00\\x00\\x00\\x00\\x00"
           "\\x00\\x00\\x02\\x00\\xb7\\x00:\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\x00\\xff\\xff"
           "\\xff\\xff\\xff\\xff\\xff\\xff\\xfe\\xff\\xff\\xff:%s/qemu-interpreter:P",
           sysroot);
  return WriteFile(BINFMT "/register", rule);
}

static bool ReturnToOwnId(uid_t user, gid_t group) {
  step = "unshare again";
  return user == 0 || (unshare(CLONE_NEWUSER) == 0 && MapOneId(user, 0, group, 0));
}

static bool TakeOwnBinfmt(void) {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  return Unshare(user, group) && MountBinfmt() && RegisterInterpreter() &&
         ReturnToOwnId(user, group);
}

static bool CanTakeOwnBinfmt(void) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(TakeOwnBinfmt() ? 0 : 1);
  }
  int status = 1;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

#define LOAD(field) BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, field))
#define IF(value, yes, no) BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (value), (yes), (no))
#define ANSWER(what) BPF_STMT(BPF_RET | BPF_K, (what))

// Only the low halves of the arguments are looked at: the host is little-endian.
static bool InstallFilter(void) {
  const unsigned pidfd = 3;
  struct sock_filter rules[] = {
      LOAD(arch),
      IF(AUDIT_ARCH_X86_64, 0, 10),
      LOAD(nr),
      IF(SYS_kill, 0, 2),
      LOAD(args[0]),
      IF(0xffffffffU, 7, 6),
      IF(SYS_waitid, 0, 5),
      LOAD(args[0]),
      IF(pidfd, 0, 3),
      LOAD(args[1]),
      IF(0x7fffffff, 0, 1),
      ANSWER(SECCOMP_RET_ERRNO | EINVAL),
      ANSWER(SECCOMP_RET_ALLOW),
      ANSWER(SECCOMP_RET_ERRNO | EPERM),
  };
  struct sock_fprog program = {sizeof rules / sizeof *rules, rules};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

static int Replace(const char* program, char* const* arguments) {
  execvp(program, arguments);
  perror(program);
  return 127;
}

static int ReplaceByEmulator(int count, char** arguments) {
  char* all[count + 3];
  all[0] = (char*)EMULATOR;
  all[1] = (char*)"-L";
  all[2] = sysroot;
  memcpy(all + 3, arguments + 1, (size_t)count * sizeof *all);
  return Replace(EMULATOR, all);
}

static bool FindSysroot(void) {
  const ssize_t length = readlink("/proc/self/exe", sysroot, sizeof sysroot - 1);
  if (length <= 0) {
    return false;
  }
  sysroot[length] = 0;
  *strrchr(sysroot, '/') = 0;
  return true;
}

int main(int count, char** arguments) {
  if (count < 2 || !FindSysroot()) {
    fprintf(stderr, "usage: aarch64-run PROGRAM [ARG...]\n");
    return 2;
  }
  const char* active = getenv("AARCH64_RUN_ACTIVE");
  if (active != NULL && strcmp(active, sysroot) == 0) {
    return Replace(arguments[1], arguments + 1);  // called from inside: all is set up
  }
  const char* mode = getenv("AARCH64_RUN_MODE");
  const bool automatic = mode == NULL || strcmp(mode, "auto") == 0;
  const bool own = automatic ? CanTakeOwnBinfmt() : strcmp(mode, "plain") != 0;
  if (own && !TakeOwnBinfmt()) {
    fprintf(stderr, "aarch64-run: %s: %s\n", step, strerror(errno));
    return 126;
  }
  if (!InstallFilter()) {
    perror("aarch64-run: seccomp");
    return 126;
  }
  if (!own) {
    return ReplaceByEmulator(count, arguments);
  }
  setenv("AARCH64_RUN_ACTIVE", sysroot, 1);
  return Replace(arguments[1], arguments + 1);
}
