#include "api/dump_signal.h"

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <cerrno>

#include "observability/instrumentation.h"
#include "support/background_thread.h"

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

void start_dump_thread() {
    if (sem_init(&dump_requests, 0, 0) != 0) return;
    pthread_t thread;
    dump_thread_started = obs::start_background_thread(dump_main, &thread);
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
