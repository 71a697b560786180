#include "tests/unit/memory_fixture.h"

namespace kx::velmor {

namespace {

std::string Describe(int type, int state, const std::string& path)
{
    if (type == ZOO_SESSION_EVENT)
    {
        EXPECT_EQ("", path);
        return state == ZOO_CONNECTED_STATE         ? "connected"
               : state == ZOO_CONNECTING_STATE      ? "connecting"
               : state == ZOO_EXPIRED_SESSION_STATE ? "expired"
                                                    : "state " + std::to_string(state);
    }
    EXPECT_EQ(ZOO_CONNECTED_STATE, state);
    return (type == ZOO_CREATED_EVENT   ? "created "
            : type == ZOO_CHANGED_EVENT ? "changed "
            : type == ZOO_DELETED_EVENT ? "deleted "
                                        : "event " + std::to_string(type) + " ") +
           path;
}

}  // namespace

MemoryTest::MemoryTest() : log(journal, 30), session(service.Open({"", kTimeout})), other(service.Open({"", kTimeout}))
{}

std::pair<int, std::string> MemoryTest::Create(const ElectionSession& creator, const std::string& path, int flags,
                                               const std::string& data)
{
    std::string created(200, ' ');
    const int rc = creator.Create(path, data, ZOO_OPEN_ACL_UNSAFE, flags, &created);
    return {rc, rc == ZOK ? created : std::string()};
}

std::pair<int, Connection::WatchHandle> MemoryTest::Watch(const ElectionSession& watcher, const std::string& path,
                                                          const std::string& label)
{
    return watcher.Exists(
        path,
        [this, label](int type, int state, const std::string& node) {
            journal.Note(label + ": " + Describe(type, state, node));
        },
        nullptr);
}

Connection::WatchHandle MemoryTest::Watching(const ElectionSession& watcher, const std::string& path,
                                             const std::string& label)
{
    auto [rc, handle] = Watch(watcher, path, label);
    EXPECT_TRUE(rc == ZOK || rc == ZNONODE) << zerror(rc);
    return std::move(handle);
}

Registration MemoryTest::Listen(ElectionSession& listened, const std::string& label)
{
    return listened.OnStateChange(
        [this, label](const SessionStatus& status) { journal.Note(label + ": " + ToString(status.state)); });
}

Registration MemoryTest::Hear(ElectionSession& heard)
{
    return heard.OnHeard([this](std::int64_t id, BootClock::time_point leaseEnd) {
        journal.Note("heard " + std::to_string(id) + " until " + At(leaseEnd));
    });
}

std::string MemoryTest::At(BootClock::time_point time) const
{
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(time - began).count());
}

std::vector<std::string> MemoryTest::Told()
{
    service.AwaitQuiet();
    return journal.Take();
}

std::optional<Stat> StatOfNode(const ElectionSession& session, const std::string& path)
{
    Stat stat{};
    const int rc = session.Exists(path, &stat);
    EXPECT_TRUE(rc == ZOK || rc == ZNONODE) << zerror(rc);
    return rc == ZOK ? std::make_optional(stat) : std::nullopt;
}

}  // namespace kx::velmor
