#include "tests/support/mutex_probe.h"

#include <pthread.h>

#include <stdexcept>
#include <thread>

namespace kx::velmor::testing_support {

bool IsLocked(std::mutex& mutex)
{
    bool locked = true;
    // A thread must not try a std::mutex that it holds itself.
    std::thread([&] {
        if (mutex.try_lock())
        {
            locked = false;
            mutex.unlock();
        }
    }).join();
    return locked;
}

void MakeErrorChecking(std::mutex& mutex)
{
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0 ||
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK) != 0 ||
        pthread_mutex_destroy(mutex.native_handle()) != 0 ||
        pthread_mutex_init(mutex.native_handle(), &attributes) != 0 || pthread_mutexattr_destroy(&attributes) != 0)
    {
        throw std::runtime_error("Cannot change the kind of a mutex");
    }
}

}  // namespace kx::velmor::testing_support
