// Test double for the host's IPC provider: records every call the library makes, answers get and
// list from scripted contents, and lets a test drop any optional slot. Handlers subscribed through
// it are kept so a test can deliver events to them by hand.
#ifndef OBS_TESTS_SUPPORT_SCRIPTED_IPC_H
#define OBS_TESTS_SUPPORT_SCRIPTED_IPC_H

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "observability_api.h"

namespace obs_test {

class ScriptedIpc {
  public:
    struct SetCall {
        std::string key;
        std::string value;
        std::string index_key;  // empty when no index was given
        std::string member;
    };
    struct SendCall {
        std::string key;
        std::string data;  // the bytes as sent, terminator included
    };
    struct Subscription {
        std::string path;
        obs_ipc_handler handler;
    };

    ScriptedIpc() {
        table_.name = "scripted";
        table_.version = "9.9";
        table_.evloop = this;  // init hands it back as the ipc context
        table_.init = &init;
        table_.free = &release;
        table_.subscribe = &subscribe;
        table_.set = &set;
        table_.list = &list;
        table_.get = &get;
        table_.send = &send;
        table_.dump_debuginfo = &dump_debuginfo;
    }

    obs_ipc_provider *table() { return &table_; }

    // Scripted contents.
    std::map<std::string, std::string> stored;                // answers get
    std::map<std::string, std::vector<std::string>> indexes;  // answers list
    std::string debug_text = "scripted debug";
    int list_result = 0;
    // When set, answers list in place of indexes and list_result: for listings that only a
    // faulty or hostile host makes (null arrays, null members, one index failing).
    std::function<int(const std::string &index_key, char ***members, uint32_t *count)> list_script;
    int result = 0;  // what set, send and subscribe return

    // What the library did.
    std::vector<SetCall> sets;
    std::vector<SendCall> sends;
    std::vector<Subscription> subscriptions;
    std::vector<std::string> gets;
    std::vector<void *> init_contexts;  // the policy contexts handed to init
    int frees = 0;

    // Delivers an event to every handler subscribed under exactly path.
    void deliver(const std::string &path, int op, const std::string &event_path, const void *data,
                 int len) {
        for (const Subscription &s : subscriptions) {
            if (s.path == path && !init_contexts.empty())
                s.handler(init_contexts.back(), op, event_path.c_str(), event_path.c_str(), data,
                          len);
        }
    }

  private:
    static ScriptedIpc *self(void *ipc_ctx) { return static_cast<ScriptedIpc *>(ipc_ctx); }

    static void *init(void *policy_ctx, const char *, void *evloop) {
        self(evloop)->init_contexts.push_back(policy_ctx);
        return evloop;
    }
    static void release(void *ipc_ctx) { ++self(ipc_ctx)->frees; }
    static int subscribe(void *ipc_ctx, const char *path, obs_ipc_handler handler) {
        self(ipc_ctx)->subscriptions.push_back({path, handler});
        return self(ipc_ctx)->result;
    }
    static int set(void *ipc_ctx, const char *key, const void *value, uint32_t len,
                   const char *index_key, const void *member, uint32_t member_len) {
        ScriptedIpc *ipc = self(ipc_ctx);
        ipc->sets.push_back(
            {key, std::string(static_cast<const char *>(value), len), index_key ? index_key : "",
             member ? std::string(static_cast<const char *>(member), member_len) : std::string()});
        ipc->stored[key] = std::string(static_cast<const char *>(value), len);
        return ipc->result;
    }
    static int list(void *ipc_ctx, const char *index_key, char ***members, uint32_t *count) {
        ScriptedIpc *ipc = self(ipc_ctx);
        if (ipc->list_script) return ipc->list_script(index_key, members, count);
        if (ipc->list_result != 0) return ipc->list_result;
        const std::vector<std::string> &names = ipc->indexes[index_key];
        *count = static_cast<uint32_t>(names.size());
        *members =
            names.empty() ? nullptr : static_cast<char **>(malloc(names.size() * sizeof(char *)));
        for (size_t i = 0; i < names.size(); ++i) (*members)[i] = strdup(names[i].c_str());
        return 0;
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
        ScriptedIpc *ipc = self(ipc_ctx);
        ipc->sends.push_back({key, std::string(static_cast<const char *>(data), len)});
        return ipc->result;
    }
    static char *dump_debuginfo(void *ipc_ctx) { return strdup(self(ipc_ctx)->debug_text.c_str()); }

    obs_ipc_provider table_ = {};
};

}  // namespace obs_test

#endif
