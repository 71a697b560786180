// The input is a path.

#include "source/make_path.h"
#include "tests/fuzz/fuzz_target.h"

#include <kx/velmor/error.h>
#include <kx/velmor/path.h>

#include <algorithm>
#include <functional>

namespace kx::velmor::testing_support {

namespace {

void RequireRefusal(const std::string& path, const std::function<void()>& normalise)
{
    try
    {
        normalise();
    }
    catch (const ZooError&)
    {
        throw BrokenProperty("no service was asked, and none can have refused the path");
    }
    catch (const VelmorError& error)
    {
        Require(std::string(error.what()).find("\"" + Shown(path) + "\"") != std::string::npos,
                "a refusal quotes the path");
        return;
    }
    throw BrokenProperty("a path that names no node is refused");
}

void RequireNormalForm(const std::string& normal)
{
    Require(!normal.empty() && normal.front() != '/' && normal.back() != '/', "no separator begins or ends it");
    Require(normal.find("//") == std::string::npos, "no separator is repeated");
    for (const char* around : {"", "/"})
    {
        Require(NormalizePath(around + normal + around) == normal, "its normal form is itself");
    }
}

void RequireAncestry(const std::vector<std::string>& ancestry, const std::vector<std::string>& components)
{
    Require(ancestry.size() == components.size(), "there is one path for each component");
    std::string path;
    for (std::size_t depth = 0; depth < components.size(); ++depth)
    {
        path += "/" + components[depth];
        Require(ancestry[depth] == path, "each path has one component more than the one before");
    }
}

}  // namespace

void CheckInput(const std::string& input)
{
    const auto components = ExpectedComponents(input);
    if (!components)
    {
        RequireRefusal(input, [&] { NormalizePath(input); });
        RequireRefusal(input, [&] { Ancestry(input); });
        return;
    }
    const std::string normal = NormalizePath(input);
    RequireNormalForm(normal);
    Require(normal == Join("/", *components), "all components are kept, in their order");
    RequireAncestry(Ancestry(input), *components);
}

}  // namespace kx::velmor::testing_support
