// The in-process IPC provider driven through its table: key matching, the shared store, delivery
// order across threads, and release of a context while its handlers run.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
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
    std::string path, data, summary;
    std::thread::id thread;
};

// Given to init as the context; its handler records every event, then runs react, if set.
struct Recorder {
    std::atomic<void *> handle{nullptr};  // null once released
    std::function<void(Recorder &)> react;
    std::mutex lock;
    std::vector<Event> events;

    std::vector<Event> seen() {
        std::lock_guard<std::mutex> hold(lock);
        return events;
    }
    size_t count() {
        std::lock_guard<std::mutex> hold(lock);
        return events.size();
    }
};

void record(void *ctx, int op, const char *path, const char *, const void *data, int len) {
    auto *recorder = static_cast<Recorder *>(ctx);
    std::string bytes = data ? std::string(static_cast<const char *>(data), len) : "";
    {
        std::lock_guard<std::mutex> hold(recorder->lock);
        recorder->events.push_back(
            {path, bytes, delivery(op, path, bytes), std::this_thread::get_id()});
    }
    if (recorder->react) recorder->react(*recorder);
}

// Aborts the run when work takes over twenty seconds: a deadlock fails instead of hanging.
void within_deadline(const std::function<void()> &work) {
    auto done = std::async(std::launch::async, work);
    if (done.wait_for(std::chrono::seconds(20)) == std::future_status::timeout) std::abort();
}

class MemProviderTest : public testing::Test {
  protected:
    obs_ipc_provider *ipc = obs_ipc_mem_provider();
    std::vector<std::unique_ptr<Recorder>> recorders;  // outlive the test body, up to TearDown

    static void settle() { within_deadline(obs_ipc_mem_flush); }

    void TearDown() override {
        for (auto &recorder : recorders)
            if (void *handle = recorder->handle.exchange(nullptr)) ipc->free(handle);
    }

    Recorder &open() {
        recorders.push_back(std::make_unique<Recorder>());
        recorders.back()->handle = ipc->init(recorders.back().get(), "svc", nullptr);
        EXPECT_NE(recorders.back()->handle, nullptr);
        return *recorders.back();
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

TEST_F(MemProviderTest, DeliversMatchingEventsInOrderWithTheirBytesOffTheCallersThread) {
    Recorder &recorder = open();
    void *handle = recorder.handle;
    for (const char *path : {"service{*}/uid", "service{*}/scope{*}/obs", "exact"})
        subscribe(handle, key(path));
    // "{*}" stands for one non-empty name without braces, never for more of the path.
    for (const char *unmatched :
         {"service{}/uid", "service{a}/x{b}/uid", "service{a{b}/uid", "service{a{/uid",
          "service{svc}/uid/x", "service/uid", "service{s}/scope{}/obs", "exact2", "exac"})
        ASSERT_EQ(set(handle, key(unmatched), "v"), 0) << unmatched;
    const std::string bytes("a\0b\xff", 4), uid = key("service{svc}/uid");
    ASSERT_EQ(set(handle, uid, bytes), 0);
    ASSERT_EQ(ipc->send(handle, key("exact").c_str(), "msg", 3), 0);
    ASSERT_EQ(set(handle, key("service{s}/scope{d}/obs"), "v2"), 0);
    EXPECT_EQ(obs_ipc_mem_delete(handle, uid.c_str()), 0);
    EXPECT_EQ(obs_ipc_mem_delete(handle, key("exact").c_str()), -1);  // sent, never stored
    settle();
    std::vector<std::string> delivered;
    for (const Event &event : recorder.seen()) {
        delivered.push_back(event.summary);
        EXPECT_NE(event.thread, std::this_thread::get_id());
    }
    EXPECT_EQ(delivered,
              (std::vector<std::string>{delivery(0, uid, bytes), delivery(0, key("exact"), "msg"),
                                        delivery(0, key("service{s}/scope{d}/obs"), "v2"),
                                        delivery(2, uid, std::string(1, '\0'))}));
    EXPECT_EQ(get(handle, uid), "<none>");
}

TEST_F(MemProviderTest, ContextsShareOneStoreThatDescribesItself) {
    EXPECT_STREQ(ipc->name, "mem");
    EXPECT_TRUE(ipc->version && *ipc->version);
    void *writer = open().handle, *reader = open().handle;
    for (const std::string &value : {std::string("long\0value", 10), std::string("ab")}) {
        ASSERT_EQ(set(writer, key("k"), value), 0);
        EXPECT_EQ(get(reader, key("k")), value);
    }
    subscribe(reader, key("watched{*}"));
    char *text = ipc->dump_debuginfo(writer);
    const std::string dump = text ? text : "";
    free(text);
    EXPECT_TRUE(std::regex_search(dump, std::regex(key("k") + "[^\n]*\\b2\\b"))) << dump;
    EXPECT_NE(dump.find(key("watched{*}")), std::string::npos) << dump;
}

TEST_F(MemProviderTest, ConcurrentSettersLoseNothingAndKeepEachThreadsOrder) {
    constexpr int writers = 4, sets_each = 500;
    Recorder &recorder = open();
    void *handle = recorder.handle;
    subscribe(handle, key("writer{*}/counter"));
    auto counter_key = [](int w) { return key("writer{" + std::to_string(w) + "}/counter"); };
    std::map<std::string, std::vector<int>> expected, arrived;
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; ++writer) {
        for (int i = 0; i < sets_each; ++i) expected[counter_key(writer)].push_back(i);
        threads.emplace_back([&, at = counter_key(writer)] {
            for (int i = 0; i < sets_each; ++i) set(handle, at, std::to_string(i));
        });
    }
    for (std::thread &thread : threads) thread.join();
    settle();
    for (const Event &event : recorder.seen()) arrived[event.path].push_back(std::stoi(event.data));
    EXPECT_EQ(arrived, expected);
    for (int writer = 0; writer < writers; ++writer)
        EXPECT_EQ(get(handle, counter_key(writer)), std::to_string(sets_each - 1));
}

// One context frees itself from its first event; the other is freed while its handler runs.
TEST_F(MemProviderTest, FreeFromAHandlerReturnsFreeElsewhereWaitsAndNoHandlerRunsAfterEither) {
    Recorder &closing = open(), &slow = open();
    void *writer = open().handle, *slow_handle = slow.handle;
    std::atomic<bool> all_queued{false}, started{false}, freed{false}, ran_after_free{false};
    closing.react = [&](Recorder &self) {
        while (!all_queued) std::this_thread::yield();
        if (void *handle = self.handle.exchange(nullptr)) ipc->free(handle);
    };
    slow.react = [&](Recorder &) {
        if (freed) ran_after_free = true;
        started = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        get(slow_handle, key("k"));  // needs the store while free is waiting
        if (freed) ran_after_free = true;
    };
    subscribe(closing.handle, key("k"));
    subscribe(slow_handle, key("k"));
    within_deadline([&] {
        for (int i = 0; i < 100; ++i) EXPECT_EQ(set(writer, key("k"), "v"), 0);
        all_queued = true;
        while (!started) std::this_thread::yield();
        ipc->free(slow.handle.exchange(nullptr));
    });
    freed = true;
    settle();
    EXPECT_FALSE(ran_after_free);
    EXPECT_EQ(closing.seen().size(), 1u);
}

// A service answers each query from inside the query's delivery, with a report in several
// parts: one flush covers the query and every part.
TEST_F(MemProviderTest, FlushWaitsForTheEventsHandlersQueueWhileItWaits) {
    constexpr int queries = 300, parts = 5;
    Recorder &service = open(), &agent = open();
    service.react = [&](Recorder &self) {
        for (int part = 0; part < parts; ++part)
            EXPECT_EQ(ipc->send(self.handle, key("report").c_str(), "r", 1), 0);
    };
    subscribe(service.handle, key("query"));
    subscribe(agent.handle, key("report"));
    within_deadline([&] {
        for (int i = 1; i <= queries; ++i) {
            ASSERT_EQ(set(agent.handle, key("query"), "q"), 0);
            obs_ipc_mem_flush();
            ASSERT_EQ(agent.count(), 1u * i * parts) << "after query " << i;
        }
    });
}

// A free drops its context's events from the tail of the queue, first leaving it empty, then
// leaving an event before them: events queued afterwards must still arrive, behind that one.
TEST_F(MemProviderTest, EventsQueuedAfterAFreeDroppedTheTailOfTheQueueArrive) {
    Recorder &busy = open(), &later = open();
    Recorder *dropped[] = {&open(), &open()};
    std::promise<void> started, go_on;
    std::shared_future<void> go = go_on.get_future().share();
    busy.react = [&](Recorder &) {
        started.set_value();
        go.wait_for(std::chrono::seconds(20));
    };
    subscribe(busy.handle, key("busy"));
    subscribe(later.handle, key("later"));
    for (int round : {0, 1}) subscribe(dropped[round]->handle, key(std::to_string(round)));
    within_deadline([&] {
        ASSERT_EQ(set(busy.handle, key("busy"), "v"), 0);
        started.get_future().wait();  // every event from here on waits in the queue
        for (int round : {0, 1}) {
            for (int i = 0; i < 2; ++i)
                ASSERT_EQ(set(busy.handle, key(std::to_string(round)), "v"), 0);
            ipc->free(dropped[round]->handle.exchange(nullptr));
            ASSERT_EQ(set(busy.handle, key("later"), std::to_string(round)), 0);
        }
    });
    go_on.set_value();
    settle();
    std::vector<std::string> arrived;
    for (const Event &event : later.seen()) arrived.push_back(event.data);
    EXPECT_EQ(arrived, (std::vector<std::string>{"0", "1"}));
    for (Recorder *recorder : dropped) EXPECT_TRUE(recorder->seen().empty());
}

}  // namespace
