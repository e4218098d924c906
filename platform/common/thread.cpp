#include "tarvex_common.h"

#include <unistd.h>

extern "C" {

unsigned long tarvex_thread_self(void) {
  return static_cast<unsigned long>(gettid());
}

int tarvex_mutex_init(tarvex_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  return pthread_mutex_init(mutex, attributes);
}

int tarvex_mutex_destroy(tarvex_mutex_t* mutex) {
  return pthread_mutex_destroy(mutex);
}

int tarvex_mutex_lock(tarvex_mutex_t* mutex) {
  return pthread_mutex_lock(mutex);
}

int tarvex_mutex_unlock(tarvex_mutex_t* mutex) {
  return pthread_mutex_unlock(mutex);
}

int tarvex_cond_init(tarvex_cond_t* cond, const pthread_condattr_t* attributes) {
  return pthread_cond_init(cond, attributes);
}

int tarvex_cond_destroy(tarvex_cond_t* cond) {
  return pthread_cond_destroy(cond);
}

int tarvex_cond_wait(tarvex_cond_t* cond, tarvex_mutex_t* mutex) {
  return pthread_cond_wait(cond, mutex);
}

int tarvex_cond_timedwait(tarvex_cond_t* cond, tarvex_mutex_t* mutex, const struct timespec* until) {
  return pthread_cond_timedwait(cond, mutex, until);
}

int tarvex_cond_signal(tarvex_cond_t* cond) {
  return pthread_cond_signal(cond);
}

int tarvex_cond_broadcast(tarvex_cond_t* cond) {
  return pthread_cond_broadcast(cond);
}

}  // extern "C"
