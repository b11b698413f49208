// Bytes received from another process as a NUL-terminated text that lies within them, so the
// parser, which reads up to a terminator, never reads past what was received: up to the first
// NUL, or a terminated copy of all of them when the sender sent none.
#ifndef OBS_VALUE_BOUNDED_TEXT_H
#define OBS_VALUE_BOUNDED_TEXT_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace obs {

class bounded_text {
  public:
    bounded_text(const char *data, uint32_t len) {
        const auto *nul = static_cast<const char *>(memchr(data, '\0', len));
        if (nul) {
            chars_ = data;
            length_ = static_cast<size_t>(nul - data);
            return;
        }
        copy_ = static_cast<char *>(malloc(size_t{len} + 1));
        if (!copy_) return;
        memcpy(copy_, data, len);
        copy_[len] = '\0';
        chars_ = copy_;
        length_ = len;
    }
    ~bounded_text() { free(copy_); }
    bounded_text(const bounded_text &) = delete;
    bounded_text &operator=(const bounded_text &) = delete;

    // Null when the copy could not be made.
    const char *chars() const { return chars_; }
    size_t length() const { return length_; }

  private:
    const char *chars_ = nullptr;
    char *copy_ = nullptr;
    size_t length_ = 0;
};

}  // namespace obs

#endif
