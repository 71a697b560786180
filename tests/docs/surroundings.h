#pragma once

// What the code in documents that is no program of its own takes for granted.

#include "source/candidate_impl.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/observer.h>
#include <kx/velmor/participants.h>
#include <kx/velmor/session.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace kx::velmor {

/// How much of a session timeout a comparison gives away.
constexpr std::chrono::milliseconds margin{500};

void WriteOneReport();

void SendRequestsTo(const std::string& address);

class Cache
{
public:
    void Warm();
    void StopWarming();
    void Serve();
    void Drop();
};

class Database
{
public:
    /// The number of rows that were changed.
    template <typename... Parameters>
    int Execute(const std::string& statement, const Parameters&... parameters);
};

}  // namespace kx::velmor
