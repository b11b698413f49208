// The one lock of the instrumentation API's cold paths: contexts, scope creation, policy
// application and the dump serialise on it; telemetry never takes it. It is recursive because
// the policy handler may run inside obs_ctx_init on the creating thread (the stored policy is
// applied there) and creates scopes itself.
#ifndef OBS_API_API_LOCK_H
#define OBS_API_API_LOCK_H

namespace obs {

class api_guard {
  public:
    api_guard();
    ~api_guard();
    api_guard(const api_guard &) = delete;
    api_guard &operator=(const api_guard &) = delete;
};

}  // namespace obs

#endif
