#include "api/api_lock.h"

#include <pthread.h>

namespace obs {
namespace {

pthread_once_t lock_made = PTHREAD_ONCE_INIT;
pthread_mutex_t api_lock;

// A static initialiser for a recursive mutex is a glibc extension; musl has none.
void make_lock() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&api_lock, &attr);
    pthread_mutexattr_destroy(&attr);
}

}  // namespace

api_guard::api_guard() {
    pthread_once(&lock_made, make_lock);
    pthread_mutex_lock(&api_lock);
}

api_guard::~api_guard() {
    pthread_mutex_unlock(&api_lock);
}

}  // namespace obs
