// First uses of the binding's handles: a handle is read with an acquire load, and only when it is
// still missing is it made, once, under one process-wide lock (also held while resource
// attributes replace a provider context). Later uses never take the lock.
#ifndef OBS_SDK_OT_LAZY_H
#define OBS_SDK_OT_LAZY_H

namespace obs {

class lazy_guard {
  public:
    lazy_guard();
    ~lazy_guard();
    lazy_guard(const lazy_guard &) = delete;
    lazy_guard &operator=(const lazy_guard &) = delete;
};

inline void *load_handle(void *const *field) {
    return __atomic_load_n(field, __ATOMIC_ACQUIRE);
}

inline void store_handle(void **field, void *handle) {
    __atomic_store_n(field, handle, __ATOMIC_RELEASE);
}

// The handle in *field, made by make() when missing; null when make() fails, which leaves the
// field null so that the next use tries again.
template <typename Make>
void *lazily(void **field, Make make) {
    if (void *handle = load_handle(field)) return handle;
    lazy_guard guard;
    void *handle = *field;
    if (!handle) {
        handle = make();
        store_handle(field, handle);
    }
    return handle;
}

}  // namespace obs

#endif
