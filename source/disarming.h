#pragma once

namespace kx::velmor {

/// Whether this thread is inside the destructor of a watch handle, and so holds a watch state's mutex. What a callback
/// captured is destroyed there, a session perhaps; it must not wait for the event thread, which may want that mutex.
bool DisarmsOnThisThread() noexcept;

}  // namespace kx::velmor
