// The input is a path that exists already, on a line of its own, and one that is to be there.

#include "tests/fuzz/fuzz_target.h"
#include "tests/support/journal.h"
#include "tests/support/scripted_connection.h"
#include "tests/support/scripted_service.h"

#include <kx/velmor/error.h>
#include <kx/velmor/path.h>

#include <algorithm>

namespace kx::velmor::testing_support {

namespace {

/// What there is in the service once `EnsurePath` is through; empty when it refuses the path.
std::optional<std::vector<std::string>> Ensured(ScriptedService& service, const std::string& path, bool parentsOnly)
{
    const auto connection = service.Open();
    try
    {
        EnsurePath(*connection, path, parentsOnly, ZOO_OPEN_ACL_UNSAFE);
    }
    catch (const ZooError&)
    {
        throw BrokenProperty("nothing fails where nothing goes wrong");
    }
    catch (const VelmorError&)
    {
        return std::nullopt;
    }
    std::vector<std::string> nodes{"/"};
    for (std::size_t next = 0; next < nodes.size(); ++next)
    {
        const std::string below = nodes[next] == "/" ? "/" : nodes[next] + "/";
        for (const std::string& child : service.Children(nodes[next]))
        {
            nodes.push_back(below + child);
        }
    }
    std::sort(nodes.begin(), nodes.end());
    return nodes;
}

/// Adds "/a", "/a/b" and "/a/b/c" for a, b and c.
void AddWithParents(std::vector<std::string>& nodes, const std::vector<std::string>& components)
{
    std::string path;
    for (const std::string& component : components)
    {
        path += "/" + component;
        nodes.push_back(path);
    }
}

void CheckEnsuring(const std::vector<std::string>& existing, const std::string& path, bool parentsOnly)
{
    Journal journal;
    ScriptedService service(journal);
    std::vector<std::string> expected{"/"};
    if (!existing.empty())
    {
        service.Add("/" + Join("/", existing));
        AddWithParents(expected, existing);
    }
    const bool root = !path.empty() && path.find_first_not_of('/') == std::string::npos;
    auto components = root ? std::vector<std::string>() : ExpectedComponents(path);
    const auto nodes = Ensured(service, path, parentsOnly);
    Require(nodes.has_value() == components.has_value(), "what names no node is refused, and nothing else");
    if (!nodes)
    {
        Require(journal.Lines().empty(), "the service is not asked about what is refused");
        return;
    }
    if (parentsOnly && !components->empty())
    {
        components->pop_back();
    }
    AddWithParents(expected, *components);
    std::sort(expected.begin(), expected.end());
    expected.erase(std::unique(expected.begin(), expected.end()), expected.end());
    Require(*nodes == expected, "the path is there with its ancestors, and nothing else was made");
}

}  // namespace

void CheckInput(const std::string& input)
{
    InputLines lines(input);
    const auto existing = ExpectedComponents(lines.Line()).value_or(std::vector<std::string>());
    const std::string path = lines.Rest();
    CheckEnsuring(existing, path, false);
    CheckEnsuring(existing, path, true);
}

}  // namespace kx::velmor::testing_support
