#include "tests/unit/session_scripted_fixture.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

constexpr std::chrono::seconds kPatience{20};

Journal& EverlastingJournal()
{
    static auto& journal = *new Journal;
    return journal;
}

std::string Describe(int type, int state, const std::string& path)
{
    if (type == ZOO_SESSION_EVENT)
    {
        return std::string("session ") +
               (state == ZOO_CONNECTED_STATE         ? "connected"
                : state == ZOO_CONNECTING_STATE      ? "connecting"
                : state == ZOO_EXPIRED_SESSION_STATE ? "expired"
                : state == ZOO_AUTH_FAILED_STATE     ? "refused"
                                                     : "?") +
               path;
    }
    return std::string(type == ZOO_CREATED_EVENT   ? "created "
                       : type == ZOO_DELETED_EVENT ? "deleted "
                       : type == ZOO_CHANGED_EVENT ? "changed "
                                                   : "? ") +
           path + (state == ZOO_CONNECTED_STATE ? "" : " unconnected");
}

bool Mentions(const std::string& line, const std::string& text)
{
    return line.find(text) != std::string::npos;
}

}  // namespace

void Barrier::Open()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    opened_.notify_all();
}

void Barrier::Pass()
{
    std::unique_lock<std::mutex> lock(mutex_);
    EXPECT_TRUE(opened_.wait_for(lock, kPatience, [this] { return open_; })) << "nobody opened the barrier";
}

bool Barrier::IsOpen() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return open_;
}

Reply Code(int rc)
{
    Reply reply;
    reply.rc = rc;
    return reply;
}

Reply Refused(int rc)
{
    Reply reply;
    reply.refusal = rc;
    return reply;
}

Reply Held()
{
    Reply reply;
    reply.held = true;
    return reply;
}

Reply Always(Reply reply)
{
    reply.always = true;
    return reply;
}

Reply Created(const std::string& path)
{
    Reply reply;
    reply.path = path;
    return reply;
}

std::optional<int> ThrownCode(const std::function<void()>& act)
{
    try
    {
        act();
    }
    catch (const ZooError& error)
    {
        return error.Code();
    }
    return std::nullopt;
}

SessionScripted::SessionScripted() : journal(EverlastingJournal()), log(journal)
{
    journal.Take();
    options.servers = "127.0.0.1:2181";
    // Longer than any test, unless the test is about them.
    options.sessionTimeout = kPatience;
    options.connectTimeout = kPatience;
    options.operationTimeout = kPatience;
}

std::shared_ptr<Session> SessionScripted::OpenConnected()
{
    ExpectNext();
    auto session = Session::Open(options);
    journal.Take();
    return session;
}

void SessionScripted::Write(const Session& session, int rc)
{
    library.Expect(Sent::Create, "/n", Code(rc));
    EXPECT_EQ(session.Create("/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), rc);
}

std::future<int> SessionScripted::Writing(const Session& session)
{
    library.Expect(Sent::Create, "/n", Held());
    const std::size_t before = library.Asked().Count("1 create /n");
    auto rc = std::async(std::launch::async,
                         [&session] { return session.Create("/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr); });
    library.Asked().Await("1 create /n", before + 1);
    return rc;
}

Connection::WatchCallback SessionScripted::Noting(const std::string& name)
{
    return [this, name](int type, int state, const std::string& path) {
        journal.Note(name + " " + Describe(type, state, path));
    };
}

Connection::WatchHandle SessionScripted::Watch(const Session& session, const std::string& path, const std::string& name)
{
    library.Expect(Sent::WatchExists, options.rootPath + path);
    auto [rc, handle] = session.Exists(path, Noting(name), nullptr);
    EXPECT_EQ(rc, ZOK);
    return std::move(handle);
}

void SessionScripted::ExpectNext(int spare)
{
    Opening opening;
    opening.states = {ZOO_CONNECTED_STATE};
    for (int i = 0; i <= spare; ++i)
    {
        opening.optional = i > 0;
        library.ExpectOpen(opening);
    }
}

void SessionScripted::EndForGood(int handle)
{
    Opening silent;
    silent.optional = true;
    library.ExpectOpen(silent);
    library.Report(handle, ZOO_EXPIRED_SESSION_STATE);
}

void SessionScripted::Reconnect(int handle)
{
    library.Report(handle, ZOO_CONNECTING_STATE);
    library.Report(handle, ZOO_CONNECTED_STATE);
}

void SessionScripted::AwaitQuiet(const Session& session, int handle)
{
    const std::string path = options.rootPath + "/quiet";
    library.Expect(Sent::Sync, path, Always({}));
    library.Expect(Sent::WatchExists, path, Always({}));
    auto watched = session.Exists("/quiet", Noting("test"), nullptr);
    while (watched.first == ZOPERATIONTIMEOUT)
    {
        // The test needs short ones, and the machine is slow.
        watched = session.Exists("/quiet", Noting("test"), nullptr);
    }
    ASSERT_EQ(watched.first, ZOK);
    const std::size_t before = journal.Count("test deleted /quiet");
    library.Fire(handle, ZOO_DELETED_EVENT, path);
    journal.Await("test deleted /quiet", before + 1);
}

std::vector<std::string> SessionScripted::Told()
{
    std::vector<std::string> told = journal.Take();
    const auto toTest = [](const std::string& line) { return line.front() == '[' || line.rfind("test ", 0) == 0; };
    told.erase(std::remove_if(told.begin(), told.end(), toTest), told.end());
    return told;
}

std::vector<std::string> SessionScripted::AskedWith(const std::string& text) const
{
    const std::vector<std::string> all = library.Asked().Lines();
    std::vector<std::string> asked;
    std::copy_if(all.begin(), all.end(), std::back_inserter(asked),
                 [&](const std::string& line) { return Mentions(line, text); });
    return asked;
}

std::vector<std::string> SessionScripted::Logged(const std::string& text, const std::string& source) const
{
    std::vector<std::string> logged;
    for (const LogRecord& record : log.Records())
    {
        if (record.source->Name() == source && Mentions(record.text, text))
        {
            logged.push_back(record.text);
        }
    }
    return logged;
}

}  // namespace kx::velmor::testing_support
