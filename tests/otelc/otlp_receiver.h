// A loopback OTLP/HTTP receiver on a thread of the test: listens on a free port of 127.0.0.1,
// records each request (method, path, headers, body) and answers it as the test scripted. It
// stops at its destruction, and by itself after a minute at most.
#ifndef OBS_TESTS_OTELC_OTLP_RECEIVER_H
#define OBS_TESTS_OTELC_OTLP_RECEIVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace otelc_test {

struct Request {
    std::string method;
    std::string path;
    std::map<std::string, std::string> headers;  // names in lowercase
    std::string body;
    std::chrono::steady_clock::time_point at;
};

// How one request is answered: a status with extra header lines, raw bytes instead of an HTTP
// response, or nothing at all until the client gives up.
struct Reply {
    int status = 200;
    std::string headers;
    std::string body;
    std::string raw;
    bool stall = false;
};

inline Reply answer(int status, std::string headers = "", std::string body = "") {
    Reply reply;
    reply.status = status;
    reply.headers = std::move(headers);
    reply.body = std::move(body);
    return reply;
}
inline Reply raw(std::string bytes) {
    Reply reply;
    reply.raw = std::move(bytes);
    return reply;
}
inline Reply stall() {
    Reply reply;
    reply.stall = true;
    return reply;
}

class Receiver {
  public:
    using Clock = std::chrono::steady_clock;

    // The i-th request is answered by script[i], later ones by otherwise.
    explicit Receiver(std::vector<Reply> script = {}, Reply otherwise = {})
        : script_(std::move(script)), otherwise_(std::move(otherwise)) {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (listener_ < 0 ||
            bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener_, 16) != 0 ||
            getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            ADD_FAILURE() << "cannot listen on loopback: " << strerror(errno);
            return;
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~Receiver() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (listener_ >= 0) close(listener_);
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    // Waits (at most bound) until n requests were received; whether they were.
    bool wait_for(size_t n, std::chrono::milliseconds bound = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> hold(lock_);
        return received_.wait_for(hold, bound, [&] { return requests_.size() >= n; });
    }
    // Whether a stalled request is still held open, its client not yet given up.
    bool holding() const { return holding_; }
    std::vector<Request> requests() {
        std::lock_guard<std::mutex> hold(lock_);
        return requests_;
    }

  private:
    static constexpr size_t kMaxRequest = 16u << 20;

    void serve() {
        const auto end = Clock::now() + std::chrono::minutes(1);
        while (!stop_ && Clock::now() < end) {
            pollfd ready = {listener_, POLLIN, 0};
            if (poll(&ready, 1, 20) <= 0) continue;
            const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) continue;
            handle(client, end);
            close(client);
        }
    }

    // Reads into data until ready says it holds enough; false on EOF, the end or stop.
    template <typename Ready>
    bool read_until(int client, std::string *data, Clock::time_point end, Ready ready) {
        char chunk[65536];
        while (!ready()) {
            if (stop_ || Clock::now() >= end || data->size() > kMaxRequest) return false;
            pollfd wait = {client, POLLIN, 0};
            if (poll(&wait, 1, 20) <= 0) continue;
            const ssize_t got = recv(client, chunk, sizeof chunk, 0);
            if (got <= 0) return false;
            data->append(chunk, static_cast<size_t>(got));
        }
        return true;
    }

    void handle(int client, Clock::time_point end) {
        std::string data;
        size_t head_end = std::string::npos;
        if (!read_until(client, &data, end,
                        [&] { return (head_end = data.find("\r\n\r\n")) != std::string::npos; }))
            return;
        Request request;
        request.at = Clock::now();
        const std::string head = data.substr(0, head_end + 2);
        size_t line_end = head.find("\r\n");
        const std::string line = head.substr(0, line_end);
        request.method = line.substr(0, line.find(' '));
        const size_t path_at = line.find(' ') + 1;
        request.path = line.substr(path_at, line.find(' ', path_at) - path_at);
        for (size_t at = line_end + 2; at < head.size(); at = line_end + 2) {
            line_end = head.find("\r\n", at);
            const std::string header = head.substr(at, line_end - at);
            const size_t colon = header.find(':');
            std::string name = header.substr(0, colon);
            for (char &c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
            const size_t value_at = header.find_first_not_of(' ', colon + 1);
            request.headers[name] = value_at == std::string::npos ? "" : header.substr(value_at);
        }
        const size_t length = std::stoul(
            request.headers.count("content-length") ? request.headers["content-length"] : "0");
        const size_t body_at = head_end + 4;
        if (!read_until(client, &data, end, [&] { return data.size() >= body_at + length; }))
            return;
        request.body = data.substr(body_at, length);
        Reply reply;
        {
            std::lock_guard<std::mutex> hold(lock_);
            reply = requests_.size() < script_.size() ? script_[requests_.size()] : otherwise_;
            requests_.push_back(request);
            if (reply.stall) holding_ = true;
        }
        received_.notify_all();
        if (reply.stall) {
            // Until the client closes its side, the receiver stops or its time is up.
            std::string rest;
            read_until(client, &rest, end, [] { return false; });
            holding_ = false;
            return;
        }
        std::string response = reply.raw;
        if (response.empty()) {
            response = "HTTP/1.1 " + std::to_string(reply.status) + " Scripted\r\n" +
                       reply.headers + "Content-Length: " + std::to_string(reply.body.size()) +
                       "\r\nConnection: close\r\n\r\n" + reply.body;
        }
        send(client, response.data(), response.size(), MSG_NOSIGNAL);
    }

    std::vector<Reply> script_;
    Reply otherwise_;
    int listener_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<bool> holding_{false};
    std::thread thread_;
    std::mutex lock_;
    std::condition_variable received_;
    std::vector<Request> requests_;
};

// A loopback port that nothing listens on (bound, read back and closed again).
inline uint16_t closed_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

}  // namespace otelc_test

#endif
