#pragma once

#include <mutex>

namespace kx::velmor::testing_support {

/// Whether any thread, the caller's included, holds the mutex at this moment.
bool IsLocked(std::mutex& mutex);

/// Makes locking a mutex that this thread holds already an error, `std::system_error`, where it would wait for ever.
///
/// Nobody may hold or use the mutex meanwhile.
void MakeErrorChecking(std::mutex& mutex);

}  // namespace kx::velmor::testing_support
