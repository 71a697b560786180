#pragma once

#include <kx/velmor/observer.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kx::velmor::cli {

/// "leader" for who has claimed the lead, "elected" for the first in the queue who has not, "next" for the second,
/// "follower" for everybody else.
const char* RoleInView(const ElectionView& view, std::size_t index);

/// The queue as text, a line each without its end, under a line of headings; columns stand below each other. A leader
/// that has no place in the queue any more stands above it. Only the headings when there is nobody.
std::vector<std::string> TableOf(const ElectionView& view);

}  // namespace kx::velmor::cli
