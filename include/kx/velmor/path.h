#pragma once

#include <kx/velmor/connection.h>

#include <string>

namespace kx::velmor {

/// The path without leading, trailing and repeated separators: "//a///b/" becomes "a/b".
///
/// Throws `VelmorError`, quoting the path, for what cannot name a node: nothing left, a "." or ".." component, a NUL
/// character.
std::string NormalizePath(std::string path);

/// Makes sure that there is a node at `path`, creating it and its missing ancestors: persistent, without data, with
/// `acl`. With `parentsOnly` the last component is left to the caller, who may want other flags, data or rights for it.
///
/// A node that exists, or that somebody else creates meanwhile, is no failure; nodes above the first missing one are
/// only looked at, so that rights to create under them are not needed. "/" is the connection's root.
///
/// Blocks for one round trip when the node exists. Threads: any.
/// Throws `VelmorError` for a path that names no node (as `NormalizePath` does) and `ZooError` when a node cannot be
/// made; ancestors that were created by then stay.
void EnsurePath(const Connection& connection, std::string path, bool parentsOnly, const ACL_vector& acl);

}  // namespace kx::velmor
