#include "benchmarks/drivers/raw_handle.h"

#include <atomic>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string_view>
#include <utility>

namespace kx::velmor::benchmarks {

namespace {

class FloorContender final : public Contender
{
public:
    FloorContender(const Election& election, Gained gained)
        : electionPath_(election.path), gained_(std::move(gained)), handle_(election.servers, election.sessionTimeout)
    {}

    void Join() override
    {
        left_ = false;
        const std::string node = handle_.Create(electionPath_ + "/c-", ZOO_EPHEMERAL | ZOO_SEQUENCE);
        name_ = node.substr(electionPath_.size() + 1);
        Look();
    }

    void Leave() override
    {
        left_ = true;
        handle_.Delete(electionPath_ + "/" + name_);
    }

private:
    /// On the thread that joins, and then on the one that the library runs callbacks on.
    void Look()
    {
        for (;;)
        {
            String_vector listing{};
            Insist(zoo_get_children(handle_.Get(), electionPath_.c_str(), 0, &listing), "list " + electionPath_);
            // The last of those ahead; no need to sort for that.
            const char* ahead = nullptr;
            for (int i = 0; i < listing.count; ++i)
            {
                const char* const child = listing.data[i];
                if (name_ > child && (ahead == nullptr || std::string_view(child) > ahead))
                {
                    ahead = child;
                }
            }
            const std::string watched = ahead != nullptr ? electionPath_ + "/" + ahead : std::string();
            deallocate_String_vector(&listing);
            if (watched.empty())
            {
                gained_();
                return;
            }
            const int rc = zoo_wexists(handle_.Get(), watched.c_str(), &FloorContender::OnEvent, this, nullptr);
            if (rc != ZNONODE)
            {
                Insist(rc, "watch " + watched);
                return;
            }
        }
    }

    static void OnEvent(zhandle_t*, int type, int, const char*, void* context) noexcept
    {
        FloorContender& self = *static_cast<FloorContender*>(context);
        if (type != ZOO_DELETED_EVENT || self.left_)
        {
            return;
        }
        try
        {
            self.Look();
        }
        catch (const std::exception& error)
        {
            std::cerr << "velmor_bench_driver: " << error.what() << std::endl;
            std::_Exit(EXIT_FAILURE);
        }
    }

    const std::string electionPath_;
    const Gained gained_;
    std::string name_;
    std::atomic<bool> left_{true};
    /// Last, so that nothing calls back any more when the rest goes.
    const RawHandle handle_;
};

}  // namespace

std::unique_ptr<Contender> MakeFloor(const Election& election, Contender::Gained gained)
{
    return std::make_unique<FloorContender>(election, std::move(gained));
}

}  // namespace kx::velmor::benchmarks
