// The debug log output of one benchmark run: dropped, or the real output (a log file in a private
// directory, and standard output). Restored when the run ends.
#ifndef OBS_BENCH_LOG_OUTPUT_H
#define OBS_BENCH_LOG_OUTPUT_H

#include <cstdio>
#include <cstdlib>
#include <string>

#include "observability_api.h"

namespace obs_bench {

inline int drop_line(int, const char *) {
    return 0;
}

// The debug log output for one benchmark run, restored when the run ends.
class log_output {
  public:
    explicit log_output(bool logged) {
        if (!logged) {
            obs_log_callback_set(drop_line);
            return;
        }
        char pattern[] = "/tmp/obs_bench.XXXXXX";
        if (mkdtemp(pattern)) {
            directory_ = pattern;
            path_ = directory_ + "/obs_policy.log";
            obs_log_file_set(path_.c_str());
        }
    }
    ~log_output() {
        obs_log_callback_set(nullptr);
        obs_log_file_set(nullptr);
        if (directory_.empty()) return;
        remove(path_.c_str());
        remove((path_ + ".1").c_str());
        remove(directory_.c_str());
    }
    log_output(const log_output &) = delete;
    log_output &operator=(const log_output &) = delete;

  private:
    std::string directory_;
    std::string path_;
};

}  // namespace obs_bench

#endif
