// The in-process IPC provider driven through its table: key matching, the shared store, delivery
// order across threads, and release of a context while its handlers run.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "observability_ipc_mem.h"

namespace {

using Event = std::tuple<int, std::string, std::string>;  // op, path, data

// A context's handler records each delivery, checking that it runs off the thread that made the
// context, then runs react. Tests read events once a flush has found the provider idle.
struct Recorder {
    std::atomic<void *> handle{nullptr};  // null once freed
    std::function<void(Recorder &)> react;
    const std::thread::id maker = std::this_thread::get_id();
    std::vector<Event> events;

    ~Recorder() {
        if (void *open = handle.exchange(nullptr)) obs_ipc_mem_provider()->free(open);
    }
};

void record(void *ctx, int op, const char *path, const char *, const void *data, int len) {
    auto *recorder = static_cast<Recorder *>(ctx);
    EXPECT_NE(std::this_thread::get_id(), recorder->maker);
    recorder->events.emplace_back(op, path, std::string(static_cast<const char *>(data), len));
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
    // Keys of each test live under a root of their own: the store is shared by the process.
    const std::string root =
        std::string("/t/") + testing::UnitTest::GetInstance()->current_test_info()->name() + "/";
    std::deque<Recorder> recorders;

    std::string key(const std::string &suffix) const { return root + suffix; }

    // A new context subscribed to the keys of paths.
    Recorder &open(std::initializer_list<const char *> paths = {}) {
        Recorder &recorder = recorders.emplace_back();
        recorder.handle = ipc->init(&recorder, "svc", nullptr);
        for (const char *path : paths)
            EXPECT_EQ(ipc->subscribe(recorder.handle, key(path).c_str(), record), 0);
        return recorder;
    }
    void set(void *handle, const std::string &at, const std::string &value) {
        EXPECT_EQ(ipc->set(handle, at.c_str(), value.data(), value.size(), nullptr, nullptr, 0), 0);
    }
    // The stored bytes, or "<none>" when get fails (leaving the buffer null, as it must).
    std::string get(void *handle, const std::string &at) {
        void *buf = nullptr;
        int len = -1;
        if (ipc->get(handle, at.c_str(), &buf, &len) != 0) return buf ? "<set>" : "<none>";
        std::string value(static_cast<char *>(buf), len);
        free(buf);
        return value;
    }
};

TEST_F(MemProviderTest, ContextsShareOneStoreAndGetMatchingEventsInOrderOffTheCallersThread) {
    Recorder &recorder = open({"service{*}/uid", "service{*}/scope{*}/obs", "exact"});
    void *writer = open().handle;
    // "{*}" stands for one non-empty name without braces, never for more of the path.
    for (const char *unmatched :
         {"service{}/uid", "service{a}/x{b}/uid", "service{a{b}/uid", "service{a{/uid",
          "service{svc}/uid/x", "service/uid", "service{s}/scope{}/obs", "exact2", "exac"})
        set(writer, key(unmatched), "v");
    const std::string exact = key("exact"), uid = key("service{svc}/uid"),
                      scope = key("service{s}/scope{d}/obs"), longer("long\0value", 10),
                      bytes("a\0b\xff", 4);
    for (const std::string &value : {longer, bytes}) set(writer, exact, value);
    EXPECT_EQ(get(recorder.handle, exact), bytes);
    ASSERT_EQ(ipc->send(writer, uid.c_str(), "msg", 3), 0);
    set(writer, scope, "v2");
    char *text = ipc->dump_debuginfo(recorder.handle);
    const std::string dump = text ? text : "";
    free(text);
    EXPECT_TRUE(std::regex_search(dump, std::regex(exact + "[^\n]*\\b4\\b"))) << dump;
    EXPECT_NE(dump.find(key("service{*}/uid")), std::string::npos) << dump;
    EXPECT_EQ(obs_ipc_mem_delete(writer, exact.c_str()), 0);
    EXPECT_EQ(obs_ipc_mem_delete(writer, uid.c_str()), -1);  // sent, never stored
    EXPECT_EQ(get(writer, exact), "<none>");
    within_deadline(obs_ipc_mem_flush);
    EXPECT_EQ(recorder.events, (std::vector<Event>{Event(0, exact, longer), Event(0, exact, bytes),
                                                   Event(0, uid, "msg"), Event(0, scope, "v2"),
                                                   Event(2, exact, std::string(1, '\0'))}));
}

TEST_F(MemProviderTest, ConcurrentSettersLoseNothingAndKeepEachThreadsOrder) {
    Recorder &recorder = open({"writer{*}/counter"});
    std::map<std::string, std::vector<Event>> expected, arrived;
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 4; ++writer) {
        const std::string at = key("writer{" + std::to_string(writer) + "}/counter");
        for (int i = 0; i < 500; ++i) expected[at].push_back({0, at, std::to_string(i)});
        threads.emplace_back([&, at] {
            for (int i = 0; i < 500; ++i) set(recorder.handle, at, std::to_string(i));
        });
    }
    for (std::thread &thread : threads) thread.join();
    within_deadline(obs_ipc_mem_flush);
    for (const Event &event : recorder.events) arrived[std::get<1>(event)].push_back(event);
    EXPECT_EQ(arrived, expected);
}

// A service answers each query from inside the query's delivery, with a report in several
// parts: one flush covers the query and every part.
TEST_F(MemProviderTest, FlushWaitsForTheEventsHandlersQueueWhileItWaits) {
    Recorder &service = open({"query"}), &agent = open({"report"});
    service.react = [&](Recorder &self) {
        for (int part = 0; part < 5; ++part)
            EXPECT_EQ(ipc->send(self.handle, key("report").c_str(), "r", 1), 0);
    };
    within_deadline([&] {
        for (int i = 1; i <= 300; ++i) {
            set(agent.handle, key("query"), "q");
            obs_ipc_mem_flush();
            ASSERT_EQ(agent.events.size(), 5u * i) << "after query " << i;
        }
    });
}

// Frees while a handler runs. Another context's free drops its events from the tail of the
// queue, first leaving it empty, then leaving an event before them: events queued afterwards must
// still arrive, behind that one. The running handler's own context is released only once the
// handler, which may still use the store, returns. A context freed from its own handler returns
// at once and drops its events queued behind.
TEST_F(MemProviderTest, EventsQueuedAfterAFreeDroppedTheTailOfTheQueueArrive) {
    Recorder &busy = open({"busy"}), &later = open({"later"});
    Recorder *dropped[] = {&open({"0"}), &open({"1"})};
    void *busy_handle = busy.handle;
    std::atomic<bool> started{false}, go{false}, freed{false}, returned{false};
    busy.react = [&](Recorder &) {
        for (started = true; !go;) std::this_thread::yield();
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
        while (!freed && std::chrono::steady_clock::now() < until) std::this_thread::yield();
        set(busy_handle, key("other"), "v");
        returned = true;
    };
    later.react = [&](Recorder &self) {
        if (self.events.size() == 2) ipc->free(self.handle.exchange(nullptr));
    };
    within_deadline([&] {
        set(busy_handle, key("busy"), "v");
        while (!started) std::this_thread::yield();  // every event from here on waits in the queue
        for (int round : {0, 1}) {
            for (int i = 0; i < 2; ++i) set(busy_handle, key(std::to_string(round)), "v");
            ipc->free(dropped[round]->handle.exchange(nullptr));
            set(busy_handle, key("later"), std::to_string(round));
        }
        set(busy_handle, key("later"), "2");
        go = true;
        ipc->free(busy.handle.exchange(nullptr));
        freed = true;
        EXPECT_TRUE(returned);
    });
    within_deadline(obs_ipc_mem_flush);
    EXPECT_EQ(later.events, (std::vector<Event>{{0, key("later"), "0"}, {0, key("later"), "1"}}));
    EXPECT_TRUE(dropped[0]->events.empty() && dropped[1]->events.empty());
}

}  // namespace
