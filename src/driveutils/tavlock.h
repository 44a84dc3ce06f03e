// Holds a pthread mutex for a scope.
#pragma once

#include <pthread.h>

class TavLocked {
public:
    explicit TavLocked(pthread_mutex_t& m) : mutex(m) { pthread_mutex_lock(&mutex); }
    ~TavLocked() { pthread_mutex_unlock(&mutex); }
    TavLocked(const TavLocked&) = delete;
    TavLocked& operator=(const TavLocked&) = delete;

private:
    pthread_mutex_t& mutex;
};
