#include "api/dump_signal.h"

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <cerrno>

#include "observability/instrumentation.h"

namespace obs {
namespace {

sem_t dump_requests;
bool dump_thread_started;

// Only sem_post here: it is safe in a signal handler, the dump itself is not.
void on_dump_signal(int) {
    const int saved_errno = errno;
    sem_post(&dump_requests);
    errno = saved_errno;
}

void *dump_main(void *) {
    for (;;) {
        while (sem_wait(&dump_requests) != 0) {
        }
        obs_dump_info_to_file();
    }
    return nullptr;
}

// The thread blocks every signal, so the dump signal is always taken by a host thread.
void start_dump_thread() {
    if (sem_init(&dump_requests, 0, 0) != 0) return;
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &previous);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    dump_thread_started = pthread_create(&thread, &attr, dump_main, nullptr) == 0;
    pthread_attr_destroy(&attr);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

}  // namespace

int dump_signal_number() {
    return SIGRTMAX - 4;
}

void install_dump_signal() {
    if (!dump_thread_started) start_dump_thread();
    if (!dump_thread_started) return;
    struct sigaction action = {};
    action.sa_handler = on_dump_signal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(dump_signal_number(), &action, nullptr);
}

}  // namespace obs
