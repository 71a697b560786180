// The input is a line of letters, which say what happens to one call of the service each (see `Trouble`), and a path.

#include "source/make_path.h"

#include "source/testing/node_tree.h"
#include "tests/fuzz/fuzz_target.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

/// A service in memory on which things go wrong while somebody makes a path.
class Troubled
{
public:
    Troubled(std::string script, const std::vector<std::string>& ancestry)
        : script_(std::move(script)), ancestry_(ancestry)
    {}

    PathCalls Calls()
    {
        return {[this](const std::string& path) { return Exists(path); },
                [this](const std::string& path) { return Create(path); }};
    }

    std::size_t Asked() const { return asked_; }
    bool Gave(int rc) const { return given_.count(rc) > 0; }
    bool NodesVanished() const { return vanished_; }
    bool HasPath() const { return tree_.Find(ancestry_.back()) != nullptr; }
    /// Whether any answer was wrong or missing.
    bool WasTroubled() const { return troubled_; }

private:
    int Exists(const std::string& path)
    {
        const int rc = Answer(path, [&] { return tree_.Find(path) != nullptr ? ZOK : ZNONODE; });
        knownMissing_[path] = rc == ZNONODE;
        return rc;
    }

    int Create(const std::string& path)
    {
        Require(knownMissing_[path], "a node is made only where the last answer about it was that it is missing");
        knownMissing_[path] = false;
        return Answer(path, [&] {
            std::string created;
            return tree_.Create(path, 0, false, created);
        });
    }

    template <typename Work>
    int Answer(const std::string& path, Work&& work)
    {
        Require(std::find(ancestry_.begin(), ancestry_.end(), path) != ancestry_.end(), "no other node is touched");
        const char trouble = asked_ < script_.size() ? script_[asked_] : '.';
        ++asked_;
        const int rc = Trouble(trouble, path, work);
        given_.insert(rc);
        return rc;
    }

    template <typename Work>
    int Trouble(char trouble, const std::string& path, Work&& work)
    {
        switch (trouble)
        {
            case 'l':  // the answer is lost
                troubled_ = true;
                work();
                return ZCONNECTIONLOSS;
            case 'q':  // the question is lost
                troubled_ = true;
                return ZCONNECTIONLOSS;
            case 't':
                troubled_ = true;
                return ZOPERATIONTIMEOUT;
            case 'a':
                troubled_ = true;
                return ZNOAUTH;
            case 'x':
                troubled_ = true;
                return ZSESSIONEXPIRED;
            case 'c':  // somebody else makes the node and what is above it
                MakeUpTo(path);
                return work();
            case 'd':  // somebody else deletes all
                vanished_ = true;
                for (auto node = ancestry_.rbegin(); node != ancestry_.rend(); ++node)
                {
                    tree_.Delete(*node);
                }
                return work();
            default:
                return work();
        }
    }

    void MakeUpTo(const std::string& path)
    {
        std::string created;
        for (const std::string& node : ancestry_)
        {
            tree_.Create(node, 0, false, created);
            if (node == path)
            {
                return;
            }
        }
    }

    const std::string script_;
    const std::vector<std::string>& ancestry_;
    NodeTree tree_;
    std::map<std::string, bool> knownMissing_;
    std::set<int> given_;
    std::size_t asked_ = 0;
    bool troubled_ = false;
    bool vanished_ = false;
};

}  // namespace

void CheckInput(const std::string& input)
{
    // Three passes over the path, and three attempts for each node with a look after each.
    constexpr std::size_t kMostCallsPerNode = 3 + 3 * 3 * 2;
    InputLines lines(input);
    const std::string script = lines.Line();
    const std::string path = lines.Rest();
    if (!ExpectedComponents(path))
    {
        return;
    }
    const std::vector<std::string> ancestry = Ancestry(path);
    Troubled service(script, ancestry);
    const int rc = MakePath(ancestry, service.Calls());

    Require(service.Asked() <= kMostCallsPerNode * ancestry.size(), "it gives up after a while");
    if (rc == ZOK)
    {
        Require(service.NodesVanished() || service.HasPath(), "the path is there when it says so");
    }
    else
    {
        Require(service.Gave(rc), "an error is one that a call gave");
        Require(service.NodesVanished() || service.WasTroubled(), "nothing fails where nothing goes wrong");
    }
}

}  // namespace kx::velmor::testing_support
