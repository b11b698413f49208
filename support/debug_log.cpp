// Debug log: one time-stamped line per message to a self-rotating file and to standard output,
// or to a host callback instead. Nothing is kept open between calls: the caller's slot holds the
// stream for the length of one message. The file is only ever reached through a held descriptor
// of its checked directory, so no symbolic link planted on the way can redirect it.
#include "observability/debug_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

// Provided by some C libraries only; bound weakly so the library loads without it.
extern "C" int __gettid(void) __attribute__((weak));

namespace {

constexpr size_t kMaxPathLength = 511;
constexpr int kBackupNumber = 1;

obs_log_callback log_callback;
const char *log_file_path;

// O_NONBLOCK keeps a FIFO planted at the log path from blocking the caller; regular files
// ignore it.
constexpr int kOpenFlags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

// Only a real directory of this user or of root is trusted: anyone could have created one
// elsewhere, e.g. under /tmp, to collect or redirect our lines.
int open_trusted_dir(const char *dir) {
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode) && (st.st_uid == geteuid() || st.st_uid == 0)) {
        return fd;
    }
    close(fd);
    return -1;
}

FILE *line_buffered_stream(int fd, const char *mode) {
    if (fd < 0) return nullptr;
    FILE *stream = fdopen(fd, mode);
    if (!stream) {
        close(fd);
        return nullptr;
    }
    setlinebuf(stream);
    return stream;
}

// The log file's directory, held open while the file is opened or rotated inside it.
class log_dir {
  public:
    explicit log_dir(const char *path) {
        if (!path || strnlen(path, kMaxPathLength + 1) > kMaxPathLength) return;
        char dir[kMaxPathLength + 1] = ".";
        const char *slash = strrchr(path, '/');
        name_ = slash ? slash + 1 : path;
        if (slash) {
            size_t dir_length = slash == path ? 1 : static_cast<size_t>(slash - path);
            memcpy(dir, path, dir_length);
            dir[dir_length] = '\0';
        }
        fd_ = open_trusted_dir(dir);
    }
    ~log_dir() {
        if (fd_ >= 0) close(fd_);
    }
    log_dir(const log_dir &) = delete;
    log_dir &operator=(const log_dir &) = delete;

    // Positioned at the end so that ftell reports the file's size.
    FILE *open_for_append() const {
        if (fd_ < 0) return nullptr;
        int fd = openat(fd_, name_, kOpenFlags | O_APPEND, 0644);
        if (fd >= 0) lseek(fd, 0, SEEK_END);
        return line_buffered_stream(fd, "a");
    }

    // A failing link loses the old content; the file is recreated all the same.
    FILE *rotate() const {
        if (fd_ < 0) return nullptr;
        char backup[kMaxPathLength + 3];
        snprintf(backup, sizeof backup, "%s.%d", name_, kBackupNumber);
        unlinkat(fd_, backup, 0);
        linkat(fd_, name_, fd_, backup, 0);
        unlinkat(fd_, name_, 0);
        return line_buffered_stream(openat(fd_, name_, kOpenFlags | O_TRUNC, 0644), "w");
    }

  private:
    int fd_ = -1;
    const char *name_ = nullptr;
};

// A failing ftell (-1) never rotates.
bool needs_rotation(FILE *stream) {
    return ftell(stream) >= OBS_DEBUG_LOG_ROTATE_SIZE;
}

void write_file_line(FILE **slot, const char *path, const char *stamp, const char *msg) {
    if (!*slot) *slot = log_dir(path).open_for_append();
    if (*slot && needs_rotation(*slot)) {
        fclose(*slot);
        *slot = log_dir(path).rotate();
    }
    if (*slot) fprintf(*slot, "%s [%d] %s\n", stamp, obs_gettid(), msg);
}

void format_time_stamp(char (&stamp)[32]) {
    stamp[0] = '\0';
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local)) strftime(stamp, sizeof stamp, "%F %T", &local);
}

}  // namespace

extern "C" {

void obs_log_callback_set(obs_log_callback cb) {
    __atomic_store_n(&log_callback, cb, __ATOMIC_RELAXED);
}

void obs_log_file_set(const char *path) {
    __atomic_store_n(&log_file_path, path, __ATOMIC_RELAXED);
}

int obs_gettid(void) {
    if (__gettid) return __gettid();
    return static_cast<int>(syscall(SYS_gettid));
}

int obs_debug_log_to_file(const char *msg, FILE **slot, const char *default_path) {
    if (!msg) msg = "";
    obs_log_callback callback = __atomic_load_n(&log_callback, __ATOMIC_RELAXED);
    if (callback) return callback(0, msg);

    const char *path = __atomic_load_n(&log_file_path, __ATOMIC_RELAXED);
    char stamp[32];
    format_time_stamp(stamp);
    if (slot) write_file_line(slot, path ? path : default_path, stamp, msg);
    return printf("%s %s\n", stamp, msg);
}

}  // extern "C"
