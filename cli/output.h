#pragma once

#include <string_view>

namespace kx::velmor::cli {

/// What became of something that was written.
enum class Written
{
    All,
    /// Nobody reads any more. SIGPIPE is to be ignored, or it ends the process instead.
    ReaderGone,
    /// There was something on the other descriptor, and the reader had not taken everything.
    Interrupted,
};

/// Writes everything, however slowly the reader takes it, as long as nothing can be read from the descriptor
/// `interrupting`; -1 for none. Blocks. Throws `std::system_error` when it cannot be written for another reason.
Written Write(int descriptor, std::string_view text, int interrupting = -1);

}  // namespace kx::velmor::cli
