// Test double for the host's IPC provider: records every call the library makes, answers get and
// list from scripted contents, and lets a test drop any optional slot. Also the fixture and the
// few texts the policy channel suites share.
#ifndef OBS_TESTS_SUPPORT_SCRIPTED_IPC_H
#define OBS_TESTS_SUPPORT_SCRIPTED_IPC_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "observability_api.h"
#include "support/log_capture.h"

namespace obs_test {

const std::string root = OBS_IPC_KEY_ROOT;

inline std::string text_of(const void *text) {
    return text ? static_cast<const char *>(text) : "";
}

// The encoded form of a record with op, reqid and, when given, a raw text and a path.
inline std::string encoded(int op, const char *reqid, const char *raw = nullptr,
                           const char *path = nullptr) {
    obs_policy record = {};
    record.op = static_cast<uint8_t>(op);
    record.reqid = const_cast<char *>(reqid);
    record.path = const_cast<char *>(path);
    record.raw_val = const_cast<char *>(raw);
    record.raw_vlen = raw ? static_cast<uint32_t>(strlen(raw) + 1) : 0;
    char *text = nullptr;
    uint32_t len = 0;
    obs_policy_internal_encode(&record, &text, &len);
    std::string bytes(text, len);
    free(text);
    return bytes;
}

inline std::string pointer_text(const void *p) {
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

class ScriptedIpc {
  public:
    struct Call {
        std::string key, value, index_key, member;  // send: no index; set: "" when none given
    };

    ScriptedIpc() {
        table_ = {"scripted", "9.9", this,  &init, &release, &subscribe,
                  nullptr,    &set,  &list, &get,  &send,    &dump_debuginfo};
    }
    obs_ipc_provider *table() { return &table_; }

    std::map<std::string, std::string> stored;  // answers get; set writes it
    // A list answer: the result and the members (null where given); with no members, a count
    // without an array when claimed is set, as only a faulty or hostile host gives.
    struct Listing {
        std::vector<const char *> names;
        int result = 0;
        uint32_t claimed = 0;
    };
    std::map<std::string, Listing> indexes;  // answers list; any other index answers others
    Listing others;
    int result = 0;  // what set, send and subscribe return

    std::vector<Call> sets, sends;
    struct Subscription {
        std::string path;
        obs_ipc_handler handler;
    };
    std::vector<Subscription> subscriptions;
    std::vector<std::string> gets;
    int inits = 0, frees = 0;

  private:
    static ScriptedIpc *self(void *ipc_ctx) { return static_cast<ScriptedIpc *>(ipc_ctx); }
    static std::string bytes(const void *data, uint32_t len) {
        return data ? std::string(static_cast<const char *>(data), len) : "";
    }
    static void *init(void *, const char *, void *evloop) { return ++self(evloop)->inits, evloop; }
    static void release(void *ipc_ctx) { ++self(ipc_ctx)->frees; }
    static int subscribe(void *ipc_ctx, const char *path, obs_ipc_handler handler) {
        self(ipc_ctx)->subscriptions.push_back({path, handler});
        return self(ipc_ctx)->result;
    }
    static int set(void *ipc_ctx, const char *key, const void *value, uint32_t len,
                   const char *index_key, const void *member, uint32_t member_len) {
        ScriptedIpc *ipc = self(ipc_ctx);
        ipc->sets.push_back(
            {key, bytes(value, len), index_key ? index_key : "", bytes(member, member_len)});
        ipc->stored[key] = bytes(value, len);
        return ipc->result;
    }
    static int list(void *ipc_ctx, const char *index_key, char ***members, uint32_t *count) {
        ScriptedIpc *ipc = self(ipc_ctx);
        auto found = ipc->indexes.find(index_key);
        const Listing &l = found == ipc->indexes.end() ? ipc->others : found->second;
        *count = l.names.empty() ? l.claimed : static_cast<uint32_t>(l.names.size());
        *members =
            l.names.empty() ? nullptr : static_cast<char **>(malloc(*count * sizeof(char *)));
        for (uint32_t i = 0; i < l.names.size(); ++i)
            (*members)[i] = l.names[i] ? strdup(l.names[i]) : nullptr;
        return l.result;
    }
    static int get(void *ipc_ctx, const char *key, void **buf, int *len) {
        ScriptedIpc *ipc = self(ipc_ctx);
        ipc->gets.push_back(key);
        auto found = ipc->stored.find(key);
        if (found == ipc->stored.end()) return -1;
        *len = static_cast<int>(found->second.size());
        *buf = malloc(found->second.size() ? found->second.size() : 1);
        memcpy(*buf, found->second.data(), found->second.size());
        return 0;
    }
    static int send(void *ipc_ctx, const char *key, const void *data, uint32_t len) {
        self(ipc_ctx)->sends.push_back({key, bytes(data, len), "", ""});
        return self(ipc_ctx)->result;
    }
    static char *dump_debuginfo(void *) { return strdup("scripted debug"); }

    obs_ipc_provider table_;
};

// A policy context of the service "svc" for the provider "probe" over a scripted IPC provider,
// made by create with the fixture as user_ctx, a first one without handler before each test.
// Every context made is released once, through the IPC's free and the provider's.
class ScriptedContextTest : public LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        create();
        scripted_.sets.clear();
        clear_captured_lines();
    }
    void TearDown() override {
        obs_policy_ctx_free(ctx_);
        EXPECT_TRUE(scripted_.frees == scripted_.inits && ctx_frees_ == scripted_.inits);
        LogCaptureTest::TearDown();
    }
    // A new context in place of the last; how many sets, subscriptions and gets making it took.
    std::string create(obs_policy_handler_fn handler = nullptr) {
        obs_policy_ctx_free(ctx_);
        scripted_.sets.clear();
        scripted_.subscriptions.clear();
        scripted_.gets.clear();
        ctx_ = obs_policy_ctx_init(this, "svc", handler, scripted_.table(), &provider_);
        return std::to_string(scripted_.sets.size()) + " " +
               std::to_string(scripted_.subscriptions.size()) + " " +
               std::to_string(scripted_.gets.size());
    }
    // The fixture a context was made by create for.
    template <typename Fixture>
    static Fixture *fixture(void *user_ctx) {
        return static_cast<Fixture *>(static_cast<ScriptedContextTest *>(user_ctx));
    }
    // The lines logged since the last call (by operation when named), each followed by "|".
    static std::string logged(const std::string &operation = "") {
        std::string text;
        for (const std::string &line : unnumbered_lines(operation)) text += line + "|";
        clear_captured_lines();
        return text;
    }
    static void count_and_free(obs_policy_ctx *ctx) {
        ++fixture<ScriptedContextTest>(ctx->user_ctx)->ctx_frees_;
        free(ctx);
    }

    ScriptedIpc scripted_;
    obs_sdk_policy_provider provider_{0,       "probe", "2.5",   obs_policy_init, count_and_free,
                                      nullptr, nullptr, nullptr, nullptr,         obs_policy_free};
    obs_policy_ctx *ctx_ = nullptr;
    int ctx_frees_ = 0;
};

}  // namespace obs_test

#endif
