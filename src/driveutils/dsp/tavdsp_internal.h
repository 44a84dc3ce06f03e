// State of the link shared by its units (tavdsp.cpp, tavdspmsg.cpp).
#pragma once

#include <pthread.h>

namespace tavdsp {

// Guards the list, its counter and the response flag. An error-checking
// mutex: a lock left held (see sendMessage) makes a relock by its owner fail
// instead of deadlocking, and other threads wait on it, both defined.
extern pthread_mutex_t dataMutex;

// 0, or -1 with "Unable to lock mutex; %s:%d\n" logged.
int lockData(const char* file, int line);
int unlockData(const char* file, int line);

} // namespace tavdsp
