/* Loaded in front of the C library (LD_PRELOAD) into the program under test, to make things fail that fail
 * seldom.
 *
 * FAULT_KILL_AT=N       the process, with those that it forked, is killed in place of their Nth call that
 *                       changes names or flushes
 * FAULT_NO_FORK=1       no process can be forked
 * FAULT_NO_EXCHANGE=1   the file system knows no exchange of names
 * FAULT_NO_LOCKS=ERRNO  the file system knows no locks (flock)
 * FAULT_NETWORK=1       every file system says that it is NFS (fstatfs), and a file that this process has
 *                       open keeps a name when it is removed, as there; it keeps it for ever
 * FAULT_FSYNC=N         the Nth flush fails as a full disk does
 * FAULT_READ=N          the Nth read at a place (pread) fails as a broken disk does
 * FAULT_WRITE=N         the same of writes (pwrite)
 * FAULT_SLOW=FILE       while FILE exists, every read at a place takes 100 ms longer
 * FAULT_HOLD=FILE       the process creates FILE when it is about to create the folder that it writes to,
 *                       and goes on when FILE is gone or a signal comes
 * FAULT_HOLD_AT=CALL    the same at its first pread, pwrite or fsync instead, or at its first read of a
 *                       data.bin
 * FAULT_STUCK=FILE      the first write at a place creates FILE and takes ten seconds, whatever signals come,
 *                       or until FILE is gone; then it removes FILE
 * FAULT_STUCK_AT=flush  the first flush of a folder does that instead, but for one that is being written
 * FAULT_WATCH=COMMAND   "COMMAND cut NAME" is run before each call that changes names or flushes;
 *                       "COMMAND flushed PATH" after each flush
 * FAULT_COUNT=FILE      the number of those calls is written to the file when the process exits
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

#ifndef RENAME_EXCHANGE
#define RENAME_EXCHANGE (1 << 1)
#endif

static long killAt = 0;
static long failingFlush = 0;
static long failingRead = 0;
static long failingWrite = 0;
static int noExchange = 0;
static int noLocks = 0;
static int isNetwork = 0;
static char countFile[4096] = "";
static long ownCalls = 0;
static long* calls = &ownCalls; /* of this process and of those that it forks */
static pid_t first = 0;
static int noFork = 0;
static long flushes = 0;
static atomic_long reads = 0;
static atomic_long writes = 0;

static long numberOf(const char* name) {
    const char* text = getenv(name);
    const long number = text != NULL ? strtol(text, NULL, 10) : 0;
    unsetenv(name);
    return number;
}

__attribute__((constructor)) static void readFaults(void) {
    killAt = numberOf("FAULT_KILL_AT");
    failingFlush = numberOf("FAULT_FSYNC");
    failingRead = numberOf("FAULT_READ");
    failingWrite = numberOf("FAULT_WRITE");
    noExchange = numberOf("FAULT_NO_EXCHANGE") != 0;
    noFork = numberOf("FAULT_NO_FORK") != 0;
    first = getpid();
    void* shared = mmap(NULL, sizeof *calls, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    calls = shared != MAP_FAILED ? shared : calls;
    noLocks = (int)numberOf("FAULT_NO_LOCKS");
    isNetwork = numberOf("FAULT_NETWORK") != 0;
    const char* file = getenv("FAULT_COUNT");
    if (file != NULL) {
        strncpy(countFile, file, sizeof countFile - 1);
        unsetenv("FAULT_COUNT");
    }
}

__attribute__((destructor)) static void writeCount(void) {
    FILE* file = countFile[0] != '\0' ? fopen(countFile, "w") : NULL;
    if (file != NULL) {
        fprintf(file, "%ld\n", *calls);
        fclose(file);
    }
}

static void watch(const char* what, const char* subject) {
    const char* command = getenv("FAULT_WATCH");
    if (command == NULL) {
        return;
    }
    char line[8192];
    snprintf(line, sizeof line, "LD_PRELOAD= %s %s '%s'", command, what, subject);
    if (system(line) != 0) {
        fprintf(stderr, "faults: failed: %s\n", line);
        abort();
    }
}

static void hold(const char* call) {
    static atomic_flag held = ATOMIC_FLAG_INIT;
    const char* name = getenv("FAULT_HOLD");
    const char* where = getenv("FAULT_HOLD_AT");
    if (name == NULL || strcmp(where != NULL ? where : "mkdir", call) != 0 ||
        atomic_flag_test_and_set(&held)) {
        return;
    }
    /* A signal between two looks must not be missed: it is let in during the wait alone, which it ends. */
    const struct timespec pause = {0, 1000000};
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    FILE* file = fopen(name, "w");
    if (file != NULL) {
        fclose(file);
        while (access(name, F_OK) == 0 && ppoll(NULL, 0, &pause, &before) == 0) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &before, NULL);
}

static void stick(void) {
    static atomic_flag stuck = ATOMIC_FLAG_INIT;
    const char* name = getenv("FAULT_STUCK");
    if (name == NULL || atomic_flag_test_and_set(&stuck)) {
        return;
    }
    FILE* file = fopen(name, "w");
    if (file != NULL) {
        fclose(file);
    }
    const struct timespec pause = {0, 10000000};
    for (int i = 0; i < 1000 && access(name, F_OK) == 0; ++i) {
        struct timespec left = pause;
        while (nanosleep(&left, &left) != 0) {
        }
    }
    unlinkat(AT_FDCWD, name, 0); /* not counted */
}

static int sticksAt(const char* call) {
    const char* where = getenv("FAULT_STUCK_AT");
    return strcmp(where != NULL ? where : "write", call) == 0;
}

static void countCall(const char* name) {
    watch("cut", name);
    if (++*calls == killAt) {
        kill(first, SIGKILL);
        raise(SIGKILL);
    }
}

int rename(const char* from, const char* to) {
    int (*next)(const char*, const char*) = (int (*)(const char*, const char*))dlsym(RTLD_NEXT, "rename");
    countCall("rename");
    return next(from, to);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned int flags) {
    int (*next)(int, const char*, int, const char*, unsigned int) =
        (int (*)(int, const char*, int, const char*, unsigned int))dlsym(RTLD_NEXT, "renameat2");
    countCall("renameat2");
    if (noExchange && (flags & RENAME_EXCHANGE) != 0) {
        errno = EINVAL;
        return -1;
    }
    return next(fromFolder, from, toFolder, to, flags);
}

int flock(int file, int operation) {
    int (*next)(int, int) = (int (*)(int, int))dlsym(RTLD_NEXT, "flock");
    errno = noLocks;
    return noLocks != 0 ? -1 : next(file, operation);
}

int fstatfs(int file, struct statfs* status) {
    int (*next)(int, struct statfs*) = (int (*)(int, struct statfs*))dlsym(RTLD_NEXT, "fstatfs");
    const int result = next(file, status);
    status->f_type = result == 0 && isNetwork ? NFS_SUPER_MAGIC : status->f_type;
    return result;
}

static int isOpenHere(const char* path) {
    struct stat wanted;
    struct stat found;
    if (lstat(path, &wanted) != 0 || !S_ISREG(wanted.st_mode)) {
        return 0;
    }
    for (int file = 0; file < 1024; ++file) {
        if (fstat(file, &found) == 0 && found.st_dev == wanted.st_dev && found.st_ino == wanted.st_ino) {
            return 1;
        }
    }
    return 0;
}

int remove(const char* path) {
    int (*next)(const char*) = (int (*)(const char*))dlsym(RTLD_NEXT, "remove");
    countCall("remove");
    if (isNetwork && isOpenHere(path)) {
        char kept[4096];
        snprintf(kept, sizeof kept, "%s.nfs", path);
        return rename(path, kept);
    }
    return next(path);
}

int unlink(const char* path) {
    int (*next)(const char*) = (int (*)(const char*))dlsym(RTLD_NEXT, "unlink");
    countCall("unlink");
    return next(path);
}

int rmdir(const char* path) {
    int (*next)(const char*) = (int (*)(const char*))dlsym(RTLD_NEXT, "rmdir");
    countCall("rmdir");
    return next(path);
}

pid_t fork(void) {
    pid_t (*next)(void) = (pid_t(*)(void))dlsym(RTLD_NEXT, "fork");
    errno = EAGAIN;
    return noFork ? -1 : next();
}

int fsync(int file) {
    int (*next)(int) = (int (*)(int))dlsym(RTLD_NEXT, "fsync");
    hold("fsync");
    countCall("fsync");
    if (++flushes == failingFlush) {
        errno = ENOSPC;
        return -1;
    }
    char link[64];
    char path[4096] = "";
    struct stat status;
    snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    const int isNamed = readlink(link, path, sizeof path - 1) > 0;
    if (sticksAt("flush") && fstat(file, &status) == 0 && S_ISDIR(status.st_mode) &&
        strstr(path, ".partial-") == NULL) {
        stick();
    }
    const int result = getenv("FAULT_WATCH") != NULL ? 0 : next(file); // the watcher stands for the disk
    if (result == 0 && isNamed) {
        watch("flushed", path);
    }
    return result;
}

int mkdir(const char* path, mode_t mode) {
    int (*next)(const char*, mode_t) = (int (*)(const char*, mode_t))dlsym(RTLD_NEXT, "mkdir");
    if (strstr(path, ".partial-") != NULL) {
        hold("mkdir");
    }
    watch("cut", "mkdir");
    return next(path, mode);
}

ssize_t read(int file, void* data, size_t size) {
    typedef ssize_t PlainRead(int, void*, size_t);
    const char* where = getenv("FAULT_HOLD_AT");
    if (where != NULL && strcmp(where, "read") == 0) {
        const char* last = "/data.bin";
        char link[64];
        char path[4096] = "";
        snprintf(link, sizeof link, "/proc/self/fd/%d", file);
        const ssize_t length = readlink(link, path, sizeof path - 1);
        if (length > (ssize_t)strlen(last) && strcmp(path + length - strlen(last), last) == 0) {
            hold("read");
        }
    }
    return ((PlainRead*)dlsym(RTLD_NEXT, "read"))(file, data, size);
}

typedef ssize_t Read(int, void*, size_t, off64_t);
typedef ssize_t CheckedRead(int, void*, size_t, off64_t, size_t);
typedef ssize_t Write(int, const void*, size_t, off64_t);

static int readFails(void) {
    hold("pread");
    const char* slow = getenv("FAULT_SLOW");
    if (slow != NULL && access(slow, F_OK) == 0) {
        usleep(100000);
    }
    errno = EIO;
    return ++reads == failingRead;
}

static int writeFails(void) {
    hold("pwrite");
    if (sticksAt("write")) {
        stick();
    }
    errno = EIO;
    return ++writes == failingWrite;
}

/* Each by the names that compilers ask for. */
ssize_t pread(int file, void* data, size_t size, off_t at) {
    return readFails() ? -1 : ((Read*)dlsym(RTLD_NEXT, "pread"))(file, data, size, at);
}

ssize_t pread64(int file, void* data, size_t size, off64_t at) {
    return readFails() ? -1 : ((Read*)dlsym(RTLD_NEXT, "pread64"))(file, data, size, at);
}

ssize_t __pread_chk(int file, void* data, size_t size, off_t at, size_t room) {
    return readFails() ? -1 : ((CheckedRead*)dlsym(RTLD_NEXT, "__pread_chk"))(file, data, size, at, room);
}

ssize_t __pread64_chk(int file, void* data, size_t size, off64_t at, size_t room) {
    return readFails() ? -1 : ((CheckedRead*)dlsym(RTLD_NEXT, "__pread64_chk"))(file, data, size, at, room);
}

ssize_t pwrite(int file, const void* data, size_t size, off_t at) {
    return writeFails() ? -1 : ((Write*)dlsym(RTLD_NEXT, "pwrite"))(file, data, size, at);
}

ssize_t pwrite64(int file, const void* data, size_t size, off64_t at) {
    return writeFails() ? -1 : ((Write*)dlsym(RTLD_NEXT, "pwrite64"))(file, data, size, at);
}
