#include "otelc/pipeline.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <strings.h>
#include <unistd.h>

#include "otelc/diag.h"
#include "otelc/otlp_http.h"
#include "otelc/resource.h"

namespace otelc {

namespace {

struct SignalNames {
    const char *name;
    const char *exporter_var;
    const char *file_var;
    const char *queue_var;
    const char *delay_var;
    const char *batch_var;
    const char *timeout_var;
    uint32_t delay_ms;
};

const SignalNames kNames[] = {
    {"traces", "OTEL_TRACES_EXPORTER", "OTEL_EXPORTER_OTLP_TRACES_FILE", "OTEL_BSP_MAX_QUEUE_SIZE",
     "OTEL_BSP_SCHEDULE_DELAY", "OTEL_BSP_MAX_EXPORT_BATCH_SIZE", "OTEL_BSP_EXPORT_TIMEOUT", 5000},
    {"logs", "OTEL_LOGS_EXPORTER", "OTEL_EXPORTER_OTLP_LOGS_FILE", "OTEL_BLRP_MAX_QUEUE_SIZE",
     "OTEL_BLRP_SCHEDULE_DELAY", "OTEL_BLRP_MAX_EXPORT_BATCH_SIZE", "OTEL_BLRP_EXPORT_TIMEOUT",
     1000},
    {"metrics", "OTEL_METRICS_EXPORTER", "OTEL_EXPORTER_OTLP_METRICS_FILE", nullptr,
     "OTEL_METRIC_EXPORT_INTERVAL", nullptr, "OTEL_METRIC_EXPORT_TIMEOUT", 60000},
};

constexpr uint32_t kMaxQueue = 1u << 20;
constexpr uint32_t kMaxMs = 24u * 3600 * 1000;

// The exporter thread's state. life serialises starting and stopping the thread; lock guards
// the list and is held for a whole export pass, which may wait on the network for the export
// timeout. New contexts wait in joining (under joining_lock, never held across I/O) until the
// thread's next pass takes them in, so that making a context never waits for an export.
pthread_mutex_t life = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t joining_lock = PTHREAD_MUTEX_INITIALIZER;
sem_t wake;
pthread_t thread;
bool running;
bool stopping;
Pipeline *pipelines;
Pipeline *joining;

ExporterKind exporter_kind(const SignalNames &names) {
    const char *text = env_text(names.exporter_var);
    if (!text || strcmp(text, "otlp") == 0) return ExporterKind::otlp;
    if (strcmp(text, "otlp_file") == 0) return ExporterKind::file;
    if (strcmp(text, "console") == 0) return ExporterKind::console;
    if (strcmp(text, "none") == 0) return ExporterKind::none;
    diag("%s='%s' is not otlp, otlp_file, console or none; using otlp", names.exporter_var, text);
    return ExporterKind::otlp;
}

// Where the exporter writes; -1 (and kind none) when it cannot.
void open_output(Pipeline *p, const SignalNames &names) {
    p->fd = -1;
    if (p->kind == ExporterKind::console) {
        p->fd = STDOUT_FILENO;
    } else if (p->kind == ExporterKind::file) {
        const char *path = env_text(names.file_var);
        if (!path) {
            diag("%s is not set; %s are not exported", names.file_var, names.name);
        } else {
            // Non-blocking, so that a reader that stalls (a pipe) costs an export its timeout,
            // never the exporter thread.
            p->fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644);
            if (p->fd < 0)
                diag("cannot open %s: %s; %s are not exported", path, strerror(errno), names.name);
        }
    } else if (p->kind == ExporterKind::otlp) {
        p->otlp = otlp_target_create(names.name);
    }
    if (p->fd < 0 && !p->otlp) p->kind = ExporterKind::none;
}

void configure(Pipeline *p, const SignalNames &names) {
    p->kind = exporter_kind(names);
    p->max_queue = names.queue_var ? env_uint(names.queue_var, 2048, 1, kMaxQueue) : 0;
    p->max_batch = names.batch_var ? env_uint(names.batch_var, 512, 1, kMaxQueue) : 0;
    if (p->max_batch > p->max_queue) {
        diag("%s=%u exceeds %s=%u; using %u", names.batch_var, p->max_batch, names.queue_var,
             p->max_queue, p->max_queue);
        p->max_batch = p->max_queue;
    }
    p->delay_ms = env_uint(names.delay_var, names.delay_ms, 0, kMaxMs);
    p->timeout_ms = env_uint(names.timeout_var, 30000, 0, kMaxMs);
    p->span_attr_limit = env_uint("OTEL_SPAN_ATTRIBUTE_COUNT_LIMIT", 128, 0, kMaxQueue);
    p->span_event_limit = env_uint("OTEL_SPAN_EVENT_COUNT_LIMIT", 128, 0, kMaxQueue);
}

bool make_ring(Pipeline *p) {
    uint32_t slots = 1;
    while (slots < p->max_queue) slots *= 2;
    p->slots = static_cast<Slot *>(malloc(slots * sizeof(Slot)));
    if (!p->slots) return false;
    for (uint32_t i = 0; i < slots; ++i) {
        p->slots[i].sequence.store(i, std::memory_order_relaxed);
        p->slots[i].record = nullptr;
    }
    p->mask = slots - 1;
    return true;
}

// The oldest queued record, null when there is none. Under lock (one consumer at a time).
void *pop(Pipeline *p) {
    Slot *slot = &p->slots[p->tail & p->mask];
    if (slot->sequence.load(std::memory_order_acquire) != p->tail + 1) return nullptr;
    void *record = slot->record;
    slot->sequence.store(p->tail + p->mask + 1, std::memory_order_release);
    ++p->tail;
    p->queued.fetch_sub(1, std::memory_order_relaxed);
    return record;
}

// Writes all n bytes before deadline (monotonic ns); false when it cannot.
bool write_all(int fd, const char *data, size_t n, uint64_t deadline) {
    while (n > 0) {
        const ssize_t written = write(fd, data, n);
        if (written > 0) {
            data += written, n -= written;
            continue;
        }
        if (written < 0 && errno == EINTR) continue;
        if (written == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return false;
        const uint64_t now = mono_ns();
        if (now >= deadline) return false;
        pollfd ready = {fd, POLLOUT, 0};
        poll(&ready, 1, static_cast<int>((deadline - now) / 1000000 + 1));
    }
    return true;
}

// Encodes and writes or posts records, then releases them; counts them exported or dropped.
// false when the receiver could not be reached or kept refusing until the deadline: later batches
// would fare no better now.
bool export_records(Pipeline *p, void **records, uint32_t n, uint64_t deadline) {
    if (n == 0) return true;
    if (p->kind == ExporterKind::none) {
        for (uint32_t i = 0; i < n; ++i) p->ops->release(records[i]);
        return true;
    }
    Buf out{};
    bool reachable = true;
    bool written = false;
    if (p->kind == ExporterKind::console) {
        p->ops->encode_console(p, records, n, &out);
    } else {
        p->ops->encode_json(p, records, n, &out);
        if (p->kind == ExporterKind::file) buf_append(&out, "\n", 1);
    }
    if (out.failed) {
        diag("out of memory encoding %u records; dropped", n);
    } else if (p->kind == ExporterKind::otlp) {
        const SendResult sent = otlp_send(p->otlp, out.data, out.length, n, deadline);
        written = sent == SendResult::delivered;
        reachable = sent != SendResult::failed;
    } else {
        written = write_all(p->fd, out.data, out.length, deadline);
    }
    (written ? p->exported : p->dropped).fetch_add(n, std::memory_order_relaxed);
    buf_release(&out);
    for (uint32_t i = 0; i < n; ++i) p->ops->release(records[i]);
    return reachable;
}

// One export pass over p: a collection for metrics, batches of what is queued for the others,
// as long as deadline allows. Under lock.
void flush(Pipeline *p, uint64_t deadline, bool final) {
    if (p->signal == Signal::metrics) {
        void **records = nullptr;
        const uint32_t n = p->ops->collect(p, &records, final);
        export_records(p, records, n, deadline);
        free(records);
        return;
    }
    void *batch[64];
    const uint32_t room = p->max_batch < 64 ? p->max_batch : 64;
    bool unreachable = false;
    while (mono_ns() < deadline || final) {
        uint32_t n = 0;
        while (n < room && (batch[n] = pop(p))) ++n;
        if (n == 0) return;
        if (unreachable || mono_ns() >= deadline) {
            // Past the timeout at cleanup, or with the receiver gone: what is left is released,
            // not written.
            for (uint32_t i = 0; i < n; ++i) p->ops->release(batch[i]);
            p->dropped.fetch_add(n, std::memory_order_relaxed);
            continue;
        }
        if (!export_records(p, batch, n, deadline)) {
            // Out of cleanup, what is still queued waits for the next pass.
            if (!final) return;
            unreachable = true;
        }
    }
}

bool batch_ready(const Pipeline *p) {
    return p->signal != Signal::metrics &&
           p->queued.load(std::memory_order_relaxed) >= p->max_batch;
}

void wait_until(uint64_t due_mono) {
    const uint64_t now = mono_ns();
    if (due_mono <= now) return;
    const uint64_t wait = due_mono - now;
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    const uint64_t ns = static_cast<uint64_t>(deadline.tv_nsec) + wait % 1000000000u;
    deadline.tv_sec += static_cast<time_t>(wait / 1000000000u + ns / 1000000000u);
    deadline.tv_nsec = static_cast<long>(ns % 1000000000u);
    while (sem_timedwait(&wake, &deadline) != 0 && errno == EINTR) {
    }
}

void *exporter_main(void *) {
    for (;;) {
        pthread_mutex_lock(&lock);
        if (stopping) break;
        pthread_mutex_lock(&joining_lock);
        while (Pipeline *p = joining) {
            joining = p->next;
            p->next = pipelines;
            pipelines = p;
        }
        pthread_mutex_unlock(&joining_lock);
        uint64_t next = mono_ns() + 3600ull * 1000000000u;
        for (Pipeline *p = pipelines; p; p = p->next) {
            const uint64_t now = mono_ns();
            if (p->due_ns <= now || batch_ready(p)) {
                flush(p, now + p->timeout_ms * 1000000ull, false);
                p->due_ns = mono_ns() + p->delay_ms * 1000000ull;
            }
            if (p->due_ns < next) next = p->due_ns;
        }
        pthread_mutex_unlock(&lock);
        wait_until(next);
    }
    pthread_mutex_unlock(&lock);
    return nullptr;
}

// Under life. The thread takes no signal of the host's.
void start_exporter() {
    if (running) return;
    if (sem_init(&wake, 0, 0) != 0) return;
    stopping = false;
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    const bool started = pthread_create(&thread, nullptr, exporter_main, nullptr) == 0;
    __atomic_store_n(&running, started, __ATOMIC_RELAXED);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (!running) {
        diag("cannot start the exporter thread; telemetry is exported at cleanup only");
        sem_destroy(&wake);
    }
}

// Under life, with no context left.
void stop_exporter() {
    if (!running) return;
    pthread_mutex_lock(&lock);
    stopping = true;
    pthread_mutex_unlock(&lock);
    sem_post(&wake);
    pthread_join(thread, nullptr);
    sem_destroy(&wake);
    __atomic_store_n(&running, false, __ATOMIC_RELAXED);
}

void unlink(Pipeline **list, const Pipeline *p) {
    for (Pipeline **link = list; *link; link = &(*link)->next) {
        if (*link == p) {
            *link = p->next;
            return;
        }
    }
}

void release_pipeline(Pipeline *p) {
    if (p->kind == ExporterKind::file) close(p->fd);
    otlp_target_release(p->otlp);
    attrs_clear(&p->resource);
    free(p->service_name);
    free(p->slots);
    p->~Pipeline();
    free(p);
}

}  // namespace

Pipeline *pipeline_create(Signal signal, const SignalOps *ops, const char *service_name,
                          const char *service_version, const AttrMap *resource) {
    const char *disabled = env_text("OTEL_SDK_DISABLED");
    if (disabled && strcasecmp(disabled, "true") == 0) return nullptr;
    void *memory = calloc(1, sizeof(Pipeline));
    if (!memory) return nullptr;
    auto *p = new (memory) Pipeline();
    const SignalNames &names = kNames[static_cast<int>(signal)];
    p->signal = signal;
    p->ops = ops;
    p->service_name = strdup(service_name ? service_name : "");
    configure(p, names);
    if (!p->service_name || !make_ring(p)) {
        p->kind = ExporterKind::none;
        release_pipeline(p);
        return nullptr;
    }
    resource_build(&p->resource, service_name, service_version, resource);
    open_output(p, names);
    pthread_mutex_lock(&life);
    start_exporter();
    pthread_mutex_lock(&joining_lock);
    p->due_ns = mono_ns() + p->delay_ms * 1000000ull;
    p->next = joining;
    joining = p;
    pthread_mutex_unlock(&joining_lock);
    // The thread may be waiting with a deadline computed before this context existed.
    if (running) sem_post(&wake);
    pthread_mutex_unlock(&life);
    return p;
}

void pipeline_destroy(Pipeline *pipeline) {
    if (!pipeline) return;
    pthread_mutex_lock(&lock);
    unlink(&pipelines, pipeline);
    pthread_mutex_lock(&joining_lock);
    unlink(&joining, pipeline);
    pthread_mutex_unlock(&joining_lock);
    flush(pipeline, mono_ns() + pipeline->timeout_ms * 1000000ull, true);
    pthread_mutex_unlock(&lock);
    // Whether it was the last is decided under life, against contexts made meanwhile.
    pthread_mutex_lock(&life);
    pthread_mutex_lock(&lock);
    pthread_mutex_lock(&joining_lock);
    const bool last = pipelines == nullptr && joining == nullptr;
    pthread_mutex_unlock(&joining_lock);
    pthread_mutex_unlock(&lock);
    if (last) stop_exporter();
    pthread_mutex_unlock(&life);
    const uint64_t dropped = pipeline->dropped.load(std::memory_order_relaxed);
    if (dropped) {
        diag("%s of %s: %llu dropped, %llu exported",
             kNames[static_cast<int>(pipeline->signal)].name, pipeline->service_name,
             static_cast<unsigned long long>(dropped),
             static_cast<unsigned long long>(pipeline->exported.load(std::memory_order_relaxed)));
    }
    release_pipeline(pipeline);
}

void pipeline_push(Pipeline *p, void *record) {
    if (p->kind == ExporterKind::none) {
        p->ops->release(record);
        return;
    }
    const uint32_t queued = p->queued.fetch_add(1, std::memory_order_relaxed) + 1;
    if (queued > p->max_queue) {
        p->queued.fetch_sub(1, std::memory_order_relaxed);
        p->dropped.fetch_add(1, std::memory_order_relaxed);
        p->ops->release(record);
        return;
    }
    uint32_t position = p->head.load(std::memory_order_relaxed);
    Slot *slot;
    for (;;) {
        slot = &p->slots[position & p->mask];
        const uint32_t sequence = slot->sequence.load(std::memory_order_acquire);
        const int32_t lag = static_cast<int32_t>(sequence - position);
        if (lag == 0 &&
            p->head.compare_exchange_weak(position, position + 1, std::memory_order_relaxed))
            break;
        if (lag != 0) position = p->head.load(std::memory_order_relaxed);
    }
    slot->record = record;
    slot->sequence.store(position + 1, std::memory_order_release);
    if (queued == p->max_batch && __atomic_load_n(&running, __ATOMIC_RELAXED)) sem_post(&wake);
}

}  // namespace otelc
