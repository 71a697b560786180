#pragma once

#include <stdexcept>

namespace kx::velmor {

namespace details {

/// Makes `Base` a type of its own for each `Tag`, so that one handler catches all errors of one library and no others.
template <typename Tag, typename Base>
class ExceptionWrapper : public Base
{
public:
    using Base::Base;
    ~ExceptionWrapper() override = default;

    ExceptionWrapper(const ExceptionWrapper&) = default;
    ExceptionWrapper& operator=(const ExceptionWrapper&) = default;
};

}  // namespace details

/// Tells this library's errors from everybody else's.
struct VelmorErrorTag
{};

/// What every error of this library can be caught as.
using VelmorError = details::ExceptionWrapper<VelmorErrorTag, std::runtime_error>;

/// A ZooKeeper call failed. The message is the client library's text for the code, as it is.
class ZooError : public VelmorError
{
public:
    /// `rc` is a ZooKeeper result code.
    explicit ZooError(int rc);

    /// The code of the call that failed.
    int Code() const noexcept { return rc_; }

private:
    int rc_;
};

}  // namespace kx::velmor
