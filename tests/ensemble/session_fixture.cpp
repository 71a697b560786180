#include "tests/ensemble/session_fixture.h"

#include "tests/support/expire_session.h"

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <tuple>

namespace kx::velmor::testing_support {

bool operator==(const Event& left, const Event& right)
{
    return std::tie(left.type, left.state, left.path) == std::tie(right.type, right.state, right.path);
}

std::ostream& operator<<(std::ostream& stream, const Event& event)
{
    return stream << "{type " << event.type << ", state " << event.state << ", \"" << event.path << "\"}";
}

Event SessionEvent(int state)
{
    return {ZOO_SESSION_EVENT, state, std::string()};
}

Event NodeEvent(int type, std::string path)
{
    return {type, ZOO_CONNECTED_STATE, std::move(path)};
}

struct EventRecorder::Data
{
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Event> events;

    void AwaitUntil(const std::string& what, const std::function<bool()>& condition)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!arrived.wait_for(lock, kPatience, condition))
        {
            throw std::runtime_error("waited in vain for " + what +
                                     "; told so far: " + ::testing::PrintToString(events));
        }
    }
};

EventRecorder::EventRecorder() : data_(std::make_shared<Data>()) {}

Connection::WatchCallback EventRecorder::Callback() const
{
    return [data = data_](int type, int state, std::string path) {
        const std::lock_guard<std::mutex> lock(data->mutex);
        data->events.push_back({type, state, std::move(path)});
        data->arrived.notify_all();
    };
}

std::vector<Event> EventRecorder::Events() const
{
    const std::lock_guard<std::mutex> lock(data_->mutex);
    return data_->events;
}

std::size_t EventRecorder::Callbacks() const
{
    return static_cast<std::size_t>(data_.use_count()) - 1;
}

void EventRecorder::Await(const Event& event) const
{
    data_->AwaitUntil(::testing::PrintToString(event), [&] {
        return std::find(data_->events.begin(), data_->events.end(), event) != data_->events.end();
    });
}

void EventRecorder::AwaitCount(std::size_t count) const
{
    data_->AwaitUntil(std::to_string(count) + " events", [&] { return data_->events.size() >= count; });
}

const std::vector<Operation>& Operations()
{
    static const std::vector<Operation> operations{
        {"Create", Request::Create,
         [](const Session& session, const std::string& path) {
             return session.Create(path, std::string(), ZOO_OPEN_ACL_UNSAFE, 0, nullptr);
         }},
        {"GetChildren", Request::GetChildren,
         [](const Session& session, const std::string& path) {
             std::vector<std::string> children;
             return session.GetChildren(path, children);
         }},
        {"Exists", Request::Exists,
         [](const Session& session, const std::string& path) {
             Stat stat{};
             return session.Exists(path, &stat);
         }},
        {"Exists with a watch", Request::Exists,
         [](const Session& session, const std::string& path) {
             return session
                 .Exists(
                     path, [](int, int, const std::string&) {}, nullptr)
                 .first;
         }},
        {"GuaranteedDelete", Request::Delete,
         [](const Session& session, const std::string& path) { return session.GuaranteedDelete(path); }},
        {"GetData", Request::GetData,
         [](const Session& session, const std::string& path) {
             std::string data;
             return session.GetData(path, data, nullptr);
         }},
        {"Transact", Request::Multi,
         [](const Session& session, const std::string& path) {
             TransactionResult result;
             return session.Transact({velmor::Operation::Set(path, "new")}, result);
         }},
    };
    return operations;
}

bool Answered(int rc)
{
    return rc != ZCONNECTIONLOSS && rc != ZOPERATIONTIMEOUT;
}

int AwaitAnswer(const std::function<int()>& call)
{
    int rc = ZCONNECTIONLOSS;
    Await("an answer", [&] { return Answered(rc = call()); });
    return rc;
}

std::pair<int, std::string> Create(const Session& session, const std::string& path, int flags, std::size_t room)
{
    std::string created(room, '\0');
    const int rc = session.Create(path, "data", ZOO_OPEN_ACL_UNSAFE, flags, &created);
    return {rc, created};
}

namespace {

zhandle_t* HandleFor(const std::string& server)
{
    constexpr int kSessionTimeout = 10'000;
    zhandle_t* const handle = zookeeper_init2(
        server.c_str(), [](zhandle_t*, int, int, const char*, void*) {}, kSessionTimeout, nullptr, nullptr,
        ZOO_NO_LOG_CLIENTENV, [](const char*) {});
    if (handle == nullptr)
    {
        throw std::runtime_error("no handle for " + server);
    }
    return handle;
}

}  // namespace

DataWriter::DataWriter(const std::string& server) : handle_(HandleFor(server))
{
    // Returns when there is a connection, so that its descriptor is not opened while a test counts them.
    zoo_exists(handle_, "/", 0, nullptr);
}

DataWriter::~DataWriter()
{
    zookeeper_close(handle_);
}

void DataWriter::Set(const std::string& path, const std::string& data)
{
    constexpr int kAnyVersion = -1;
    const int rc = zoo_set(handle_, path.c_str(), data.data(), static_cast<int>(data.size()), kAnyVersion);
    if (rc != ZOK)
    {
        throw std::runtime_error("set " + path + ": " + zerror(rc));
    }
}

std::chrono::milliseconds Since(std::chrono::steady_clock::time_point begin)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}

Resources ResourcesInUse()
{
    const auto count = [](const char* directory) {
        // Entries may go while they are counted.
        std::error_code ignored;
        std::size_t entries = 0;
        for (std::filesystem::directory_iterator next(directory, ignored), end; !ignored && next != end;
             next.increment(ignored))
        {
            ++entries;
        }
        return entries;
    };
    return {count("/proc/self/task"), count("/proc/self/fd")};
}

void AwaitResources(const Resources& before)
{
    const auto text = [](const Resources& resources) {
        return std::to_string(resources.threads) + " threads, " + std::to_string(resources.descriptors) +
               " descriptors";
    };
    Await(
        "no more than " + text(before),
        [&] {
            const Resources now = ResourcesInUse();
            return now.threads <= before.threads && now.descriptors <= before.descriptors;
        },
        kPatience, [&] { return "there are " + text(ResourcesInUse()); });
}

namespace {

std::unique_ptr<ZooKeeperServer> Started()
{
    auto server = std::make_unique<ZooKeeperServer>();
    server->Start();
    return server;
}

}  // namespace

SessionFixture::SessionFixture(std::int32_t minLogLevel)
    : log_(journal_, minLogLevel),
      server_(Started()),
      proxy_(server_->Address()),
      observer_(server_->Address()),
      writer_(server_->Address())
{}

SessionFixture::~SessionFixture()
{
    if (HasFailure())
    {
        for (const std::string& line : journal_.Lines())
        {
            std::cerr << line << '\n';
        }
    }
}

SessionOptions SessionFixture::Options() const
{
    SessionOptions options;
    options.servers = proxy_.Address();
    options.sessionTimeout = std::chrono::seconds(10);
    options.connectTimeout = kPatience;
    return options;
}

void SessionFixture::Expire(const Session& session)
{
    const std::unique_ptr<clientid_t> identity = session.ClientId();
    if (!identity)
    {
        throw std::runtime_error("there is no session to expire");
    }
    Expire(*identity);
}

void SessionFixture::Expire(const clientid_t& session)
{
    ExpireSession(proxy_, server_->Address(), session);
}

void SessionFixture::Disconnect()
{
    proxy_.Refuse();
    proxy_.Cut();
}

std::vector<std::future<int>> SessionFixture::CallAllUnanswered(const Session& session)
{
    std::vector<std::size_t> sent;
    for (const Operation& operation : Operations())
    {
        sent.push_back(proxy_.Forwarded(operation.request));
    }
    proxy_.BlackHole(Proxy::Direction::ToClient);
    std::vector<std::future<int>> calls;
    for (const Operation& operation : Operations())
    {
        calls.push_back(
            std::async(std::launch::async, [&session, &operation] { return operation.call(session, "/n"); }));
    }
    for (std::size_t i = 0; i < sent.size(); ++i)
    {
        // Two of them ask whether a node exists.
        const Request request = Operations()[i].request;
        Await(Operations()[i].name,
              [&] { return proxy_.Forwarded(request) >= sent[i] + (request == Request::Exists ? 2 : 1); });
    }
    return calls;
}

bool SessionFixture::Logged(const std::string& part) const
{
    const std::vector<LogRecord> records = log_.Records();
    return std::any_of(records.begin(), records.end(),
                       [&](const LogRecord& record) { return record.text.find(part) != std::string::npos; });
}

}  // namespace kx::velmor::testing_support
