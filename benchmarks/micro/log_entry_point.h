#pragma once

namespace kx::velmor::benchmarks {

/// While it lives, the logging library's entry point for statements does nothing, so that what is measured is the
/// statement itself.
///
/// Threads: one.
class StatementsGoNowhere
{
public:
    StatementsGoNowhere();
    ~StatementsGoNowhere();
    StatementsGoNowhere(const StatementsGoNowhere&) = delete;
    StatementsGoNowhere& operator=(const StatementsGoNowhere&) = delete;
};

}  // namespace kx::velmor::benchmarks
