// The in-process IPC provider driven through its table: key matching, values and indexes,
// delivery order across threads, handlers that call back in, and release of a context while its
// handlers run.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "observability_ipc_mem.h"

namespace {

// "op path len bytes": a test states a whole delivery sequence as a list of these.
std::string delivery(int op, const std::string &path, const std::string &data) {
    return std::to_string(op) + " " + path + " " + std::to_string(data.size()) + " " + data;
}

struct Event {
    int op;
    std::string path;
    std::string data;  // as many bytes as len said
    std::thread::id thread;
};

constexpr unsigned recorder_mark = 0x5ec0de;
// Deliveries whose context was not a recorder: the provider passed the wrong first argument.
std::atomic<int> stray_deliveries{0};

// Given to init as the context; its handler records every event, then runs react, if set.
struct Recorder {
    unsigned mark = recorder_mark;
    std::atomic<void *> handle{nullptr};  // null once released
    std::function<void(Recorder &, const Event &)> react;
    std::mutex lock;
    std::vector<Event> events;

    std::vector<Event> seen() {
        std::lock_guard<std::mutex> hold(lock);
        return events;
    }
    std::vector<std::string> summaries() {
        std::vector<std::string> lines;
        for (const Event &event : seen())
            lines.push_back(delivery(event.op, event.path, event.data));
        return lines;
    }
};

void record(void *ctx, int op, const char *path, const char *, const void *data, int len) {
    auto *recorder = static_cast<Recorder *>(ctx);
    if (!recorder || recorder->mark != recorder_mark) {
        ++stray_deliveries;
        return;
    }
    Event event{op, path, data ? std::string(static_cast<const char *>(data), len) : "",
                std::this_thread::get_id()};
    {
        std::lock_guard<std::mutex> hold(recorder->lock);
        recorder->events.push_back(event);
    }
    if (recorder->react) recorder->react(*recorder, event);
}

// Runs work on a thread of its own and aborts the run when it takes over twenty seconds: a
// deadlock fails at once instead of hanging.
void within_deadline(std::function<void()> work) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread([done, work] {
        work();
        *done = true;
    }).detach();
    for (int polls = 0; !*done; ++polls) {
        if (polls == 20000) {
            fprintf(stderr, "deadlock: the call did not return\n");
            std::abort();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

class MemProviderTest : public testing::Test {
  protected:
    obs_ipc_provider *ipc = obs_ipc_mem_provider();
    std::vector<std::unique_ptr<Recorder>> recorders;  // outlive the test body, up to TearDown

    static void settle() { within_deadline(obs_ipc_mem_flush); }

    void TearDown() override {
        for (auto &recorder : recorders)
            if (void *handle = recorder->handle.exchange(nullptr)) ipc->free(handle);
        EXPECT_EQ(stray_deliveries.exchange(0), 0);
    }

    // A new context whose handler records into the recorder returned.
    Recorder &open() {
        recorders.push_back(std::make_unique<Recorder>());
        Recorder &recorder = *recorders.back();
        recorder.handle = ipc->init(&recorder, "svc", nullptr);
        EXPECT_NE(recorder.handle, nullptr);
        return recorder;
    }
    // Keys of each test live under a root of their own: the store is shared by the process.
    static std::string key(const std::string &suffix) {
        return std::string("/t/") + testing::UnitTest::GetInstance()->current_test_info()->name() +
               "/" + suffix;
    }
    void subscribe(void *handle, const std::string &path) {
        EXPECT_EQ(ipc->subscribe(handle, path.c_str(), record), 0);
    }
    int set(void *handle, const std::string &at, const std::string &value) {
        return ipc->set(handle, at.c_str(), value.data(), value.size(), nullptr, nullptr, 0);
    }
    int send(void *handle, const std::string &at, const std::string &data) {
        return ipc->send(handle, at.c_str(), data.data(), data.size());
    }
    // The stored bytes, or "<none>" when get fails (checking that it leaves the buffer null).
    std::string get(void *handle, const std::string &at) {
        void *buf = nullptr;
        int len = -1;
        if (ipc->get(handle, at.c_str(), &buf, &len) != 0) {
            EXPECT_EQ(buf, nullptr);
            return "<none>";
        }
        std::string value(static_cast<const char *>(buf), len);
        free(buf);
        return value;
    }
};

TEST_F(MemProviderTest, WildcardMatchesExactlyOneNonEmptyNameWithoutBraces) {
    Recorder &recorder = open();
    void *handle = recorder.handle;
    for (const char *path : {"service{*}/uid", "service{*}/scope{*}/obs", "exact"})
        subscribe(handle, key(path));
    for (const char *unmatched :
         {"service{}/uid", "service{a}/x{b}/uid", "service{a{b}/uid", "service{a}b}/uid",
          "service{svc}/uid/x", "service{svc}/ui", "service/uid", "service{s}/scope{}/obs",
          "service{s}/scope{d}/obsx", "exact2", "exac"})
        ASSERT_EQ(set(handle, key(unmatched), "v"), 0) << unmatched;
    std::vector<std::string> expected;
    for (const char *matched : {"service{svc}/uid", "service{s}/scope{d}/obs", "exact"}) {
        ASSERT_EQ(set(handle, key(matched), "v"), 0);
        expected.push_back(delivery(0, key(matched), "v"));
    }
    settle();
    EXPECT_EQ(recorder.summaries(), expected);
}

TEST_F(MemProviderTest, SetSendAndDeleteArriveInOrderWithOpPathAndBytesOffTheCallersThread) {
    Recorder &recorder = open();
    void *handle = recorder.handle;
    subscribe(handle, key("stored"));
    subscribe(handle, key("sent"));
    const std::string bytes("a\0b\xff", 4);
    ASSERT_EQ(set(handle, key("stored"), bytes), 0);
    ASSERT_EQ(send(handle, key("sent"), "msg"), 0);
    ASSERT_EQ(set(handle, key("stored"), "v2"), 0);
    EXPECT_EQ(obs_ipc_mem_delete(handle, key("stored").c_str()), 0);
    EXPECT_EQ(obs_ipc_mem_delete(handle, key("stored").c_str()), -1);
    EXPECT_EQ(obs_ipc_mem_delete(nullptr, key("sent").c_str()), -1);
    settle();
    EXPECT_EQ(
        recorder.summaries(),
        (std::vector<std::string>{delivery(0, key("stored"), bytes),
                                  delivery(0, key("sent"), "msg"), delivery(0, key("stored"), "v2"),
                                  delivery(2, key("stored"), std::string(1, '\0'))}));
    for (const Event &event : recorder.seen()) EXPECT_NE(event.thread, std::this_thread::get_id());
    EXPECT_EQ(get(handle, key("stored")), "<none>");
    EXPECT_EQ(get(handle, key("sent")), "<none>");
}

TEST_F(MemProviderTest, ContextsShareOneStoreAndGetCopiesWithLength) {
    void *writer = open().handle;
    void *reader = open().handle;
    ASSERT_EQ(set(writer, key("k"), std::string("long\0value", 10)), 0);
    EXPECT_EQ(get(reader, key("k")), std::string("long\0value", 10));
    ASSERT_EQ(set(writer, key("k"), "ab"), 0);
    EXPECT_EQ(get(reader, key("k")), "ab");
    ASSERT_EQ(set(writer, key("empty"), ""), 0);
    EXPECT_EQ(get(reader, key("empty")), "");
    EXPECT_EQ(get(reader, key("missing")), "<none>");
}

TEST_F(MemProviderTest, ListGivesMembersOnceInTheOrderFirstAdded) {
    Recorder &recorder = open();
    void *handle = recorder.handle;
    for (const char *member : {"b", "a", "b", "c", "a"})
        ASSERT_EQ(ipc->set(handle, key("m").c_str(), "v", 1, key("index").c_str(), member, 1), 0);
    char **members = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(ipc->list(handle, key("index").c_str(), &members, &count), 0);
    std::vector<std::string> listed(members, members + count);
    for (uint32_t i = 0; i < count; ++i) free(members[i]);
    free(members);
    EXPECT_EQ(listed, (std::vector<std::string>{"b", "a", "c"}));
}

TEST_F(MemProviderTest, DescribesItselfAndItsState) {
    EXPECT_EQ(obs_ipc_mem_provider(), ipc);
    EXPECT_STREQ(ipc->name, "mem");
    EXPECT_TRUE(ipc->version && *ipc->version);
    Recorder &recorder = open();
    void *handle = recorder.handle;
    subscribe(handle, key("watched{*}"));
    ASSERT_EQ(set(handle, key("stored"), "12345"), 0);
    char *text = ipc->dump_debuginfo(handle);
    ASSERT_NE(text, nullptr);
    std::string dump(text);
    free(text);
    EXPECT_TRUE(std::regex_search(dump, std::regex(key("stored") + "[^\n]*\\b5\\b"))) << dump;
    EXPECT_NE(dump.find(key("watched{*}")), std::string::npos) << dump;
}

TEST_F(MemProviderTest, ConcurrentSettersLoseNothingAndKeepEachThreadsOrder) {
    constexpr int writers = 4, sets_each = 500;
    Recorder &recorder = open();
    void *handle = recorder.handle;
    subscribe(handle, key("writer{*}/counter"));
    auto counter_key = [](int writer) {
        return key("writer{" + std::to_string(writer) + "}/counter");
    };
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; ++writer) {
        threads.emplace_back([&, at = counter_key(writer)] {
            for (int i = 0; i < sets_each; ++i) set(handle, at, std::to_string(i));
        });
    }
    for (std::thread &thread : threads) thread.join();
    settle();
    std::map<std::string, std::vector<int>> arrived;
    for (const Event &event : recorder.seen()) arrived[event.path].push_back(std::stoi(event.data));
    std::vector<int> in_order(sets_each);
    std::iota(in_order.begin(), in_order.end(), 0);
    ASSERT_EQ(arrived.size(), static_cast<size_t>(writers));
    for (int writer = 0; writer < writers; ++writer) {
        EXPECT_EQ(arrived[counter_key(writer)], in_order) << "writer " << writer;
        EXPECT_EQ(get(handle, counter_key(writer)), std::to_string(sets_each - 1));
    }
}

TEST_F(MemProviderTest, HandlerMayCallBackIntoTheProvider) {
    Recorder &echo = open(), &sink = open();
    void *echo_handle = echo.handle, *sink_handle = sink.handle;
    echo.react = [this](Recorder &self, const Event &event) {
        std::string stored = get(self.handle, event.path);
        set(self.handle, key("reply{set}"), stored);
        send(self.handle, key("reply{send}"), stored);
    };
    subscribe(echo_handle, key("ping"));
    subscribe(sink_handle, key("reply{*}"));
    ASSERT_EQ(set(sink_handle, key("ping"), "hello"), 0);
    settle();
    settle();  // the replies were queued while the first round was delivered
    EXPECT_EQ(sink.summaries(),
              (std::vector<std::string>{delivery(0, key("reply{set}"), "hello"),
                                        delivery(0, key("reply{send}"), "hello")}));
}

TEST_F(MemProviderTest, FreeWaitsForTheRunningHandlerAndNoHandlerRunsAfterIt) {
    Recorder &slow = open();
    std::atomic<bool> started{false}, freed{false}, ran_after_free{false};
    void *handle = slow.handle;
    slow.react = [&](Recorder &, const Event &) {
        if (freed) ran_after_free = true;
        started = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        get(handle, key("k"));  // needs the store while free is waiting
        if (freed) ran_after_free = true;
    };
    subscribe(handle, key("k"));
    for (int i = 0; i < 100; ++i) ASSERT_EQ(set(handle, key("k"), "v"), 0);
    within_deadline([&] {
        while (!started) std::this_thread::yield();
    });
    within_deadline([&] { ipc->free(slow.handle.exchange(nullptr)); });
    freed = true;
    settle();
    EXPECT_FALSE(ran_after_free);
}

TEST_F(MemProviderTest, FreeFromItsOwnHandlerReturnsAndLaterEventsAreNotDelivered) {
    Recorder &closing = open(), &bystander = open();
    std::atomic<bool> all_queued{false};
    closing.react = [&](Recorder &self, const Event &) {
        while (!all_queued) std::this_thread::yield();
        if (void *handle = self.handle.exchange(nullptr)) ipc->free(handle);
    };
    void *bystander_handle = bystander.handle;
    subscribe(closing.handle, key("k"));
    subscribe(bystander_handle, key("k"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(set(bystander_handle, key("k"), "v"), 0);
    all_queued = true;
    settle();
    ASSERT_EQ(set(bystander_handle, key("k"), "v"), 0);
    settle();
    EXPECT_EQ(closing.seen().size(), 1u);
    EXPECT_EQ(bystander.seen().size(), 4u);
}

}  // namespace
