// The library's one way to write a diagnostic line: formatted into a 1024-byte buffer (cut, never
// overrun) and handed to the debug log with a fresh slot that is closed afterwards.
#ifndef OBS_SUPPORT_LOG_H
#define OBS_SUPPORT_LOG_H

namespace obs {

void log_line(const char *format, ...) __attribute__((format(printf, 1, 2)));

// What a log line shows for a missing text.
inline const char *text_or_na(const char *text) {
    return text ? text : "NA";
}

}  // namespace obs

// A line that begins with the reporting operation's name and source line.
#define OBS_LOG(format, ...) obs::log_line("%s:%d " format, __func__, __LINE__, ##__VA_ARGS__)
// The same, for a helper that logs on behalf of the exported operation named by operation.
#define OBS_LOG_AS(operation, format, ...) \
    obs::log_line("%s:%d " format, operation, __LINE__, ##__VA_ARGS__)

#endif
