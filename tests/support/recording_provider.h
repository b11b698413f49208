// Test double for a telemetry SDK provider: each slot records its call as one line of text and
// can be told to fail or be dropped (null it in table()). Handles are malloc'd blocks naming what
// they stand for, so the library may release them with free(). Calls may come from any thread.
#ifndef OBS_TESTS_SUPPORT_RECORDING_PROVIDER_H
#define OBS_TESTS_SUPPORT_RECORDING_PROVIDER_H

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "observability_api.h"

namespace obs_test {

class RecordingProvider {
  public:
    RecordingProvider() {
        table_.slots = {"recording",    "0.1",     init,      release,    nullptr,
                        scope_create,   nullptr,   nullptr,   span_start, span_start_from_context,
                        span_attrs_set, span_end,  nullptr,   span_log,   inst_create,
                        inst_destroy,   add_int64, add_double};
        table_.owner = this;
    }
    obs_sdk_provider *table() { return &table_.slots; }

    // A null handle from init, scope_create, the span starts and inst_create; the results of
    // span_log and the adds.
    bool fail_init = false, fail_scope = false, fail_span = false, fail_inst = false;
    int log_result = 0, add_result = 0;

    std::vector<std::string> calls() {
        std::lock_guard hold(lock_);
        return calls_;
    }
    void clear() {
        std::lock_guard hold(lock_);
        calls_.clear();
    }
    // The calls whose text begins with prefix.
    std::vector<std::string> calls(const std::string &prefix) {
        std::vector<std::string> found;
        for (const std::string &call : calls())
            if (call.compare(0, prefix.size(), prefix) == 0) found.push_back(call);
        return found;
    }
    // An attribute list as the library's value encoder writes it.
    static std::string attrs_text(const obs_key_value *attrs) {
        obs_sds text = obs_key_value_encode(attrs);
        std::string result = text ? text : "-";
        obs_sdsfree(text);
        return result;
    }
    // "ctx:<service>", "scope:<name>", "span:<name>" or "inst:<name>".
    static std::string name_of(const void *handle) {
        return handle ? static_cast<const Handle *>(handle)->what : "-";
    }

  private:
    struct Handle {
        RecordingProvider *owner;
        char what[120];
    };
    // init, the one slot without a handle of ours, finds its owner behind the table.
    struct Table {
        obs_sdk_provider slots;
        RecordingProvider *owner;
    };

    static RecordingProvider &of(const void *handle) {
        return *static_cast<const Handle *>(handle)->owner;
    }
    // Records the slot's name and its arguments' texts, separated by spaces.
    template <typename... Texts>
    RecordingProvider &record(const char *slot, const Texts &...texts) {
        std::string call = slot;
        ((call += ' ', call += texts), ...);
        std::lock_guard<std::mutex> hold(lock_);
        calls_.push_back(call);
        return *this;
    }
    void *make(bool fail, const std::string &what) {
        if (fail) return nullptr;
        auto *handle = static_cast<Handle *>(calloc(1, sizeof(Handle)));
        handle->owner = this;
        snprintf(handle->what, sizeof handle->what, "%s", what.c_str());
        return handle;
    }
    static std::string text(const char *t) { return t ? t : "-"; }
    static std::string number(int64_t n) { return std::to_string(n); }

    static void *init(obs_ctx *ctx, const char *service) {
        RecordingProvider &self = *reinterpret_cast<Table *>(ctx->sdk_provider)->owner;
        return self.record("init", text(service)).make(self.fail_init, "ctx:" + text(service));
    }
    static void release(void *sdk_ctx) {
        of(sdk_ctx).record("free", name_of(sdk_ctx));
        free(sdk_ctx);
    }
    static void *scope_create(void *sdk_ctx, const char *name, const char *version,
                              obs_sampling sampling) {
        RecordingProvider &self = of(sdk_ctx);
        self.record("scope_create", text(name), text(version), number(sampling));
        return self.make(self.fail_scope, "scope:" + text(name));
    }
    static void *span_start(void *sdk_ctx, void *parent, void *sdk_scope, const char *name) {
        RecordingProvider &self = of(sdk_ctx);
        self.record("span_start", name_of(parent), name_of(sdk_scope), text(name));
        return self.make(self.fail_span, "span:" + text(name));
    }
    static void *span_start_from_context(void *sdk_ctx, const char *parent, void *sdk_scope,
                                         const char *name) {
        RecordingProvider &self = of(sdk_ctx);
        self.record("span_start_from_context", text(parent), name_of(sdk_scope), text(name));
        return self.make(self.fail_span, "span:" + text(name));
    }
    static void span_attrs_set(void *sdk_span, obs_key_value *attrs) {
        of(sdk_span).record("span_attrs_set", name_of(sdk_span), attrs_text(attrs));
    }
    static void span_end(void *sdk_span, int status, const char *description) {
        of(sdk_span).record("span_end", name_of(sdk_span), number(status), text(description));
        free(sdk_span);
    }
    static int span_log(void *sdk_ctx, void *sdk_span, void *sdk_scope, int level,
                        const char *message) {
        RecordingProvider &self = of(sdk_ctx);
        self.record("span_log", name_of(sdk_span), name_of(sdk_scope), number(level),
                    text(message));
        return self.log_result;
    }
    static void *inst_create(int inst_type, int val_type, void *sdk_ctx, void *sdk_scope,
                             const char *name, const char *description) {
        RecordingProvider &self = of(sdk_ctx);
        self.record("metrics_inst_create", number(inst_type), number(val_type), name_of(sdk_scope),
                    text(name), text(description));
        return self.make(self.fail_inst, "inst:" + text(name).substr(0, 60));
    }
    static void inst_destroy(void *inst) {
        of(inst).record("metrics_inst_destroy", name_of(inst));
        free(inst);
    }
    static int add_int64(void *inst, int64_t value, obs_key_value *attrs) {
        return of(inst)
            .record("add_int64", name_of(inst), number(value), attrs_text(attrs))
            .add_result;
    }
    static int add_double(void *inst, double value, obs_key_value *attrs) {
        std::string v = std::to_string(value);
        return of(inst).record("add_double", name_of(inst), v, attrs_text(attrs)).add_result;
    }

    Table table_;
    std::mutex lock_;
    std::vector<std::string> calls_;
};

}  // namespace obs_test

#endif
