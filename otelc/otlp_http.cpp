#include "otelc/otlp_http.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include "otelc/diag.h"
#include "otelc/ids.h"
#include "otelc/json.h"
#include "otelc/resource.h"

namespace otelc {

struct OtlpTarget {
    const char *signal;
    char *url;          // for log lines
    char *host;         // for getaddrinfo: an IPv6 literal without its brackets
    char *port;         // decimal
    char *host_header;  // the authority as written in the endpoint
    char *path;
    Buf headers;  // the user's "Key: value\r\n" lines
    uint32_t timeout_ms;
    char last_error[160];  // the reason last logged; empty after a delivery
};

namespace {

constexpr uint32_t kMaxMs = 24u * 3600 * 1000;
constexpr uint32_t kFirstBackoffMs = 250;
constexpr uint32_t kMaxBackoffMs = 5000;
// The status line and headers of a response must fit; an OTLP receiver's are a few hundred bytes.
constexpr size_t kMaxResponseHead = 8192;
// How much of a refusal's body is quoted in its log line.
constexpr size_t kExcerpt = 160;

std::atomic<bool> protocol_warned{false};

// The per-signal variable OTEL_EXPORTER_OTLP_<SIGNAL>_<what>, then OTEL_EXPORTER_OTLP_<what>;
// the name of the one found into name.
const char *signal_env(const char *signal, const char *what, char *name, size_t size) {
    char upper[16] = {};
    for (size_t i = 0; signal[i] && i + 1 < sizeof upper; ++i)
        upper[i] = static_cast<char>(signal[i] - 'a' + 'A');
    snprintf(name, size, "OTEL_EXPORTER_OTLP_%s_%s", upper, what);
    if (const char *text = env_text(name)) return text;
    snprintf(name, size, "OTEL_EXPORTER_OTLP_%s", what);
    return env_text(name);
}

char *copy(const char *begin, size_t n) {
    auto *out = static_cast<char *>(malloc(n + 1));
    if (!out) return nullptr;
    memcpy(out, begin, n);
    out[n] = '\0';
    return out;
}

// Host, port, authority and path of an "http://host[:port][/path]" url; false when it is not one.
bool parse_url(OtlpTarget *t) {
    const char *url = t->url;
    for (const char *c = url; *c; ++c) {
        // Nothing that could end a request line or header early.
        if (static_cast<unsigned char>(*c) <= ' ' || *c == 0x7f) return false;
    }
    if (strncasecmp(url, "http://", 7) != 0) return false;
    const char *authority = url + 7;
    const char *path = authority + strcspn(authority, "/?#");
    const char *host_end;
    const char *host = authority;
    if (*authority == '[') {
        host = authority + 1;
        host_end = static_cast<const char *>(memchr(host, ']', path - host));
        if (!host_end) return false;
    } else {
        host_end = static_cast<const char *>(memchr(authority, ':', path - authority));
        if (!host_end) host_end = path;
    }
    if (host_end == host || memchr(authority, '@', path - authority)) return false;
    const char *port = host_end + (*authority == '[' ? 1 : 0);
    unsigned long number = 80;
    if (port < path) {
        if (*port != ':' || port + 1 == path || port + 6 < path) return false;
        number = 0;
        for (const char *digit = port + 1; digit < path; ++digit) {
            if (*digit < '0' || *digit > '9') return false;
            number = number * 10 + static_cast<unsigned long>(*digit - '0');
        }
        if (number == 0 || number > 65535) return false;
    } else if (port != path) {
        return false;
    }
    char digits[8];
    snprintf(digits, sizeof digits, "%lu", number);
    const size_t path_length = strcspn(path, "#");
    t->host = copy(host, host_end - host);
    t->port = copy(digits, strlen(digits));
    t->host_header = copy(authority, path - authority);
    t->path = *path == '/' ? copy(path, path_length) : nullptr;
    if (*path != '/') {
        // "http://host?x" posts to "/?x".
        t->path = static_cast<char *>(malloc(path_length + 2));
        if (t->path)
            snprintf(t->path, path_length + 2, "/%.*s", static_cast<int>(path_length), path);
    }
    return true;
}

bool token_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c && strchr("!#$%&'*+-.^_`|~", c));
}

// Headers the request itself sets: the user's cannot replace them without breaking the message.
bool reserved_header(const char *key) {
    static const char *const reserved[] = {"host", "content-length", "content-type", "connection",
                                           "transfer-encoding"};
    for (const char *name : reserved) {
        if (strcasecmp(key, name) == 0) return true;
    }
    return false;
}

// "k=v,k2=v2", percent-decoded, as header lines; malformed entries log one line and are skipped.
void parse_headers(OtlpTarget *t, const char *variable, const char *text) {
    bool skipped = false;
    for (const char *pair = text; *pair;) {
        const char *end = pair + strcspn(pair, ",");
        const char *equals = static_cast<const char *>(memchr(pair, '=', end - pair));
        char *key = equals ? percent_decoded(pair, equals) : nullptr;
        char *value = key ? percent_decoded(equals + 1, end) : nullptr;
        bool good = value && *key && !reserved_header(key);
        for (const char *c = key; good && *c; ++c) good = token_char(*c);
        for (const char *c = value; good && *c; ++c) good = *c != '\r' && *c != '\n';
        if (good) {
            buf_printf(&t->headers, "%s: %s\r\n", key, value);
        } else {
            skipped = true;
        }
        free(key);
        free(value);
        pair = *end ? end + 1 : end;
    }
    if (skipped) diag("%s has malformed or reserved entries; they are not sent", variable);
}

int remaining_ms(uint64_t deadline) {
    const uint64_t now = mono_ns();
    if (now >= deadline) return 0;
    const uint64_t ms = (deadline - now + 999999) / 1000000;
    return ms > 0x7fffffff ? 0x7fffffff : static_cast<int>(ms);
}

// Waits for events on fd until deadline; false on a timeout or an error.
bool wait_for(int fd, short events, uint64_t deadline) {
    for (;;) {
        const int ms = remaining_ms(deadline);
        if (ms == 0) return false;
        pollfd ready = {fd, events, 0};
        const int result = poll(&ready, 1, ms);
        if (result > 0) return true;
        if (result < 0 && errno != EINTR) return false;
    }
}

// What one attempt came to.
struct Attempt {
    int status;  // the HTTP status; 0 when no response was read
    bool retryable;
    int retry_after_s;  // -1 when absent
    char reason[128];
};

void set_reason(Attempt *a, bool retryable, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

void set_reason(Attempt *a, bool retryable, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(a->reason, sizeof a->reason, format, args);
    va_end(args);
    a->retryable = retryable;
}

// A socket connected to the target before deadline; -1 (with the reason) when none could be.
int connect_to(const OtlpTarget *t, uint64_t deadline, Attempt *a) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int resolved = getaddrinfo(t->host, t->port, &hints, &found);
    if (resolved != 0) {
        set_reason(a, true, "cannot resolve %s: %s", t->host, gai_strerror(resolved));
        return -1;
    }
    int fd = -1;
    set_reason(a, true, "no address for %s", t->host);
    for (const addrinfo *ai = found; ai && fd < 0; ai = ai->ai_next) {
        fd = socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd < 0) {
            set_reason(a, true, "socket: %s", strerror(errno));
            continue;
        }
        int error = connect(fd, ai->ai_addr, ai->ai_addrlen) == 0 ? 0 : errno;
        if (error == EINPROGRESS) {
            if (wait_for(fd, POLLOUT, deadline)) {
                socklen_t length = sizeof error;
                if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
            } else {
                error = ETIMEDOUT;
            }
        }
        if (error != 0) {
            set_reason(a, true, "connect: %s", strerror(error));
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(found);
    return fd;
}

bool send_all(int fd, const char *data, size_t n, uint64_t deadline, Attempt *a) {
    while (n > 0) {
        const ssize_t sent = send(fd, data, n, MSG_NOSIGNAL);
        if (sent > 0) {
            data += sent, n -= static_cast<size_t>(sent);
        } else if (sent < 0 && errno == EINTR) {
            continue;
        } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!wait_for(fd, POLLOUT, deadline)) {
                set_reason(a, true, "timed out sending");
                return false;
            }
        } else {
            set_reason(a, true, "send: %s", strerror(errno));
            return false;
        }
    }
    return true;
}

// Reads into buf (at most size bytes in all, *length so far) until stop says enough, the peer
// closes or deadline passes; false (with the reason) on an error or the deadline.
template <typename Stop>
bool receive(int fd, char *buf, size_t size, size_t *length, uint64_t deadline, Attempt *a,
             Stop stop) {
    while (!stop() && *length < size) {
        const ssize_t got = recv(fd, buf + *length, size - *length, 0);
        if (got > 0) {
            *length += static_cast<size_t>(got);
        } else if (got == 0) {
            return true;
        } else if (errno == EINTR) {
            continue;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!wait_for(fd, POLLIN, deadline)) {
                set_reason(a, true, "timed out waiting for the response");
                return false;
            }
        } else {
            set_reason(a, true, "recv: %s", strerror(errno));
            return false;
        }
    }
    return true;
}

// The value of header name in the header lines [begin, end) as a decimal number; -1 when it is
// absent or not a number.
long header_number(const char *begin, const char *end, const char *name) {
    const size_t name_length = strlen(name);
    for (const char *line = begin; line < end;) {
        const char *eol = static_cast<const char *>(memchr(line, '\n', end - line));
        if (!eol) eol = end;
        if (static_cast<size_t>(eol - line) > name_length && line[name_length] == ':' &&
            strncasecmp(line, name, name_length) == 0) {
            const char *digit = line + name_length + 1;
            while (digit < eol && (*digit == ' ' || *digit == '\t')) ++digit;
            long value = -1;
            for (; digit < eol && *digit >= '0' && *digit <= '9'; ++digit) {
                value = (value < 0 ? 0 : value) * 10 + (*digit - '0');
                if (value > 1000000000) return -1;
            }
            while (digit < eol && (*digit == ' ' || *digit == '\t' || *digit == '\r')) ++digit;
            return digit == eol ? value : -1;
        }
        line = eol + 1;
    }
    return -1;
}

// The printable start of a refusal's body, for its log line.
void excerpt(const char *body, size_t n, char *out, size_t size) {
    size_t o = 0;
    for (size_t i = 0; i < n && o + 1 < size; ++i) {
        const char c = body[i];
        out[o++] = (c >= ' ' && c < 0x7f) ? c : ' ';
    }
    out[o] = '\0';
}

// Reads and judges the response on fd.
void read_response(int fd, uint64_t deadline, Attempt *a) {
    char buf[kMaxResponseHead + kExcerpt];
    size_t length = 0;
    const char *head_end = nullptr;
    if (!receive(fd, buf, kMaxResponseHead, &length, deadline, a, [&] {
            head_end =
                length ? static_cast<const char *>(memmem(buf, length, "\r\n\r\n", 4)) : nullptr;
            return head_end != nullptr;
        }))
        return;
    if (!head_end) {
        if (length == kMaxResponseHead) {
            set_reason(a, false, "response headers longer than %zu bytes", kMaxResponseHead);
        } else {
            set_reason(a, true, "connection closed before a complete response");
        }
        return;
    }
    // "HTTP/1.x NNN ...": anything else is not an HTTP receiver.
    const bool http = length >= 12 && memcmp(buf, "HTTP/1.", 7) == 0 && buf[8] == ' ' &&
                      buf[9] >= '1' && buf[9] <= '5' && buf[10] >= '0' && buf[10] <= '9' &&
                      buf[11] >= '0' && buf[11] <= '9' &&
                      (length == 12 || buf[12] == ' ' || buf[12] == '\r');
    if (!http) {
        set_reason(a, false, "the response is not HTTP/1.x");
        return;
    }
    a->status = (buf[9] - '0') * 100 + (buf[10] - '0') * 10 + (buf[11] - '0');
    if (a->status >= 200 && a->status < 300) return;
    const char *headers = static_cast<const char *>(memchr(buf, '\n', length)) + 1;
    const long retry_after = header_number(headers, head_end + 2, "retry-after");
    a->retry_after_s = retry_after > 3600 ? 3600 : static_cast<int>(retry_after);
    // The start of the body explains a refusal; only what Content-Length announces is awaited.
    const size_t body_at = static_cast<size_t>(head_end + 4 - buf);
    const long announced = header_number(headers, head_end + 2, "content-length");
    size_t wanted = body_at;
    if (announced > 0) wanted += static_cast<size_t>(announced) < kExcerpt ? announced : kExcerpt;
    Attempt ignored{};
    if (length < wanted)
        receive(fd, buf, wanted, &length, deadline, &ignored, [&] { return length >= wanted; });
    char quoted[kExcerpt + 1];
    excerpt(buf + body_at, (length < wanted ? length : wanted) - body_at, quoted, sizeof quoted);
    const bool retryable =
        a->status == 429 || a->status == 502 || a->status == 503 || a->status == 504;
    set_reason(a, retryable, "HTTP %d%s%s", a->status, *quoted ? ": " : "", quoted);
}

void attempt(const OtlpTarget *t, const Buf &head, const char *body, size_t n, uint64_t deadline,
             Attempt *a) {
    *a = Attempt{};
    a->retry_after_s = -1;
    const int fd = connect_to(t, deadline, a);
    if (fd < 0) return;
    if (send_all(fd, head.data, head.length, deadline, a) && send_all(fd, body, n, deadline, a))
        read_response(fd, deadline, a);
    close(fd);
}

uint32_t random_below(uint32_t bound) {
    uint8_t bytes[8];
    new_span_id(bytes);
    uint32_t value;
    memcpy(&value, bytes, sizeof value);
    return bound ? value % bound : 0;
}

void sleep_ms(uint32_t ms) {
    timespec wait = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
    while (nanosleep(&wait, &wait) != 0 && errno == EINTR) {
    }
}

}  // namespace

OtlpTarget *otlp_target_create(const char *signal) {
    auto *t = static_cast<OtlpTarget *>(calloc(1, sizeof(OtlpTarget)));
    if (!t) return nullptr;
    t->signal = signal;
    char name[64];
    if (const char *endpoint = signal_env(signal, "ENDPOINT", name, sizeof name);
        endpoint && strcmp(name, "OTEL_EXPORTER_OTLP_ENDPOINT") != 0) {
        t->url = copy(endpoint, strlen(endpoint));
    } else {
        const char *base = endpoint ? endpoint : "http://localhost:4318";
        size_t length = strlen(base);
        while (length > 0 && base[length - 1] == '/') --length;
        t->url = static_cast<char *>(malloc(length + strlen(signal) + 5));
        if (t->url) sprintf(t->url, "%.*s/v1/%s", static_cast<int>(length), base, signal);
    }
    if (!t->url) {
        otlp_target_release(t);
        return nullptr;
    }
    if (strncasecmp(t->url, "https://", 8) == 0) {
        diag(
            "%s: https endpoint %s refused: this library has no TLS (let a collector on the "
            "device or its gateway terminate TLS and give its http endpoint); %s are not "
            "exported",
            name, t->url, signal);
        otlp_target_release(t);
        return nullptr;
    }
    if (!parse_url(t)) {
        diag("%s: '%s' is not an http://host[:port][/path] endpoint; %s are not exported", name,
             t->url, signal);
        otlp_target_release(t);
        return nullptr;
    }
    if (const char *protocol = signal_env(signal, "PROTOCOL", name, sizeof name);
        protocol && strcmp(protocol, "http/json") != 0 && !protocol_warned.exchange(true))
        diag("%s='%s' is not supported; using http/json", name, protocol);
    if (const char *headers = env_text("OTEL_EXPORTER_OTLP_HEADERS"))
        parse_headers(t, "OTEL_EXPORTER_OTLP_HEADERS", headers);
    signal_env(signal, "TIMEOUT", name, sizeof name);
    t->timeout_ms = env_uint(name, 10000, 1, kMaxMs);
    if (!t->host || !t->port || !t->host_header || !t->path || t->headers.failed) {
        otlp_target_release(t);
        return nullptr;
    }
    return t;
}

void otlp_target_release(OtlpTarget *t) {
    if (!t) return;
    free(t->url);
    free(t->host);
    free(t->port);
    free(t->host_header);
    free(t->path);
    buf_release(&t->headers);
    free(t);
}

SendResult otlp_send(OtlpTarget *t, const char *body, size_t n, uint32_t records,
                     uint64_t deadline) {
    const uint64_t own = mono_ns() + t->timeout_ms * 1000000ull;
    if (own < deadline) deadline = own;
    Buf head{};
    buf_printf(&head,
               "POST %s HTTP/1.1\r\nHost: %s\r\nUser-Agent: opentelemetry-c/" OTELC_VERSION
               "\r\nContent-Type: application/json\r\nContent-Length: %zu\r\n"
               "Connection: close\r\n",
               t->path, t->host_header, n);
    if (t->headers.length) buf_append(&head, t->headers.data, t->headers.length);
    buf_append(&head, "\r\n", 2);
    Attempt a{};
    SendResult result = SendResult::failed;
    if (head.failed) {
        set_reason(&a, false, "out of memory");
        result = SendResult::rejected;
    }
    uint32_t backoff_ms = kFirstBackoffMs;
    for (uint32_t attempts = 1; !head.failed; ++attempts) {
        attempt(t, head, body, n, deadline, &a);
        if (a.status >= 200 && a.status < 300) {
            result = SendResult::delivered;
            break;
        }
        if (!a.retryable) {
            result = SendResult::rejected;
            break;
        }
        // Full jitter over the upper half keeps clients that failed together from returning
        // together, while the wait still grows.
        uint32_t wait_ms = backoff_ms / 2 + random_below(backoff_ms / 2 + 1);
        if (a.retry_after_s >= 0) wait_ms = static_cast<uint32_t>(a.retry_after_s) * 1000u;
        backoff_ms = backoff_ms * 2 > kMaxBackoffMs ? kMaxBackoffMs : backoff_ms * 2;
        if (mono_ns() + wait_ms * 1000000ull >= deadline) {
            const size_t used = strlen(a.reason);
            snprintf(a.reason + used, sizeof a.reason - used, " (attempts: %u)", attempts);
            break;
        }
        sleep_ms(wait_ms);
    }
    buf_release(&head);
    if (result == SendResult::delivered) {
        t->last_error[0] = '\0';
    } else if (strncmp(t->last_error, a.reason, strcspn(a.reason, "(")) != 0) {
        snprintf(t->last_error, sizeof t->last_error, "%s", a.reason);
        diag("%s to %s: %s; a batch of %u dropped (repeats of this failure are not logged)",
             t->signal, t->url, a.reason, records);
    }
    return result;
}

}  // namespace otelc
