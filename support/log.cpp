#include "support/log.h"

#include <cstdarg>
#include <cstdio>

#include "observability/debug_log.h"

namespace obs {

void log_line(const char *format, ...) {
    char message[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    FILE *slot = nullptr;
    obs_debug_log_to_file(message, &slot, OBS_DEBUG_LOG_DEFAULT_PATH);
    if (slot) fclose(slot);
}

}  // namespace obs
