// Test double for a telemetry SDK provider: every slot records its call as one line of text, can
// be told to fail, or can be dropped from the table (set the slot to null in table()). Handles are
// malloc'd blocks that name what they stand for, so the library may release scope handles with
// free() when scope_free is null. Calls may come from several threads.
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
    // What a handle stands for: "ctx:<service>", "scope:<name>", "span:<name>", "inst:<name>".
    struct Handle {
        RecordingProvider *owner;
        char what[120];
        char context[64];  // a span's context text
    };

    RecordingProvider() {
        table_.slots = {"recording",
                        "0.1",
                        init,
                        release,
                        resource_attrs_set,
                        scope_create,
                        scope_free,
                        scope_attrs_set,
                        span_start,
                        span_start_from_context,
                        span_attrs_set,
                        span_end,
                        span_to_context,
                        span_log,
                        inst_create,
                        inst_destroy,
                        add_int64,
                        add_double};
        table_.owner = this;
    }

    obs_sdk_provider *table() { return &table_.slots; }

    // Failures on demand: a null handle from init, scope_create, span starts and inst_create,
    // and the results of span_log and the adds.
    bool fail_init = false, fail_scope = false, fail_span = false, fail_inst = false;
    int log_result = 0, add_result = 0;

    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> hold(lock_);
        return calls_;
    }
    void clear() {
        std::lock_guard<std::mutex> hold(lock_);
        calls_.clear();
    }
    // The calls whose text begins with prefix.
    std::vector<std::string> calls(const std::string &prefix) {
        std::vector<std::string> found;
        for (const std::string &call : calls())
            if (call.compare(0, prefix.size(), prefix) == 0) found.push_back(call);
        return found;
    }

    // The text of an attribute list as the library's value encoder writes it.
    static std::string attrs_text(const obs_key_value *attrs) {
        obs_sds text = obs_key_value_encode(attrs);
        std::string result = text ? text : "-";
        obs_sdsfree(text);
        return result;
    }
    static std::string name_of(const void *handle) {
        return handle ? static_cast<const Handle *>(handle)->what : "-";
    }

  private:
    static RecordingProvider *owner_of(const void *handle) {
        return static_cast<const Handle *>(handle)->owner;
    }
    // Records the slot's name and its arguments' texts, separated by spaces.
    template <typename... Texts>
    void record(const char *slot, const Texts &...texts) {
        std::string call = slot;
        ((call += ' ', call += texts), ...);
        std::lock_guard<std::mutex> hold(lock_);
        calls_.push_back(call);
    }
    Handle *make(const std::string &what) {
        auto *handle = static_cast<Handle *>(calloc(1, sizeof(Handle)));
        handle->owner = this;
        snprintf(handle->what, sizeof handle->what, "%s", what.c_str());
        snprintf(handle->context, sizeof handle->context, "ctx-of-%s", what.c_str());
        return handle;
    }
    static std::string text(const char *t) { return t ? t : "-"; }
    static std::string number(int64_t n) { return std::to_string(n); }

    // The table is the first member of a record that also names its owner, which init (the
    // only slot without a handle of ours) reaches through the context's provider.
    struct Table {
        obs_sdk_provider slots;
        RecordingProvider *owner;
    };
    static void *init(obs_ctx *ctx, const char *service) {
        RecordingProvider *self = reinterpret_cast<Table *>(ctx->sdk_provider)->owner;
        self->record("init", text(service));
        return self->fail_init ? nullptr : self->make("ctx:" + text(service));
    }
    static void release(void *sdk_ctx) {
        owner_of(sdk_ctx)->record("free", name_of(sdk_ctx));
        free(sdk_ctx);
    }
    static void resource_attrs_set(void *sdk_ctx, unsigned signal, obs_key_value *attrs) {
        owner_of(sdk_ctx)->record("resource_attrs_set", number(signal), attrs_text(attrs));
    }
    static void *scope_create(void *sdk_ctx, const char *name, const char *version,
                              obs_sampling sampling) {
        RecordingProvider *self = owner_of(sdk_ctx);
        self->record("scope_create", text(name), text(version), number(sampling));
        return self->fail_scope ? nullptr : self->make("scope:" + text(name));
    }
    static void scope_free(void *sdk_scope) {
        owner_of(sdk_scope)->record("scope_free", name_of(sdk_scope));
        free(sdk_scope);
    }
    static void scope_attrs_set(void *sdk_ctx, void *sdk_scope, unsigned signal,
                                obs_key_value *attrs) {
        owner_of(sdk_ctx)->record("scope_attrs_set", name_of(sdk_scope), number(signal),
                                  attrs_text(attrs));
    }
    static void *span_start(void *sdk_ctx, void *parent, void *sdk_scope, const char *name) {
        RecordingProvider *self = owner_of(sdk_ctx);
        self->record("span_start", name_of(parent), name_of(sdk_scope), text(name));
        return self->fail_span ? nullptr : self->make("span:" + text(name));
    }
    static void *span_start_from_context(void *sdk_ctx, const char *parent, void *sdk_scope,
                                         const char *name) {
        RecordingProvider *self = owner_of(sdk_ctx);
        self->record("span_start_from_context", text(parent), name_of(sdk_scope), text(name));
        return self->fail_span ? nullptr : self->make("span:" + text(name));
    }
    static void span_attrs_set(void *sdk_span, obs_key_value *attrs) {
        owner_of(sdk_span)->record("span_attrs_set", name_of(sdk_span), attrs_text(attrs));
    }
    static void span_end(void *sdk_span, int status, const char *description) {
        owner_of(sdk_span)->record("span_end", name_of(sdk_span), number(status),
                                   text(description));
        free(sdk_span);
    }
    static const char *span_to_context(void *sdk_span, void *, void *) {
        return static_cast<Handle *>(sdk_span)->context;
    }
    static int span_log(void *sdk_ctx, void *sdk_span, void *sdk_scope, int level,
                        const char *message) {
        RecordingProvider *self = owner_of(sdk_ctx);
        self->record("span_log", name_of(sdk_span), name_of(sdk_scope), number(level),
                     text(message));
        return self->log_result;
    }
    static void *inst_create(int inst_type, int val_type, void *sdk_ctx, void *sdk_scope,
                             const char *name, const char *description) {
        RecordingProvider *self = owner_of(sdk_ctx);
        self->record("metrics_inst_create", number(inst_type), number(val_type), name_of(sdk_scope),
                     text(name), text(description));
        return self->fail_inst ? nullptr : self->make("inst:" + text(name).substr(0, 60));
    }
    static void inst_destroy(void *inst) {
        owner_of(inst)->record("metrics_inst_destroy", name_of(inst));
        free(inst);
    }
    static int add_int64(void *inst, int64_t value, obs_key_value *attrs) {
        owner_of(inst)->record("add_int64", name_of(inst), number(value), attrs_text(attrs));
        return owner_of(inst)->add_result;
    }
    static int add_double(void *inst, double value, obs_key_value *attrs) {
        owner_of(inst)->record("add_double", name_of(inst), std::to_string(value),
                               attrs_text(attrs));
        return owner_of(inst)->add_result;
    }

    Table table_;
    std::mutex lock_;
    std::vector<std::string> calls_;
};

}  // namespace obs_test

#endif
