// What telemetry threads read of a scope: the gate word, the log level and the four counters, all
// through relaxed atomic operations on the public fields. Policy application rewrites the gate
// whenever the sampling changes (under the API lock), so telemetry never looks at a sampler that
// may be merged or released at that moment.
#ifndef OBS_API_SCOPE_GATE_H
#define OBS_API_SCOPE_GATE_H

#include "observability/instrumentation.h"

namespace obs {

// The OBS_SIGNAL_* bits a sampling value lets through: every signal whose setting is not off.
// Log records follow the traces setting.
uint32_t gate_of(obs_sampling sampling);

inline bool lets_through(const obs_scope *scope, uint32_t signal) {
    return (__atomic_load_n(&scope->gate, __ATOMIC_RELAXED) & signal) != 0;
}

inline int log_level_of(const obs_scope *scope) {
    return __atomic_load_n(&scope->log_level, __ATOMIC_RELAXED);
}

inline void count_up(int *counter) {
    __atomic_add_fetch(counter, 1, __ATOMIC_RELAXED);
}

inline void count_down(int *counter) {
    __atomic_sub_fetch(counter, 1, __ATOMIC_RELAXED);
}

}  // namespace obs

#endif
