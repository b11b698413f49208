// Starting the library's own threads (header-only, so the IPC providers may compile it in).
#ifndef OBS_SUPPORT_BACKGROUND_THREAD_H
#define OBS_SUPPORT_BACKGROUND_THREAD_H

#include <pthread.h>
#include <signal.h>

namespace obs {

// Starts a detached thread running main with every signal blocked, so that the host's signals
// (the dump signal included) are always taken by the host's own threads. False when it cannot.
inline bool start_background_thread(void *(*main)(void *), pthread_t *thread) {
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &previous);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    const bool started = pthread_create(thread, &attr, main, nullptr) == 0;
    pthread_attr_destroy(&attr);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return started;
}

}  // namespace obs

#endif
